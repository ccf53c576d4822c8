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
