// Reading module and player files: raw, LHA level-0 -lh5-, or XPK.
#pragma once

#include <cstdint>

struct Machine;

// Nothing bigger than the emulated machine's whole memory can ever be used,
// so a header claiming more is not unpacked (as if memory ran out).
constexpr uint32_t LOAD_UNPACKED_MAX = 0x1000000;

// Whole file, unpacked when possible. malloc'ed; the caller frees it.
uint8_t* load_file(const char* path, uint32_t& out_len);
// The unpacking half of load_file: takes a malloc'ed file image of len bytes
// and returns either it or its unpacked contents (freeing the image).
uint8_t* load_unpack(uint8_t* data, uint32_t len, uint32_t& out_len);
// Copy a module into chip RAM at 0x10000. Returns len, or 0 on failure.
uint32_t mod_install(Machine& m, const uint8_t* data, uint32_t len);
