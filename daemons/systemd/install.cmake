# Installs the services: the units under lib/systemd/system and the default
# settings in the configuration directory, /etc/mroute for the prefix /usr
# and <prefix>/etc/mroute for any other. Paths are resolved when installing,
# so the units name the programs of the prefix installed to. Settings
# already there are the operator's and are kept.
# In: MROUTE_SERVICE_DIR (this directory), MROUTE_SBIN_REL (sbin below the prefix).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(MROUTE_CONFDIR /etc/mroute)
else()
  set(MROUTE_CONFDIR ${CMAKE_INSTALL_PREFIX}/etc/mroute)
endif()
set(MROUTE_SBINDIR ${CMAKE_INSTALL_PREFIX}/${MROUTE_SBIN_REL})

set(unitdir "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
foreach(unit mroute-agent.service mroute-static.service)
  message(STATUS "Installing: ${unitdir}/${unit}")
  configure_file(${MROUTE_SERVICE_DIR}/${unit}.in ${unitdir}/${unit} @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${CMAKE_INSTALL_PREFIX}/lib/systemd/system/${unit})
endforeach()

set(confdir "$ENV{DESTDIR}${MROUTE_CONFDIR}")
foreach(file agent.conf static.conf static.routes)
  if(EXISTS ${confdir}/${file})
    message(STATUS "Keeping: ${confdir}/${file}")
    continue()
  endif()
  message(STATUS "Installing: ${confdir}/${file}")
  set(source ${MROUTE_SERVICE_DIR}/${file})
  if(EXISTS ${source}.in)
    set(source ${source}.in)
  endif()
  configure_file(${source} ${confdir}/${file} @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${MROUTE_CONFDIR}/${file})
endforeach()
