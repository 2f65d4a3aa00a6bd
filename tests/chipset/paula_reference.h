// The mixer as the hardware description reads: one tick at a time, one
// channel at a time, scalar doubles. Slow and obvious; the real mixer batches
// and vectorises, and must land on the same samples.
#pragma once

#include <cmath>
#include <cstdint>

#include "chipset/paula.h"

namespace ref {

inline bool advance(PaulaChannel& ch) {
    auto reload = [&ch] {
        ch.ptr = ch.next_ptr;
        ch.len = ch.next_len;
        ch.reload_pending = 0;
        ch.next_ptr = nullptr;
    };
    if (!ch.backwards) {
        uint32_t n = ch.pos + 1;
        if (n < ch.len) {
        } else if (ch.reload_pending) {
            reload();
            n = ch.next_pos;
        } else if (ch.loop_len == 0) {
            ch.active = 0;
            return false;
        } else {
            n = ch.loop_start + (n - ch.len) % ch.loop_len;
            ch.len = ch.loop_start + ch.loop_len;
        }
        ch.pos = n;
    } else if (ch.pos > 0 && (ch.loop_len == 0 || ch.pos > ch.loop_start)) {
        ch.pos -= 1;
    } else if (ch.reload_pending) {
        reload();
        ch.pos = ch.next_len - 1;
    } else if (ch.loop_len == 0) {
        ch.active = 0;
        return false;
    } else {
        ch.pos = ch.loop_start + ch.loop_len - 1;
    }
    ch.sample = int8_t(ch.ptr[ch.pos]);
    return true;
}

inline int contribution(PaulaChannel& ch) {
    if (!ch.active) return 0;
    ch.phase += 0x10000;
    while (ch.phase >= ch.period) {
        ch.phase -= ch.period;
        if (!advance(ch)) return 0;
    }
    ch.pwm_count = (ch.pwm_count + 1) & 63;
    return ch.pwm_count < ch.volume ? ch.sample : 0;
}

inline double biquad(double x, double b0, double b1, double b2, double a1, double a2, double* z) {
    double y = b0 * x + z[0];
    z[0] = b1 * x - a1 * y + z[1];
    z[1] = b2 * x - a2 * y;
    return y;
}

inline void mix_frames(PaulaState& p, float* out, int frames) {
    const int order[2][2] = {{0, 3}, {1, 2}};
    bool listed[4];
    for (int c = 0; c < 4; c++) {
        const PaulaChannel& ch = p.ch[c];
        listed[c] = ch.active && !ch.muted && ch.ptr && ch.period;
    }
    const double k = 1.0 - 0.8;
    for (int i = 0; i < frames; i++) {
        uint64_t t = p.clock_frac + p.clocks_per_frame;
        uint64_t ticks = t >> 16;
        if (ticks == 0) ticks = 1;
        p.clock_frac = t & 0xFFFF;
        double acc[2] = {0, 0};
        for (uint64_t tick = 0; tick < ticks; tick++) {
            double sum[2] = {0, 0};
            for (int side = 0; side < 2; side++)
                for (int c : order[side])
                    if (listed[c]) sum[side] += contribution(p.ch[c]);
            for (int side = 0; side < 2; side++) {
                p.rc_state[side] += (0.5 * sum[side] - p.rc_state[side]) * p.rc_coef;
                double v = p.rc_state[side];
                if (p.led_on)
                    v = biquad(v, p.led_b0, p.led_b1, p.led_b2, p.led_a1, p.led_a2,
                               p.led_state[side]);
                v *= 0.0078125;
                if (v > 0.8) v = 0.8 + k * std::tanh((v - 0.8) / k);
                if (v < -0.8) v = -(0.8 + k * std::tanh((-v - 0.8) / k));
                for (int s = 0; s < 4; s++)
                    v = biquad(v, p.aa_b0[s], 2 * p.aa_b0[s], p.aa_b0[s], p.aa_a1[s], p.aa_a2[s],
                               p.aa_state[s][side]);
                acc[side] += v;
            }
        }
        out[2 * i] += float(acc[0] * (1.0 / double(ticks)));
        out[2 * i + 1] += float(acc[1] * (1.0 / double(ticks)));
    }
}

}  // namespace ref
