# The process itself: logging, configuration, credentials, the transport's address, start-up.

quil_add_tests(agent_process_tests
  config_manager_test.cpp credentials_test.cpp device_values_test.cpp failing_new.cpp log_test.cpp
  socket_address_test.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_core)
# The address builder's own allocation can be made to fail.
target_link_options(agent_process_tests PRIVATE -Wl,--wrap=calloc)

# With a system log of its own, which neither allocates nor needs much stack.
quil_add_tests(agent_log_cost_tests log_cost_test.cpp LIBRARIES quilagent_core)

# The real program.
quil_add_tests(agent_startup_tests startup_test.cpp LIBRARIES quilagent_core)
add_dependencies(agent_startup_tests quilagent)

# The program's main under another name, with stand-ins that can be told to be missing.
add_library(quilagent_main OBJECT ${CMAKE_SOURCE_DIR}/agent/main.cpp)
target_compile_definitions(quilagent_main PRIVATE main=quilagentMain)
target_link_libraries(quilagent_main PRIVATE quilagent_core)
quil_add_tests(agent_main_tests main_test.cpp ${QUIL_RECORDED_LOG}
  LIBRARIES quilagent_main quilagent_core)
foreach(function
    _ZN17QuilConfigManager11getInstanceEv _ZN15QuilDataManager11getInstanceEv
    _ZN18QuilSessionManager11getInstanceEv _Z12httpSetProxyPKci _Z14httpSetTimeouti)
  target_link_options(agent_main_tests PRIVATE -Wl,--wrap=${function})
endforeach()
