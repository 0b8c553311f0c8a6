# The relay link against the real QUIC listener over loopback.
if(TARGET ostvarren_quicserver)
  ostv_add_gtest(core_relay_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/relay/test_quic_transport.cpp ${CMAKE_CURRENT_LIST_DIR}/relay/test_connection_manager.cpp
    LIBS ostvarren_core ostvarren_quicserver ostv_test_main_core
    TIMEOUT 120)
endif()
