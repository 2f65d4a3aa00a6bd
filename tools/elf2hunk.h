// ELF to AmigaOS hunk conversion for our own 68000 programs. The input is a
// big-endian m68k ELF executable linked with -q, so that the relocations the
// linker resolved are still listed; every absolute 32-bit reference to a
// section becomes a HUNK_RELOC32 entry. Anything a hunk file cannot express
// is refused with a reason.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// On failure returns false and leaves a one-line reason (no newline) in error.
bool elf2hunk_convert(const std::vector<uint8_t>& elf, std::vector<uint8_t>& hunk,
                      std::string& error);
