quil_add_tests(agent_client_tests
  client_if_test.cpp client_reply_test.cpp client_request_test.cpp clients_fixture.cpp
  completion_test.cpp event_loop_init_test.cpp event_loop_test.cpp push_delivery_test.cpp
  session_requests_test.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
