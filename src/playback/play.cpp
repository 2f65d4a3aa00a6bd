// The play commands: prepare the machine, choose a player when none is
// given, load player and module, start, then either let the audio thread
// pull frames in real time or render everything to a WAV file.
#include "playback/play.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "cli/config.h"
#include "cpu/bus.h"
#include "formats/epconf.h"
#include "formats/loadfile.h"
#include "host/deli.h"
#include "machine.h"
#include "playback/audio.h"
#include "playback/engine.h"
#include "playback/wav.h"

namespace {

constexpr size_t PATH_MAX_LEN = 4160;

struct Prepared {
    uint8_t* module = nullptr;
    uint32_t module_len = 0;
    uint32_t entry = 0;  // the player's entry point in chip RAM
    char player_path[PATH_MAX_LEN] = {};
};

// Steps shared by both modes: reset and settings, module into host memory,
// the player chosen and loaded into chip RAM. `tag` names the command in
// messages; `report` is where the format line goes. Returns 0 or the exit
// status.
int prepare(Machine& m, const char* player, const char* module, const char* tag, FILE* report,
            Prepared& p) {
    orvel_reset(m);
    config_load(m);
    p.module = load_file(module, p.module_len);
    if (!p.module) return 1;

    if (player) {
        std::snprintf(p.player_path, sizeof p.player_path, "%s", player);
    } else if (epconf_identify(module, p.module, p.module_len, p.player_path, sizeof p.player_path)) {
        std::fprintf(stderr, "%s: %s -> %s\n", tag, module, p.player_path);
    } else {
        std::fprintf(stderr, "%s: no player matches '%s'\n", tag, module);
        return 1;
    }

    epconf_resolve_epopt(m, p.player_path, module, p.module, p.module_len);
    if (m.epopt[0]) {
        const char* name = epopt_format_name(m.epopt);
        if (name[0]) std::fprintf(report, "format: %s [%s]\n", name, m.epopt);
        else std::fprintf(report, "format: [%s]\n", m.epopt);
    }

    uint32_t player_len = 0;
    uint8_t* image = load_file(p.player_path, player_len);
    if (!image) return 1;
    p.entry = orvel_load_player_mem(m, image, player_len);
    std::free(image);
    return p.entry ? 0 : 1;
}

int install_module(Machine& m, const char* module, Prepared& p) {
    int rc = orvel_load_module_mem(m, p.module, p.module_len, p.player_path, module);
    std::free(p.module);
    p.module = nullptr;
    return rc;
}

}  // namespace

void play_print_string(Machine& m, uint32_t address) {
    for (int i = 0; i < 64; i++) {
        uint8_t c = read8(m, address + uint32_t(i));
        if (c == 0) break;
        if (c >= 32 && c <= 126) std::putchar(c);
    }
}

void play_sleep(double seconds) {
    for (double ms = std::trunc(seconds * 1000.0); ms > 0.0;) {
        double piece = std::min(ms, 1000.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(int64_t(piece)));
        ms -= piece;
    }
}

int play_mode(Machine& m, const char* player, const char* module, double seconds) {
    Prepared p;
    if (int rc = prepare(m, player, module, "play", stdout, p)) {
        std::free(p.module);
        return rc;
    }
    const DeliPlayer& pl = m.player;
    std::printf("player loaded: entry=%08x, %u hunks\n", p.entry, m.hunk_count);
    std::fputs("player: ", stdout);
    if (pl.player_name) play_print_string(m, pl.player_name);
    std::printf("  v%u.%u\n", pl.player_version >> 8, pl.player_version & 0xFF);
    std::fputs("creator: ", stdout);
    if (pl.creator) play_print_string(m, pl.creator);
    std::putchar('\n');
    std::printf("entries: init=%08x init_sound=%08x interrupt=%08x end_sound=%08x end=%08x\n",
                pl.init_player, pl.init_sound, pl.interrupt, pl.end_sound, pl.end_player);

    uint32_t size = p.module_len;
    if (int rc = install_module(m, module, p)) return rc;
    std::printf("module loaded: %u bytes at %08x\n", size, m.module_addr);
    std::fflush(stdout);

    if (int rc = orvel_start_playback(m)) {
        std::fputs("module not recognised and init failed; aborting\n", stderr);
        return rc;
    }
    if (audio_open(m.audio_latency, play_mode_cb, &m) != 0) return 1;
    if (seconds >= 0.0) {
        play_sleep(seconds);
        audio_close();
        orvel_stop_playback(m);
        return 0;
    }
    for (;;) play_sleep(1.0);
}

int play_wav_mode(Machine& m, const char* player, const char* module, const char* out_path,
                  double seconds) {
    // A fixed 48000 frames per second, whatever the output rate setting. A
    // negative or absurd duration renders nothing rather than wrapping.
    double want = std::trunc(48000.0 * seconds);
    uint32_t frames = want > 0.0 ? (want < 4294967295.0 ? uint32_t(want) : 0xFFFFFFFFu) : 0;

    Prepared p;
    if (int rc = prepare(m, player, module, "play-wav", stderr, p)) {
        std::free(p.module);
        return rc;
    }
    if (int rc = install_module(m, module, p)) return rc;
    const DeliPlayer& pl = m.player;
    std::fprintf(stderr,
                 "play_wav_mode: entries init=%08x init_sound=%08x interrupt=%08x start_int=%08x "
                 "check2=%08x init_amplifier=%08x\n",
                 pl.init_player, pl.init_sound, pl.interrupt, pl.start_int, pl.check2,
                 pl.ep_init_amplifier);
    std::fprintf(stderr, "play_wav_mode: module addr=%08x size=%u\n", m.module_addr, m.module_len);

    if (int rc = orvel_start_playback(m)) {
        std::fputs("play_wav_mode: module not recognised and init failed; aborting\n", stderr);
        return rc;
    }
    float* buffer = static_cast<float*>(std::malloc(size_t(frames) * 2 * sizeof(float) + 1));
    if (!buffer) {
        std::fprintf(stderr, "play_wav_mode: oom for %u frames\n", frames);
        return 1;
    }
    orvel_render(m, buffer, frames);

    float peak = 0.0f;
    for (size_t i = 0; i < size_t(frames) * 2; i++) peak = std::fmax(peak, std::fabs(buffer[i]));
    std::fprintf(stderr, "play_wav_mode: %u frames mixed, peak |sample|=%.4f\n", frames, peak);
    std::fputs("  paula state per channel (lc/len/per/vol):\n", stderr);
    for (int c = 0; c < 4; c++)
        std::fprintf(stderr, "    ch%d: lc=%08x len=%u per=%u vol=%u  paula.active=%u\n", c,
                     m.aud_lc[c], m.aud_len[c], m.aud_per[c], m.aud_vol[c], m.paula.ch[c].active);
    std::fprintf(stderr, "  DMACON=%04x INTREQ=%04x INTENA=%04x\n", m.dmacon, m.intreq, m.intena);
    std::fputs("deli_neg histogram (calls per FPTR):\n", stderr);
    for (int k = 0; k <= 510; k++)
        if (m.deli_neg_calls[k])
            std::fprintf(stderr, "  -%4d %-20s %u calls\n", 6 * k, deli_neg_name(-6 * k),
                         m.deli_neg_calls[k]);

    orvel_stop_playback(m);
#ifdef _WIN32
    // `trace` renders to /dev/null; Windows calls its null device NUL.
    if (std::strcmp(out_path, "/dev/null") == 0) out_path = "NUL";
#endif
    int rc = wav_write_s16_le(out_path, buffer, frames);
    std::free(buffer);
    return rc;
}
