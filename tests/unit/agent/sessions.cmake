quil_add_tests(agent_session_tests
  session_test.cpp session_push_sockets_test.cpp session_state_test.cpp session_manager_test.cpp
  session_threads_test.cpp sessions_fixture.cpp ${CMAKE_SOURCE_DIR}/tests/support/scarce_memory.cpp
  ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)

quil_add_tests(agent_message_tests
  messages_test.cpp message_queue_test.cpp msg_handler_test.cpp sessions_fixture.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/scarce_memory.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
# The one failure of the queue that nothing can provoke is put in front of the C library's wait.
target_link_options(agent_message_tests PRIVATE -Wl,--wrap=pthread_cond_wait)

quil_add_tests(agent_saved_sessions_tests
  data_manager_test.cpp saved_sessions_test.cpp sessions_fixture.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/scarce_memory.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
