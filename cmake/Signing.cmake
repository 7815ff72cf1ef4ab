# Authenticode signing of the programs and of the package, with osslsigncode.
#
# The certificate comes from the environment (or the same cache variables):
#   DORVANE_SIGN_PFX            a PKCS#12 file with the certificate and its key,
#   DORVANE_SIGN_PASSWORD_FILE  a file holding the PFX's password (never on a
#                               command line, where other users could read it);
# or
#   DORVANE_SIGN_CERT, DORVANE_SIGN_KEY   the certificate and its key in PEM;
# and, either way,
#   DORVANE_SIGN_CA             what the signature is verified against (the
#                               issuing chain; default: the system's CAs),
#   DORVANE_SIGN_TIMESTAMP      an RFC 3161 time-stamp server's URL (optional).
# Without a certificate the build makes a throwaway self-signed one in
# build/signing/, named TEST-ONLY, and signs with it, so that the signing
# steps always run and the tests always verify them. Nothing signed with it
# is fit for release.
find_program(OSSLSIGNCODE osslsigncode)
find_program(OPENSSL openssl)
if(NOT OSSLSIGNCODE OR NOT OPENSSL)
  message(FATAL_ERROR "osslsigncode or openssl is missing: run scripts/bootstrap.sh")
endif()

foreach(name PFX PASSWORD_FILE CERT KEY CA TIMESTAMP)
  set(DORVANE_SIGN_${name} "$ENV{DORVANE_SIGN_${name}}" CACHE STRING "Signing: see cmake/Signing.cmake")
endforeach()

set(DORVANE_SIGNING_DIR ${CMAKE_BINARY_DIR}/signing)
file(MAKE_DIRECTORY ${DORVANE_SIGNING_DIR})
# The certificate the signatures carry, in PEM, for the tests.
set(DORVANE_SIGNING_CERT ${DORVANE_SIGNING_DIR}/signing-certificate.pem)

if(DORVANE_SIGN_PFX)
  set(DORVANE_SIGN_WITH -pkcs12 ${DORVANE_SIGN_PFX})
  set(pass)
  if(DORVANE_SIGN_PASSWORD_FILE)
    list(APPEND DORVANE_SIGN_WITH -readpass ${DORVANE_SIGN_PASSWORD_FILE})
    set(pass -passin file:${DORVANE_SIGN_PASSWORD_FILE})
  endif()
  execute_process(COMMAND ${OPENSSL} pkcs12 -in ${DORVANE_SIGN_PFX} -nokeys -clcerts ${pass}
                          -out ${DORVANE_SIGNING_CERT}
                  RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "cannot read the certificate of ${DORVANE_SIGN_PFX}")
  endif()
  set(DORVANE_SIGNING_CA ${DORVANE_SIGN_CA})
elseif(DORVANE_SIGN_CERT AND DORVANE_SIGN_KEY)
  set(DORVANE_SIGN_WITH -certs ${DORVANE_SIGN_CERT} -key ${DORVANE_SIGN_KEY})
  configure_file(${DORVANE_SIGN_CERT} ${DORVANE_SIGNING_CERT} COPYONLY)
  set(DORVANE_SIGNING_CA ${DORVANE_SIGN_CA})
else()
  set(cert ${DORVANE_SIGNING_DIR}/TEST-ONLY-dorvane-signing.crt)
  set(key ${DORVANE_SIGNING_DIR}/TEST-ONLY-dorvane-signing.key)
  if(NOT EXISTS ${cert} OR NOT EXISTS ${key})
    execute_process(
      COMMAND ${OPENSSL} req -x509 -newkey rsa:2048 -nodes -days 3650 -keyout ${key} -out ${cert}
              -subj "/CN=WWAN Dorvane TEST-ONLY signing, not for release"
              -addext "extendedKeyUsage=codeSigning" -addext "keyUsage=digitalSignature"
      RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
    if(failed)
      message(FATAL_ERROR "openssl could not make the test signing certificate")
    endif()
  endif()
  message(STATUS "Signing with the throwaway test certificate ${cert}")
  set(DORVANE_SIGN_WITH -certs ${cert} -key ${key})
  configure_file(${cert} ${DORVANE_SIGNING_CERT} COPYONLY)
  set(DORVANE_SIGNING_CA ${cert})  # self-signed: its own anchor
endif()
if(NOT DORVANE_SIGNING_CA)
  set(DORVANE_SIGNING_CA /etc/ssl/certs/ca-certificates.crt)
endif()
if(DORVANE_SIGN_TIMESTAMP)
  list(APPEND DORVANE_SIGN_WITH -ts ${DORVANE_SIGN_TIMESTAMP})
endif()

# The commands that sign FILE in place (through FILE.unsigned, which stays
# only while they run).
function(dorvane_sign_commands out file)
  set(${out}
    COMMAND ${CMAKE_COMMAND} -E rename ${file} ${file}.unsigned
    COMMAND ${OSSLSIGNCODE} sign ${DORVANE_SIGN_WITH} -n "WWAN Dorvane" -h sha256
            -in ${file}.unsigned -out ${file}
    COMMAND ${CMAKE_COMMAND} -E rm ${file}.unsigned
    PARENT_SCOPE)
endfunction()

# dorvane_sign(TARGET): signs the program after linking (after its symbols
# were moved out, when dorvane_keep_symbols came first).
function(dorvane_sign target)
  dorvane_sign_commands(commands $<TARGET_FILE:${target}>)
  add_custom_command(TARGET ${target} POST_BUILD ${commands}
    COMMENT "Signing ${target}" VERBATIM)
endfunction()
