# `tembra csr` on a fresh software token, checked by the `openssl req
# -verify` command itself: an SM2 request (with the default identity, which
# OpenSSL 3.0 wants named) and an RSA-2048 one.
# Run with -DTEMBRA=<tembra> -DOPENSSL=<openssl> -DWORK=<scratch directory>.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(ENV{TEMBRA_CSR_CHECK_PIN} 11112222)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rv OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rv EQUAL 0)
    message(FATAL_ERROR "${ARGN}\nstatus ${rv}\n${out}${err}")
  endif()
endfunction()

# OpenSSL 3.0 exits with 0 also when the signature fails: its message decides.
function(verified)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rv OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rv EQUAL 0 OR NOT "${out}${err}" MATCHES "verify OK")
    message(FATAL_ERROR "${ARGN}\nstatus ${rv}\n${out}${err}")
  endif()
endfunction()

run(${TEMBRA} --store ${WORK} token create tok --container X:sm2:noenc:nocert
    --user-pin-env TEMBRA_CSR_CHECK_PIN --default-pins)
foreach(alg sm2 rsa2048)
  run(${TEMBRA} --store ${WORK} keygen --label K${alg} --alg ${alg}
      --pin-env TEMBRA_CSR_CHECK_PIN)
  run(${TEMBRA} --store ${WORK} csr --label K${alg} --subject /CN=Check/O=Tembra --pem
      -o ${WORK}/${alg}.pem --pin-env TEMBRA_CSR_CHECK_PIN)
  if(alg STREQUAL "sm2")
    verified(${OPENSSL} req -verify -noout -in ${WORK}/${alg}.pem -vfyopt distid:1234567812345678)
  else()
    verified(${OPENSSL} req -verify -noout -in ${WORK}/${alg}.pem)
  endif()
endforeach()
message(STATUS "both requests verify")
