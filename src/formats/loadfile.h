// Reading module and player files: raw, LHA level-0 -lh5-, or XPK.
#pragma once

#include <cstdint>

struct Machine;

// Whole file, unpacked when possible. malloc'ed; the caller frees it.
uint8_t* load_file(const char* path, uint32_t& out_len);
// Copy a module into chip RAM at 0x10000. Returns len, or 0 on failure.
uint32_t mod_install(Machine& m, const uint8_t* data, uint32_t len);
