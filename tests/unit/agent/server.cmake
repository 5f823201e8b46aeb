# The push server side: HTTP transport, registration and the push listener, each against real sockets.
if(NOT TARGET PkgConfig::HTTPLIB)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
quil_add_tests(agent_server_tests
  http_values_test.cpp http_get_test.cpp http_proxy_test.cpp server_registration_test.cpp
  server_registration_answers_test.cpp server_listen_test.cpp push_listener_test.cpp
  push_listener_limits_test.cpp server_fixture.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core PkgConfig::HTTPLIB)
