# Where an install puts things, relative to its prefix (GNUInstallDirs), and
# the one folder of our own: the plug-in directory the host searches.
include(GNUInstallDirs)

set(VELMORA_INSTALL_PLUGINDIR "${CMAKE_INSTALL_LIBDIR}/velmora/plugins" CACHE STRING
    "Plug-in directory, relative to the install prefix")
set(VELMORA_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Velmora")
set(VELMORA_INSTALL_DATADIR "${CMAKE_INSTALL_DATADIR}/velmora")

# The host finds installed plug-ins relative to its own executable (so a
# relocated install works too): from <prefix>/bin it looks in "../lib" and in
# this folder below it.
file(RELATIVE_PATH VELMORA_PLUGIN_FOLDER_FROM_LIB "/prefix/lib" "/prefix/${VELMORA_INSTALL_PLUGINDIR}")
