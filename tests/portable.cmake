set(portable_parts
  ${PROJECT_SOURCE_DIR}/engine/byte_shift.cpp
  ${PROJECT_SOURCE_DIR}/engine/reply_verdict.cpp
  ${PROJECT_SOURCE_DIR}/plugin/server_list.cpp)

house_test(portable_tests portable_tests.cpp ${portable_parts})
if(NOT WIN32)
  foreach(part IN ITEMS reply_verdict server_list byte_shift)
    house_fuzz(${part} ${portable_parts})
  endforeach()
endif()
