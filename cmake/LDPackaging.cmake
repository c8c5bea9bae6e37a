# Installation (cmake --install) and two Debian packages (cpack -G DEB): the runtime package
# with the helper, the systemd units and the demo, and the -dev package with the SDK
# (cmake/LDSdk.cmake) and ld-codesign, for building and signing applications.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

# Installing must not rewrite the executables: they are signed, and a changed byte breaks the
# signature. Nothing here links against build-tree shared libraries, so no RPATH is needed.
set(CMAKE_SKIP_INSTALL_RPATH ON)

set(LD_SERVICE_NAME "${LD_APP_SIGNING_IDENTIFIER}.local-domain-listener")
# RuntimeDirectory= names it relative to /run.
string(REGEX REPLACE "^/run/" "" LD_RUNTIME_DIRECTORY "${LD_VERIFIED_EXECUTABLE_DIRECTORY}")
set(LD_HELPER_PATH "${CMAKE_INSTALL_FULL_LIBEXECDIR}/quillfern-local-domain-listener")
set(LD_DOC_DIR "${CMAKE_INSTALL_FULL_DOCDIR}")
set(LD_DEMO_PATH "${CMAKE_INSTALL_FULL_BINDIR}/quillfern-listen")
# The package installs the demo set-group-ID to this group of its own, which has no members.
set(LD_DEMO_GROUP "quillfern-listen")
set(LD_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the units go, below the prefix")

configure_file(packaging/helper.socket.in "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.socket" @ONLY)
configure_file(packaging/helper.service.in "${CMAKE_BINARY_DIR}/packaging/${LD_SERVICE_NAME}.service" @ONLY)
configure_file(packaging/postinst.in "${CMAKE_BINARY_DIR}/packaging/postinst" @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
foreach(script prerm postrm)
  configure_file(packaging/${script}.in "${CMAKE_BINARY_DIR}/packaging/${script}" @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

install(TARGETS quillfern-local-domain-listener DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}"
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(TARGETS quillfern-listen DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(TARGETS ld-codesign DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT dev)
# The helper admits the application only when it runs set-group-ID to a group of its own. A plain
# `cmake --install` as root makes the group and sets the mode; a package does it in postinst.
set(LD_APPLICATION_GROUP "quillfern-listen" CACHE STRING "The demo application's own group, with no members")
if(LD_REQUIRE_SECURE_EXECUTION)
  install(CODE "
    set(program \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/quillfern-listen\")
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
        DESTINATION "${CMAKE_INSTALL_DOCDIR}")
include(cmake/LDSdk.cmake)

set(CPACK_PACKAGE_NAME "quillfern-local-domain-listener")
set(CPACK_PACKAGE_VENDOR "Quillfern")
set(CPACK_PACKAGE_CONTACT "Quillfern developers <dev@quillfern.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Privileged helper that hands loopback port 80 listeners to a signed application")
set(CPACK_GENERATOR "DEB")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${CPACK_PACKAGE_NAME}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "systemd, passwd")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${CPACK_PACKAGE_NAME}-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${CPACK_PACKAGE_NAME} (= ${PROJECT_VERSION}), libssl3 (>= 3.0), libstdc++-12-dev | libstdc++-dev, pkg-config")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION "libdevel")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "SDK for applications of the local domain listener helper\n The C interface <quillfern/local_domain_listener.h>, its static library, a\n pkg-config file, a CMake package and ld-codesign, to build and sign applications.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# dpkg-shlibdeps and strip would not change behaviour, but strip would remove the signatures.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${CMAKE_BINARY_DIR}/packaging/postinst;${CMAKE_BINARY_DIR}/packaging/prerm;${CMAKE_BINARY_DIR}/packaging/postrm")
# The units name the helper by its installed path, so the package installs where the build said.
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
include(CPack)
