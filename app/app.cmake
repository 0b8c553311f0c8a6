# The application shell and the executable.
add_library(ostvarren_appui STATIC
  ${CMAKE_CURRENT_LIST_DIR}/AdminPassword.cpp
  ${CMAKE_CURRENT_LIST_DIR}/AppDelegate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LoginViewController.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PreferencesViewController.cpp)
target_include_directories(ostvarren_appui PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(ostvarren_appui PUBLIC ostvarren_widgets ostvarren_admin Qt6::Widgets Qt6::WebEngineWidgets)

# The application icon, in the resources as well, for the window, the about box and the login screen:
# the scalable drawing and the rendered sizes (used where no SVG image plug-in is installed).
set(OSTV_ICON_SIZES 16 22 24 32 48 64 128 256 512)
set(OSTV_ICON_FILES ${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg)
set_source_files_properties(${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg PROPERTIES QT_RESOURCE_ALIAS ostvarren.svg)
foreach(size IN LISTS OSTV_ICON_SIZES)
  set(png ${CMAKE_SOURCE_DIR}/resources/icons/hicolor/${size}x${size}/apps/ostvarren.png)
  set_source_files_properties(${png} PROPERTIES QT_RESOURCE_ALIAS ostvarren-${size}.png)
  list(APPEND OSTV_ICON_FILES ${png})
endforeach()
qt_add_resources(ostvarren_appui app_icons PREFIX /icons FILES ${OSTV_ICON_FILES})

qt_add_executable(ostvarren ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${CMAKE_CURRENT_LIST_DIR}/AppWiring.cpp)
target_link_libraries(ostvarren PRIVATE ostvarren_appui ostvarren_workspace)

# cmake --install: the program, its desktop entry and its icon in every size, so that a desktop's
# launcher lists it.
include(GNUInstallDirs)
install(TARGETS ostvarren RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/resources/ostvarren.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${CMAKE_SOURCE_DIR}/resources/icons/ostvarren.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
foreach(size IN LISTS OSTV_ICON_SIZES)
  install(FILES ${CMAKE_SOURCE_DIR}/resources/icons/hicolor/${size}x${size}/apps/ostvarren.png
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
endforeach()
