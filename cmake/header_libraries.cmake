# Asio, CLI11 and nlohmann-json are header-only packages under /usr/include. The cross compiler must see
# these headers and none of the machine's own, so it gets a folder with links to just these.
set(linked_headers ${CMAKE_BINARY_DIR}/linked_headers)
file(MAKE_DIRECTORY ${linked_headers})
foreach(name IN ITEMS asio asio.hpp CLI nlohmann)
  if(NOT EXISTS /usr/include/${name})
    message(FATAL_ERROR "/usr/include/${name} is missing: run scripts/setup")
  endif()
  file(CREATE_LINK /usr/include/${name} ${linked_headers}/${name} SYMBOLIC)
endforeach()

add_library(asio INTERFACE)
target_include_directories(asio SYSTEM INTERFACE ${linked_headers})
# The last two are what Asio finds for itself with GCC, but not with the clang of the linter.
# GCC 12 takes the freeing of a coroutine's frame, which Asio allocates itself, for a mismatch.
target_compile_options(asio INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-mismatched-new-delete>)
target_compile_definitions(asio INTERFACE ASIO_STANDALONE ASIO_HAS_CO_AWAIT ASIO_HAS_STD_COROUTINE)
target_link_libraries(asio INTERFACE ws2_32 mswsock)

add_library(cli11 INTERFACE)
target_include_directories(cli11 SYSTEM INTERFACE ${linked_headers})

add_library(nlohmann_json INTERFACE)
target_include_directories(nlohmann_json SYSTEM INTERFACE ${linked_headers})
