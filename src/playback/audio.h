// Real-time audio output: a pull-model float stereo stream at 48 kHz fed by
// its own real-time thread. One back end per platform (WASAPI, ALSA).
#pragma once

#include <cstdint>

// Fill `frames` frames of zeroed interleaved float stereo. Must not block.
using AudioCallback = void (*)(void* context, float* out, uint32_t frames);

int audio_open(uint32_t latency_us, AudioCallback callback, void* context);  // 0 or -1
void audio_close();
