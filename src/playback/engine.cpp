// The playback engine: where emulated time and audio time meet. Paula is
// mixed in steps that end exactly at the next emulated event (a CIA timer
// underflow, a timed audio interrupt, the vertical blank, the player's
// Interrupt call); the emulated routines that fall due run between steps,
// never inside an audio frame.
#include "playback/engine.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "chipset/cia.h"
#include "chipset/custom.h"
#include "chipset/paula.h"
#include "cpu/bus.h"
#include "formats/epconf.h"
#include "formats/loadfile.h"
#include "host/deli.h"
#include "host/dos.h"
#include "host/runner.h"
#include "machine.h"

namespace {

constexpr uint32_t PAL_VBLANK_HZ = 50;
constexpr int INT_VERTB = 5;  // exec interrupt numbers
constexpr int INT_AUD0 = 7;
constexpr uint32_t DELI_SUBSONG = DELI_BASE + 0x2C;
constexpr uint32_t DELI_VOICE_MASK = DELI_BASE + 0x146;

uint32_t call_if(Machine& m, uint32_t routine) { return routine ? deli_call(m, routine) : 0; }

void run_interrupt(Machine& m) { deli_call(m, m.interrupt_entry); }

// Frames one pass through a channel's block lasts, from the registers as
// they stand now.
double audio_block_frames(const Machine& m, int c) {
    double len = m.aud_len[c] ? m.aud_len[c] : 65536.0;
    double per = m.aud_per[c] ? m.aud_per[c] : 1.0;
    double t = 2.0 * len * per / double(PAULA_CLOCK_PAL) * m.custom_frame_rate;
    return t > 0.0 ? t : 1.0;
}

// The step may not run past the next event.
int64_t step_length(const Machine& m, int64_t n) {
    int64_t cia = cia_frames_to_next_event(m);
    if (cia >= 0 && cia < n) n = cia;

    double soonest = 0.0;
    for (double cd : m.aud_irq_countdown)
        if (cd > 0.0 && (soonest == 0.0 || cd < soonest)) soonest = cd;
    if (soonest > 0.0) {
        if (soonest <= 1.0) n = 1;
        else n = std::min<int64_t>(n, int64_t(soonest + 0.999999));
    }

    if (m.tick_countdown >= 1) n = std::min<int64_t>(n, m.tick_countdown);
    if (m.interrupt_entry && m.interrupt_countdown > 0) n = std::min<int64_t>(n, m.interrupt_countdown);
    return n < 1 ? 1 : n;
}

void apply_separation(float* o, int64_t n, float separation) {
    for (int64_t i = 0; i < n; i++) {
        float l = o[2 * i], r = o[2 * i + 1];
        float side = (l - r) * 0.5f * separation;
        o[2 * i] = std::fma(l + r, 0.5f, side);
        o[2 * i + 1] = std::fma(l + r, 0.5f, -side);
    }
}

// The timed audio interrupts: one request per pass through the block,
// independent of what the mixer does with the data.
void advance_audio_interrupts(Machine& m, int64_t n) {
    uint16_t raised = 0;
    for (int c = 0; c < 4; c++) {
        double& cd = m.aud_irq_countdown[c];
        if (cd <= 0.0) continue;
        cd -= double(n);
        if (cd > 0.0) continue;
        double t = audio_block_frames(m, c);
        while (cd <= 0.0) {
            cd += t;
            raised |= uint16_t(0x0080 << c);
        }
    }
    m.intreq |= raised;
}

void dispatch_audio_interrupts(Machine& m) {
    uint16_t pending = m.intreq & m.intena;
    for (int c = 0; c < 4; c++) {
        uint16_t bit = uint16_t(0x0080 << c);
        uint32_t node = m.int_vectors[INT_AUD0 + c];
        if ((pending & bit) && node) {
            m.intreq &= ~bit;
            deli_run_handler(m, node);
        }
    }
}

}  // namespace

void orvel_reset(Machine& m) {
    dos_close_all(m);
    std::memset(m.chip_ram, 0, sizeof m.chip_ram);
    m.output_rate = OUTPUT_RATE;
    m.separation = 1.0f;
    m.model = 0;
    m.led_filter = 0;
    m.audio_latency = 10000;
    // Until a start, no routine of an earlier player may run.
    m.interrupt_entry = 0;
    m.tick_period = m.interrupt_period = m.tick_countdown = m.interrupt_countdown = 0;
    m.frames_rendered = 0;
    m.song_end_count = 0;
    m.song_end_frame = 0;
    libs_init(m);
    custom_paula_init(m);
    cia_init(m);
    deli_init(m);
}

int orvel_load_module_mem(Machine& m, const uint8_t* data, uint32_t size, const char* player_path,
                          const char* module_path) {
    if (!mod_install(m, data, size)) return 1;
    deli_set_module(m, m.module_addr, m.module_len);
    if (!module_path) return 0;
    deli_set_module_path(m, module_path);
    epconf_resolve_epopt(m, player_path, module_path, data, size);
    return 0;
}

int orvel_start_playback(Machine& m) {
    const DeliPlayer& p = m.player;
    // The start fails only when Check2 did not recognise the module and
    // InitPlayer failed as well.
    uint32_t check = call_if(m, p.check2);
    call_if(m, p.ext_load);
    if (call_if(m, p.init_player) != 0 && check != 0) return 1;
    if (p.subsong_range) {
        uint32_t range = deli_call(m, p.subsong_range);
        write16(m, DELI_SUBSONG, uint16_t(range));
    }
    call_if(m, p.ep_init_amplifier);
    call_if(m, p.init_sound);
    call_if(m, p.start_int);
    call_if(m, p.volume);
    if (p.ep_voices) {
        m.d[0] = read16(m, DELI_VOICE_MASK);
        deli_call(m, p.ep_voices);
    }
    m.interrupt_countdown = 0;
    m.interrupt_entry = p.interrupt;
    m.tick_period = m.interrupt_period = m.tick_countdown = int32_t(m.output_rate / PAL_VBLANK_HZ);
    m.frames_rendered = 0;
    m.song_end_count = 0;
    m.song_end_frame = 0;
    return 0;
}

void orvel_render(Machine& m, float* out, uint32_t frames) {
    if (frames == 0) return;
    const bool driven = m.interrupt_entry != 0;
    if (driven && m.interrupt_countdown < 1) {
        run_interrupt(m);
        m.interrupt_countdown += m.interrupt_period;
    }
    uint32_t done = 0;
    for (;;) {
        int64_t n = step_length(m, int64_t(frames - done));
        float* o = out + 2 * size_t(done);
        std::memset(o, 0, size_t(n) * 2 * sizeof(float));
        paula_mix_frames(m.paula, o, int(n));
        if (m.separation < 1.0f) apply_separation(o, n, m.separation);
        done += uint32_t(n);
        m.frames_rendered += uint64_t(n);

        cia_advance(m, uint32_t(n));
        cia_run_pending(m);
        advance_audio_interrupts(m, n);
        dispatch_audio_interrupts(m);

        m.tick_countdown -= int32_t(n);
        if (m.tick_countdown < 1) {
            m.tick_countdown += m.tick_period;
            if (m.int_vectors[INT_VERTB]) deli_run_handler(m, m.int_vectors[INT_VERTB]);
        }

        if (!driven) {
            if (done >= frames) return;
            continue;
        }
        m.interrupt_countdown -= int32_t(n);
        custom_check_wraps(m);
        if (done >= frames) return;
        if (m.interrupt_countdown < 1) {
            run_interrupt(m);
            m.interrupt_countdown += m.interrupt_period;
        }
    }
}

void orvel_stop_playback(Machine& m) {
    const DeliPlayer& p = m.player;
    call_if(m, p.stop_int);
    call_if(m, p.end_sound);
    call_if(m, p.end_player);
}

void play_mode_cb(void* context, float* out, uint32_t frames) {
    orvel_render(*static_cast<Machine*>(context), out, frames);
}
