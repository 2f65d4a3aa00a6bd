// Paula mixer: the four channels run at the colour clock, volume as a 64-step
// pulse-width duty cycle, then the A500/A1200 output stage (RC low-pass, the
// optional LED filter), a soft clipper and an 8th-order Butterworth
// anti-alias low-pass, averaged down to the output rate.
#include "chipset/paula.h"

#include <cmath>

#include "chipset/paula_kernel.h"

namespace {

constexpr double TWO_PI = 6.283185307179586;
constexpr double RC_CUTOFF_A500 = 4400.0;    // Hz, the A500's one-pole output filter
constexpr double RC_CUTOFF_A1200 = 34000.0;  // Hz, the A1200's
constexpr double LED_W_NUM = 20734.511513692636;  // 2 pi x 3300 Hz, the LED filter corner
constexpr double SQRT2 = 1.4142135623730951;
// 2Q of the four sections of an 8th-order Butterworth low-pass.
constexpr double AA_2Q[4] = {1.01959116, 1.20268978, 1.79995244, 5.1258309};

}  // namespace

void paula_recalc(PaulaState& p) {
    p.clocks_per_frame = (uint64_t(p.paula_clock) << 16) / p.mix_rate;
    const double clock = p.paula_clock;

    double fc = p.a1200_filter == 1 ? RC_CUTOFF_A1200 : RC_CUTOFF_A500;
    double dt = 1.0 / clock;
    p.rc_coef = dt / (1.0 / (TWO_PI * fc) + dt);

    double w = LED_W_NUM / clock;
    double alpha = std::sin(w) / SQRT2;
    double n = 1.0 + alpha;
    double cw = std::cos(w);
    p.led_b0 = (1.0 - cw) / 2.0 / n;
    p.led_b1 = (1.0 - cw) / n;
    p.led_b2 = (1.0 - cw) / 2.0 / n;
    p.led_a1 = -2.0 * cw / n;
    p.led_a2 = (1.0 - alpha) / (1.0 + alpha);

    double wa = p.mix_rate * 0.45 * TWO_PI / clock;
    double ca = std::cos(wa);
    for (int k = 0; k < 4; k++) {
        double ak = std::sin(wa) / AA_2Q[k];
        p.aa_b0[k] = (1.0 - ca) / 2.0 / (1.0 + ak);
        p.aa_a1[k] = -2.0 * ca / (1.0 + ak);
        p.aa_a2[k] = (1.0 - ak) / (1.0 + ak);
    }
}

// ---- the tick loop and its dispatch ----

namespace {

// Multiply-adds as two roundings, four lanes as two halves: all that any
// x86-64 guarantees.
struct PlainOps {
    using V4 = Pair;
    static v2d fma(v2d a, v2d b, v2d c) { return a * b + c; }
    static Pair fma(Pair a, Pair b, Pair c) { return {fma(a.lo, b.lo, c.lo), fma(a.hi, b.hi, c.hi)}; }
    static Pair join(v2d lo, v2d hi) { return {lo, hi}; }
    static v2d lo(Pair a) { return a.lo; }
    static v2d hi(Pair a) { return a.hi; }
    static void add_to(double* p, Pair x) {
        v2d* v = reinterpret_cast<v2d*>(p);
        v[0] += x.lo;
        v[1] += x.hi;
    }
};

using MixFn = void (*)(PaulaState&, float*, int);

MixFn kernel_fn(PaulaKernel k) {
    if (k == PaulaKernel::Avx2Fma && paula_kernel_available(k)) return paula_mix_avx2_fma;
    return mix_frames<PlainOps>;
}

}  // namespace

bool paula_kernel_available(PaulaKernel k) {
    if (k == PaulaKernel::Portable) return true;
#if ORVEL_PAULA_AVX2
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#else
    return false;
#endif
}

PaulaKernel paula_kernel_in_use() {
    static const PaulaKernel best = paula_kernel_available(PaulaKernel::Avx2Fma)
                                        ? PaulaKernel::Avx2Fma
                                        : PaulaKernel::Portable;
    return best;
}

void paula_mix_frames_with(PaulaKernel k, PaulaState& p, float* out, int frames) {
    kernel_fn(k)(p, out, frames);
}

void paula_mix_frames(PaulaState& p, float* out, int frames) {
    static const MixFn fn = kernel_fn(paula_kernel_in_use());
    fn(p, out, frames);
}
