# The relay link: the QUIC engine and transport on ngtcp2 + GnuTLS, and the connection manager.
target_sources(ostvarren_core PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/QuicEngine.cpp
  ${CMAKE_CURRENT_LIST_DIR}/QUICTransport.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ConnectionManager.cpp)
target_link_libraries(ostvarren_core PUBLIC PkgConfig::NGTCP2 PkgConfig::GNUTLS Threads::Threads)
