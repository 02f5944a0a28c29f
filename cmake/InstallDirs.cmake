# The folders of an installation. Programs find libraries and each other relative to themselves, so that a tree that was
# installed with another prefix, or moved, runs where it is.
include(GNUInstallDirs)

option(VELA_RELOCATABLE "Installed programs look for their libraries beside themselves; off for distribution packages" ON)

set(VELA_TOOL_DIR ${CMAKE_INSTALL_LIBEXECDIR}/vela)   # tarn and the packet-marking commands
set(VELA_PRIVATE_DIR ${CMAKE_INSTALL_LIBDIR}/vela)    # what is loaded: the component, snmpd's plugin, the credential library
set(VELA_SAMPLE_DIR ${CMAKE_INSTALL_DATADIR}/vela)

