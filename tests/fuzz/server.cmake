# The server's reading of what clients send. The relay and agent logic is built here from its sources
# with a shell stand-in in place of the real terminal code, so that no input starts a process.
set(_server ${PROJECT_SOURCE_DIR}/server)
add_executable(fuzz_relay_requests fuzz_relay_requests.cpp PtyStandIn.cpp
  ${_server}/relay/Relay.cpp ${_server}/relay/Relay.h ${_server}/relay/ControllerLink.h
  ${_server}/relay/AgentPort.cpp ${_server}/relay/AgentPort.h
  ${_server}/agent/Agent.cpp ${_server}/agent/Agent.h ${_server}/agent/PtyProcess.h)
target_include_directories(fuzz_relay_requests PRIVATE ${_server} ${PROJECT_SOURCE_DIR}/tests/server
  ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(fuzz_relay_requests PRIVATE ostvarren_core ostvarren_server_guard Qt6::Core)
target_compile_options(fuzz_relay_requests PRIVATE -fsanitize=fuzzer)
target_link_options(fuzz_relay_requests PRIVATE -fsanitize=fuzzer)
add_executable(fuzz_admin_requests fuzz_admin_requests.cpp)
target_link_libraries(fuzz_admin_requests PRIVATE ostvarren_adminapi nlohmann_json::nlohmann_json)
target_compile_options(fuzz_admin_requests PRIVATE -fsanitize=fuzzer)
target_link_options(fuzz_admin_requests PRIVATE -fsanitize=fuzzer)
