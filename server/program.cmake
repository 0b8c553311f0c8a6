# ostvarren-server: the relay and agent logic as a library (tested in-process), and the program that
# wires it to the QUIC server and the admin HTTP API.
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

# The QUIC server and the admin API are separate parts; the program is built once both are there.
set(_ostv_quic_target "")
foreach(t ostvarren_quic_server ostvarren_quicserver ostvarren_server_quic ostvarren_quic)
  if(TARGET ${t} AND _ostv_quic_target STREQUAL "")
    set(_ostv_quic_target ${t})
  endif()
endforeach()
if(_ostv_quic_target AND TARGET ostvarren_adminapi)
  add_executable(ostvarren-server main.cpp relay/QuicControllerLink.cpp relay/QuicControllerLink.h)
  target_link_libraries(ostvarren-server PRIVATE ostvarren_server_logic ostvarren_adminapi ${_ostv_quic_target})
else()
  message(STATUS "ostvarren-server: waiting for the QUIC server and admin API libraries; program not built")
endif()
