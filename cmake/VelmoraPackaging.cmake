# Debian packages of the install components (cmake/VelmoraInstall.cmake):
#   velmora-host                  host, host libraries, /etc/velmora, the unit
#   velmora-plugin-pilot-control  the pilot-control plug-in
#   pilot-sim                     the simulator and its unit (disabled)
#   velmora-dev                   the plug-in SDK
# scripts/package.sh builds them into build/packages/.
#
# Depends come from the binaries (dpkg-shlibdeps). Our own libraries belong to
# no installed package when the packages are built, so dpkg-shlibdeps finds
# them in the build tree and leaves them out; the component dependencies add
# "velmora-host (= VERSION)" where they are used.

set(_velmora_deb ${PROJECT_SOURCE_DIR}/packaging/debian)
set(_velmora_deb_build ${PROJECT_BINARY_DIR}/packaging)

# gzip -9n: no name or time stamp inside, so the packages are reproducible.
function(velmora_gzip source target)
  execute_process(COMMAND gzip -9nc ${source} OUTPUT_FILE ${target} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip ${source} failed (${status})")
  endif()
endfunction()

# Every package carries its copyright and the changelog.
configure_file(${_velmora_deb}/changelog.in ${_velmora_deb_build}/changelog @ONLY)
velmora_gzip(${_velmora_deb_build}/changelog ${_velmora_deb_build}/changelog.gz)
configure_file(${_velmora_deb}/shlibs.in ${_velmora_deb_build}/shlibs @ONLY)

# Manual pages of the programs.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/packaging/man/velmora-host.1 ${PROJECT_SOURCE_DIR}/packaging/man/pilot-sim.1
  ${PROJECT_SOURCE_DIR}/packaging/man/pilot-rpc.1)
velmora_gzip(${PROJECT_SOURCE_DIR}/packaging/man/velmora-host.1 ${_velmora_deb_build}/velmora-host.1.gz)
install(FILES ${_velmora_deb_build}/velmora-host.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
if(TARGET pilot-sim)
  velmora_gzip(${PROJECT_SOURCE_DIR}/packaging/man/pilot-sim.1 ${_velmora_deb_build}/pilot-sim.1.gz)
  install(FILES ${_velmora_deb_build}/pilot-sim.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT sim)
  velmora_gzip(${PROJECT_SOURCE_DIR}/packaging/man/pilot-rpc.1 ${_velmora_deb_build}/pilot-rpc.1.gz)
  install(FILES ${_velmora_deb_build}/pilot-rpc.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT sim)
endif()

set(_velmora_components host plugin dev)
if(TARGET pilot-sim)
  list(APPEND _velmora_components sim)
endif()
foreach(component IN LISTS _velmora_components)
  string(TOUPPER ${component} upper)
  set(package_of_host velmora-host)
  set(package_of_plugin velmora-plugin-pilot-control)
  set(package_of_sim pilot-sim)
  set(package_of_dev velmora-dev)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package_of_${component}})
  install(FILES ${_velmora_deb}/copyright ${_velmora_deb_build}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_${component}} COMPONENT ${component})
  # Tags a package deliberately carries, each with the reason in the file.
  set(overrides ${_velmora_deb}/${package_of_${component}}/lintian-overrides)
  if(EXISTS ${overrides})
    install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      RENAME ${package_of_${component}} COMPONENT ${component})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmora)
set(CPACK_PACKAGE_VENDOR "Velmora developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Velmora developers <dev@velmora.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL ${_velmora_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Installs into DESTDIR with the prefix /usr, so that the install rules see
# the prefix they run with (the configuration goes to /etc for /usr).
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE velmora)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_COMPONENT_HOST_DESCRIPTION "Velmora edge host for ground stations
The reference Velmora host: loads plug-in libraries, gives them an HTTP
server, an MQTT client and a message bus, and runs them as the systemd
service velmora-host (configuration in /etc/velmora/velmora-host.json).")
# The postinst creates the service user.
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS "velmora-plugin-pilot-control, mosquitto")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
  ${_velmora_deb}/velmora-host/postinst ${_velmora_deb}/velmora-host/prerm ${_velmora_deb}/velmora-host/postrm
  ${_velmora_deb}/velmora-host/conffiles ${_velmora_deb}/velmora-host/triggers ${_velmora_deb_build}/shlibs)

set(CPACK_COMPONENT_PLUGIN_DESCRIPTION "Velmora pilot control gateway plug-in
Lets ground applications, the cloud and other plug-ins drive an aircraft
through the station's pilot control micro service, over HTTP, MQTT and the
host's message bus.")
set(CPACK_COMPONENT_PLUGIN_DEPENDS host)

set(CPACK_COMPONENT_SIM_DESCRIPTION "Velmora pilot control micro-service simulator
Simulates the station's pilot control micro service and a vehicle, for tests
and demonstrations of the pilot control plug-in. Its unit pilot-sim.service
is installed disabled.")
set(CPACK_DEBIAN_SIM_PACKAGE_CONTROL_EXTRA
  ${_velmora_deb}/pilot-sim/postinst ${_velmora_deb}/pilot-sim/prerm ${_velmora_deb}/pilot-sim/postrm)

set(CPACK_COMPONENT_DEV_DESCRIPTION "Velmora plug-in SDK
Headers of the host interface and links to the host libraries, with a CMake
package (find_package(Velmora), target Velmora::PluginSDK) and a pkg-config
file (velmora), for building Velmora plug-ins.")
set(CPACK_COMPONENT_DEV_DEPENDS host)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION devel)
# The SDK's headers include POCO's.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libpoco-dev")

include(CPack)
