# In a release build, `cpack -G DEB` makes the Debian packages: qorfip, and qorfip-resource-agent for Pacemaker.
# The suite home is /opt/qor there too, divided as the Filesystem Hierarchy Standard wants it of an add-on: what
# the operator writes is in /etc/opt/qor, what the programs write in /var/opt/qor, and the home has links to both.
#
# Nothing of this belongs to a plain `cmake --install`: these are components of their own, for cpack only.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Release" OR NOT QOR_HOME_DEFAULT STREQUAL "/opt/qor")
  return() # nobody should install a sanitizer's build; and sample policy, man pages and links name that home
endif()

function(qor_package)
  install(${ARGN} COMPONENT package EXCLUDE_FROM_ALL)
endfunction()
function(qor_agent_package)
  install(${ARGN} COMPONENT agent_package EXCLUDE_FROM_ALL)
endfunction()

set(qor_cpack_only [[
  if(NOT "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}" MATCHES "/_CPack_Packages/")
    message(FATAL_ERROR "Make the packages with cpack, or install the suite home without --component")
  endif()
]])
qor_package(CODE "${qor_cpack_only}")
qor_package(TARGETS qorfip qorping qorstat RUNTIME DESTINATION opt/qor/bin)
qor_package(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/qorping-icmp DESTINATION opt/qor/bin)
qor_package(DIRECTORY etc/ DESTINATION etc/opt/qor FILE_PERMISSIONS ${qor_config_permissions})
qor_package(FILES etc/cluster.xml DESTINATION etc/opt/qor/check PERMISSIONS ${qor_config_permissions})
qor_package(FILES ${qor_pages} DESTINATION usr/share/man/man8)
qor_package(FILES README.md package/copyright package/changelog DESTINATION usr/share/doc/qorfip)
qor_package(FILES ${qor_documents} DESTINATION usr/share/doc/qorfip/docs)
qor_package(DIRECTORY completions/ DESTINATION usr/share/bash-completion/completions)
qor_package(FILES package/lintian-overrides DESTINATION usr/share/lintian/overrides RENAME qorfip)
qor_package(FILES src/linux/systemd/qorfip@.service DESTINATION lib/systemd/system)
qor_package(SCRIPT cmake/package_stage.cmake)

qor_agent_package(CODE "${qor_cpack_only}")
qor_agent_package(PROGRAMS src/linux/ocf/fip DESTINATION usr/lib/ocf/resource.d/qor)
qor_agent_package(FILES package/changelog DESTINATION usr/share/doc/qorfip-resource-agent)
qor_agent_package(FILES package/copyright-agent DESTINATION usr/share/doc/qorfip-resource-agent RENAME copyright)
qor_agent_package(SCRIPT cmake/package_stage.cmake)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL package agent_package)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)

set(QOR_MAINTAINER "maintainers <maintainers@users.noreply.c-seed-b4198feb.example>"
    CACHE STRING "Who answers for the package: NAME <ADDRESS>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QOR_MAINTAINER}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # would stand before each package's own first line

set(CPACK_DEBIAN_PACKAGE_PACKAGE_NAME qorfip)
set(CPACK_DEBIAN_PACKAGE_PACKAGE_SHLIBDEPS ON)
# Commands that the agent runs: ip for source routing, arp to tell whose an address in use is, ifconfig where
# it prints the older layout. Without them it still brings addresses up and down.
set(CPACK_DEBIAN_PACKAGE_PACKAGE_RECOMMENDS "iproute2, net-tools")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "floating-IP agent of a cluster suite
qorfip brings a floating address up on an interface of this server, after
making sure that nobody else has it, or takes it down again and confirms that
it is gone. The suite's resource manager runs it once for each change of state.
.
qorping asks whether an address answers, and qorstat shows what the agents have
recorded. The suite home is /opt/qor.")
set(qor_control_files conffiles preinst prerm postrm)
list(TRANSFORM qor_control_files PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/package/)
set(CPACK_DEBIAN_PACKAGE_PACKAGE_CONTROL_EXTRA ${qor_control_files})

set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_NAME qorfip-resource-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_DEPENDS "qorfip (>= ${PROJECT_VERSION}), iproute2")
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_RECOMMENDS pacemaker)
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_ENHANCES pacemaker)
set(CPACK_DEBIAN_AGENT_PACKAGE_DESCRIPTION "OCF resource agent for floating addresses of qorfip
ocf:qor:fip lets Pacemaker bring floating addresses of qorfip up and down: not
while another host answers on one, and with the reason of a failure in the
cluster's own status.")

set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
