# Shared by the cross toolchains. The libraries are those that script/sysroot unpacks; programs of
# the build itself come from this machine, and an emulator runs programs for the panel.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${NIMBRA_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NIMBRA_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NIMBRA_TRIPLET})

cmake_path(SET CMAKE_SYSROOT NORMALIZE
    "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${NIMBRA_DEBIAN_ARCHITECTURE}")
if(NOT EXISTS "${CMAKE_SYSROOT}")
    message(FATAL_ERROR "No libraries for ${NIMBRA_DEBIAN_ARCHITECTURE}: "
        "run script/sysroot ${NIMBRA_DEBIAN_ARCHITECTURE} first")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${NIMBRA_EMULATOR} -L "${CMAKE_SYSROOT}")
