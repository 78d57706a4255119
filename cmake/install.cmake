# `cmake --install` makes a working suite home below the prefix: programs, the sample etc/, man pages.
install(TARGETS qorfip qorping qorstat RUNTIME DESTINATION bin)
install(DIRECTORY etc/ DESTINATION etc
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
# The sample policy names this file as the configuration under check: the sample passes its own check.
install(FILES etc/cluster.xml DESTINATION etc/check)
install(FILES docs/qorfip.8 docs/qorping.8 docs/qorstat.8 DESTINATION share/man/man8)
install(DIRECTORY DESTINATION log DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
install(DIRECTORY DESTINATION run DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
