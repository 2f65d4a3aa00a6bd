# Players built from our own source for the engine's tests and the
# end-to-end tests of the play commands.
set(playback_amiga ${CMAKE_CURRENT_SOURCE_DIR}/playback/amiga)
orvel_add_amiga_program(NAME test_probe SOURCES ${playback_amiga}/probe.s
                        INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
orvel_use_amiga_programs(test_playback test_probe)

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

# orvel_audio_capture_test(<name> PLAY <command...> RENDER <command...>
#                          [ENV K=V ...] [MIN_FRAMES n] [TOLERANCE steps])
# Records what PLAY sends to the audio output (raw float32 stereo, through
# ALSA's file plugin) and compares it with the WAV file that RENDER writes,
# allowing for the output's leading silence (its prefill). "@WAV@" in RENDER
# names the WAV file; ORVEL_CAPTURE_WAV holds it too, and ORVEL_CAPTURE_RAW
# names the capture for PLAY (wine does not pass HOME on to Windows programs).
# Commands may start with a target name (orvel, test_playback): they then run
# through wine when cross compiling. MIN_FRAMES (default 48000) frames of
# sound must overlap; TOLERANCE (default 0) is in 16-bit steps. Four CTest
# entries: <name>_clean, _play, _render, _compare. For the player, e.g.:
#   orvel_audio_capture_test(play_mod_matches_wav
#     PLAY orvel play ${player} ${module} 2
#     RENDER orvel play-wav ${player} ${module} @WAV@ 4)
function(orvel_audio_capture_test name)
  cmake_parse_arguments(T "" "MIN_FRAMES;TOLERANCE" "PLAY;RENDER;ENV" ${ARGN})
  if(NOT T_MIN_FRAMES)
    set(T_MIN_FRAMES 48000)
  endif()
  if(NOT T_TOLERANCE)
    set(T_TOLERANCE 0)
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
  set(play_env HOME=${home} ORVEL_CAPTURE_RAW=${raw} ${T_ENV})
  set(render_env ORVEL_CAPTURE_WAV=${wav} ${T_ENV})
  set_tests_properties(${name}_play PROPERTIES ENVIRONMENT "${play_env}")
  set_tests_properties(${name}_render PROPERTIES ENVIRONMENT "${render_env}")
  add_test(NAME ${name}_compare COMMAND test_playback --gtest_filter=CaptureCompare.Files)
  set_tests_properties(${name}_compare PROPERTIES FIXTURES_REQUIRED ${name} ENVIRONMENT
    "ORVEL_CAPTURE_RAW=${raw};ORVEL_CAPTURE_WAV=${wav};ORVEL_CAPTURE_MIN_FRAMES=${T_MIN_FRAMES};ORVEL_CAPTURE_TOLERANCE=${T_TOLERANCE}")
endfunction()

# The output's own behaviour: every frame in order after the prefill, the
# latency floor, one output at a time; then the capture against a WAV render
# of the same signal, the path the player's end-to-end test takes.
orvel_audio_capture_test(playback_audio_capture
  PLAY test_playback --gtest_filter=AudioCapture.*:-AudioCapture.RenderSignal
  RENDER test_playback --gtest_filter=AudioCapture.RenderSignal
  ENV ORVEL_TEST_AUDIO=capture
  MIN_FRAMES 4800)

# No usable device: the default PCM names a card that does not exist.
orvel_audio_home(nodevice_home playback_audio_nodevice "type hw; card 99")
add_test(NAME playback_audio_nodevice COMMAND test_playback --gtest_filter=AudioNoDevice.*)
set_tests_properties(playback_audio_nodevice PROPERTIES
  ENVIRONMENT "HOME=${nodevice_home};ORVEL_TEST_AUDIO=nodevice")

# The configuration tests (test_cli) write orvel.conf next to the test
# executables, where config_load called by the engine's tests would read it.
set_tests_properties(cli playback PROPERTIES RESOURCE_LOCK orvel_conf_beside_tests)
