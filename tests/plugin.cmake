if(NOT WIN32)
  return()
endif()

# A process that tests start under the engine's and the updater's names.
add_executable(engine_child support/engine_child.cpp support/fake_engine.cpp support/loopback.cpp)
target_link_libraries(engine_child PRIVATE house ws2_32)
target_link_options(engine_child PRIVATE -s)  # it is copied for nearly every test

house_test(plugin_tests
  clamd_tests.cpp
  engine_process_tests.cpp
  exports_tests.cpp
  fault_tests.cpp
  log_tests.cpp
  scan_request_tests.cpp
  settings_tests.cpp
  socket_tests.cpp
  start_up_tests.cpp
  stream_scan_tests.cpp
  update_tests.cpp
  version_details_tests.cpp
  support/fake_engine.cpp
  support/loopback.cpp
  support/plugin_folder.cpp
  support/plugin_library.cpp
  ${PROJECT_SOURCE_DIR}/net/host_resolver.cpp
  ${PROJECT_SOURCE_DIR}/net/socket_connection.cpp
  ${PROJECT_SOURCE_DIR}/net/socket_errors.cpp)
target_link_libraries(plugin_tests PRIVATE ws2_32 version ntdll)
add_dependencies(plugin_tests CLAMDLL kestoav engine_child)
