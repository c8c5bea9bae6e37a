# Trust anchors compiled into every program, and the identity that signs the built programs as
# their last build step. With nothing given, a throwaway development CA and leaf (team
# DEVTEAM001) are made once in the build tree, so a fresh checkout builds, signs and runs.

set(LD_CODE_SIGNING_ANCHOR "" CACHE FILEPATH "PEM root(s) compiled in as the only trust anchors")
set(LD_SIGNING_KEY "" CACHE STRING "PEM private key file, or pkcs11: URI of a key in a token, that signs the built programs")
set(LD_PKCS11_MODULE "" CACHE FILEPATH "PKCS#11 module of the token when LD_SIGNING_KEY is a pkcs11: URI")
set(LD_SIGNING_CERT "" CACHE FILEPATH "PEM leaf certificate of that key (subject OU = team)")
set(LD_SIGNING_CHAIN "" CACHE FILEPATH "PEM intermediates to carry in signatures (optional)")

# A vendor's identity (its own root and key) signs only the helper. The development identity is
# a throwaway made here; it also signs the demo and every bench and test program, which a vendor's
# key must never sign: whatever carries the application's identifier is, to the helper, the
# application, and the demo hands the listeners to any command.
if(LD_CODE_SIGNING_ANCHOR)
  set(LD_DEVELOPMENT_IDENTITY OFF)
  if(NOT LD_SIGNING_KEY OR NOT LD_SIGNING_CERT)
    message(FATAL_ERROR "LD_CODE_SIGNING_ANCHOR needs LD_SIGNING_KEY and LD_SIGNING_CERT as well")
  endif()
  set(LD_ANCHOR_FILE "${LD_CODE_SIGNING_ANCHOR}")
  set(LD_KEY_FILE "${LD_SIGNING_KEY}")
  set(LD_CERT_FILE "${LD_SIGNING_CERT}")
  set(LD_CHAIN_FILE "${LD_SIGNING_CHAIN}")
else()
  set(LD_DEVELOPMENT_IDENTITY ON)
  set(identity_dir "${CMAKE_BINARY_DIR}/development-identity")
  if(NOT EXISTS "${identity_dir}/leaf.pem")
    message(STATUS "Making a throwaway development signing identity (team DEVTEAM001)")
    execute_process(
      COMMAND "${CMAKE_SOURCE_DIR}/scripts/make-development-identity" "${identity_dir}" DEVTEAM001
      RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "could not make the development signing identity (is openssl installed?)")
    endif()
  endif()
  set(LD_ANCHOR_FILE "${identity_dir}/root.pem")
  set(LD_KEY_FILE "${identity_dir}/leaf.key")
  set(LD_CERT_FILE "${identity_dir}/leaf.pem")
  set(LD_CHAIN_FILE "")
endif()

# The team the helper will require (its own, the signing certificate's subject OU): the client
# names it when the helper refuses it.
execute_process(COMMAND openssl x509 -in "${LD_CERT_FILE}" -noout -subject -nameopt multiline
                OUTPUT_VARIABLE subject RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT subject MATCHES "organizationalUnitName *= ([^\n]+)")
  message(FATAL_ERROR "${LD_CERT_FILE}: no subject OU (the team) could be read")
endif()
set(LD_SIGNING_TEAM "${CMAKE_MATCH_1}")

file(READ "${LD_ANCHOR_FILE}" LD_ANCHOR_PEM)
if(NOT LD_ANCHOR_PEM MATCHES "-----BEGIN CERTIFICATE-----")
  message(FATAL_ERROR "${LD_ANCHOR_FILE} holds no PEM certificate")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${LD_ANCHOR_FILE}")
configure_file("${CMAKE_SOURCE_DIR}/cmake/anchors.cpp.in"
               "${CMAKE_BINARY_DIR}/generated/anchors.cpp" @ONLY)

# Signs target's output in place as identifier, after every link.
function(ld_sign_target target identifier)
  set(chain_arguments "")
  if(LD_CHAIN_FILE)
    set(chain_arguments --chain "${LD_CHAIN_FILE}")
  endif()
  if(LD_PKCS11_MODULE)
    list(APPEND chain_arguments --pkcs11-module "${LD_PKCS11_MODULE}")
  endif()
  add_dependencies(${target} ld-codesign)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND "$<TARGET_FILE:ld-codesign>" sign --identifier "${identifier}"
            --key "${LD_KEY_FILE}" --cert "${LD_CERT_FILE}" ${chain_arguments}
            "$<TARGET_FILE:${target}>"
    # The compiled-in anchors must fit the signing profile and the identity must chain to them,
    # or every program of this build would refuse every other.
    COMMAND "$<TARGET_FILE:ld-codesign>" verify --requirement "anchor apple generic"
            "$<TARGET_FILE:${target}>"
    VERBATIM)
endfunction()
