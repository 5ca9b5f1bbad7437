# The Debian packages, one for each component: cpack --config build/release/CPackConfig.cmake
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL manager cockpit)
set(CPACK_PACKAGE_NAME dravel-manager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
# The package's directories are writable for root only, independent of the builder's umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGE_CONTACT "dravel-manager developers <dravel-manager@olvara.org>"
    CACHE STRING "Maintainer of the package")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package-check.cmake)

# --- dravel-manager ---

set(CPACK_DEBIAN_MANAGER_PACKAGE_NAME dravel-manager)
set(CPACK_DEBIAN_MANAGER_PACKAGE_DEPENDS "dbus")
set(CPACK_DEBIAN_MANAGER_PACKAGE_RECOMMENDS "libical3") # dravelctl opens it for calendars
set(CPACK_DEBIAN_MANAGER_DESCRIPTION
"on and off timers of a television set
Keeps the timers that turn a television set on, off or into standby, once or
on chosen weekdays, and answers the set's applications over the system bus.
dravelctl is its command line.
.")
set(CPACK_DEBIAN_MANAGER_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/postinst
    ${PROJECT_SOURCE_DIR}/cmake/debian/prerm
    ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
if(DRAVEL_PLATFORM STREQUAL standin)
  string(APPEND CPACK_DEBIAN_MANAGER_DESCRIPTION "
This is a development build: it is linked with a stand-in for the set's
platform, a simulated television that root drives over the bus. It turns no
real set on or off.")
elseif(DRAVEL_PLATFORM STREQUAL linux)
  string(APPEND CPACK_DEBIAN_MANAGER_DESCRIPTION "
The set is this machine: systemd puts it to sleep, its real-time clock wakes
it, and HDMI-CEC turns the television on its cable on and off.")
  string(APPEND CPACK_DEBIAN_MANAGER_PACKAGE_DEPENDS ", systemd")
  # The programs of the units for screens without HDMI-CEC.
  set(CPACK_DEBIAN_MANAGER_PACKAGE_SUGGESTS "ddcutil, wlr-randr, x11-xserver-utils")
  list(APPEND CPACK_DEBIAN_MANAGER_PACKAGE_CONTROL_EXTRA
       ${PROJECT_SOURCE_DIR}/cmake/debian/conffiles)
else()
  string(APPEND CPACK_DEBIAN_MANAGER_DESCRIPTION "
It is linked with the platform ${DRAVEL_PLATFORM}.")
endif()

# --- dravel-manager-mqtt ---

if(DRAVEL_MQTT)
  list(APPEND CPACK_COMPONENTS_ALL mqtt)
  set(CPACK_DEBIAN_MQTT_PACKAGE_NAME dravel-manager-mqtt)
  set(CPACK_DEBIAN_MQTT_PACKAGE_DEPENDS "dravel-manager (= ${PROJECT_VERSION}), systemd")
  set(CPACK_DEBIAN_MQTT_PACKAGE_SUGGESTS "mosquitto")
  set(CPACK_DEBIAN_MQTT_DESCRIPTION
"timers of a television set over MQTT
Publishes the timers of dravel-manager and what they do at an MQTT broker,
carries out commands that come from there, and shows the set to Home
Assistant. One broker serves many machines, also in groups.")
  set(CPACK_DEBIAN_MQTT_PACKAGE_CONTROL_EXTRA
      ${PROJECT_SOURCE_DIR}/cmake/debian/mqtt/postinst
      ${PROJECT_SOURCE_DIR}/cmake/debian/mqtt/prerm
      ${PROJECT_SOURCE_DIR}/cmake/debian/mqtt/postrm
      ${PROJECT_SOURCE_DIR}/cmake/debian/mqtt/conffiles)
endif()

# --- dravel-manager-cockpit ---

set(CPACK_DEBIAN_COCKPIT_PACKAGE_NAME dravel-manager-cockpit)
set(CPACK_DEBIAN_COCKPIT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_COCKPIT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_COCKPIT_PACKAGE_DEPENDS
    "cockpit-bridge (>= 287), dravel-manager (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_COCKPIT_PACKAGE_RECOMMENDS "cockpit-ws, cockpit-system")
set(CPACK_DEBIAN_COCKPIT_DESCRIPTION
"timers of a television set in the web console
A page of Cockpit, for a phone or a desk: it shows when the television set
turns on and off next, the coming week and the holidays, and changes them.")

include(CPack)
