set(host_portable_parts
  ${PROJECT_SOURCE_DIR}/host/database_age.cpp
  ${PROJECT_SOURCE_DIR}/host/ini_lint.cpp
  ${PROJECT_SOURCE_DIR}/host/json.cpp
  ${PROJECT_SOURCE_DIR}/host/progress.cpp)

house_test(host_portable_tests host_portable_tests.cpp ${host_portable_parts})
if(NOT WIN32)
  house_fuzz(ini_lint ${PROJECT_SOURCE_DIR}/host/ini_lint.cpp)
  return()
endif()

house_test(host_tests
  host_check_tests.cpp
  host_tests.cpp
  support/fake_engine.cpp
  support/kestoscan_run.cpp
  support/loopback.cpp
  support/plugin_folder.cpp
  support/plugin_library.cpp
  ${PROJECT_SOURCE_DIR}/host/test_samples.cpp)
target_link_libraries(host_tests PRIVATE ws2_32)
add_dependencies(host_tests CLAMDLL engine_child kestoscan)
