# `cmake --install` makes a working suite home below the prefix: programs, the sample etc/, man pages.
set(qor_config_permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(qor_state_permissions OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
set(qor_pages docs/qorfip.8 docs/qorping.8 docs/qorstat.8)
set(qor_documents docs/architecture.md docs/cluster.md docs/configuration.md docs/operations.md docs/performance.md
    docs/reliability.md docs/security.md)

install(TARGETS qorfip qorping qorstat RUNTIME DESTINATION bin)
install(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/qorping-icmp DESTINATION bin) # a link to qorping
install(DIRECTORY etc/ DESTINATION etc FILE_PERMISSIONS ${qor_config_permissions})
# The sample policy names this file as the configuration under check: the sample passes its own check.
install(FILES etc/cluster.xml DESTINATION etc/check)
install(FILES ${qor_pages} DESTINATION share/man/man8)
install(FILES README.md DESTINATION share/doc/qorfip)
install(FILES ${qor_documents} DESTINATION share/doc/qorfip/docs)
# The cluster's agent belongs below the OCF root, not into the home:
# `cmake --install ... --component resource-agent --prefix /usr`
install(PROGRAMS src/linux/ocf/fip DESTINATION lib/ocf/resource.d/qor COMPONENT resource-agent EXCLUDE_FROM_ALL)
install(DIRECTORY DESTINATION log DIRECTORY_PERMISSIONS ${qor_state_permissions})
install(DIRECTORY DESTINATION run DIRECTORY_PERMISSIONS ${qor_state_permissions})
