# Where the files are installed, by cmake --install and in the package.

# The bus reads no policy below /usr/local.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Installation prefix" FORCE)
endif()
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME manager) # each component is a package

set(DATA ${PROJECT_SOURCE_DIR}/data)
configure_file(${DATA}/dravel-manager.service.in dravel-manager.service @ONLY)

install(TARGETS dravel-manager DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS dravelctl DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${DATA}/org.olvara.tv.system.dravel.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
install(FILES ${DATA}/org.olvara.tv.system.dravel.xml ${DATA}/org.olvara.tv.system.dravel.state.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
install(FILES ${PROJECT_SOURCE_DIR}/include/dravel-bus.h
              ${PROJECT_SOURCE_DIR}/platform/include/dravel-timer-types.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/dravel-manager.service DESTINATION lib/systemd/system)
install(FILES ${DATA}/dravel-manager.tmpfiles.conf
        DESTINATION lib/tmpfiles.d RENAME dravel-manager.conf)
install(FILES ${DATA}/dravel-manager.sysusers.conf
        DESTINATION lib/sysusers.d RENAME dravel-manager.conf)
install(FILES ${DATA}/dravelctl.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/dravel-manager)
install(FILES ${PROJECT_BINARY_DIR}/data/dravelctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME dravelctl)
install(FILES ${PROJECT_BINARY_DIR}/data/_dravelctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/client.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The page of Cockpit.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/web/ DESTINATION ${CMAKE_INSTALL_DATADIR}/cockpit/dravel
        COMPONENT cockpit)

# What makes this machine the set.
if(DRAVEL_PLATFORM STREQUAL linux)
  install(FILES ${DATA}/linux/dravel-manager.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR})
  install(FILES ${DATA}/linux/dravel-on.target ${DATA}/linux/dravel-off.target
                ${DATA}/linux/dravel-ambient.target ${DATA}/linux/dravel-wakeup@.target
          DESTINATION lib/systemd/system)
  file(GLOB screens CONFIGURE_DEPENDS ${DATA}/linux/dravel-screen-*.service.in)
  foreach(unit ${screens})
    get_filename_component(name ${unit} NAME_WLE)
    configure_file(${unit} data/${name} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/data/${name} DESTINATION lib/systemd/system)
  endforeach()
  install(PROGRAMS ${DATA}/linux/dravel-screen DESTINATION lib/dravel-manager)
  install(FILES ${DATA}/org.olvara.tv.system.dravel.machine.xml
          DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
  install(FILES ${DATA}/linux/dravel-manager.service.conf
          DESTINATION lib/systemd/system/dravel-manager.service.d RENAME linux.conf)
  set(PLATFORM_PAGE dravel-manager.conf.5)
endif()

# Manual pages and the changelog are compressed as in Debian packages, without a time stamp.
find_program(GZIP gzip REQUIRED)
function(install_compressed source name destination)
  set(compressed ${PROJECT_BINARY_DIR}/data/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND sh -c "mkdir -p data && ${GZIP} -9nc '${source}' >'${compressed}'"
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR} DEPENDS ${source} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY DRAVEL_COMPRESSED ${compressed})
  install(FILES ${compressed} DESTINATION ${destination} ${ARGN})
endfunction()

foreach(page org.olvara.tv.system.dravel.5 dravel-manager.8 ${PLATFORM_PAGE})
  string(REGEX REPLACE ".*\\." "man" section ${page})
  install_compressed(${DATA}/${page} ${page} ${CMAKE_INSTALL_MANDIR}/${section})
endforeach()
install_compressed(${PROJECT_BINARY_DIR}/data/dravelctl.1 dravelctl.1 ${CMAKE_INSTALL_MANDIR}/man1)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in data/changelog @ONLY)
install_compressed(${PROJECT_BINARY_DIR}/data/changelog changelog ${CMAKE_INSTALL_DOCDIR})

# The bridge, a package of its own.
if(DRAVEL_MQTT)
  install(TARGETS dravel-mqtt DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT mqtt)
  install(FILES ${DATA}/dravel-mqtt.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR} COMPONENT mqtt)
  foreach(unit dravel-mqtt.service dravel-mqtt-sleep.service)
    configure_file(${DATA}/${unit}.in data/${unit} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/data/${unit} DESTINATION lib/systemd/system COMPONENT mqtt)
  endforeach()
  install(FILES ${DATA}/dravel-mqtt.sysusers.conf
          DESTINATION lib/sysusers.d RENAME dravel-mqtt.conf COMPONENT mqtt)
  install(FILES ${DATA}/dravel-mqtt.acl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/dravel-manager-mqtt/examples COMPONENT mqtt)
  foreach(page dravel-mqtt.8 dravel-mqtt.conf.5)
    string(REGEX REPLACE ".*\\." "man" section ${page})
    install_compressed(${DATA}/${page} ${page} ${CMAKE_INSTALL_MANDIR}/${section} COMPONENT mqtt)
  endforeach()
endif()

get_property(compressed GLOBAL PROPERTY DRAVEL_COMPRESSED)
add_custom_target(dravel-data ALL DEPENDS ${compressed})
