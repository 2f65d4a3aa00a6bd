// The mixer's tick loop, written once over a few vector operations (`Ops`)
// and compiled twice: paula.cpp builds it for the baseline instruction set,
// paula_fma.cpp for AVX2 with fused multiply-add. Everything here has
// internal linkage so the two builds never meet at link time; a TU that
// includes this after switching the target must include the standard
// headers below before the switch.
//
// Ops provides: V4, four doubles (or two v2d halves); fma(a, b, c) = a*b + c
// for v2d and V4; join(lo, hi); lo(v); hi(v); and add_to(double* p, V4 x),
// adding x to the four doubles at p (16-byte aligned).
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "chipset/paula.h"

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#if defined(__x86_64__) && defined(__GNUC__)
#define ORVEL_PAULA_AVX2 1
// The AVX2 + FMA build of the tick loop (paula_fma.cpp); call it only when
// the CPU has both.
void paula_mix_avx2_fma(PaulaState& paula, float* out, int frames);
#else
#define ORVEL_PAULA_AVX2 0
#endif

namespace {

// Left and right side in one register.
using v2d = double __attribute__((vector_size(16)));

constexpr uint64_t TICK = 0x10000;  // one colour clock in 16.16
constexpr uint32_t PWM_STEPS = 64;  // Paula's volume is a 6-bit pulse-width duty cycle
constexpr double HALF = 0.5;        // two channels of +-128 share one side's +-128
constexpr double SAMPLE_SCALE = 1.0 / 128.0;  // full-scale sample = 1.0
constexpr double CLIP_KNEE = 0.8;
constexpr double CLIP_SPAN = 1.0 - CLIP_KNEE;  // headroom the tanh curve squeezes into

// Ticks mixed per pass: channels first, then the filters over the sums.
// Sized to stay in L1 together with the filter state.
constexpr uint32_t BLOCK_TICKS = 1024;
constexpr int BLOCK_PIECES = 64;

// Paula's channels 0 and 3 are wired to the left output, 1 and 2 to the right.
constexpr int CHANNEL_SIDE[4] = {0, 1, 1, 0};
constexpr int LIST_ORDER[4] = {0, 3, 1, 2};

inline v2d splat(double x) { return v2d{x, x}; }

// Four lanes as two halves, for instruction sets without 256-bit registers.
struct Pair {
    v2d lo, hi;
};
inline Pair operator*(Pair a, Pair b) { return {a.lo * b.lo, a.hi * b.hi}; }
inline Pair operator+(Pair a, Pair b) { return {a.lo + b.lo, a.hi + b.hi}; }

// ---- channel side: sample fetch and pulse-width volume ----

// The block queued by a location or length write takes over at the wrap.
inline void take_queued_block(PaulaChannel& ch) {
    ch.ptr = ch.next_ptr;
    ch.len = ch.next_len;
    ch.reload_pending = 0;
    ch.next_ptr = nullptr;
}

// Next sample byte of a channel. Returns false when the channel ran out.
// Division appears only on a loop wrap.
inline bool advance(PaulaChannel& ch) {
    uint32_t n;
    if (!ch.backwards) {
        n = ch.pos + 1;
        if (n >= ch.len) {
            if (ch.reload_pending) {
                take_queued_block(ch);
                n = ch.next_pos;
            } else if (ch.loop_len == 0) {
                ch.active = 0;
                return false;
            } else {
                n = ch.loop_start + (n - ch.len) % ch.loop_len;
                ch.len = ch.loop_start + ch.loop_len;
            }
        }
    } else if (ch.pos > 0 && (ch.loop_len == 0 || ch.pos > ch.loop_start)) {
        n = ch.pos - 1;
    } else if (ch.reload_pending) {
        take_queued_block(ch);
        n = ch.len - 1;
    } else if (ch.loop_len == 0) {
        ch.active = 0;
        return false;
    } else {
        n = ch.loop_start + ch.loop_len - 1;
    }
    ch.pos = n;
    ch.sample = int8_t(ch.ptr[n]);
    return true;
}

// The sums are interleaved doubles, left and right per tick, already in the
// RC filter's input units.
constexpr double RC_INPUT_SCALE = HALF * SAMPLE_SCALE;

// Adds x to one side of `count` ticks of the sums at `pairs`, two ticks at
// a time.
template <class Ops>
inline void add_const(double* pairs, int side, uint32_t count, double x) {
    const typename Ops::V4 add = side ? Ops::join(v2d{0, x}, v2d{0, x})
                                      : Ops::join(v2d{x, 0}, v2d{x, 0});
    uint32_t j = 0;
    for (; j + 2 <= count; j += 2) Ops::add_to(pairs + 2 * j, add);
    if (j < count) pairs[2 * j + side] += x;
}

// `count` ticks of one unchanging sample. The pulse counter steps first;
// the sample passes while the counter is below the volume, which makes the
// passing ticks contiguous runs within each 64-tick cycle.
template <class Ops>
inline void add_held(double* pairs, int side, uint32_t count, int8_t sample, uint32_t& pwm,
                     uint32_t vol) {
    uint32_t q = (pwm + 1) & (PWM_STEPS - 1);
    pwm = (pwm + count) & (PWM_STEPS - 1);
    if (sample == 0 || vol == 0) return;
    const double x = sample * RC_INPUT_SCALE;
    if (vol >= PWM_STEPS) {
        add_const<Ops>(pairs, side, count, x);
        return;
    }
    uint32_t j = 0;
    while (j < count) {
        if (q < vol) {
            uint32_t run = std::min(vol - q, count - j);
            add_const<Ops>(pairs + 2 * j, side, run, x);
            j += run;
            q += run;
        } else {
            j += std::min(PWM_STEPS - q, count - j);
            q = 0;
        }
    }
}

// Runs one channel for n ticks, adding its contribution to its side of the
// sums. Between fetches the sample is constant, so the ticks up to the next
// fetch are found with a shift and handled as one run.
template <class Ops>
inline void run_channel(PaulaChannel& ch, double* sums, int side, uint32_t n) {
    uint32_t pwm = ch.pwm_count;
    const uint32_t vol = ch.volume;
    uint32_t t = 0;
    while (t < n && ch.active) {
        uint64_t until = ch.phase >= ch.period ? 1 : (ch.period - ch.phase + TICK - 1) >> 16;
        uint32_t quiet = uint32_t(std::min<uint64_t>(until - 1, n - t));
        add_held<Ops>(sums + 2 * t, side, quiet, ch.sample, pwm, vol);
        ch.phase += uint64_t(quiet) << 16;
        t += quiet;
        if (t == n) break;
        ch.phase += TICK;  // the fetch tick
        bool stopped = false;
        while (ch.phase >= ch.period) {
            ch.phase -= ch.period;
            if (!advance(ch)) {
                stopped = true;
                break;
            }
        }
        if (stopped) break;  // silent from this tick on; the pulse counter stops too
        pwm = (pwm + 1) & (PWM_STEPS - 1);
        if (pwm < vol) sums[2 * t + side] += ch.sample * RC_INPUT_SCALE;
        t++;
    }
    ch.pwm_count = uint8_t(pwm);
}

// ---- filter side: two-lane floating point ----

// 1/n!, the Taylor coefficients of e^r.
constexpr auto EXP_TAYLOR = [] {
    std::array<double, 14> c{};
    double factorial = 1.0;
    for (int n = 0; n < 14; n++) {
        c[n] = 1.0 / factorial;
        factorial *= n + 1;
    }
    return c;
}();

// tanh(a) for a >= 0 on both lanes, as 1 - 2 / (e^2a + 1) with e^x from
// 2^k e^r, |r| <= ln 2 / 2, and a Taylor polynomial of degree 13 (error
// below 5e-18). The absolute error of the result is a few 1e-16, all the
// clipper needs: it adds the result to 0.8. Calls nothing, so the tick loop
// keeps its registers, and is the same on every platform's libm.
template <class Ops>
inline v2d tanh_nonneg(v2d a) {
    using v2di = int64_t __attribute__((vector_size(16)));
    constexpr double INV_LN2 = 1.4426950408889634;
    constexpr double LN2_HI = 6.93147180369123816490e-01;  // low 32 bits zero: k * LN2_HI is exact
    constexpr double LN2_LO = 1.90821492927058770002e-10;
    constexpr double ROUNDER = 0x1.8p52;  // adding it rounds to an integer in the low bits
    constexpr double SATURATE = 40.0;     // tanh(20) is 1 in double
    v2d x = a + a;
    x = x < splat(SATURATE) ? x : splat(SATURATE);
    v2d kr = Ops::fma(x, splat(INV_LN2), splat(ROUNDER));
    v2di k = (v2di)kr - (v2di)splat(ROUNDER);
    v2d kf = kr - splat(ROUNDER);
    v2d r = Ops::fma(kf, splat(-LN2_HI), x);
    r = Ops::fma(kf, splat(-LN2_LO), r);
    // Estrin's scheme: short dependency chains, the clip sits on the path
    // into the anti-alias filter.
    v2d r2 = r * r, r4 = r2 * r2, r8 = r4 * r4;
    v2d q[7];
    for (int j = 0; j < 7; j++)
        q[j] = Ops::fma(splat(EXP_TAYLOR[2 * j + 1]), r, splat(EXP_TAYLOR[2 * j]));
    v2d s0 = Ops::fma(q[1], r2, q[0]), s1 = Ops::fma(q[3], r2, q[2]),
        s2 = Ops::fma(q[5], r2, q[4]);
    v2d t0 = Ops::fma(s1, r4, s0), t1 = Ops::fma(q[6], r4, s2);
    v2d p = Ops::fma(t1, r8, t0);
    v2d e = p * (v2d)((k + 1023) << 52);
    return splat(1.0) - splat(2.0) / (e + splat(1.0));
}

// The Amiga output stage never sees more than +-1.0 after this: a tanh knee
// above 0.8 in place of the hard clipping of the real amplifier.
template <class Ops>
inline v2d soft_clip(v2d v) {
    v2d mag = v < splat(0.0) ? -v : v;
    v2d a = (mag - splat(CLIP_KNEE)) * splat(1.0 / CLIP_SPAN);
    a = a > splat(0.0) ? a : splat(0.0);
    v2d c = splat(CLIP_KNEE) + splat(CLIP_SPAN) * tanh_nonneg<Ops>(a);
    c = v < splat(0.0) ? -c : c;
    return mag > splat(CLIP_KNEE) ? c : v;
}

// Ticks without clipping after which the mixer returns to its fast loop.
constexpr uint32_t CALM_TICKS = 256;

#if defined(__SSE2__)
inline bool beyond_knee(v2d v) {
    const __m128d abs_mask = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFF));
    return _mm_movemask_pd(_mm_cmpgt_pd(_mm_and_pd(v, abs_mask), _mm_set1_pd(CLIP_KNEE))) != 0;
}
#else
inline bool beyond_knee(v2d v) {
    return std::fabs(v[0]) > CLIP_KNEE || std::fabs(v[1]) > CLIP_KNEE;
}
#endif

// The RC and LED stages run in output units, the 1/128 folded into the RC
// input (exact: a power of two); PaulaState keeps their state in sample units.
constexpr double SAMPLE_UNITS = 128.0;

// Coefficients of a Butterworth low-pass section in transposed direct form
// II, over lanes V: both sides of one section (v2d) or of two sections side
// by side (V4). A low-pass has b1 = 2 b0 and b2 = b0 (paula_recalc computes
// them so, to the bit), so one product serves all three feed-forward taps.
// The feedback coefficients are kept negated so each update is one
// multiply-add.
template <class V>
struct Lowpass {
    V b0, na1, na2;
};

template <class Ops, class V>
[[gnu::always_inline]] inline V lowpass(const Lowpass<V>& k, V& z1, V& z2, V x) {
    V bx = k.b0 * x;
    V y = bx + z1;
    z1 = Ops::fma(k.na1, y, (bx + bx) + z2);
    z2 = Ops::fma(k.na2, y, bx);
    return y;
}

// Filter state, both sides at once. The anti-alias sections share two
// four-lane registers: A holds sections 0 (low half) and 2, B sections 1
// and 3, so that B's input is A's output as it stands.
template <class Ops>
struct FilterState {
    using V4 = typename Ops::V4;
    v2d rc, led_z1, led_z2;
    V4 aa_a_z1, aa_a_z2, aa_b_z1, aa_b_z2;
    v2d acc;  // sum over the ticks of the frame in progress
};

template <class Ops>
struct Filters {
    v2d rc_coef;
    Lowpass<v2d> led;
    Lowpass<typename Ops::V4> aa_a, aa_b;
    FilterState<Ops> s;
};

// Coefficients of sections k (low half) and k + 2.
template <class Ops>
inline Lowpass<typename Ops::V4> pair_coefficients(const PaulaState& p, int k) {
    return {Ops::join(splat(p.aa_b0[k]), splat(p.aa_b0[k + 2])),
            Ops::join(splat(-p.aa_a1[k]), splat(-p.aa_a1[k + 2])),
            Ops::join(splat(-p.aa_a2[k]), splat(-p.aa_a2[k + 2]))};
}

// State `which` (0 = z1, 1 = z2) of sections k and k + 2.
template <class Ops>
inline typename Ops::V4 pair_state(const PaulaState& p, int k, int which) {
    return Ops::join(v2d{p.aa_state[k][0][which], p.aa_state[k][1][which]},
                     v2d{p.aa_state[k + 2][0][which], p.aa_state[k + 2][1][which]});
}

template <class Ops>
inline void store_pair_state(PaulaState& p, int k, int which, typename Ops::V4 z) {
    for (int side = 0; side < 2; side++) {
        p.aa_state[k][side][which] = Ops::lo(z)[side];
        p.aa_state[k + 2][side][which] = Ops::hi(z)[side];
    }
}

template <class Ops>
inline Filters<Ops> load_filters(const PaulaState& p) {
    Filters<Ops> f;
    f.rc_coef = splat(p.rc_coef);
    f.led = {splat(p.led_b0), splat(-p.led_a1), splat(-p.led_a2)};
    f.aa_a = pair_coefficients<Ops>(p, 0);
    f.aa_b = pair_coefficients<Ops>(p, 1);
    FilterState<Ops>& s = f.s;
    s.rc = v2d{p.rc_state[0], p.rc_state[1]} / SAMPLE_UNITS;
    s.led_z1 = v2d{p.led_state[0][0], p.led_state[1][0]} / SAMPLE_UNITS;
    s.led_z2 = v2d{p.led_state[0][1], p.led_state[1][1]} / SAMPLE_UNITS;
    s.aa_a_z1 = pair_state<Ops>(p, 0, 0);
    s.aa_a_z2 = pair_state<Ops>(p, 0, 1);
    s.aa_b_z1 = pair_state<Ops>(p, 1, 0);
    s.aa_b_z2 = pair_state<Ops>(p, 1, 1);
    s.acc = splat(0.0);
    return f;
}

template <class Ops>
inline void store_filters(PaulaState& p, const Filters<Ops>& f) {
    const FilterState<Ops>& s = f.s;
    for (int side = 0; side < 2; side++) {
        p.rc_state[side] = s.rc[side] * SAMPLE_UNITS;
        p.led_state[side][0] = s.led_z1[side] * SAMPLE_UNITS;
        p.led_state[side][1] = s.led_z2[side] * SAMPLE_UNITS;
    }
    store_pair_state<Ops>(p, 0, 0, s.aa_a_z1);
    store_pair_state<Ops>(p, 0, 1, s.aa_a_z2);
    store_pair_state<Ops>(p, 1, 0, s.aa_b_z1);
    store_pair_state<Ops>(p, 1, 1, s.aa_b_z2);
}

// Below this every state is inaudible (-400 dB); clearing it keeps the
// decay of a silent mixer out of the slow subnormal range and lets it reach
// exact zero, so that silence adds exactly nothing.
constexpr double STATE_FLOOR = 1e-20;

template <class Ops>
inline void flush_if_quiet(FilterState<Ops>& s) {
    const v2d states[] = {s.rc,
                          s.led_z1,
                          s.led_z2,
                          Ops::lo(s.aa_a_z1),
                          Ops::hi(s.aa_a_z1),
                          Ops::lo(s.aa_a_z2),
                          Ops::hi(s.aa_a_z2),
                          Ops::lo(s.aa_b_z1),
                          Ops::hi(s.aa_b_z1),
                          Ops::lo(s.aa_b_z2),
                          Ops::hi(s.aa_b_z2)};
    for (v2d v : states)
        if (!(std::fabs(v[0]) < STATE_FLOOR && std::fabs(v[1]) < STATE_FLOOR)) return;
    const v2d zero = splat(0.0);
    s.rc = s.led_z1 = s.led_z2 = zero;
    s.aa_a_z1 = s.aa_a_z2 = s.aa_b_z1 = s.aa_b_z2 = Ops::join(zero, zero);
}

constexpr int PIPE_STAGES = 6;

// A section pair with only some of its lanes holding a tick of this block
// (the pipeline filling or draining): the others keep their state.
template <class Ops, class V4>
inline V4 lowpass_partly(const Lowpass<V4>& c, V4& z1, V4& z2, V4 x, bool low, bool high) {
    V4 z1_before = z1, z2_before = z2;
    V4 y = lowpass<Ops>(c, z1, z2, x);
    z1 = Ops::join(Ops::lo(low ? z1 : z1_before), Ops::hi(high ? z1 : z1_before));
    z2 = Ops::join(Ops::lo(low ? z2 : z2_before), Ops::hi(high ? z2 : z2_before));
    return y;
}

// Filters n ticks of sums. The ticks are cut into pieces, each the whole or
// a part of one frame; a piece that completes a frame adds its box-car
// average to out. piece_ticks has a 0 after the last piece.
//
// The output chain runs as a pipeline: in one step, stage s works on tick
// i - s. 0: RC low-pass; 1: LED filter and soft clip; 2-5: anti-alias
// sections 0-3 (2 and 4 in pair A, 3 and 5 in pair B). Each stage takes what
// the one before produced in the previous step, so the stages of a step are
// independent and their latencies overlap. The state lives in local
// variables so that it stays in registers.
template <class Ops, bool LED>
void filter_block(Filters<Ops>& filters, const double* sums, uint32_t n,
                  const uint32_t* piece_ticks, const uint32_t* piece_frame, float*& out) {
    using V4 = typename Ops::V4;
    const Filters<Ops>& k = filters;
    const v2d zero = splat(0.0);
    v2d rc = k.s.rc, led_z1 = k.s.led_z1, led_z2 = k.s.led_z2;
    V4 aa_a_z1 = k.s.aa_a_z1, aa_a_z2 = k.s.aa_a_z2, aa_b_z1 = k.s.aa_b_z1,
       aa_b_z2 = k.s.aa_b_z2;
    // Section 3's outputs add up in the high half; the low half is unused.
    V4 acc = Ops::join(zero, k.s.acc);
    // Between stages: the clipper's output and the outputs of the pairs.
    v2d clipped = zero;
    V4 out_a = Ops::join(zero, zero), out_b = out_a;
    int piece = 0;
    uint32_t left = piece_ticks[0];

    // One step with only stages lo..hi; filling and draining run fewer than
    // all six. A step is split at the clipper: `front` returns the value to
    // clip, `back` takes it clipped.
    auto front = [&](int lo, int hi) __attribute__((always_inline)) {
        auto runs = [lo, hi](int stage) { return lo <= stage && stage <= hi; };
        // Inputs from the previous step: A takes the clipper's output and
        // section 1's, B takes A's outputs (sections 0 and 2).
        V4 in_a = Ops::join(clipped, Ops::lo(out_b));
        if (runs(3) || runs(5))
            out_b = runs(3) && runs(5)
                        ? lowpass<Ops>(k.aa_b, aa_b_z1, aa_b_z2, out_a)
                        : lowpass_partly<Ops>(k.aa_b, aa_b_z1, aa_b_z2, out_a, runs(3), runs(5));
        if (runs(2) || runs(4))
            out_a = runs(2) && runs(4)
                        ? lowpass<Ops>(k.aa_a, aa_a_z1, aa_a_z2, in_a)
                        : lowpass_partly<Ops>(k.aa_a, aa_a_z1, aa_a_z2, in_a, runs(2), runs(4));
        if (runs(1) && LED) return lowpass<Ops>(k.led, led_z1, led_z2, rc);
        return rc;
    };
    auto back = [&](const double* tick_sums, int lo, int hi, v2d v) __attribute__((always_inline)) {
        auto runs = [lo, hi](int stage) { return lo <= stage && stage <= hi; };
        if (runs(1)) clipped = v;
        if (runs(0)) {
            // rc += (0.5 sum - rc) coef, in output units.
            v2d x;
            std::memcpy(&x, tick_sums, sizeof x);
            rc = Ops::fma(x - rc, k.rc_coef, rc);
        }
        if (!runs(5)) return;
        acc = acc + out_b;
        if (--left == 0) {
            if (piece_frame[piece]) {
                v2d avg = Ops::hi(acc) * splat(1.0 / piece_frame[piece]);
                out[0] += float(avg[0]);
                out[1] += float(avg[1]);
                out += 2;
                acc = Ops::join(zero, zero);
            }
            left = piece_ticks[++piece];
        }
    };
    auto partial = [&](uint32_t i) __attribute__((always_inline)) {
        int lo = i >= n ? int(i - n + 1) : 0;
        int hi = int(std::min<uint32_t>(i, PIPE_STAGES - 1));
        v2d v = front(lo, hi);
        if (lo <= 1 && hi >= 1 && beyond_knee(v)) v = soft_clip<Ops>(v);
        back(sums + 2 * std::min(i, n - 1), lo, hi, v);
    };

    uint32_t i = 0;
    for (; i < n && i < PIPE_STAGES - 1; i++) partial(i);
    while (i < n) {
        // The steady state calls nothing and holds no cold code, so that
        // all its state stays in registers; a tick to clip leaves it.
        v2d v = zero;
        for (; i < n; i++) {
            v = front(0, PIPE_STAGES - 1);
            if (beyond_knee(v)) [[unlikely]]
                break;
            back(sums + 2 * i, 0, PIPE_STAGES - 1, v);
        }
        if (i == n) break;
        // Loud passages clip tick after tick: stay in a loop that clips
        // inline until the signal has been calm for a while.
        back(sums + 2 * i, 0, PIPE_STAGES - 1, soft_clip<Ops>(v));
        i++;
        for (uint32_t calm = 0; i < n && calm < CALM_TICKS; i++) {
            v = front(0, PIPE_STAGES - 1);
            if (beyond_knee(v)) {
                v = soft_clip<Ops>(v);
                calm = 0;
            } else {
                calm++;
            }
            back(sums + 2 * i, 0, PIPE_STAGES - 1, v);
        }
    }
    for (; i < n + PIPE_STAGES - 1; i++) partial(i);

    FilterState<Ops>& s = filters.s;
    s.rc = rc;
    s.led_z1 = led_z1;
    s.led_z2 = led_z2;
    s.aa_a_z1 = aa_a_z1;
    s.aa_a_z2 = aa_a_z2;
    s.aa_b_z1 = aa_b_z1;
    s.aa_b_z2 = aa_b_z2;
    s.acc = Ops::hi(acc);
    flush_if_quiet(s);
}

template <class Ops>
void mix_frames(PaulaState& p, float* out, int frames) {
    if (frames <= 0) return;
    // Channel lists, once per call: a channel that stops on the way stays
    // listed and adds nothing.
    PaulaChannel* list[4];
    int list_side[4];
    int listed = 0;
    for (int c : LIST_ORDER) {
        PaulaChannel& ch = p.ch[c];
        if (ch.active && !ch.muted && ch.ptr && ch.period) {
            list[listed] = &ch;
            list_side[listed++] = CHANNEL_SIDE[c];
        }
    }

    alignas(16) double sums[BLOCK_TICKS * 2];
    uint32_t piece_ticks[BLOCK_PIECES + 1], piece_frame[BLOCK_PIECES];
    Filters<Ops> f = load_filters<Ops>(p);
    int started = 0;           // frames whose ticks have been planned
    uint32_t frame_ticks = 0;  // ticks of the frame in progress
    uint32_t left = 0;         // of those, not yet planned
    while (started < frames || left > 0) {
        // Plan a block: whole frames, or a piece of a very long one.
        uint32_t n = 0;
        int pieces = 0;
        while (n < BLOCK_TICKS && pieces < BLOCK_PIECES && (left > 0 || started < frames)) {
            if (left == 0) {
                uint64_t t = p.clock_frac + p.clocks_per_frame;
                frame_ticks = uint32_t(std::max<uint64_t>(t >> 16, 1));
                p.clock_frac = t & 0xFFFF;
                left = frame_ticks;
                started++;
            }
            uint32_t take = std::min(left, BLOCK_TICKS - n);
            left -= take;
            n += take;
            piece_ticks[pieces] = take;
            piece_frame[pieces++] = left == 0 ? frame_ticks : 0;
        }
        piece_ticks[pieces] = 0;
        std::memset(sums, 0, sizeof(double) * 2 * n);  // all-zero bits are 0.0
        for (int i = 0; i < listed; i++) run_channel<Ops>(*list[i], sums, list_side[i], n);
        if (p.led_on) filter_block<Ops, true>(f, sums, n, piece_ticks, piece_frame, out);
        else filter_block<Ops, false>(f, sums, n, piece_ticks, piece_frame, out);
    }
    store_filters<Ops>(p, f);
}

}  // namespace
