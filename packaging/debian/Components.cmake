# Lists of the components of the packages, as CycloneDX documents in JSON: what is compiled into the
# programs and what they are linked with, with versions and licences (identifiers of SPDX).

# component(<id> <name> <version> <licence> <file>): <file> is the shared library, empty for headers
# that are compiled in. The licence is an identifier or an expression.
function(component id name version licence file)
    if(licence MATCHES " ")
        set(licence "{ \"expression\": \"${licence}\" }")
    else()
        set(licence "{ \"license\": { \"id\": \"${licence}\" } }")
    endif()
    if(file)
        set(use "linked dynamically: ${file}")
    else()
        set(use "compiled in")
    endif()
    set(component_${id} "    {
      \"type\": \"library\",
      \"bom-ref\": \"${id}\",
      \"name\": \"${name}\",
      \"version\": \"${version}\",
      \"licenses\": [ ${licence} ],
      \"properties\": [ { \"name\": \"use\", \"value\": \"${use}\" } ]
    }" PARENT_SCOPE)
endfunction()

# components_list(<component> <package> <id>...): writes the list of a package and installs it.
function(components_list component package)
    set(entries "")
    foreach(id IN LISTS ARGN)
        list(APPEND entries "${component_${id}}")
    endforeach()
    list(JOIN entries ",\n" entries)
    list(TRANSFORM ARGN REPLACE "(.+)" "\"\\1\"" OUTPUT_VARIABLE references)
    list(JOIN references ", " references)
    set(file "${CMAKE_CURRENT_BINARY_DIR}/${package}.cdx.json")
    file(CONFIGURE OUTPUT "${file}" @ONLY CONTENT [[
{
  "bomFormat": "CycloneDX",
  "specVersion": "1.4",
  "version": 1,
  "metadata": {
    "component": {
      "type": "application",
      "bom-ref": "@package@",
      "name": "@package@",
      "version": "@NIMBRA_VERSION@-@revision@",
      "licenses": [ { "license": { "name": "All rights reserved; see the copyright file" } } ]
    }
  },
  "components": [
@entries@
  ],
  "dependencies": [ { "ref": "@package@", "dependsOn": [ @references@ ] } ]
}
]])
    install(FILES "${file}" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}"
        RENAME components.cdx.json COMPONENT ${component}-debian EXCLUDE_FROM_ALL)
endfunction()

# defined_numbers(<variable> <header> <macro>...): the values of macros of a header, joined by dots.
function(defined_numbers variable header)
    set(numbers "")
    foreach(macro IN LISTS ARGN)
        file(STRINGS "${header}" line REGEX "^#define[ \t]+${macro}[ \t]+[0-9]+" LIMIT_COUNT 1)
        string(REGEX REPLACE "^#define[ \t]+${macro}[ \t]+([0-9]+).*" "\\1" number "${line}")
        list(APPEND numbers "${number}")
    endforeach()
    list(JOIN numbers "." numbers)
    set(${variable} "${numbers}" PARENT_SCOPE)
endfunction()

find_path(FEATURES_INCLUDE_DIR features.h
    PATHS ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
defined_numbers(glibc "${FEATURES_INCLUDE_DIR}/features.h" __GLIBC__ __GLIBC_MINOR__)
defined_numbers(libedit "${LIBEDIT_INCLUDE_DIR}/histedit.h" LIBEDIT_MAJOR LIBEDIT_MINOR)
defined_numbers(libcsv "${LIBCSV_INCLUDE_DIR}/csv.h" CSV_MAJOR CSV_MINOR CSV_RELEASE)
component(sqlite SQLite "${SQLite3_VERSION}" blessing libsqlite3.so.0)
component(openssl "OpenSSL libcrypto" "${OPENSSL_VERSION}" Apache-2.0 libcrypto.so.3)
component(libstdcxx libstdc++ "${CMAKE_CXX_COMPILER_VERSION}"
    "GPL-3.0-or-later WITH GCC-exception-3.1" libstdc++.so.6)
component(glibc "GNU C library" "${glibc}" LGPL-2.1-or-later libc.so.6)
component(libedit libedit "${libedit}" BSD-3-Clause libedit.so.2)
component(libcsv libcsv "${libcsv}" LGPL-2.1-or-later libcsv.so.3)
component(cli11 CLI11 "${CLI11_VERSION}" BSD-3-Clause "")
component(nlohmann-json "JSON for Modern C++" "${nlohmann_json_VERSION}" MIT "")

components_list(agent nimbra-agent sqlite openssl libstdcxx glibc)
components_list(ctl nimbractl cli11 nlohmann-json libedit libcsv libstdcxx glibc)
components_list(dev libnimbra-client-dev)
components_list(simulator nimbra-simulator cli11 nlohmann-json sqlite openssl libstdcxx glibc)
