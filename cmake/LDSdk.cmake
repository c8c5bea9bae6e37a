# The SDK an application of another vendor builds against: the C interface, one static library,
# a pkg-config file and a CMake package. Installed as the component "dev", which cpack makes into
# the -dev package.
#
# One archive holds the client and everything of ours it uses, so that a vendor links one
# library whatever their language. It is built for this build's application identifier, helper
# and anchors: a vendor builds the helper and the SDK together, from one configuration.
set(LD_SDK_LIBRARY quillfern-local-domain-listener)
add_library(ld_sdk STATIC
  $<TARGET_OBJECTS:ld_client> $<TARGET_OBJECTS:ld_platform> $<TARGET_OBJECTS:ld_protocol> $<TARGET_OBJECTS:ld_signing> $<TARGET_OBJECTS:ld_shared>)
set_target_properties(ld_sdk PROPERTIES OUTPUT_NAME ${LD_SDK_LIBRARY} LINKER_LANGUAGE CXX)
target_include_directories(ld_sdk INTERFACE ${PROJECT_SOURCE_DIR}/include)
# What the archive needs from the system: Hogweed, Nettle and GMP (the client checks its own
# signature after a refusal) and the C++ runtime (libstdc++, with libm). glibc 2.34 and later
# hold threads in libc itself.
set(LD_SDK_SYSTEM_LIBRARIES hogweed nettle gmp stdc++ m)
target_link_libraries(ld_sdk INTERFACE ${LD_SDK_SYSTEM_LIBRARIES})

# The header must stay valid C11, as C applications include it.
add_library(ld_sdk_c11_check OBJECT cmake/c11_check.c)
set_target_properties(ld_sdk_c11_check PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(ld_sdk_c11_check PRIVATE -Wall -Wextra -Wpedantic -Werror)
target_include_directories(ld_sdk_c11_check PRIVATE ${PROJECT_SOURCE_DIR}/include)

set(LD_SDK_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/QuillfernLocalDomainListener")
list(JOIN LD_SDK_SYSTEM_LIBRARIES " -l" LD_SDK_PKG_LIBS)
set(LD_SDK_PKG_LIBS "-l${LD_SDK_PKG_LIBS}")
configure_file(cmake/sdk.pc.in "${CMAKE_BINARY_DIR}/sdk/${LD_SDK_LIBRARY}.pc" @ONLY)
include(CMakePackageConfigHelpers)
configure_package_config_file(cmake/sdk-config.cmake.in
  "${CMAKE_BINARY_DIR}/sdk/QuillfernLocalDomainListenerConfig.cmake"
  INSTALL_DESTINATION "${LD_SDK_CMAKE_DIR}" PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file("${CMAKE_BINARY_DIR}/sdk/QuillfernLocalDomainListenerConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)

install(TARGETS ld_sdk ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev)
install(FILES include/quillfern/local_domain_listener.h
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/quillfern" COMPONENT dev)
install(FILES "${CMAKE_BINARY_DIR}/sdk/${LD_SDK_LIBRARY}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)
install(FILES "${CMAKE_BINARY_DIR}/sdk/QuillfernLocalDomainListenerConfig.cmake"
              "${CMAKE_BINARY_DIR}/sdk/QuillfernLocalDomainListenerConfigVersion.cmake"
        DESTINATION "${LD_SDK_CMAKE_DIR}" COMPONENT dev)
install(FILES docs/vendor-guide.md DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${LD_PACKAGE_NAME}-dev" COMPONENT dev)
