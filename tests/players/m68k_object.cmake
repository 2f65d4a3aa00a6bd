# Compiles the replay as the Amiga player will: 68000, freestanding, no
# libraries. It must leave no symbol undefined (no libgcc helpers, no memset)
# and stay small.
#   -DGCC=m68k gcc -DNM=m68k nm -DSRC=ptreplay.c -DOUT=object
set(max_text 12288)
execute_process(COMMAND ${GCC} -m68000 -O2 -fno-pic -ffreestanding -nostdlib
                        -Wall -Wextra -Werror -c ${SRC} -o ${OUT}
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "m68k compile failed:\n${err}")
endif()
execute_process(COMMAND ${NM} -u ${OUT} OUTPUT_VARIABLE undefined)
if(NOT undefined STREQUAL "")
  message(FATAL_ERROR "undefined symbols in the 68000 object:\n${undefined}")
endif()
execute_process(COMMAND ${NM} -S --size-sort -t d ${OUT} OUTPUT_VARIABLE symbols)
string(REGEX MATCHALL "[0-9]+ [0-9]+ [tT] " sized "${symbols}")
set(text 0)
foreach(s ${sized})
  string(REGEX MATCH "^[0-9]+ ([0-9]+)" _ "${s}")
  math(EXPR text "${text} + ${CMAKE_MATCH_1}")
endforeach()
if(text GREATER max_text)
  message(FATAL_ERROR "68000 code is ${text} bytes, more than ${max_text}")
endif()
message(STATUS "68000 object: ${text} bytes of code, nothing undefined")
