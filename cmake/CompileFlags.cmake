# Flags that every target of the project is built with.
add_library(nimbra_common_flags INTERFACE)
# Those and the instrumentation: sanitizers, coverage counters, stack protection. Products and their
# unit tests are built with it. System tests are not: they see a product only from outside, and with the
# address sanitizer they would take several times as long to compile.
add_library(nimbra_flags INTERFACE)
target_link_libraries(nimbra_flags INTERFACE nimbra_common_flags)

# The warnings that GCC and Clang share. They are errors only in the presets: another compiler may find
# more.
target_compile_options(nimbra_common_flags INTERFACE
    $<$<CXX_COMPILER_ID:GNU,Clang>:-Wall;-Wextra;-Wpedantic;-Wshadow;-Wconversion;-Wsign-conversion>
    $<$<CXX_COMPILER_ID:GNU,Clang>:-Wformat=2;-Wundef;-Wcast-align;-Wcast-qual;-Wimplicit-fallthrough>
    $<$<CXX_COMPILER_ID:GNU,Clang>:-Wdouble-promotion;-Wswitch-enum>
    $<$<COMPILE_LANG_AND_ID:CXX,GNU,Clang>:-Wold-style-cast;-Woverloaded-virtual;-Wnon-virtual-dtor>
    $<$<BOOL:${NIMBRA_WERROR}>:-Werror>)
# 64-bit files and times on 32-bit boards too: dates after 2038 are computed alike everywhere.
target_compile_definitions(nimbra_common_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(NIMBRA_SANITIZE)
    # The thread sanitizer must see all code of a program: it must not miss that a thread waits.
    set(sanitized nimbra_flags)
    if(NIMBRA_SANITIZE STREQUAL "thread")
        set(sanitized nimbra_common_flags)
    endif()
    target_compile_options(${sanitized} INTERFACE
        -fsanitize=${NIMBRA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(nimbra_common_flags INTERFACE -fsanitize=${NIMBRA_SANITIZE})
endif()

# Keeps the thread sanitizer from losing a signal that comes early; does nothing in other builds.
function(nimbra_takes_signals target)
    if(NIMBRA_SANITIZE STREQUAL "thread")
        target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support/sanitizers/FirstWait.cpp")
    endif()
endfunction()

if(NIMBRA_COVERAGE)
    # The compile options are in src/agent and tests/unit.
    target_link_options(nimbra_common_flags INTERFACE --coverage)
endif()

if(NIMBRA_FUZZ)
    # Reports to a fuzzer which parts of the code an input reaches. Not the operands of comparisons: they
    # help with binary input, and to report them takes a good part of the time.
    target_compile_options(nimbra_flags INTERFACE
        -fsanitize=fuzzer-no-link -fno-sanitize-coverage=trace-cmp)
    target_link_options(nimbra_common_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(NIMBRA_HARDEN)
    # A library for applications is position-independent by a flag of its own, which -fPIE would undo.
    target_compile_options(nimbra_common_flags INTERFACE
        $<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fPIE>)
    # _FORTIFY_SOURCE needs an optimised build; some compilers define it already.
    target_compile_options(nimbra_flags INTERFACE
        -fstack-protector-strong -ffunction-sections -fdata-sections
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
    target_link_options(nimbra_common_flags INTERFACE
        -pie -Wl,-z,relro,-z,now -Wl,--gc-sections -Wl,--as-needed)
endif()
