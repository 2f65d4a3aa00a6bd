// Where orvel finds its files: the executable's directory, the data
// directory orvel_data/ beside it, and the settings file orvel.conf.
#pragma once

#include <cstddef>

struct Machine;

constexpr size_t EXE_DIR_MAX = 4096;

// Directory of the executable without a trailing separator; 0 and "" if unknown.
size_t exe_dir(char* buffer);
// <exe dir>/orvel_data/<name>, or orvel_data/<name>, or "" if out is too small.
void data_path(char* out, size_t out_size, const char* name);
void config_load(Machine& m);
