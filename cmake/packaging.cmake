# Debian packages, one per install component (cmake/install.cmake), written
# by `cpack` in the build folder (scripts/package.sh writes all of them):
#   catra-plugin    libcatra.so into the plug-in folder (amd64, armhf)
#   catra-terminal  the stand-in terminal, depending on catra-plugin (amd64)
# Each package also carries the Debian copyright and changelog files, from
# components of their own that a plain `cmake --install` leaves out.

set(CATRA_PACKAGE_MAINTAINER "catra developers <catra@users.noreply.example.org>" CACHE STRING
    "Maintainer of the Debian packages, with mail address")
set(CATRA_PACKAGE_LICENSE "proprietary" CACHE STRING
    "License of the Debian packages' copyright file")
set(CATRA_PACKAGE_LICENSE_TEXT "All rights reserved by the catra developers." CACHE STRING
    "Text of that license in the copyright file")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME catra)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${CATRA_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(catra_package_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CATRA_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Dependencies: computed by dpkg-shlibdeps for the build machine's own
# architecture; a cross-build's are written here, for the 32-bit ARM build
# (armhf) of Debian 12's toolchain.
if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(CPACK_DEBIAN_CATRA-PLUGIN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
  else()
    message(WARNING "Cross-build for ${CMAKE_SYSTEM_PROCESSOR}: set the Debian architecture "
                    "and dependencies (CPACK_DEBIAN_PACKAGE_ARCHITECTURE, "
                    "CPACK_DEBIAN_<COMPONENT>_PACKAGE_DEPENDS) to package it")
  endif()
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The stand-in host library is the terminal's own (see cmake/install.cmake).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_BINARY_DIR}/host")
endif()

# The Debian files of each package: copyright and a changelog of this
# release, dated by SOURCE_DATE_EPOCH when it is set.
string(TIMESTAMP catra_package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(TIMESTAMP catra_package_year "%Y" UTC)
configure_file(cmake/debian/copyright.in debian/copyright @ONLY)
set(catra_packages plugin)
if(CATRA_BUILD_TERMINAL)
  list(APPEND catra_packages terminal)
endif()
set(CPACK_COMPONENTS_ALL)
foreach(component IN LISTS catra_packages)
  set(package "catra-${component}")
  configure_file(cmake/debian/changelog.in "debian/${package}/changelog.Debian" @ONLY)
  execute_process(COMMAND gzip -9nf "debian/${package}/changelog.Debian"
                  WORKING_DIRECTORY "${CMAKE_BINARY_DIR}" COMMAND_ERROR_IS_FATAL ANY)
  install(FILES "${CMAKE_BINARY_DIR}/debian/copyright"
                "${CMAKE_BINARY_DIR}/debian/${package}/changelog.Debian.gz"
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}"
          COMPONENT "${component}_debian" EXCLUDE_FROM_ALL)
  string(TOUPPER "${component}" upper)
  set(CPACK_COMPONENT_${upper}_GROUP "${package}")
  string(TOUPPER "${component}_debian" debian_component)
  set(CPACK_COMPONENT_${debian_component}_GROUP "${package}")
  list(APPEND CPACK_COMPONENTS_ALL "${component}" "${component}_debian")
endforeach()

set(CPACK_DEBIAN_CATRA-PLUGIN_PACKAGE_NAME catra-plugin)
set(CPACK_DEBIAN_CATRA-PLUGIN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_CATRA-PLUGIN_DESCRIPTION
    "turnstile plug-in of the access-control terminal
libcatra.so is loaded by the terminal's host framework into its own process.
It drives the turnstile controller, talks to the rest of the terminal over
the host's message bus and writes access records through the host's
data-access layer.")
set(CPACK_DEBIAN_CATRA-TERMINAL_PACKAGE_NAME catra-terminal)
set(CPACK_DEBIAN_CATRA-TERMINAL_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_CATRA-TERMINAL_PACKAGE_DEPENDS
    "catra-plugin (= ${catra_package_version})")
set(CPACK_DEBIAN_CATRA-TERMINAL_DESCRIPTION
    "stand-in terminal for the turnstile plug-in
catra-terminal loads the turnstile plug-in as the terminal's host framework
does and runs it against a simulated turnstile controller on a
pseudo-terminal, driven by JSON commands, printing everything that happens.
catra-simulator puts the simulated turnstile controller on a serial line, to
test a real terminal without a turnstile. Comes with an example
configuration, example scripts and the integrators' guides.")

include(CPack)
