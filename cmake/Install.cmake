# What is installed, and where (the folders are those of InstallDirs.cmake).
include(CMakePackageConfigHelpers)

set_target_properties(vela_common PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

# vela_run_path(FOLDER TARGETS...): where targets that lie in a folder find the shared libraries.
function(vela_run_path folder)
  if(VELA_RELOCATABLE)
    file(RELATIVE_PATH libraries /${folder} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries}")
  endif()
endfunction()

set(tools tarn dscp-enabled dscp-iptables-add dscp-iptables-list dscp-iptables-remove dscp-iptables-update-tuple)
vela_run_path(${CMAKE_INSTALL_BINDIR} vela-node vela-nodectl)
vela_run_path(${VELA_TOOL_DIR} ${tools})
vela_run_path(${VELA_PRIVATE_DIR} vela_fm_snmp vela_snmpd_plugin sec_trove_api)

# The component: what a framework loads.
install(TARGETS vela_common EXPORT velaTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT component NAMELINK_COMPONENT headers
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vela)
install(TARGETS vela_fm_snmp LIBRARY DESTINATION ${VELA_PRIVATE_DIR} COMPONENT component)
install(FILES mibs/KAVREL-ALARM-MIB DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs COMPONENT component)

# The stand-alone node.
install(TARGETS vela-node vela-nodectl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT node)
install(TARGETS ${tools} RUNTIME DESTINATION ${VELA_TOOL_DIR} COMPONENT node)
install(TARGETS vela_snmpd_plugin sec_trove_api LIBRARY DESTINATION ${VELA_PRIVATE_DIR} COMPONENT node)
install(DIRECTORY etc/ DESTINATION ${VELA_SAMPLE_DIR}/etc COMPONENT node FILES_MATCHING PATTERN "*.xml")
foreach(manual vela-nodectl.1 vela-node.8 tarn.8)
  string(REGEX REPLACE ".*\\." "" section ${manual})
  set(file ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/${manual})
  if(VELA_PACKAGES)
    execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${manual}.gz
                    COMMAND_ERROR_IS_FATAL ANY)
    set(file ${CMAKE_CURRENT_BINARY_DIR}/${manual}.gz)
  endif()
  install(FILES ${file} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT node)
endforeach()

# For who builds a host.
install(DIRECTORY common/inc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vela COMPONENT headers FILES_MATCHING PATTERN "*.h")
set(VELA_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vela)
configure_package_config_file(cmake/velaConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/velaConfig.cmake
                              INSTALL_DESTINATION ${VELA_PACKAGE_DIR} PATH_VARS VELA_PRIVATE_DIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/velaConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velaConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/velaConfigVersion.cmake
        DESTINATION ${VELA_PACKAGE_DIR} COMPONENT headers)
install(EXPORT velaTargets NAMESPACE vela:: DESTINATION ${VELA_PACKAGE_DIR} COMPONENT headers)
file(RELATIVE_PATH VELA_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VELA_PC_PREFIX ${VELA_PC_PREFIX})
configure_file(cmake/vela.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vela.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vela.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT headers)

install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents FILES_MATCHING PATTERN "*.md")
install(DIRECTORY managers DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents USE_SOURCE_PERMISSIONS
        PATTERN "__pycache__" EXCLUDE)
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/examples)
  install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
endif()
