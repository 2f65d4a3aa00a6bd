// 16-bit PCM stereo WAV files at 48000 Hz.
#pragma once

#include <cstdint>

int wav_write_s16_le(const char* path, const float* samples, uint32_t frames);  // 0 or 1
// One float sample as the writer stores it: clamped to +-1, scaled by 32767,
// truncated toward zero; NaN gives 0.
int16_t wav_sample_s16(float f);
