set(bridge_portable ${PROJECT_SOURCE_DIR}/bridge/framing.cpp ${PROJECT_SOURCE_DIR}/bridge/upstreams.cpp)
house_test(bridge_framing_tests bridge_framing_tests.cpp ${bridge_portable})

if(WIN32)
  house_test(bridge_tests bridge_tests.cpp
    support/bridge_process.cpp support/fake_clamd.cpp support/fake_engine.cpp support/loopback.cpp)
  target_link_libraries(bridge_tests PRIVATE ws2_32)
  add_dependencies(bridge_tests kestoav)
else()
  house_fuzz(bridge_framing ${bridge_portable})
endif()
