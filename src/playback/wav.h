// 16-bit PCM stereo WAV files at 48000 Hz.
#pragma once

#include <cstdint>

int wav_write_s16_le(const char* path, const float* samples, uint32_t frames);  // 0 or 1
