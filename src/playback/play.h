// The play commands: real-time play and rendering to a WAV file.
#pragma once

#include <cstdint>

struct Machine;

// player may be null: the player is then chosen from the module.
// seconds < 0 plays until the process is interrupted.
int play_mode(Machine& m, const char* player, const char* module, double seconds);
int play_wav_mode(Machine& m, const char* player, const char* module, const char* out_path,
                  double seconds);
void play_print_string(Machine& m, uint32_t address);
// Sleeps trunc(seconds x 1000) milliseconds (none for a negative or NaN
// duration), a second at a time, so that no duration overflows.
void play_sleep(double seconds);
