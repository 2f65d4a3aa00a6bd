// Paula self-tests: a fixed chord played straight from the custom
// registers (paula-test), the same chord programmed by a 68000 program
// (cpu-paula-test), and the chord mixed into memory and written as a WAV
// file (paula-wav).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "chipset/custom.h"
#include "chipset/paula.h"
#include "cli/selftest.h"
#include "cpu/cpu.h"
#include "machine.h"
#include "playback/audio.h"
#include "playback/play.h"
#include "playback/wav.h"

namespace {

constexpr uint32_t WAVE_ADDR = 0x10000;     // test waveforms in chip RAM
constexpr uint32_t PROGRAM_ADDR = 0x400;    // cpu-paula-test program
constexpr uint32_t STACK_TOP = 0x8000;
constexpr uint32_t CHUNK_FRAMES = 480;      // 10 ms, as an audio device asks
constexpr int WAVE_BYTES = 32;

// One voice of the test chord: waveform block, period, volume.
struct Voice {
    uint32_t address;
    uint16_t period;
    uint16_t volume;
};
// A major triad around 260 Hz plus its octave (3546895 / (period x 32)).
constexpr Voice voices[4] = {
    {WAVE_ADDR, 428, 48},                    // sine, C
    {WAVE_ADDR + WAVE_BYTES, 339, 40},       // triangle, E
    {WAVE_ADDR + 2 * WAVE_BYTES, 285, 32},   // square, G
    {WAVE_ADDR, 214, 40},                    // sine, C an octave up
};

void write_waveforms(Machine& m) {
    for (int i = 0; i < WAVE_BYTES; i++) {
        double phase = 6.283185307179586 * i / WAVE_BYTES;
        int tri = i < WAVE_BYTES / 2 ? -120 + 15 * i : 360 - 15 * i;
        m.chip_ram[WAVE_ADDR + i] = uint8_t(int8_t(std::lround(120.0 * std::sin(phase))));
        m.chip_ram[WAVE_ADDR + WAVE_BYTES + i] = uint8_t(int8_t(tri));
        m.chip_ram[WAVE_ADDR + 2 * WAVE_BYTES + i] = uint8_t(int8_t(i < WAVE_BYTES / 2 ? 90 : -90));
    }
}

void program_voices(Machine& m) {
    for (int c = 0; c < 4; c++) {
        uint32_t reg = 0xDFF0A0 + 16 * uint32_t(c);
        custom_write_word(m, reg + 0, uint16_t(voices[c].address >> 16));  // AUDxLCH
        custom_write_word(m, reg + 2, uint16_t(voices[c].address));        // AUDxLCL
        custom_write_word(m, reg + 4, WAVE_BYTES / 2);                     // AUDxLEN (words)
        custom_write_word(m, reg + 6, voices[c].period);                   // AUDxPER
        custom_write_word(m, reg + 8, voices[c].volume);                   // AUDxVOL
    }
    custom_write_word(m, 0xDFF096, 0x820F);  // DMACON: master and all four channels on
}

// The same register writes as a 68000 program, ending in a branch to itself.
void write_program(Machine& m) {
    uint32_t a = PROGRAM_ADDR;
    auto w = [&](uint16_t v) {
        m.chip_ram[a] = uint8_t(v >> 8);
        m.chip_ram[a + 1] = uint8_t(v);
        a += 2;
    };
    w(0x41F9), w(0x00DF), w(0xF000);  // lea $dff000,a0
    for (int c = 0; c < 4; c++) {
        uint16_t base = uint16_t(0xA0 + 16 * c);
        w(0x217C), w(uint16_t(voices[c].address >> 16)), w(uint16_t(voices[c].address)),
            w(base);                                          // move.l #addr,AUDxLC(a0)
        w(0x317C), w(WAVE_BYTES / 2), w(uint16_t(base + 4));  // move.w #len,AUDxLEN(a0)
        w(0x317C), w(voices[c].period), w(uint16_t(base + 6));
        w(0x317C), w(voices[c].volume), w(uint16_t(base + 8));
    }
    w(0x317C), w(0x820F), w(0x0096);  // move.w #$820f,DMACON(a0)
    w(0x60FE);                        // bra.s *
}

void reset_chips(Machine& m) {
    std::memset(m.chip_ram, 0, sizeof m.chip_ram);
    custom_paula_init(m);
    write_waveforms(m);
}

void mix_callback(void* context, float* out, uint32_t frames) {
    Machine& m = *static_cast<Machine*>(context);
    std::memset(out, 0, size_t(frames) * 2 * sizeof(float));
    paula_mix_frames(m.paula, out, int(frames));
    custom_check_wraps(m);
}

void cpu_mix_callback(void* context, float* out, uint32_t frames) {
    Machine& m = *static_cast<Machine*>(context);
    for (uint32_t i = 0; i < 4 * frames; i++) step(m);
    mix_callback(context, out, frames);
}

int play_for(Machine& m, AudioCallback callback, double seconds) {
    if (audio_open(m.audio_latency ? m.audio_latency : 10000, callback, &m) != 0) return 1;
    play_sleep(seconds);
    audio_close();
    return 0;
}

}  // namespace

int paula_test(Machine& m, double seconds) {
    reset_chips(m);
    program_voices(m);
    return play_for(m, mix_callback, seconds);
}

int cpu_paula_test(Machine& m, double seconds) {
    reset_chips(m);
    write_program(m);
    // Reset vectors: supervisor stack and the program's start.
    m.chip_ram[2] = uint8_t(STACK_TOP >> 8);
    m.chip_ram[6] = uint8_t(PROGRAM_ADDR >> 8);
    m.chip_ram[7] = uint8_t(PROGRAM_ADDR);
    cpu_reset(m);
    int rc = play_for(m, cpu_mix_callback, seconds);
    if (rc == 0)
        std::printf("cpu_paula_test done: PC=%08x (program counter rests in the self-loop)\n", m.pc);
    return rc;
}

int paula_wav_test(Machine& m, const char* out_path, double seconds) {
    double want = std::trunc(48000.0 * seconds);
    uint32_t frames = want > 0.0 ? (want < 4294967295.0 ? uint32_t(want) : 0xFFFFFFFFu) : 0;
    reset_chips(m);
    program_voices(m);
    float* buffer = static_cast<float*>(std::malloc(size_t(frames) * 2 * sizeof(float) + 1));
    if (!buffer) {
        std::fputs("paula_wav_test: oom\n", stderr);
        return 1;
    }
    for (uint32_t done = 0; done < frames;) {
        uint32_t n = frames - done < CHUNK_FRAMES ? frames - done : CHUNK_FRAMES;
        mix_callback(&m, buffer + 2 * size_t(done), n);
        done += n;
    }
    float peak = 0.0f;
    for (size_t i = 0; i < size_t(frames) * 2; i++) peak = std::fmax(peak, std::fabs(buffer[i]));
    std::printf("paula_wav_test: %u frames mixed, peak |sample|=%.4f\n", frames, peak);
    int rc = wav_write_s16_le(out_path, buffer, frames);
    std::free(buffer);
    if (rc == 0)
        std::printf("paula_wav_test: wrote %s (%u stereo frames at %d Hz)\n", out_path, frames,
                    int(OUTPUT_RATE));
    return rc;
}
