# Every floor of the house has an include directory of its own, its door, in which its headers stand
# as "<folder>/<Header>.h". A target sees the doors of what it links, so a wrong include finds no
# file.

# nimbra_door(<target> <PUBLIC|PRIVATE> <door> <headers>...)
#
# Shows the headers of the current folder through <door> to <target>, and if PUBLIC to all that link
# it.
function(nimbra_door target scope door)
    cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)
    set(directory "${PROJECT_BINARY_DIR}/floors/${door}")
    file(MAKE_DIRECTORY "${directory}/${folder}")
    foreach(header IN LISTS ARGN)
        file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}/${header}" "${directory}/${folder}/${header}"
            SYMBOLIC)
    endforeach()
    target_include_directories(${target} ${scope} "${directory}")
endfunction()

# nimbra_floor(<name> SOURCES <files> HEADERS <files> MAY_USE <targets>)
#
# Makes the static library nimbra_<name> of the current folder, which may include what it names
# under MAY_USE, and what that stands on.
function(nimbra_floor name)
    cmake_parse_arguments(FLOOR "" "" "SOURCES;HEADERS;MAY_USE" ${ARGN})
    add_library(nimbra_${name} STATIC ${FLOOR_SOURCES})
    nimbra_door(nimbra_${name} PUBLIC ${name} ${FLOOR_HEADERS})
    target_link_libraries(nimbra_${name} PUBLIC ${FLOOR_MAY_USE} PRIVATE nimbra_flags)
endfunction()
