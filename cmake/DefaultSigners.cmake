# The build's default list of trust data file signers ('|'-separated). A list that names no
# signer would make a control that accepts any validly signed data file, so such a build
# stops here. As a script it checks one value: cmake -DSIGNERS=<value> -P DefaultSigners.cmake
function(tarn_check_default_signers value)
  string(REPLACE "|" "" names "${value}")
  if(names STREQUAL "")
    message(FATAL_ERROR "TARN_DEFAULT_TRUSTED_SIGNERS names no signer ('${value}'); "
                        "a control built with it would accept any validly signed trust data file.")
  endif()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  tarn_check_default_signers("${SIGNERS}")
endif()
