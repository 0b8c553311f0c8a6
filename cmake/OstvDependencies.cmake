# Every external library of the project, found once for all folders.
set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTORCC ON)

find_package(Qt6 6.4 REQUIRED COMPONENTS Core Network HttpServer Test)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(Qt6Keychain REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(NGTCP2 REQUIRED IMPORTED_TARGET libngtcp2 libngtcp2_crypto_gnutls)
pkg_check_modules(GNUTLS REQUIRED IMPORTED_TARGET gnutls)
find_package(Threads REQUIRED)
if(OSTV_CLIENT)
  find_package(Qt6 6.4 REQUIRED COMPONENTS Gui Widgets WebEngineWidgets WebChannel DBus)
endif()
