# Programs over the send path.
set(RUK_SEND_TEST_SUPPORT $<TARGET_OBJECTS:rig_send_rig> $<TARGET_OBJECTS:rig_recv_frames>
    $<TARGET_OBJECTS:rig_driver_script>)
ruk_unit_test(libruk_send_tests ${RUK_SEND_TEST_SUPPORT}
    send_request_test.cpp
    send_completion_test.cpp
    send_checksum_test.cpp
    send_wait_test.cpp
    send_copy_test.cpp)
ruk_compile_together(libruk_send_tests 5)

# Sending and the copy are built into this one over a vocabulary that writes down each access; the archive's are not
# linked.
ruk_unit_test(libruk_send_order_tests ${RUK_SEND_TEST_SUPPORT} send_order_test.cpp)
target_compile_options(libruk_send_order_tests PRIVATE ${RUK_AS_PRODUCT})

# Routes, next hops and send handles.
ruk_unit_test(libruk_route_tests ${RUK_SEND_TEST_SUPPORT}
    route_table_test.cpp
    route_resolve_test.cpp)
ruk_compile_together(libruk_route_tests 2)
ruk_unit_test(libruk_handle_tests ${RUK_SEND_TEST_SUPPORT}
    send_connect_test.cpp
    send_handle_test.cpp
    send_adapter_test.cpp)
ruk_compile_together(libruk_handle_tests 3)
