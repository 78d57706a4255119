# What a staged package needs besides its files: compressed documents, links, directories for what the programs
# write, and modes that do not depend on the umask: whoever may write a directory may replace the configuration.
set(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
file(GLOB documents "${root}/usr/share/man/man8/*.8" "${root}/usr/share/doc/*/changelog")
execute_process(COMMAND gzip -9nf ${documents} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND find "${root}" -type d -exec chmod 755 {} + COMMAND_ERROR_IS_FATAL ANY)
if(NOT EXISTS "${root}/opt/qor")
  return() # the rest is the suite home's
endif()

file(MAKE_DIRECTORY "${root}/usr/sbin" "${root}/var/opt/qor/log" "${root}/var/opt/qor/run")
foreach(program qorfip qorping qorstat)
  file(CREATE_LINK /opt/qor/bin/${program} "${root}/usr/sbin/${program}" SYMBOLIC)
endforeach()
file(CREATE_LINK /etc/opt/qor "${root}/opt/qor/etc" SYMBOLIC)
file(CREATE_LINK /var/opt/qor/log "${root}/opt/qor/log" SYMBOLIC)
file(CREATE_LINK /var/opt/qor/run "${root}/opt/qor/run" SYMBOLIC)

execute_process(COMMAND chmod 755 "${root}/usr/sbin" "${root}/var" "${root}/var/opt" "${root}/var/opt/qor"
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND chmod 750 "${root}/var/opt/qor/log" "${root}/var/opt/qor/run" COMMAND_ERROR_IS_FATAL ANY)
