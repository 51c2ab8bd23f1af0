# Programs over the receive path alone: an endpoint of plain memory, no adapter.
function(ruk_receive_test name)
  add_executable(${name} ${ARGN} $<TARGET_OBJECTS:rig_recv_rig> $<TARGET_OBJECTS:rig_recv_frames>)
  target_link_libraries(${name} PRIVATE test_support ruk_static GTest::gtest)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  ruk_discover_tests(${name} TIMEOUT 300 SOURCES ${ARGN})
endfunction()

ruk_receive_test(libruk_recv_tests
    recv_event_test.cpp
    recv_clock_test.cpp
    recv_datagram_test.cpp
    recv_raw_test.cpp
    recv_wait_test.cpp
    recv_ways_test.cpp
    stats_report_test.cpp)
ruk_compile_together(libruk_recv_tests 7)

# Receiving and the clock are built into this one over a vocabulary that writes down each access; the archive's are not
# linked.
ruk_receive_test(libruk_recv_order_tests recv_order_test.cpp)
target_compile_options(libruk_recv_order_tests PRIVATE ${RUK_AS_PRODUCT})

ruk_receive_test(libruk_arista_tests
    $<TARGET_OBJECTS:rig_arista_model>
    arista_keyframe_test.cpp
    arista_dating_test.cpp
    arista_settings_test.cpp)
ruk_compile_together(libruk_arista_tests 3)
# Millions of frames through a model.
target_compile_options(libruk_arista_tests PRIVATE ${RUK_OPTIMISED})

# Through the public calls and the stepped adapter.
ruk_unit_test(libruk_recv_adapter_tests recv_adapter_test.cpp $<TARGET_OBJECTS:rig_recv_frames>)
ruk_unit_test(libruk_switch_adapter_tests switch_adapter_test.cpp $<TARGET_OBJECTS:rig_arista_model>
               $<TARGET_OBJECTS:rig_recv_frames>)
