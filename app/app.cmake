# The application shell and the executable.
add_library(ostvarren_appui STATIC
  ${CMAKE_CURRENT_LIST_DIR}/AdminPassword.cpp
  ${CMAKE_CURRENT_LIST_DIR}/AppDelegate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LoginViewController.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PreferencesViewController.cpp)
target_include_directories(ostvarren_appui PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(ostvarren_appui PUBLIC ostvarren_widgets ostvarren_admin Qt6::Widgets Qt6::WebEngineWidgets)

qt_add_executable(ostvarren ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${CMAKE_CURRENT_LIST_DIR}/AppWiring.cpp)
target_link_libraries(ostvarren PRIVATE ostvarren_appui ostvarren_workspace)
set_source_files_properties(${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg PROPERTIES QT_RESOURCE_ALIAS ostvarren.svg)
qt_add_resources(ostvarren app_icons PREFIX /icons FILES ${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg)

include(GNUInstallDirs)
install(TARGETS ostvarren RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/resources/ostvarren.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
