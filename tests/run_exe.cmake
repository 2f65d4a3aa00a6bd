# Runs the real executable and checks what it printed.
#   -DEXE=path -DARGS="a|b" [-DEMU="wine|..."] [-DWORKDIR=dir]
#   [-DEXPECT_EXIT=n] [-DEXPECT_STDOUT=file] [-DEXPECT_STDERR=file]
#   [-DSTDOUT_REGEX=re] [-DSTDERR_REGEX=re] [-DENV="K=V|K2=V2"]
# Windows text mode turns "\n" into "\r\n"; carriage returns are dropped
# before comparing.
# Lists arrive joined with "|" (CTest would split them at ";").
foreach(v ARGS EMU ENV)
  string(REPLACE "|" ";" ${v} "${${v}}")
endforeach()
if(NOT WORKDIR)
  set(WORKDIR ".")
endif()
set(cmd ${EMU} ${EXE} ${ARGS})
if(ENV)
  set(cmd ${CMAKE_COMMAND} -E env ${ENV} ${cmd})
endif()
execute_process(COMMAND ${cmd} WORKING_DIRECTORY ${WORKDIR}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REPLACE "\r" "" out "${out}")
string(REPLACE "\r" "" err "${err}")

set(failed "")
if(DEFINED EXPECT_EXIT AND NOT rc STREQUAL EXPECT_EXIT)
  string(APPEND failed "exit status ${rc}, expected ${EXPECT_EXIT}\n")
endif()
foreach(stream STDOUT STDERR)
  if(stream STREQUAL STDOUT)
    set(text "${out}")
  else()
    set(text "${err}")
  endif()
  if(EXPECT_${stream})
    file(READ ${EXPECT_${stream}} want)
    if(NOT text STREQUAL want)
      file(WRITE ${WORKDIR}/actual_${stream}.txt "${text}")
      string(APPEND failed "${stream} differs from ${EXPECT_${stream}} (actual in ${WORKDIR}/actual_${stream}.txt)\n")
    endif()
  endif()
  if(DEFINED ${stream}_REGEX AND NOT text MATCHES "${${stream}_REGEX}")
    string(APPEND failed "${stream} does not match '${${stream}_REGEX}'\n")
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "${cmd}\n${failed}--- stdout ---\n${out}--- stderr ---\n${err}")
endif()
