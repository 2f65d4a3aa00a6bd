// dos.library emulation over host files (read-only), companion-file loading
// and the mapping of Amiga names to host paths.
#pragma once

#include <cstdint>

struct Machine;

void dos_dispatch(Machine& m, int op);
void dos_load_seg(Machine& m);
void deli_load_companion(Machine& m);
// Host path for an Amiga name; out holds at least 1024 bytes.
void host_resolve_path(const char* amiga_path, char* out);
const char* host_match_prefix(const char* s, const char* prefix);
// Close every open dos file (on reset).
void dos_close_all(Machine& m);
