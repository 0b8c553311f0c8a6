# ostvarren-server: the relay and agent logic as a library (tested in-process), and the program that
# wires it to the QUIC listener and the admin HTTP API; ostvarren-agent, the same agent on another
# machine behind its link to the relay.
add_library(ostvarren_server_logic STATIC
  relay/ControllerLink.h
  relay/Relay.cpp
  agent/Agent.cpp
  agent/PtyProcess.cpp
  agent/SystemLoad.cpp
  program/ServerOptions.cpp
  program/AgentOptions.cpp
  relay/AgentPort.cpp
  relay/QuicControllerLink.cpp
  link/AgentWire.cpp
  link/RemoteAgent.cpp
  link/AgentHub.cpp
  link/AgentClient.cpp
)
target_include_directories(ostvarren_server_logic PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(ostvarren_server_logic PUBLIC ostvarren_core ostvarren_quicserver ostvarren_server_guard Qt6::Core Qt6::Network PRIVATE util)

add_executable(ostvarren-server main.cpp)
target_link_libraries(ostvarren-server PRIVATE ostvarren_server_logic ostvarren_adminapi)

# ostvarren-agent: one agent on a controlled machine, dialling out to the relay.
add_executable(ostvarren-agent agent_main.cpp)
target_link_libraries(ostvarren-agent PRIVATE ostvarren_server_logic)

# cmake --install: both programs, each with its systemd unit (a system unit for the relay host, a user
# unit for the agent). The units name the programs where this install puts them.
include(GNUInstallDirs)
install(TARGETS ostvarren-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)
install(TARGETS ostvarren-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT agent)
foreach(unit IN ITEMS "server;system" "agent;user")
  list(GET unit 0 part)
  list(GET unit 1 kind)
  set(src ${CMAKE_SOURCE_DIR}/resources/systemd/ostvarren-${part}.service.in)
  install(CODE "
    file(READ \"${src}\" text)
    string(REPLACE \"@CMAKE_INSTALL_FULL_BINDIR@\" \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\" text \"\${text}\")
    set(dest \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/${kind}\")
    file(MAKE_DIRECTORY \"\${dest}\")
    file(WRITE \"\${dest}/ostvarren-${part}.service\" \"\${text}\")
    message(STATUS \"Installing: \${dest}/ostvarren-${part}.service\")
  " COMPONENT ${part})
endforeach()
