quil_add_tests(agent_value_tests
  decimal_test.cpp push_message_test.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
