# ostvarren-server: the relay and agent logic as a library (tested in-process), and the program that
# wires it to the QUIC listener and the admin HTTP API.
add_library(ostvarren_server_logic STATIC
  relay/ControllerLink.h
  relay/Relay.cpp
  agent/Agent.cpp
  agent/PtyProcess.cpp
  agent/SystemLoad.cpp
  program/ServerOptions.cpp
)
target_include_directories(ostvarren_server_logic PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(ostvarren_server_logic PUBLIC ostvarren_core Qt6::Core Qt6::Network PRIVATE util)

add_executable(ostvarren-server main.cpp relay/QuicControllerLink.cpp relay/QuicControllerLink.h)
target_link_libraries(ostvarren-server PRIVATE ostvarren_server_logic ostvarren_adminapi ostvarren_quicserver)
