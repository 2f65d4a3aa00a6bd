// The mixer's tick loop built for AVX2 with fused multiply-add; paula.cpp
// calls it only on CPUs that have both.
#include "chipset/paula.h"

#if defined(__x86_64__) && defined(__GNUC__)

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>

// Standard headers above, before the switch: whatever they define must stay
// callable from the baseline build.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2,fma"))), apply_to = function)
#else
#pragma GCC target("avx2,fma")
#endif

#include "chipset/paula_kernel.h"

namespace {

// A plain vector type: __m256d's may_alias attribute would be dropped as a
// template argument.
using v4d = double __attribute__((vector_size(32)));

struct FusedOps {
    using V4 = v4d;
    static v2d fma(v2d a, v2d b, v2d c) { return _mm_fmadd_pd(a, b, c); }
    static V4 fma(V4 a, V4 b, V4 c) { return _mm256_fmadd_pd(a, b, c); }
    static V4 join(v2d lo, v2d hi) { return _mm256_insertf128_pd(_mm256_castpd128_pd256(lo), hi, 1); }
    static v2d lo(V4 a) { return _mm256_castpd256_pd128(a); }
    static v2d hi(V4 a) { return _mm256_extractf128_pd(a, 1); }
    static void add_to(double* p, V4 x) { _mm256_storeu_pd(p, _mm256_loadu_pd(p) + x); }
};

}  // namespace

void paula_mix_avx2_fma(PaulaState& p, float* out, int frames) { mix_frames<FusedOps>(p, out, frames); }

#if defined(__clang__)
#pragma clang attribute pop
#endif

#endif
