// Choosing a player for a module: eagleplayer.conf plus content checks.
#pragma once

#include <cstddef>
#include <cstdint>

struct Machine;

// 1 when a player was chosen (full path in out_path, out_size bytes), else 0.
int epconf_identify(const char* module_path, const uint8_t* data, uint32_t len, char* out_path,
                    size_t out_size);
void epconf_resolve_epopt(Machine& m, const char* player_path, const char* module_path,
                          const uint8_t* data, uint32_t len);
const char* epopt_format_name(const char* option);
uint32_t tfmx_be32(const uint8_t* data, uint32_t offset);
