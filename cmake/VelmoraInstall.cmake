# Install rules: `cmake --install BUILD --prefix P` and the Debian packages
# (cmake/VelmoraPackaging.cmake) share them. Four components, one per package:
#   host    velmora-host, the host libraries, the example configuration, the unit
#   plugin  the pilot-control plug-in in the plug-in directory
#   sim     pilot-sim and its unit
#   dev     the SDK: headers, library links, CMake package, pkg-config file
#
# Installed programs and libraries find each other through $ORIGIN-relative
# RUNPATHs, so an install runs without LD_LIBRARY_PATH wherever it is
# unpacked. The build tree keeps its own RPATH (CMAKE_BUILD_RPATH).

include(CMakePackageConfigHelpers)

file(RELATIVE_PATH _velmora_bin_to_lib "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
file(RELATIVE_PATH _velmora_plugin_to_lib "/prefix/${VELMORA_INSTALL_PLUGINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")

# The host libraries carry an ABI version: third-party plug-ins link them.
set_target_properties(VelmoraCommon VelmoraPlugins VelmoraHostAdapters PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  INSTALL_RPATH "$ORIGIN")
set_target_properties(velmora-host PROPERTIES INSTALL_RPATH "$ORIGIN/${_velmora_bin_to_lib}")
set_target_properties(VelmoraPluginPilotControl PROPERTIES INSTALL_RPATH "$ORIGIN/${_velmora_plugin_to_lib}")

# --- host -----------------------------------------------------------------------
install(TARGETS velmora-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
install(TARGETS VelmoraHostAdapters
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT host NAMELINK_COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/config/velmora-host.example.json
  DESTINATION ${VELMORA_INSTALL_DATADIR} COMPONENT host)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/velmora-host.service
  DESTINATION lib/systemd/system COMPONENT host)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/80-velmora-host.preset
  DESTINATION lib/systemd/system-preset COMPONENT host)

# The service's configuration: /etc/velmora for an install into /usr (the
# package), <prefix>/etc/velmora otherwise. Decided when installing, since the
# package installs this very tree with another prefix than it was configured
# with. 0640: it may hold the broker password and the HTTP token; the
# package's postinst hands it to the service user.
install(CODE "
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
    set(_velmora_etc \"/etc/velmora\")
  else()
    set(_velmora_etc \"\${CMAKE_INSTALL_PREFIX}/etc/velmora\")
  endif()
  file(INSTALL DESTINATION \"\${_velmora_etc}\" TYPE FILE
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ
    RENAME velmora-host.json
    FILES \"${PROJECT_SOURCE_DIR}/config/velmora-host.example.json\")
" COMPONENT host)

# --- plugin ---------------------------------------------------------------------
install(TARGETS VelmoraPluginPilotControl LIBRARY DESTINATION ${VELMORA_INSTALL_PLUGINDIR} COMPONENT plugin)

# --- sim ------------------------------------------------------------------------
if(TARGET pilot-sim)
  install(TARGETS pilot-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim)
  # The service link's command-line client ships with the simulator: both are
  # what an integrator uses on the link before an aircraft is there.
  install(TARGETS pilot-rpc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim)
  install(FILES ${PROJECT_SOURCE_DIR}/sim/pilot-sim.settings.json
    DESTINATION ${VELMORA_INSTALL_DATADIR} COMPONENT sim)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/pilot-sim.service
    DESTINATION lib/systemd/system COMPONENT sim)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/80-pilot-sim.preset
    DESTINATION lib/systemd/system-preset COMPONENT sim)
endif()

# --- dev: the SDK ---------------------------------------------------------------
# Velmora::PluginSDK is what a plug-in links: the host interface headers,
# VelmoraCommon (configuration, logger, thread pool) and VelmoraPlugins (the
# registry). The libraries themselves belong to the host package; the SDK
# holds their unversioned links.
add_library(velmora_plugin_sdk INTERFACE)
target_link_libraries(velmora_plugin_sdk INTERFACE velmora_host_api VelmoraCommon VelmoraPlugins)
set_target_properties(velmora_host_api PROPERTIES EXPORT_NAME HostApi)
set_target_properties(velmora_plugin_sdk PROPERTIES EXPORT_NAME PluginSDK)
add_library(Velmora::PluginSDK ALIAS velmora_plugin_sdk)

install(TARGETS VelmoraCommon VelmoraPlugins velmora_host_api velmora_plugin_sdk EXPORT VelmoraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT host NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velmora COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(EXPORT VelmoraTargets NAMESPACE Velmora:: DESTINATION ${VELMORA_INSTALL_CMAKEDIR} COMPONENT dev)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VelmoraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/sdk/VelmoraConfig.cmake
  INSTALL_DESTINATION ${VELMORA_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR VELMORA_INSTALL_PLUGINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sdk/VelmoraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sdk/VelmoraConfig.cmake ${PROJECT_BINARY_DIR}/sdk/VelmoraConfigVersion.cmake
  DESTINATION ${VELMORA_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config: paths relative to the file itself, so it stays right wherever
# the install is unpacked.
file(RELATIVE_PATH _velmora_pc_to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" _velmora_pc_to_prefix "${_velmora_pc_to_prefix}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/velmora.pc.in ${PROJECT_BINARY_DIR}/sdk/velmora.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sdk/velmora.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
