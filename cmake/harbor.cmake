# What every folder of the project shares: compiler flags, library and program helpers.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()
# Assertions here are a macro of our own, present in every build type.
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")

find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# The compiler cache may pass paths relative to the build folder.
file(RELATIVE_PATH HARBOR_FROM_BUILD ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}/.)
string(REGEX REPLACE "/+$" "" HARBOR_FROM_BUILD "${HARBOR_FROM_BUILD}")

# Flags of everything, tools and tests included. Programs are linked at fixed addresses so that
# static control blocks lie under 4 GiB; source paths in assertions are relative to the root.
add_library(harbor_flags INTERFACE)
target_include_directories(harbor_flags INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(harbor_flags INTERFACE
    -Wall -Wextra -Wshadow -Wconversion
    $<$<BOOL:${HARBOR_WERROR}>:-Werror>
    -fno-pie -fsigned-char -fexceptions
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${HARBOR_FROM_BUILD}/=
    -fdebug-prefix-map=${CMAKE_SOURCE_DIR}/= -fdebug-prefix-map=${HARBOR_FROM_BUILD}/=)
target_link_options(harbor_flags INTERFACE -no-pie)
target_link_libraries(harbor_flags INTERFACE Threads::Threads)
if(HARBOR_SANITIZE)
    target_compile_options(harbor_flags INTERFACE
        -fsanitize=${HARBOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(harbor_flags INTERFACE -fsanitize=${HARBOR_SANITIZE})
endif()

# Flags of what ships on the board, on top.
add_library(harbor_product_flags INTERFACE)
target_link_libraries(harbor_product_flags INTERFACE harbor_flags)
target_compile_options(harbor_product_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)

# All product libraries, linked as one group: any header's needs are met by linking `harbor`.
add_library(harbor INTERFACE)
target_link_libraries(harbor INTERFACE harbor_flags)
if(CMAKE_CROSSCOMPILING)
    target_sources(harbor INTERFACE ${CMAKE_SOURCE_DIR}/target/runtime.cpp)
endif()
set_property(GLOBAL PROPERTY HARBOR_LIBRARIES "")

# harbor_library(name sources...): one static library of the product, for one floor and folder.
function(harbor_library name)
    add_library(${name} STATIC ${ARGN})
    target_link_libraries(${name} PRIVATE harbor_product_flags)
    set_property(GLOBAL APPEND PROPERTY HARBOR_LIBRARIES ${name})
endfunction()

# harbor_program(name sources...): a program that links all product libraries.
function(harbor_program name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE harbor)
endfunction()

# harbor_tool(name sources...): a program or library outside the product.
function(harbor_tool name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE harbor_flags)
endfunction()

macro(harbor_add_folder folder)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/CMakeLists.txt)
        add_subdirectory(${folder})
    endif()
endmacro()

# Called once, after every product folder: fills the group that `harbor` stands for.
function(harbor_group_libraries)
    get_property(libraries GLOBAL PROPERTY HARBOR_LIBRARIES)
    if(libraries)
        string(JOIN "," group ${libraries})
        target_link_libraries(harbor INTERFACE "$<LINK_GROUP:RESCAN,${group}>")
    endif()
endfunction()
