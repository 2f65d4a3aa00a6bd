// Paula: the four audio DMA channels and the mixer that runs them at the
// colour clock and filters the result down to 48 kHz float stereo.
#pragma once

#include <cstdint>

// One audio channel as the mixer sees it. The register side (custom.cpp)
// latches location/length/period/volume here; the mixer advances it per tick.
struct PaulaChannel {
    const uint8_t* ptr;       // start of the current sample block in chip RAM
    uint32_t len;             // bytes in the current block
    uint32_t loop_start;      // byte index where play resumes after the block
    uint32_t loop_len;        // bytes in the loop; 0 = stop at the end
    uint32_t pos;             // index of the byte now sounding
    uint64_t period;          // colour clocks per sample, 16.16; 0 = silent
    uint64_t phase;           // 16.16 colour clocks since the last fetch
    const uint8_t* next_ptr;  // block queued for the next wrap, or null
    uint32_t next_pos;
    uint32_t next_len;
    int8_t sample;            // the byte now sounding
    uint16_t volume;          // effective volume 0..64
    uint8_t pwm_count;        // 6-bit volume pulse counter
    uint8_t active;
    uint8_t muted;
    uint8_t reload_pending;
    uint8_t backwards;
};

struct PaulaState {
    PaulaChannel ch[4];

    uint32_t mix_rate;          // output frames per second
    uint32_t paula_clock;       // ticks per second (PAL colour clock)
    uint32_t frames_per_vblank;
    uint32_t a1200_filter;
    uint64_t clocks_per_frame;  // ticks per output frame, 16.16
    uint64_t clock_frac;        // tick fraction carried between frames

    double rc_coef;
    double rc_state[2];
    uint32_t led_on;
    double led_b0, led_b1, led_b2, led_a1, led_a2;
    double led_state[2][2];
    double aa_b0[4], aa_a1[4], aa_a2[4];
    double aa_state[4][2][2];
};

constexpr uint32_t PAULA_CLOCK_PAL = 3546895;  // PAL colour clock, Hz
constexpr uint32_t OUTPUT_RATE = 48000;

void paula_recalc(PaulaState& paula);
// Adds `frames` stereo frames to out (left, right); out is not cleared.
void paula_mix_frames(PaulaState& paula, float* out, int frames);

// The tick loop exists twice: a portable build for any x86-64 (or other)
// CPU and an AVX2 build with fused multiply-add. paula_mix_frames picks the
// fastest one the CPU has, once. Their samples differ only in the last bits
// of a double.
enum class PaulaKernel : uint8_t { Portable, Avx2Fma };
bool paula_kernel_available(PaulaKernel kernel);
PaulaKernel paula_kernel_in_use();
void paula_mix_frames_with(PaulaKernel kernel, PaulaState& paula, float* out, int frames);
