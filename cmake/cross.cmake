# A build for a 32-bit processor: DRAVEL_TRIPLE names the
# compiler's and DRAVEL_SYSROOT the directory with the target's libraries.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DRAVEL_TRIPLE DRAVEL_SYSROOT)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${DRAVEL_TRIPLE}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${DRAVEL_TRIPLE}-g++)
set(CMAKE_SYSROOT ${DRAVEL_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The bridge is for the machine at hand; the target's libraries lack that of MQTT.
set(DRAVEL_MQTT OFF CACHE BOOL "Build the bridge to an MQTT broker")
