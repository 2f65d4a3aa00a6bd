// What the real-time output threads of both back ends share.
#pragma once

#include <cstdint>

#if defined(__SSE__) || defined(_M_X64)
#include <xmmintrin.h>
#endif

// Flush denormal results to zero and treat denormal inputs as zero, for the
// calling thread: denormals are slow on x86 and ARM, and the mixer's decaying
// filter states would otherwise drift into them during silence.
inline void audio_flush_denormals() {
#if defined(__SSE__) || defined(_M_X64)
    constexpr unsigned MXCSR_DAZ = 0x0040;
    constexpr unsigned MXCSR_FTZ = 0x8000;
    _mm_setcsr(_mm_getcsr() | MXCSR_DAZ | MXCSR_FTZ);
#elif defined(__aarch64__)
    constexpr unsigned long FPCR_FZ = 1ul << 24;
    unsigned long fpcr;
    __asm__ volatile("mrs %0, fpcr" : "=r"(fpcr));
    __asm__ volatile("msr fpcr, %0" : : "r"(fpcr | FPCR_FZ));
#endif
}

// Underruns are counted; the first and every hundredth are reported.
inline bool audio_underrun_reported(uint32_t count) { return count == 1 || count % 100 == 0; }
