if(TARGET ostvarren_quicserver)
  add_executable(bench_relay_link ${CMAKE_CURRENT_LIST_DIR}/bench_relay_link.cpp)
  target_link_libraries(bench_relay_link PRIVATE ostvarren_core ostvarren_quicserver)
endif()
