// The playback engine: reset, install, start, render, stop.
#pragma once

#include <cstdint>

struct Machine;

void orvel_reset(Machine& m);
int orvel_load_module_mem(Machine& m, const uint8_t* data, uint32_t size, const char* player_path,
                          const char* module_path);
int orvel_start_playback(Machine& m);
void orvel_render(Machine& m, float* out, uint32_t frames);
void orvel_stop_playback(Machine& m);
void play_mode_cb(void* context, float* out, uint32_t frames);
