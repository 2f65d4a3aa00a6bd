# Players built from our own source for the engine's tests and the
# end-to-end tests of the play commands.
set(playback_amiga ${CMAKE_CURRENT_SOURCE_DIR}/playback/amiga)
orvel_add_amiga_program(NAME test_engine_probe SOURCES ${playback_amiga}/engine_probe.s
                        INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
orvel_use_amiga_programs(test_playback test_engine_probe)

# Real-time output, end to end. Each test runs with HOME pointing at its own
# directory whose .asoundrc sets ALSA's default PCM: natively, and under wine,
# whose WASAPI driver goes through the same ALSA configuration.

# orvel_audio_home(<out var> <name> <pcm definition>)
# Makes <build>/audio/<name>/.asoundrc with "pcm.!default { <definition> }";
# "@HOME@" in the definition stands for that directory.
function(orvel_audio_home out name pcm)
  set(home ${CMAKE_CURRENT_BINARY_DIR}/audio/${name})
  file(MAKE_DIRECTORY ${home})
  string(REPLACE "@HOME@" "${home}" pcm "${pcm}")
  file(WRITE ${home}/.asoundrc "pcm.!default { ${pcm} }\n")
  set(${out} ${home} PARENT_SCOPE)
endfunction()

# orvel_audio_capture_test(<name> PLAY <command...> RENDER <command...> [MIN_FRAMES n])
# Records what PLAY sends to the audio output (raw float32 stereo, through
# ALSA's file plugin) and compares it exactly with the WAV file that RENDER
# writes ("@WAV@" in RENDER), allowing for the output's leading silence (its
# prefill). Commands may start with a target name (orvel): they then run
# through wine when cross compiling. MIN_FRAMES (default 48000) frames of
# sound must overlap. Four CTest entries: <name>_clean, _play, _render,
# _compare. For the player, e.g.:
#   orvel_audio_capture_test(play_mod_matches_wav
#     PLAY orvel play ${player} ${module} 2
#     RENDER orvel play-wav ${player} ${module} @WAV@ 4)
function(orvel_audio_capture_test name)
  cmake_parse_arguments(T "" "MIN_FRAMES" "PLAY;RENDER" ${ARGN})
  if(NOT T_MIN_FRAMES)
    set(T_MIN_FRAMES 48000)
  endif()
  orvel_audio_home(home ${name}
    "type file; slave.pcm \"null\"; file \"@HOME@/capture.raw\"; format \"raw\"")
  set(raw ${home}/capture.raw)
  set(wav ${home}/render.wav)
  string(REPLACE "@WAV@" "${wav}" render "${T_RENDER}")

  add_test(NAME ${name}_clean COMMAND ${CMAKE_COMMAND} -E rm -f ${raw} ${wav})
  set_tests_properties(${name}_clean PROPERTIES FIXTURES_SETUP ${name}_clean)
  add_test(NAME ${name}_play COMMAND ${T_PLAY})
  add_test(NAME ${name}_render COMMAND ${render})
  set_tests_properties(${name}_play ${name}_render PROPERTIES
    FIXTURES_REQUIRED ${name}_clean FIXTURES_SETUP ${name})
  set_tests_properties(${name}_play PROPERTIES ENVIRONMENT HOME=${home})
  add_test(NAME ${name}_compare COMMAND test_playback --gtest_filter=CaptureCompare.Files)
  set_tests_properties(${name}_compare PROPERTIES FIXTURES_REQUIRED ${name} ENVIRONMENT
    "ORVEL_CAPTURE_RAW=${raw};ORVEL_CAPTURE_WAV=${wav};ORVEL_CAPTURE_MIN_FRAMES=${T_MIN_FRAMES}")
endfunction()

# The output's own behaviour: every frame in order after the prefill, the
# latency floor, one output at a time. Each open truncates the capture.
orvel_audio_home(capture_home playback_audio_capture
  "type file; slave.pcm \"null\"; file \"@HOME@/capture.raw\"; format \"raw\"")
add_test(NAME playback_audio_capture COMMAND test_playback --gtest_filter=AudioCapture.*)
set_tests_properties(playback_audio_capture PROPERTIES ENVIRONMENT
  "HOME=${capture_home};ORVEL_TEST_AUDIO=capture;ORVEL_CAPTURE_RAW=${capture_home}/capture.raw")

# No usable device: the default PCM names a card that does not exist.
orvel_audio_home(nodevice_home playback_audio_nodevice "type hw; card 99")
add_test(NAME playback_audio_nodevice COMMAND test_playback --gtest_filter=AudioNoDevice.*)
set_tests_properties(playback_audio_nodevice PROPERTIES
  ENVIRONMENT "HOME=${nodevice_home};ORVEL_TEST_AUDIO=nodevice")

# The configuration tests (test_cli) write orvel.conf next to the test
# executables, where config_load called by the engine's tests would read it.
set_tests_properties(cli playback PROPERTIES RESOURCE_LOCK orvel_conf_beside_tests)

# ---- the play commands end to end ----
# The tests' own copy of the executable's directory layout: orvel beside an
# orvel_data/ that holds a player table and the quartet player, so that the
# automatic choice of a player is tested without the bundled orvel_data/.
set(e2e ${CMAKE_CURRENT_BINARY_DIR}/playback_e2e)
set(e2e_exe ${e2e}/orvel${CMAKE_EXECUTABLE_SUFFIX})
set(quartet ${e2e}/orvel_data/players/quartet)
orvel_add_amiga_program(NAME test_quartet OUTPUT ${quartet}
                        SOURCES ${playback_amiga}/quartet.s ${playback_amiga}/quartet.c
                        INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
if(ORVEL_HAVE_M68K)
  add_custom_command(OUTPUT ${e2e_exe}
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:orvel> ${e2e_exe}
    DEPENDS orvel
    COMMENT "Copying orvel for the end-to-end tests")
  add_custom_target(playback_e2e_exe ALL DEPENDS ${e2e_exe})

  # song.4vox and song.qrt choose quartet by extension, each with its own
  # options; the player named for tune.nope does not exist.
  file(WRITE ${e2e}/orvel_data/eagleplayer.conf
    "# end-to-end tests of the play commands\n"
    "quartet prefixes=4vox epopt=type:nt20\n"
    "quartet prefixes=qrt epopt=tempo:fast\n"
    "absent_player prefixes=nope\n")
  set(song "4VOX A quartet for the end-to-end tests of orvel: four voices read this text, one letter per row.")
  string(LENGTH "${song}" song_bytes)
  file(WRITE ${e2e}/song.4vox "${song}")
  file(WRITE ${e2e}/song.qrt "${song}")
  file(WRITE ${e2e}/tune.nope "${song}")
  file(WRITE ${e2e}/garbage.4vox "not a quartet")

  # CMake's regular expressions have no counted repetition.
  set(h8 "[0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f]")
  set(peak "0\\.[0-9][0-9][0-9][0-9]")
  # quartet's entry stubs lie at fixed places at the start of hunk 0.
  set(entries "play_wav_mode: entries init=00200054 init_sound=00200060 interrupt=0020006e start_int=00000000 check2=00200054 init_amplifier=00000000\n")
  set(installed "play_wav_mode: module addr=00010000 size=${song_bytes}\n")
  function(e2e_test name)
    orvel_exe_test(playback_${name} EXE ${e2e_exe} WORKDIR ${e2e} ${ARGN})
  endfunction()

  # One second of quartet: 50 ticks, each moving channel 2 through PokePer;
  # the last tick left every channel playing its loop at the period and
  # volume of row 9, tick 1.
  e2e_test(wav_report ARGS play-wav ${quartet} song.4vox report.wav 1 EXIT 0 STDOUT_REGEX "^$"
    STDERR_REGEX "^format: NoiseTracker 2\\.x \\[type:nt20\\]\n${entries}${installed}\
play_wav_mode: 48000 frames mixed, peak \\|sample\\|=${peak}
  paula state per channel \\(lc/len/per/vol\\):
    ch0: lc=${h8} len=16 per=1283 vol=60  paula\\.active=1
    ch1: lc=${h8} len=16 per=305 vol=52  paula\\.active=1
    ch2: lc=${h8} len=16 per=535 vol=52  paula\\.active=1
    ch3: lc=${h8} len=16 per=131 vol=52  paula\\.active=1
  DMACON=020f INTREQ=0780 INTENA=0000
deli_neg histogram \\(calls per FPTR\\):
  -  96 AllocAudio           1 calls
  - 264 PokePer              50 calls
$")
  # The player from the table, with and without a format name for its options.
  e2e_test(auto_wav_format_name ARGS auto-wav song.4vox auto.wav 0.1 EXIT 0 STDOUT_REGEX "^$"
    STDERR_REGEX "^play-wav: song\\.4vox -> [^\n]*orvel_data/players/quartet\nformat: NoiseTracker 2\\.x \\[type:nt20\\]\n${entries}${installed}play_wav_mode: 4800 frames mixed")
  e2e_test(auto_wav_format_options ARGS auto-wav song.qrt auto.wav 0.1 EXIT 0 STDOUT_REGEX "^$"
    STDERR_REGEX "^play-wav: song\\.qrt -> [^\n]*orvel_data/players/quartet\nformat: \\[tempo:fast\\]\n${entries}")
  # Failures: one line each, exit status 1.
  e2e_test(auto_wav_no_player ARGS auto-wav tune.nope none.wav 0.1 EXIT 1 STDOUT_REGEX "^$"
    STDERR_REGEX "^play-wav: no player matches 'tune\\.nope'\n$")
  e2e_test(play_no_player ARGS play tune.nope EXIT 1 STDOUT_REGEX "^$"
    STDERR_REGEX "^play: no player matches 'tune\\.nope'\n$")
  e2e_test(wav_missing_module ARGS play-wav ${quartet} missing.4vox none.wav 1 EXIT 1 STDOUT_REGEX "^$"
    STDERR_REGEX "^load_file: cannot open missing\\.4vox\n$")
  e2e_test(wav_player_not_hunk ARGS play-wav song.4vox song.4vox none.wav 1 EXIT 1 STDOUT_REGEX "^$"
    STDERR_REGEX "^hunk: missing HUNK_HEADER\n$")
  e2e_test(wav_not_recognised ARGS play-wav ${quartet} garbage.4vox none.wav 1 EXIT 1 STDOUT_REGEX "^$"
    STDERR_REGEX "^format: [^\n]*\n${entries}play_wav_mode: module addr=00010000 size=13\nplay_wav_mode: module not recognised and init failed. aborting\n$")

  # trace: the register writes as they happen (the first by the host's
  # reset), through the CPU and through the PokePer slot, rendered to /dev/null.
  e2e_test(trace ARGS trace ${quartet} song.4vox 0.05 EXIT 0 STDOUT_REGEX "^$"
    STDERR_REGEX "^\\[trace\\] pc=00000000 DMACON 0000 -> 0200
format: [^\n]*\n${entries}${installed}\\[trace\\] pc=${h8} AUD0LC = ${h8}
\\[trace\\] pc=${h8} AUD0LEN = 16
\\[trace\\] pc=${h8} AUD0PER = 428
.*\\[trace\\] pc=${h8} DMACON 0200 -> 020f
\\[trace\\] pc=${h8} AUD0PER = 1076
\\[trace\\] pc=${h8} AUD0VOL = 64
.*\\[trace\\] pc=00f8fefa AUD2PER = 538
.*play_wav_mode: 2400 frames mixed.*deli_neg histogram")

  # The Linux and the Windows build (and either of the mixer's kernels)
  # render the same bytes: two seconds of quartet against a pinned sum.
  string(REPLACE ";" "|" emu "${CMAKE_CROSSCOMPILING_EMULATOR}")
  add_test(NAME playback_wav_pinned COMMAND ${CMAKE_COMMAND}
    "-DCMD=${emu}|${e2e_exe}|play-wav|${quartet}|${e2e}/song.4vox|${e2e}/pinned.wav|2"
    -DWAV=${e2e}/pinned.wav
    -DSHA256=41f16cc9a90bf41ffce9cb398c940466d89edf073701dd45b391e6baed12c0c0
    -P ${CMAKE_CURRENT_SOURCE_DIR}/playback/wav_sha256.cmake)

  # Real time: without a device the play ends after the output's own message.
  e2e_test(play_no_device ARGS play song.4vox 1 EXIT 1 ENV HOME=${nodevice_home}
    STDOUT_REGEX "^format: NoiseTracker 2\\.x \\[type:nt20\\]
player loaded: entry=00200000, 2 hunks
player: orvel quartet  v1\\.2
creator: orvel tests
entries: init=00200054 init_sound=00200060 interrupt=0020006e end_sound=0020007a end=00000000
module loaded: ${song_bytes} bytes at 00010000
$"
    STDERR_REGEX "^play: song\\.4vox -> [^\n]*orvel_data/players/quartet
(alsa_open: snd_pcm_open\\(default\\) failed: [^\n]*|wasapi_open: GetDefaultAudioEndpoint hr=0x80070490)
$")
  e2e_test(play_not_recognised ARGS play ${quartet} garbage.4vox EXIT 1 ENV HOME=${nodevice_home}
    STDOUT_REGEX "module loaded: 13 bytes at 00010000\n$"
    STDERR_REGEX "^module not recognised and init failed. aborting\n$")
  # With a device, what reaches it is the WAV render, frame for frame.
  orvel_audio_capture_test(playback_play_capture
    PLAY ${CMAKE_CROSSCOMPILING_EMULATOR} ${e2e_exe} play ${quartet} ${e2e}/song.4vox 2
    RENDER ${CMAKE_CROSSCOMPILING_EMULATOR} ${e2e_exe} play-wav ${quartet} ${e2e}/song.4vox @WAV@ 4)
endif()

# The Paula self-tests: the chord played in real time, straight from the
# registers and programmed by the 68000, is the chord of the WAV render.
orvel_audio_capture_test(playback_paula_test_capture
  PLAY orvel paula-test 1 RENDER orvel paula-wav @WAV@ 2 MIN_FRAMES 24000)
orvel_audio_capture_test(playback_cpu_paula_test_capture
  PLAY orvel cpu-paula-test 1 RENDER orvel paula-wav @WAV@ 2 MIN_FRAMES 24000)
set_tests_properties(playback_cpu_paula_test_capture_play PROPERTIES PASS_REGULAR_EXPRESSION
  "cpu_paula_test done: PC=00000474 \\(program counter rests in the self-loop\\)\n")
orvel_exe_test(playback_paula_wav ARGS paula-wav paula_wav_test.wav 0.5 WORKDIR ${CMAKE_CURRENT_BINARY_DIR}
  EXIT 0 STDERR_REGEX "^$" STDOUT_REGEX "^paula_wav_test: 24000 frames mixed, peak \\|sample\\|=0\\.[0-9][0-9][0-9][0-9]
paula_wav_test: wrote paula_wav_test\\.wav \\(24000 stereo frames at 48000 Hz\\)
$")
