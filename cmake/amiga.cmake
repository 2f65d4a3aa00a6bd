# Amiga programs from our own sources: 68000 assembly and C, built with the
# m68k cross tools into ELF and converted by elf2hunk into AmigaOS hunk
# executables. The cross tools and elf2hunk run on the build machine, so the
# same rules serve the native and the Windows build.
#
#   orvel_add_amiga_program(NAME <name> SOURCES <file>... [OUTPUT <path>]
#                           [INCLUDES <dir>...] [DEFINES <def>...])
#       Builds the hunk file (default ${CMAKE_BINARY_DIR}/amiga/<name>) as
#       part of ALL, through the target amiga_<name>. Sources are .s (GNU as,
#       registers without %), .S (the same through the C preprocessor) or .c
#       (freestanding C). The first source's code comes first in hunk 0 unless
#       some code is put in section .text.entry. C gets the 68000 helpers of
#       players/runtime (multiply, divide, memcpy, memmove, memset, memcmp),
#       never the 68020 libgcc. Header and include dependencies are tracked.
#
#   orvel_add_amiga_elf(NAME <name> SOURCES <file>... [LINKER_SCRIPT <file>]
#                       [INCLUDES ...] [DEFINES ...])
#       Only the linked ELF (${CMAKE_BINARY_DIR}/amiga/<name>.elf, target
#       amiga_<name>_elf); LINKER_SCRIPT replaces the hunk layout, e.g. for
#       a program that runs under qemu-m68k.
#
#   orvel_use_amiga_programs(<target> <name>...)
#       Makes <target> depend on the programs and defines
#       ORVEL_AMIGA_<NAME>="<path>" for each (upper case, - becomes _); the
#       path is empty when the cross tools are missing.
#
# elf2hunk: a normal target in a native build (it then gets the build's
# warnings and sanitizers, and its converter is compiled into test_host as
# well); in a cross build it is compiled separately with the build machine's
# C++ compiler, since the target compiler's output cannot run here.

set(ORVEL_AMIGA_DIR ${CMAKE_SOURCE_DIR}/players/runtime)
find_program(ORVEL_M68K_GCC m68k-linux-gnu-gcc)
find_program(ORVEL_M68K_AS m68k-linux-gnu-as)
find_program(ORVEL_M68K_LD m68k-linux-gnu-ld)
find_program(ORVEL_M68K_AR m68k-linux-gnu-ar)
if(ORVEL_M68K_GCC AND ORVEL_M68K_AS AND ORVEL_M68K_LD AND ORVEL_M68K_AR)
  set(ORVEL_HAVE_M68K ON)
else()
  set(ORVEL_HAVE_M68K OFF)
  message(STATUS "m68k cross tools not found: Amiga programs are not built "
                 "(install gcc-m68k-linux-gnu and binutils-m68k-linux-gnu)")
endif()

# ---- elf2hunk ----
if(CMAKE_CROSSCOMPILING)
  find_program(ORVEL_HOST_CXX NAMES c++ g++ clang++ REQUIRED)
  set(ORVEL_ELF2HUNK ${CMAKE_BINARY_DIR}/tools/elf2hunk)
  add_custom_command(OUTPUT ${ORVEL_ELF2HUNK}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/tools
    COMMAND ${ORVEL_HOST_CXX} -std=c++20 -O2 -Wall -Wextra
            -o ${ORVEL_ELF2HUNK} ${CMAKE_SOURCE_DIR}/tools/elf2hunk.cpp
    DEPENDS ${CMAKE_SOURCE_DIR}/tools/elf2hunk.cpp ${CMAKE_SOURCE_DIR}/tools/elf2hunk.h
    COMMENT "Building elf2hunk for the build machine")
  add_custom_target(elf2hunk ALL DEPENDS ${ORVEL_ELF2HUNK})
else()
  add_executable(elf2hunk ${CMAKE_SOURCE_DIR}/tools/elf2hunk.cpp)
  set(ORVEL_ELF2HUNK $<TARGET_FILE:elf2hunk>)
endif()

set(ORVEL_M68K_CFLAGS -m68000 -O2 -fno-pic -ffreestanding -nostdlib -fno-common
    -fno-asynchronous-unwind-tables -fno-unwind-tables -Wall -Wextra)
set(ORVEL_M68K_ASFLAGS -mcpu=68000 --register-prefix-optional)

# Compiles each source into ${dir}; the object list goes to out_var.
function(orvel_amiga_objects out_var dir)
  cmake_parse_arguments(A "" "" "SOURCES;INCLUDES;DEFINES" ${ARGN})
  set(includes)
  foreach(inc ${A_INCLUDES})
    get_filename_component(inc ${inc} ABSOLUTE)
    list(APPEND includes -I${inc})
  endforeach()
  set(defines)
  foreach(def ${A_DEFINES})
    list(APPEND defines -D${def})
  endforeach()
  set(objects)
  foreach(src ${A_SOURCES})
    get_filename_component(src ${src} ABSOLUTE)
    get_filename_component(src_dir ${src} DIRECTORY)
    get_filename_component(base ${src} NAME)
    get_filename_component(ext ${src} LAST_EXT)
    set(obj ${dir}/${base}.o)
    if(obj IN_LIST objects)
      message(FATAL_ERROR "Amiga sources: two files named ${base} in one program")
    endif()
    set(dep ${dir}/${base}.d)
    if(ext STREQUAL ".s")
      set(cmd ${ORVEL_M68K_AS} ${ORVEL_M68K_ASFLAGS} -I${src_dir} ${includes}
              --MD ${dep} -o ${obj} ${src})
    elseif(ext STREQUAL ".S")
      set(cmd ${ORVEL_M68K_GCC} -m68000 -x assembler-with-cpp
              -Wa,--register-prefix-optional -I${src_dir} ${includes} ${defines}
              -MD -MF ${dep} -c -o ${obj} ${src})
    elseif(ext STREQUAL ".c")
      set(cmd ${ORVEL_M68K_GCC} ${ORVEL_M68K_CFLAGS} -I${src_dir} ${includes} ${defines}
              -MD -MF ${dep} -c -o ${obj} ${src})
    else()
      message(FATAL_ERROR "Amiga source ${src}: not .s, .S or .c")
    endif()
    add_custom_command(OUTPUT ${obj}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
      COMMAND ${cmd}
      DEPENDS ${src}
      DEPFILE ${dep}
      COMMENT "Amiga: ${base}"
      VERBATIM)
    list(APPEND objects ${obj})
  endforeach()
  set(${out_var} ${objects} PARENT_SCOPE)
endfunction()

# The runtime helpers, one archive member per file so that a program only
# takes what it calls.
if(ORVEL_HAVE_M68K)
  file(GLOB ORVEL_RUNTIME_SOURCES CONFIGURE_DEPENDS ${ORVEL_AMIGA_DIR}/*.s)
  orvel_amiga_objects(runtime_objects ${CMAKE_BINARY_DIR}/amiga/runtime
                      SOURCES ${ORVEL_RUNTIME_SOURCES})
  set(ORVEL_AMIGA_RUNTIME ${CMAKE_BINARY_DIR}/amiga/runtime/libruntime.a)
  add_custom_command(OUTPUT ${ORVEL_AMIGA_RUNTIME}
    COMMAND ${CMAKE_COMMAND} -E rm -f ${ORVEL_AMIGA_RUNTIME}
    COMMAND ${ORVEL_M68K_AR} rcs ${ORVEL_AMIGA_RUNTIME} ${runtime_objects}
    DEPENDS ${runtime_objects}
    COMMENT "Amiga: runtime helpers"
    VERBATIM)
  add_custom_target(amiga_runtime DEPENDS ${ORVEL_AMIGA_RUNTIME})
endif()

function(orvel_add_amiga_elf)
  cmake_parse_arguments(P "" "NAME;LINKER_SCRIPT" "SOURCES;INCLUDES;DEFINES" ${ARGN})
  if(NOT P_NAME OR NOT P_SOURCES)
    message(FATAL_ERROR "orvel_add_amiga_elf: NAME and SOURCES are required")
  endif()
  if(NOT ORVEL_HAVE_M68K)
    return()
  endif()
  set(dir ${CMAKE_BINARY_DIR}/amiga/${P_NAME}.objects)
  orvel_amiga_objects(objects ${dir} SOURCES ${P_SOURCES}
                      INCLUDES ${P_INCLUDES} DEFINES ${P_DEFINES})
  set(elf ${CMAKE_BINARY_DIR}/amiga/${P_NAME}.elf)
  if(P_LINKER_SCRIPT)
    get_filename_component(script ${P_LINKER_SCRIPT} ABSOLUTE)
    set(layout -T ${script})
  else()
    set(script ${ORVEL_AMIGA_DIR}/hunk.ld)
    set(layout -T ${script} -q)  # -q: keep the relocations for elf2hunk
  endif()
  add_custom_command(OUTPUT ${elf}
    COMMAND ${ORVEL_M68K_LD} -nostdlib -z noexecstack ${layout} -o ${elf}
            ${objects} ${ORVEL_AMIGA_RUNTIME}
    DEPENDS ${objects} ${ORVEL_AMIGA_RUNTIME} amiga_runtime ${script}
    COMMENT "Amiga: linking ${P_NAME}"
    VERBATIM)
  add_custom_target(amiga_${P_NAME}_elf DEPENDS ${elf})
endfunction()

function(orvel_add_amiga_program)
  cmake_parse_arguments(P "" "NAME;OUTPUT" "SOURCES;INCLUDES;DEFINES" ${ARGN})
  if(NOT P_NAME OR NOT P_SOURCES)
    message(FATAL_ERROR "orvel_add_amiga_program: NAME and SOURCES are required")
  endif()
  if(P_OUTPUT)
    get_filename_component(out ${P_OUTPUT} ABSOLUTE BASE_DIR ${CMAKE_BINARY_DIR})
  else()
    set(out ${CMAKE_BINARY_DIR}/amiga/${P_NAME})
  endif()
  if(NOT ORVEL_HAVE_M68K)
    add_custom_target(amiga_${P_NAME})
    set_target_properties(amiga_${P_NAME} PROPERTIES ORVEL_HUNK_FILE "")
    return()
  endif()
  orvel_add_amiga_elf(NAME ${P_NAME} SOURCES ${P_SOURCES}
                      INCLUDES ${P_INCLUDES} DEFINES ${P_DEFINES})
  set(elf ${CMAKE_BINARY_DIR}/amiga/${P_NAME}.elf)
  get_filename_component(out_dir ${out} DIRECTORY)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out_dir}
    COMMAND ${ORVEL_ELF2HUNK} ${elf} ${out}
    DEPENDS ${elf} ${ORVEL_ELF2HUNK} elf2hunk
    COMMENT "Amiga: ${P_NAME} to hunk format"
    VERBATIM)
  add_custom_target(amiga_${P_NAME} ALL DEPENDS ${out})
  set_target_properties(amiga_${P_NAME} PROPERTIES ORVEL_HUNK_FILE ${out})
endfunction()

function(orvel_use_amiga_programs target)
  foreach(name ${ARGN})
    add_dependencies(${target} amiga_${name})
    get_target_property(path amiga_${name} ORVEL_HUNK_FILE)
    string(TOUPPER "${name}" upper)
    string(REPLACE "-" "_" upper "${upper}")
    target_compile_definitions(${target} PRIVATE ORVEL_AMIGA_${upper}="${path}")
  endforeach()
endfunction()

# Our own players.
add_subdirectory(${CMAKE_SOURCE_DIR}/players ${CMAKE_BINARY_DIR}/players)
