# What `cmake --install` puts down beside the platform's libraries, and the Debian package of it.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME})

install(TARGETS vel_chi_desktop_helper EXPORT product LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(vel_chi_desktop_helper PROPERTIES INSTALL_RPATH "$ORIGIN/${PROJECT_NAME};${ANDROID_LIBDIR}")
install(FILES
  helper/VelChiDesktopHelper.h imgsub/Export.h imgsub/VelImgSubHelper.h libveljsonutils/ThreadSafety.h metadata/DesktopCaptureMetadata.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${PROJECT_NAME})

set(programs camera_server desktop_app desktop_console desktop_run desktop_service)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_FULL_BINDIR} OUTPUT_VARIABLE lib_from_bin)
set_target_properties(${programs} PROPERTIES
  INSTALL_RPATH "$ORIGIN/${lib_from_bin};$ORIGIN/${lib_from_bin}/${PROJECT_NAME};${ANDROID_LIBDIR}")
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY simulator/console/page/ DESTINATION ${CMAKE_INSTALL_DATADIR}/${PROJECT_NAME}/console)

# The CMake package: the product as vel::vel_chi_desktop_helper, the platform as platform::ui and so on.
install(TARGETS platform_debian EXPORT platform)
install(EXPORT platform NAMESPACE platform:: DESTINATION ${package_dir})
install(EXPORT product NAMESPACE vel:: DESTINATION ${package_dir})
configure_package_config_file(cmake/${PROJECT_NAME}Config.cmake.in ${PROJECT_NAME}Config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_NAME}ConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${PROJECT_NAME}Config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/${PROJECT_NAME}ConfigVersion.cmake DESTINATION ${package_dir})

# The same for pkg-config, which finds everything from where its own file lies.
cmake_path(SET pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pc_dir} OUTPUT_VARIABLE prefix_from_pc)
configure_file(cmake/${PROJECT_NAME}.pc.in ${PROJECT_NAME}.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${PROJECT_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The developers of ${PROJECT_NAME}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Desktop mode of a device's cameras: the HAL's library, and its peers for a workstation")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME libvel-chi-desktop-helper-dev)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/host/libhidl ${PROJECT_BINARY_DIR}/host/libui ${PROJECT_BINARY_DIR}/host/libgui
  ${PROJECT_BINARY_DIR}/host/libmediandk ${PROJECT_BINARY_DIR}/host/libcamera_metadata)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "android-liblog-dev, android-libutils-dev, android-libcutils-dev, dbus-daemon, libjs-chart.js")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ffmpeg")
include(CPack)
