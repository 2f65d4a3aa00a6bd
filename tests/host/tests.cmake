# Amiga programs for the player-host tests; the converter as a library (in test_host) and as a tool.

set(amiga ${CMAKE_CURRENT_SOURCE_DIR}/host/amiga)
orvel_add_amiga_program(NAME test_reloc SOURCES ${amiga}/reloc.s)
orvel_add_amiga_program(NAME test_arith SOURCES ${amiga}/arith_player.s ${amiga}/arith.c
                        INCLUDES ${CMAKE_SOURCE_DIR}/players/include)
orvel_use_amiga_programs(test_host test_reloc test_arith skeleton)

target_sources(test_host PRIVATE ${CMAKE_SOURCE_DIR}/tools/elf2hunk.cpp)
target_include_directories(test_host PRIVATE ${CMAKE_SOURCE_DIR}/tools)
target_compile_definitions(test_host PRIVATE ELF2HUNK_NO_MAIN)

if(ORVEL_HAVE_M68K)
  # For the converter's tests: the linked ELF of test_reloc, and one the tool refuses.
  orvel_add_amiga_elf(NAME test_bad_reloc SOURCES ${amiga}/bad_reloc.s)
  add_dependencies(test_host amiga_test_bad_reloc_elf)
  target_compile_definitions(test_host PRIVATE ORVEL_AMIGA_RELOC_ELF="${CMAKE_BINARY_DIR}/amiga/test_reloc.elf")

  # The tool is built for the build machine: no emulator in front of it.
  add_test(NAME host_elf2hunk_refuses COMMAND ${CMAKE_COMMAND} -DEXE=${ORVEL_ELF2HUNK} -DEXPECT_EXIT=1
    "-DARGS=${CMAKE_BINARY_DIR}/amiga/test_bad_reloc.elf|${CMAKE_CURRENT_BINARY_DIR}/bad_reloc.hunk"
    "-DSTDERR_REGEX=^elf2hunk: .*test_bad_reloc.elf: R_68K_16 at .text\\+0x4 to '.text': a hunk file has no relocation of that width\n$"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/run_exe.cmake)

  # The runtime against a reference 68000: qemu-m68k runs the same C.
  find_program(ORVEL_QEMU_M68K qemu-m68k)
  if(ORVEL_QEMU_M68K AND NOT WIN32)
    orvel_add_amiga_elf(NAME test_arith_qemu SOURCES ${amiga}/arith.c DEFINES ARITH_QEMU LINKER_SCRIPT ${amiga}/qemu.ld)
    add_dependencies(test_host amiga_test_arith_qemu_elf)
    target_compile_definitions(test_host PRIVATE ORVEL_QEMU_M68K="${ORVEL_QEMU_M68K}"
                               ORVEL_AMIGA_ARITH_QEMU_ELF="${CMAKE_BINARY_DIR}/amiga/test_arith_qemu.elf")
  endif()
endif()
