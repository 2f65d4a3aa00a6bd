# Runs a command that writes a WAV file and checks the file's SHA-256.
#   -DCMD="program|arg|..." -DWAV=path -DSHA256=hex
string(REPLACE "|" ";" CMD "${CMD}")
file(REMOVE ${WAV})
execute_process(COMMAND ${CMD} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WAV})
  message(FATAL_ERROR "${CMD}\nexit status ${rc}, ${WAV} not written\n--- stderr ---\n${err}")
endif()
file(SHA256 ${WAV} sum)
if(NOT sum STREQUAL SHA256)
  message(FATAL_ERROR "${WAV}: SHA-256 ${sum}, pinned ${SHA256}\n"
                      "A render that changed on purpose gets its new sum pinned; one that "
                      "differs between the Linux and the Windows build is a fault.")
endif()
