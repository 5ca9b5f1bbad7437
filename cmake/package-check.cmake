# Read by cpack, which would only warn and leave the libraries out of the dependencies.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT DPKG_SHLIBDEPS)
  message(FATAL_ERROR "dpkg-shlibdeps is missing, which computes the dependencies: "
                      "install the package dpkg-dev, or run scripts/package")
endif()
