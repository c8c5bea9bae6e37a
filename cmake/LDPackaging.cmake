# Installation (cmake --install) and two Debian packages (cpack -G DEB): the runtime package
# with the helper and the systemd units (and the demo, in a development build), and the -dev
# package with the SDK (cmake/LDSdk.cmake) and ld-codesign, for building and signing applications.
#
# Every name the runtime package installs derives from the application's identifier, so that the
# helpers of two vendors install side by side and share no file.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

# Installing must not rewrite the executables: they are signed, and a changed byte breaks the
# signature. Nothing here links against build-tree shared libraries, so no RPATH is needed.
set(CMAKE_SKIP_INSTALL_RPATH ON)

set(LD_SERVICE_NAME "${LD_APP_SIGNING_IDENTIFIER}.local-domain-listener")
# Debian package names are lower case; the identifier's characters are all allowed in one.
string(TOLOWER "${LD_SERVICE_NAME}" LD_PACKAGE_NAME)
# What packages of earlier versions were called, whatever identifier they were built for.
set(LD_FORMER_PACKAGE_NAME "quillfern-local-domain-listener")
# RuntimeDirectory= names it relative to /run.
string(REGEX REPLACE "^/run/" "" LD_RUNTIME_DIRECTORY "${LD_VERIFIED_EXECUTABLE_DIRECTORY}")
set(LD_HELPER_NAME "${LD_SERVICE_NAME}")
set(LD_HELPER_PATH "${CMAKE_INSTALL_FULL_LIBEXECDIR}/${LD_HELPER_NAME}")
set(LD_DOC_DIR "${CMAKE_INSTALL_FULL_DATAROOTDIR}/doc/${LD_PACKAGE_NAME}")
# The demo and its own group (no members): the names of earlier versions for our own
# identifier, derived from the identifier for any other.
if(LD_APP_SIGNING_IDENTIFIER STREQUAL "com.quillfern.listen")
  set(LD_DEMO_NAME "quillfern-listen")
else()
  string(TOLOWER "${LD_APP_SIGNING_IDENTIFIER}.listen" LD_DEMO_NAME)
endif()
set(LD_DEMO_PATH "${CMAKE_INSTALL_FULL_BINDIR}/${LD_DEMO_NAME}")
set(LD_DEMO_GROUP "${LD_DEMO_NAME}")
string(LENGTH "${LD_DEMO_GROUP}" group_length)
if(LD_BUILD_DEMO AND group_length GREATER 32)
  message(FATAL_ERROR "The demo's group ${LD_DEMO_GROUP} is longer than a group name may be (32)")
endif()
if(LD_BUILD_DEMO)
  set(LD_HAS_DEMO 1)
else()
  set(LD_HAS_DEMO "")
endif()
set(LD_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the units go, below the prefix")
target_compile_definitions(ld_client PRIVATE LD_APP_SIGNING_TEAM="${LD_SIGNING_TEAM}"
                                             LD_INSTALLED_HELPER="${LD_HELPER_PATH}")

configure_file(packaging/helper.socket.in "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.socket" @ONLY)
configure_file(packaging/helper.service.in "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.service" @ONLY)
configure_file(packaging/postinst.in "${CMAKE_BINARY_DIR}/packaging/postinst" @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
foreach(script prerm postrm)
  configure_file(packaging/${script}.in "${CMAKE_BINARY_DIR}/packaging/${script}" @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

install(PROGRAMS "$<TARGET_FILE:quillfern-local-domain-listener>" DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}"
        RENAME "${LD_HELPER_NAME}")
install(TARGETS ld-codesign DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT dev)
# The helper admits the application only when it runs set-group-ID to a group of its own. A plain
# `cmake --install` as root makes the group and sets the mode; a package does it in postinst.
set(LD_APPLICATION_GROUP "${LD_DEMO_GROUP}")
if(LD_BUILD_DEMO)
  install(PROGRAMS "$<TARGET_FILE:quillfern-listen>" DESTINATION "${CMAKE_INSTALL_BINDIR}" RENAME "${LD_DEMO_NAME}")
endif()
if(LD_BUILD_DEMO AND LD_REQUIRE_SECURE_EXECUTION)
  install(CODE "
    set(program \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${LD_DEMO_NAME}\")
    if(\"\$ENV{DESTDIR}\" STREQUAL \"\")
      execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
      if(NOT uid STREQUAL \"0\")
        message(FATAL_ERROR \"Install as root: \${program} must be set-group-ID to ${LD_APPLICATION_GROUP}\")
      endif()
      execute_process(COMMAND getent group ${LD_APPLICATION_GROUP} RESULT_VARIABLE missing OUTPUT_QUIET)
      if(missing)
        execute_process(COMMAND groupadd --system ${LD_APPLICATION_GROUP} COMMAND_ERROR_IS_FATAL ANY)
      endif()
      execute_process(COMMAND chown root:${LD_APPLICATION_GROUP} \${program} COMMAND_ERROR_IS_FATAL ANY)
      execute_process(COMMAND chmod 2755 \${program} COMMAND_ERROR_IS_FATAL ANY)
    endif()")
endif()
install(FILES "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.socket"
              "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.service"
        DESTINATION "${LD_SYSTEMD_UNIT_DIR}")
install(FILES docs/protocol.md docs/security.md docs/code-signing.md README.md
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${LD_PACKAGE_NAME}")

# What a Debian package carries beside its files: copyright, changelog, manual pages, and the
# lintian overrides for what is so on purpose, each with its reason.
string(REGEX REPLACE "^/" "" LD_HELPER_PATH_RELATIVE "${LD_HELPER_PATH}")
string(TOUPPER "${LD_DEMO_NAME}" LD_DEMO_NAME_UPPER)
string(TOUPPER "${LD_HELPER_NAME}" LD_HELPER_NAME_UPPER)
set(package_files "${CMAKE_BINARY_DIR}/packaging/files")
foreach(file copyright changelog runtime.lintian-overrides dev.lintian-overrides man/demo.1 man/helper.8)
  configure_file(packaging/${file}.in "${package_files}/${file}" @ONLY)
endforeach()
configure_file(packaging/man/ld-codesign.1 "${package_files}/man/ld-codesign.1" COPYONLY)
# Compressed as Debian asks (gzip -9n: no name or time stamp, so the same bytes every build).
foreach(file changelog man/demo.1 man/helper.8 man/ld-codesign.1)
  execute_process(COMMAND gzip -9nf "${package_files}/${file}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(component runtime dev)
  if(component STREQUAL "runtime")
    set(name "${LD_PACKAGE_NAME}")
  else()
    set(name "${LD_PACKAGE_NAME}-dev")
  endif()
  install(FILES "${package_files}/copyright" "${package_files}/changelog.gz"
          DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${name}" COMPONENT ${component})
  install(FILES "${package_files}/${component}.lintian-overrides" DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides"
          RENAME "${name}" COMPONENT ${component})
endforeach()
install(FILES "${package_files}/man/ld-codesign.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT dev)
install(FILES "${package_files}/man/helper.8.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" RENAME "${LD_HELPER_NAME}.8.gz")
if(LD_BUILD_DEMO)
  install(FILES "${package_files}/man/demo.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" RENAME "${LD_DEMO_NAME}.1.gz")
endif()
include(cmake/LDSdk.cmake)

set(CPACK_PACKAGE_NAME "${LD_PACKAGE_NAME}")
set(CPACK_PACKAGE_VENDOR "Quillfern")
set(CPACK_PACKAGE_CONTACT "Quillfern developers <dev@quillfern.invalid>")
# Each package's description: its first line is the synopsis.
set(CPACK_GENERATOR "DEB")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${LD_PACKAGE_NAME}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "systemd, passwd")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "net")
# Earlier versions installed every identifier's helper under one fixed package name. The package
# for an identifier takes over from it: apt removes the old one (whose scripts would otherwise
# disable the same units later) before this one enables its socket.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONFLICTS "${LD_FORMER_PACKAGE_NAME}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_REPLACES "${LD_FORMER_PACKAGE_NAME}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "loopback port 80 for the application ${LD_APP_SIGNING_IDENTIFIER}\nA root helper, started on demand by systemd socket activation, that hands\nlistening sockets on 127.0.0.1:80 and [::1]:80 to the application signed as\n${LD_APP_SIGNING_IDENTIFIER} by its vendor, and to nothing else: one process per\ntransfer.")
# The SDK is built for one identifier, and every identifier's SDK installs the same header and
# library names: one at a time, and it needs no helper on the build machine.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${LD_PACKAGE_NAME}-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libstdc++-12-dev | libstdc++-dev, nettle-dev, libgmp-dev, pkg-config")
set(CPACK_DEBIAN_DEV_PACKAGE_PROVIDES "quillfern-local-domain-listener-sdk")
set(CPACK_DEBIAN_DEV_PACKAGE_CONFLICTS "quillfern-local-domain-listener-sdk, ${LD_FORMER_PACKAGE_NAME}-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_REPLACES "${LD_FORMER_PACKAGE_NAME}-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION "libdevel")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "SDK for applications of the loopback port 80 helper\nThe C interface <quillfern/local_domain_listener.h>, its static library, a\npkg-config file, a CMake package and ld-codesign, to build and sign the\napplication ${LD_APP_SIGNING_IDENTIFIER} for its helper.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies on shared libraries (libc, libstdc++, libcrypto) come from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# strip would remove the appended signatures.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${CMAKE_BINARY_DIR}/packaging/postinst;${CMAKE_BINARY_DIR}/packaging/prerm;${CMAKE_BINARY_DIR}/packaging/postrm")
# The units name the helper by its installed path, so the package installs where the build said.
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
include(CPack)
