# End-to-end checks of the real executable's command dispatch.

set(usage ${CMAKE_CURRENT_SOURCE_DIR}/cli/data/usage.txt)
orvel_exe_test(cli_usage_play_alone ARGS play EXIT 1 STDERR ${usage} STDOUT_REGEX "^$")
orvel_exe_test(cli_usage_unknown ARGS frobnicate a b c EXIT 1 STDERR ${usage})
orvel_exe_test(cli_usage_disasm_chip_short ARGS disasm-chip p m EXIT 1 STDERR ${usage})

# With no arguments the CPU smoke tests run and all four phases pass.
orvel_exe_test(cli_smoke_tests EXIT 0 STDOUT ${CMAKE_CURRENT_SOURCE_DIR}/cli/data/smoke.txt
               STDERR_REGEX "^$")


# The diagnostic commands on players built here from assembly (fixed
# addresses: init_player 0x200086, init_sound 0x2000ba, callee 0x2000d6, the
# 0x61FE word 0x2000fc), run where the programs lie so that paths in the
# output stay short. Golden files for long output, anchored regexes for short.
if(ORVEL_HAVE_M68K)
  set(diag_amiga ${CMAKE_CURRENT_SOURCE_DIR}/cli/amiga)
  set(diag_gold ${CMAKE_CURRENT_SOURCE_DIR}/cli/data/diag)
  set(diag_dir ${CMAKE_BINARY_DIR}/amiga)
  set(mod diag.mod)
  configure_file(${diag_amiga}/diag.mod ${diag_dir}/diag.mod COPYONLY)
  orvel_add_amiga_program(NAME diag_player SOURCES ${diag_amiga}/diag_player.s
                          INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
  orvel_add_amiga_program(NAME not_player SOURCES ${diag_amiga}/not_player.s)
  orvel_add_amiga_program(NAME long_tags SOURCES ${diag_amiga}/long_tags.s
                          INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
  file(WRITE ${diag_dir}/empty "")
  file(WRITE ${diag_dir}/short.mod "BAD\n")  # refused by Check2 and InitPlayer

  # diag_test(<name> <golden file or regex> <args>...): exit 0, stdout as
  # the golden file cli/data/diag/<name>.txt (first form, "-") or matching
  # the regex, nothing on stderr.
  function(diag_test name expect)
    if(expect STREQUAL "-")
      set(check STDOUT ${diag_gold}/${name}.txt)
    else()
      set(check STDOUT_REGEX ${expect})
    endif()
    orvel_exe_test(cli_diag_${name} ARGS ${ARGN} WORKDIR ${diag_dir} EXIT 0 ${check}
                   STDERR_REGEX "^$")
  endfunction()
  diag_test(load - load diag_player)
  diag_test(ep_info - ep-info diag_player)
  diag_test(ep_info_not_player - ep-info not_player)
  diag_test(ep_info_256_pairs "  80000100 \\['\\.\\.'\\] +00000100\n  end\n$"
            ep-info long_tags)
  diag_test(dump - dump diag_player 0x200000)
  diag_test(disasm - disasm diag_player 0x200086 14)
  diag_test(callers - callers diag_player 0x2000d6)
  # The 0x61FE word would be a short branch to itself: only the bra.w counts.
  diag_test(callers_trap "^  002000f8: bra.w to 002000fc\n1 call sites for 002000fc\n$"
            callers diag_player 0x2000fc)
  # Even offset only, not the copy at an odd one; overlapping copies all.
  diag_test(find_even "^  00200100: 0badcafe\n1 hits for 0badcafe\n$"
            find diag_player 0x0badcafe)
  diag_test(find_overlap
            "^  0020010a: abcdabcd\n  0020010c: abcdabcd\n2 hits for abcdabcd\n$"
            find diag_player 0xabcdabcd)
  diag_test(disasm_chip - disasm-chip diag_player ${mod} 0x400000 5)

  # trace-pc: the whole start sequence, then break, window and max.
  diag_test(trace_pc - trace-pc diag_player ${mod})
  diag_test(trace_pc_max - trace-pc diag_player ${mod} max=3)
  # from= alone: the window reaches the top (the AllocMem stub and the copy).
  diag_test(trace_pc_from - trace-pc diag_player ${mod} from=0x400000)
  diag_test(trace_pc_unlimited "max=0\n.*\ntrace-pc: 37 instructions logged\n$"
            trace-pc diag_player ${mod} max=0)
  orvel_exe_test(cli_diag_trace_pc_break ARGS trace-pc diag_player ${mod} from=0x2000ba
                 to=0x2000cc break=0x2000c0 WORKDIR ${diag_dir} EXIT 0
                 STDOUT ${diag_gold}/trace_pc_break.txt
                 STDERR_REGEX "^trace-pc: break at 002000c0 \\(routine=002000ba i=1\\)\n$")
  orvel_exe_test(cli_diag_trace_pc_option ARGS trace-pc diag_player ${mod} max=5 brake=1
                 WORKDIR ${diag_dir} EXIT 1 STDOUT_REGEX "^$"
                 STDERR_REGEX "^trace-pc: unknown option 'brake=1'\n$")

  # A start that fails is reported; the command still shows chip RAM.
  orvel_exe_test(cli_diag_disasm_chip_refused ARGS disasm-chip diag_player short.mod 0x400000 1
                 WORKDIR ${diag_dir} EXIT 0
                 STDOUT_REGEX "\\(4 bytes\\)  disassembling 1 instructions from 00400000\n00400000: 0000 0000 +ori.b   #\\$0,d0\n$"
                 STDERR_REGEX "^disasm-chip: module not recognised and init failed\n$")

  # Files that are no players, or no files at all: the loaders' messages,
  # with "hunk_load failed" from load and ep-info.
  set(no_hunk "hunk: missing HUNK_HEADER\n")
  set(failed "hunk_load failed\n")
  foreach(case
      "load_missing|load|missing|load_file: cannot open missing\n${failed}"
      "load_empty|load|empty|load_file: empty is empty\n${failed}"
      "ep_info_missing|ep-info|missing|load_file: cannot open missing\n${failed}"
      "ep_info_no_hunks|ep-info|${mod}|${no_hunk}${failed}"
      "dump_missing|dump|missing|0|load_file: cannot open missing\n"
      "disasm_no_hunks|disasm|${mod}|0|${no_hunk}"
      "find_missing|find|missing|0|load_file: cannot open missing\n"
      "callers_empty|callers|empty|0|load_file: empty is empty\n"
      "disasm_chip_missing|disasm-chip|missing|${mod}|0|load_file: cannot open missing\n"
      "disasm_chip_no_module|disasm-chip|diag_player|missing|0|load_file: cannot open missing\n"
      "trace_pc_no_tags|trace-pc|not_player|${mod}|deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n"
      "trace_pc_no_module|trace-pc|diag_player|missing|load_file: cannot open missing\n")
    string(REPLACE "|" ";" case "${case}")
    list(POP_FRONT case name)
    list(POP_BACK case message)
    orvel_exe_test(cli_diag_fails_${name} ARGS ${case} WORKDIR ${diag_dir} EXIT 1
                   STDOUT_REGEX "^$" STDERR_REGEX "^${message}$")
  endforeach()
endif()
