# nimbra_module(<name> SOURCES <files> DEPENDS <targets>)
#
# Makes the static library agent_<name> of the current folder. DEPENDS names every module whose
# headers the sources include; script/check-includes compares it with the includes.
function(nimbra_module name)
    cmake_parse_arguments(MODULE "" "" "SOURCES;DEPENDS" ${ARGN})
    add_library(agent_${name} STATIC ${MODULE_SOURCES})
    target_include_directories(agent_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src/agent")
    target_link_libraries(agent_${name} PUBLIC ${MODULE_DEPENDS} PRIVATE nimbra_flags)
endfunction()
