quil_add_tests(agent_value_tests
  decimal_test.cpp failing_new.cpp push_message_log_test.cpp push_message_test.cpp
  ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
