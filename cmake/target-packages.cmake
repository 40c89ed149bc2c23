# How find_package is answered in a build for the board's processor, for which Debian has no
# packages: GoogleTest is built from the sources that Debian ships, and libraries that are headers
# only are the workstation's own, without the other headers of the folder that they lie in. Line
# editing is found where target/build-readline.sh has left it; without, the shell reads plain lines.
set(HARBOR_HEADER_PACKAGES "nlohmann_json" "CLI11" CACHE INTERNAL "")
set(HARBOR_HEADERS_nlohmann_json /usr/include/nlohmann CACHE INTERNAL "")
set(HARBOR_HEADERS_CLI11 /usr/include/CLI CACHE INTERNAL "")

macro(harbor_provide_package method package)
    if("${package}" STREQUAL "GTest")
        if(NOT TARGET gtest)
            set(INSTALL_GTEST OFF)
            add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
        endif()
        set(GTest_FOUND TRUE)
    elseif("${package}" IN_LIST HARBOR_HEADER_PACKAGES)
        if(NOT TARGET ${package}::${package})
            get_filename_component(_folder ${HARBOR_HEADERS_${package}} NAME)
            file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/headers/${package})
            file(CREATE_LINK ${HARBOR_HEADERS_${package}}
                ${CMAKE_BINARY_DIR}/headers/${package}/${_folder} SYMBOLIC)
            add_library(${package}::${package} INTERFACE IMPORTED)
            target_include_directories(${package}::${package} INTERFACE
                ${CMAKE_BINARY_DIR}/headers/${package})
        endif()
        set(${package}_FOUND TRUE)
    endif()
endmacro()
cmake_language(SET_DEPENDENCY_PROVIDER harbor_provide_package SUPPORTED_METHODS FIND_PACKAGE)

execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../target/build-readline.sh --cached
    OUTPUT_VARIABLE _readline OUTPUT_STRIP_TRAILING_WHITESPACE)
if(_readline)
    list(APPEND CMAKE_FIND_ROOT_PATH ${_readline})
endif()
