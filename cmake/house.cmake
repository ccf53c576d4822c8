# The floors of the house. Each folder is one library, which names what it stands on with
# target_link_libraries. A program or library sees the headers of what it links and no others, so that an
# include that runs upward does not compile.

# How our own code is compiled. Libraries from elsewhere need not be free of these warnings.
add_library(house INTERFACE)
target_compile_options(house INTERFACE -Wall -Wextra -Wshadow -Wformat=2 -Werror)
if(WIN32)
  # GCC 12 reports overlaps in "text" + std::string that are impossible.
  target_compile_options(house INTERFACE -Wno-restrict)
  target_compile_definitions(house INTERFACE _WIN32_WINNT=0x0601 NOMINMAX WIN32_LEAN_AND_MEAN)
endif()

# The library NAME of the current folder. Its headers are included by the folder's path below the top: users
# see it through a folder of links that holds nothing else.
function(house_library name)
  add_library(${name} STATIC ${ARGN})
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE path)
  set(shown ${CMAKE_BINARY_DIR}/include/${name})
  cmake_path(GET path PARENT_PATH parent)
  file(MAKE_DIRECTORY ${shown}/${parent})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${shown}/${path} SYMBOLIC)
  target_include_directories(${name} PUBLIC ${shown})
  target_link_libraries(${name} PRIVATE house)
endfunction()

# The same for the plug-in's parts. An exception must never reach the host, and the processes of some hosts
# end even at one that the plug-in itself catches. So these parts have no exceptions. Its stack is the host's,
# too: no function takes more of it than a chunk of a scan needs.
function(plugin_library name)
  house_library(${name} ${ARGN})
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-Wframe-larger-than=9000>)
  target_compile_options(${name} PRIVATE -fno-exceptions)
endfunction()

# The version resource of the program or library `target`, and a program's manifest.
function(version_resource target description)
  string(REPLACE "." "," version_numbers "${PROJECT_VERSION}.0")
  set(file_type VFT_APP)
  set(suffix .exe)
  set(manifest "CREATEPROCESS_MANIFEST_RESOURCE_ID RT_MANIFEST \"${PROJECT_SOURCE_DIR}/cmake/program.manifest\"")
  get_target_property(type ${target} TYPE)
  if(type STREQUAL SHARED_LIBRARY)
    set(file_type VFT_DLL)
    set(suffix .dll)
    set(manifest "")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${target}.rc @ONLY)
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
  set_property(SOURCE ${resource} PROPERTY OBJECT_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/program.manifest)
  target_sources(${target} PRIVATE ${resource})
endfunction()
