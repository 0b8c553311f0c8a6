# cpack -G DEB: three Debian packages, the desktop client (ostvarren), the relay and admin API
# (ostvarren-server, with its system unit) and the agent (ostvarren-agent, with its user unit).
set(CPACK_PACKAGE_NAME ostvarren)
set(CPACK_PACKAGE_VENDOR "Ostvarren")
set(CPACK_PACKAGE_CONTACT "Ostvarren developers <dev@ostvarren.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Remote terminals on many machines through one relay")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Staged with DESTDIR under the real prefix, so that what the install writes into files (the units'
# ExecStart) names /usr/bin and not the staging folder. dpkg-shlibdeps (dpkg-dev) and file work out
# each package's library dependencies.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
# Installing and packaging need the three programs built, not every test and benchmark: "cmake --install"
# and cpack do not build the whole tree first (build the programs, then package them).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL client server agent)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME ostvarren)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION x11)
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "Ostvarren desktop client: terminals on the relay's agents, in tabs")
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME ostvarren-server)
set(CPACK_COMPONENT_SERVER_DESCRIPTION "Ostvarren relay and admin API (systemd unit ostvarren-server)")
set(CPACK_DEBIAN_AGENT_PACKAGE_NAME ostvarren-agent)
set(CPACK_COMPONENT_AGENT_DESCRIPTION "Ostvarren agent: dials out to a relay and serves this machine's shells (user unit ostvarren-agent)")
include(CPack)
