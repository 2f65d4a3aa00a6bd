# The replay routine is freestanding C for the Amiga; the tests compile it
# natively into test_players, with hooks in place of Paula's registers.
set(ORVEL_PTREPLAY_DIR ${CMAKE_SOURCE_DIR}/players/protracker)
if(TARGET test_players)
  target_sources(test_players PRIVATE ${ORVEL_PTREPLAY_DIR}/ptreplay.c)
  target_include_directories(test_players PRIVATE ${ORVEL_PTREPLAY_DIR})
  target_compile_definitions(test_players PRIVATE
    ORVEL_DEMO_MOD="${CMAKE_BINARY_DIR}/orvel_data/demo.mod")
  add_dependencies(test_players demo_mod)
endif()

# It must also build for a plain 68000 with nothing to link against.
find_program(ORVEL_M68K_GCC m68k-linux-gnu-gcc)
find_program(ORVEL_M68K_NM m68k-linux-gnu-nm)
if(ORVEL_M68K_GCC AND ORVEL_M68K_NM)
  add_test(NAME players_m68k_object
    COMMAND ${CMAKE_COMMAND} -DGCC=${ORVEL_M68K_GCC} -DNM=${ORVEL_M68K_NM}
            -DSRC=${ORVEL_PTREPLAY_DIR}/ptreplay.c -DOUT=${CMAKE_CURRENT_BINARY_DIR}/ptreplay_m68k.o
            -P ${CMAKE_CURRENT_SOURCE_DIR}/players/m68k_object.cmake)
endif()
