# End-to-end checks of the real executable's command dispatch.

set(usage ${CMAKE_CURRENT_SOURCE_DIR}/cli/data/usage.txt)
orvel_exe_test(cli_usage_play_alone ARGS play EXIT 1 STDERR ${usage} STDOUT_REGEX "^$")
orvel_exe_test(cli_usage_unknown ARGS frobnicate a b c EXIT 1 STDERR ${usage})
orvel_exe_test(cli_usage_disasm_chip_short ARGS disasm-chip p m EXIT 1 STDERR ${usage})

# With no arguments the CPU smoke tests run and all four phases pass.
orvel_exe_test(cli_smoke_tests EXIT 0 STDOUT ${CMAKE_CURRENT_SOURCE_DIR}/cli/data/smoke.txt
               STDERR_REGEX "^$")
