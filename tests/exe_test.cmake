# orvel_exe_test(name ARGS ... [EXIT n] [STDOUT file] [STDERR file]
#                [STDOUT_REGEX re] [STDERR_REGEX re] [WORKDIR dir] [ENV K=V ...]
#                [EXE path])
# Runs the real executable (through the cross-compiling emulator when there
# is one) and checks its exit status and output with run_exe.cmake. EXE
# names a copy of the executable to run instead of the build's own.
function(orvel_exe_test name)
  cmake_parse_arguments(T "" "EXIT;STDOUT;STDERR;STDOUT_REGEX;STDERR_REGEX;WORKDIR;EXE" "ARGS;ENV" ${ARGN})
  string(REPLACE ";" "|" args "${T_ARGS}")
  string(REPLACE ";" "|" emu "${CMAKE_CROSSCOMPILING_EMULATOR}")
  string(REPLACE ";" "|" env "${T_ENV}")
  if(NOT T_EXE)
    set(T_EXE $<TARGET_FILE:orvel>)
  endif()
  set(defs -DEXE=${T_EXE} "-DARGS=${args}" "-DEMU=${emu}")
  foreach(k EXIT STDOUT STDERR STDOUT_REGEX STDERR_REGEX WORKDIR)
    if(DEFINED T_${k})
      if(k STREQUAL "EXIT" OR k STREQUAL "STDOUT" OR k STREQUAL "STDERR")
        list(APPEND defs "-DEXPECT_${k}=${T_${k}}")
      else()
        list(APPEND defs "-D${k}=${T_${k}}")
      endif()
    endif()
  endforeach()
  if(T_ENV)
    list(APPEND defs "-DENV=${env}")
  endif()
  add_test(NAME ${name} COMMAND ${CMAKE_COMMAND} ${defs} -P ${ORVEL_TESTS_DIR}/run_exe.cmake)
endfunction()
