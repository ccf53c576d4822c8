if(NOT CMAKE_BUILD_TYPE STREQUAL Release)
  return()
endif()

add_test(NAME package COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package_tests.sh)
set_tests_properties(package PROPERTIES RUN_SERIAL ON TIMEOUT 300 SKIP_RETURN_CODE 77)
