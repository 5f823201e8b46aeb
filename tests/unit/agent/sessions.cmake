quil_add_tests(agent_session_tests
  session_test.cpp session_push_sockets_test.cpp session_state_test.cpp session_manager_test.cpp
  session_threads_test.cpp sessions_fixture.cpp ${CMAKE_SOURCE_DIR}/tests/support/scarce_memory.cpp
  ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
