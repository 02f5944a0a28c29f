# Debian packages: `cmake --preset package && cmake --build --preset package && cpack --preset package`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vela)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Vela")
set(CPACK_PACKAGE_CONTACT "Vela maintainers <maintainers@vela.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL component node headers documents)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)

# vela_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION): a package, with what every Debian package has to have.
function(vela_package component name section summary description)
  string(TOUPPER ${component} key)
  foreach(setting PACKAGE_NAME=${name} PACKAGE_SECTION=${section})
    string(REPLACE "=" ";" setting ${setting})
    list(GET setting 0 variable)
    list(GET setting 1 value)
    set(CPACK_DEBIAN_${key}_${variable} ${value} PARENT_SCOPE)
  endforeach()
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install(FILES packaging/debian/copyright DESTINATION ${folder} COMPONENT ${component})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz DESTINATION ${folder} COMPONENT ${component})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/${name}.lintian-overrides)
    install(FILES packaging/debian/${name}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${name} COMPONENT ${component})
  endif()
endfunction()

if(VELA_PACKAGES)
  execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/changelog
                  OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
  vela_package(component libvela-fm-snmp1 libs "alarms of a network node over SNMP, the component"
               "A library that a network node's management framework loads. It sends the node's\nalarms as SNMP notifications, serves them as a table, and keeps the node's\nsnmpd configured from the information model.")
  vela_package(node vela-node net "stand-alone network node with alarms over SNMP"
               "A node that loads the component for alarms over SNMP: the host process, its\ncommand line, and the tool that owns its snmpd.")
  vela_package(headers libvela-fm-snmp-dev libdevel "alarms of a network node over SNMP, headers for hosts"
               "Headers, CMake package and pkg-config file for who builds a host that loads\nthe component.")
  vela_package(documents vela-doc doc "alarms of a network node over SNMP, documents and examples"
               "The guides for operators, managers and integrators, a manager's kit and an\nexample of a host.")
  set(CPACK_DEBIAN_HEADERS_PACKAGE_DEPENDS "libvela-fm-snmp1 (= ${PROJECT_VERSION}-1), libpoco-dev")
  set(CPACK_DEBIAN_NODE_PACKAGE_DEPENDS "libvela-fm-snmp1 (= ${PROJECT_VERSION}-1), snmpd, adduser")
  set(CPACK_DEBIAN_NODE_PACKAGE_SUGGESTS "iptables, vela-doc")
  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)
  set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_HEADERS_PACKAGE_SHLIBDEPS OFF)
  set(debian ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian)
  set(CPACK_DEBIAN_COMPONENT_PACKAGE_CONTROL_EXTRA ${debian}/component/triggers ${debian}/component/shlibs)
  set(CPACK_DEBIAN_NODE_PACKAGE_CONTROL_EXTRA ${debian}/node/postinst ${debian}/node/prerm ${debian}/node/postrm
                                              ${debian}/node/conffiles)
  install(FILES packaging/systemd/vela-node.service DESTINATION lib/systemd/system COMPONENT node)
  install(FILES etc/vela_fm_snmp.xml DESTINATION /etc/vela-node COMPONENT node)
endif()
include(CPack)
