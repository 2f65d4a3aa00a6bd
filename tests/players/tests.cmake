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

# ---- the bundled player, end to end ----
get_target_property(bundled_player amiga_protracker ORVEL_HUNK_FILE)
set(data_dir ${CMAKE_BINARY_DIR}/orvel_data)
if(TARGET test_players AND bundled_player)
  # The in-process runs choose the player as orvel does, from the data
  # directory beside their own executable: a copy of the real one.
  set(test_data ${CMAKE_CURRENT_BINARY_DIR}/players/orvel_data)
  add_custom_command(
    OUTPUT ${test_data}/eagleplayer.conf ${test_data}/players/ProTracker
    COMMAND ${CMAKE_COMMAND} -E make_directory ${test_data}/players
    COMMAND ${CMAKE_COMMAND} -E copy ${data_dir}/eagleplayer.conf ${test_data}/eagleplayer.conf
    COMMAND ${CMAKE_COMMAND} -E copy ${bundled_player} ${test_data}/players/ProTracker
    DEPENDS ${data_dir}/eagleplayer.conf ${bundled_player} amiga_protracker
    COMMENT "Data directory for test_players")
  add_custom_target(players_test_data DEPENDS ${test_data}/eagleplayer.conf
                                              ${test_data}/players/ProTracker)
  add_dependencies(test_players players_test_data orvel)
  target_sources(test_players PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/playback/capture.cpp)
  target_compile_definitions(test_players PRIVATE
    ORVEL_EXE="$<TARGET_FILE:orvel>" ORVEL_DATA_DIR="${data_dir}")
endif()

if(bundled_player)
  # `orvel auto-wav` and `orvel play` pick the bundled player by themselves.
  orvel_exe_test(players_auto_wav_picks_bundled_player
    ARGS auto-wav ${data_dir}/demo.mod ${CMAKE_CURRENT_BINARY_DIR}/players_demo.wav 3
    EXIT 0
    STDERR_REGEX "demo.mod -> [^ ]*orvel_data/players/ProTracker.format: ProTracker \\(31-instrument M.K.\\) \\[type:pt30\\].*peak \\|sample\\|=([1-9]|0\\.0*[1-9])")
  # A file named like a module that is none: the player's check refuses it.
  set(not_a_module ${CMAKE_CURRENT_BINARY_DIR}/players_not_a_module.mod)
  file(WRITE ${not_a_module} "This is a text file, not a ProTracker module.\n")
  orvel_exe_test(players_bundled_player_refuses_other_files
    ARGS auto-wav ${not_a_module} ${CMAKE_CURRENT_BINARY_DIR}/players_none.wav 1
    EXIT 1
    STDERR_REGEX "-> [^ ]*orvel_data/players/ProTracker.*play_wav_mode: module not recognised and init failed; aborting")
  orvel_audio_capture_test(players_play_matches_auto_wav
    PLAY orvel play ${data_dir}/demo.mod 2
    RENDER orvel auto-wav ${data_dir}/demo.mod @WAV@ 4)

  # Installed and packed: orvel and orvel_data/ side by side, and the
  # installed orvel finds its player.
  set(prefix ${CMAKE_CURRENT_BINARY_DIR}/players_install)
  set(installed ${prefix}/${ORVEL_INSTALL_DIR})
  add_test(NAME players_install
           COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${prefix})
  set_tests_properties(players_install PROPERTIES FIXTURES_SETUP players_installed)
  string(REPLACE ";" "|" emu "${CMAKE_CROSSCOMPILING_EMULATOR}")
  add_test(NAME players_installed_orvel_plays COMMAND ${CMAKE_COMMAND}
    -DEXE=${installed}/orvel${CMAKE_EXECUTABLE_SUFFIX} "-DEMU=${emu}"
    "-DARGS=auto-wav|${installed}/orvel_data/demo.mod|${prefix}/demo.wav|1"
    -DEXPECT_EXIT=0
    "-DSTDERR_REGEX=-> [^ ]*players_install/[^ ]*orvel_data/players/ProTracker.format: "
    -P ${CMAKE_CURRENT_SOURCE_DIR}/run_exe.cmake)
  set_tests_properties(players_installed_orvel_plays PROPERTIES FIXTURES_REQUIRED players_installed)

  set(exe_name orvel${CMAKE_EXECUTABLE_SUFFIX})
  add_test(NAME players_package COMMAND ${CMAKE_COMMAND}
    -DBUILD=${CMAKE_BINARY_DIR} -DNAME=${ORVEL_PACKAGE_NAME}
    -DOUT=${CMAKE_CURRENT_BINARY_DIR}/players_package
    -DPACKAGE_SCRIPT=${CMAKE_SOURCE_DIR}/cmake/make_package.cmake
    "-DEXPECT=${ORVEL_INSTALL_DIR}/${exe_name}|${ORVEL_INSTALL_DIR}/orvel_data/eagleplayer.conf|${ORVEL_INSTALL_DIR}/orvel_data/demo.mod|${ORVEL_INSTALL_DIR}/orvel_data/players/ProTracker"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/players/check_package.cmake)
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
