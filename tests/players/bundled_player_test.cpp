// orvel's bundled player (orvel_data/players/ProTracker) on real modules,
// through the whole machine (68000, host calls, CIA timing, Paula), against
// openmpt123's Amiga 500 render. The real executable's auto-wav render must
// follow openmpt123's loudness envelope, and the engine, run until the player
// calls SongEnd, must reach the song's end when openmpt123 says it ends.
//
// Modules: the demo, the shared test modules, and those of Debian's
// tecnoballz-data package when apt-get can fetch it. Files the player does
// not take (tecnoballz ships an XM file named .mod) must be refused cleanly.
// Under the sanitizers, which make the mixer several times slower, the
// shared modules suffice, and only the short songs are played to their end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "../playback/capture.h"
#include "cpu/cpu.h"
#include "formats/epconf.h"
#include "formats/loadfile.h"
#include "host/deli.h"
#include "machine.h"
#include "playback/engine.h"
#include "pt_support.h"
#include "test_machine.h"

using namespace pt_test;
namespace fs = std::filesystem;

namespace {

constexpr double RENDER_SECONDS = 30;
constexpr double MIN_CORRELATION = 0.95;
constexpr int HARD_PAN = 200;  // openmpt123's stereo separation for Paula's hard left/right
constexpr double END_TOLERANCE_S = 0.1;
constexpr double END_MARGIN_S = 10;  // rendered past openmpt123's end before giving up
constexpr uint32_t CHUNK_FRAMES = 4800;
constexpr const char* REFUSED = "module not recognised and init failed; aborting";
#ifdef __SANITIZE_ADDRESS__
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
constexpr double SANITIZED_SONG_MAX_S = 60;

struct Module {
    std::string name;
    std::string path;
    bool playable;  // the replay's own check accepts it
};

// Runs f(0) .. f(n-1) on a few threads.
template <class F>
void parallel_for(size_t n, F f) {
    unsigned workers = std::clamp(std::thread::hardware_concurrency(), 2u, 4u);
    std::atomic<size_t> next{0};
    std::vector<std::thread> pool;
    for (unsigned w = 0; w < workers; w++)
        pool.emplace_back([&] {
            for (size_t i; (i = next++) < n;) f(i);
        });
    for (std::thread& t : pool) t.join();
}

// A path as one word for the shell.
std::string shell_word(const std::string& s) { return "'" + s + "'"; }

class BundledPlayer : public ::testing::Test {
protected:
    static inline std::string scratch;
    static inline std::vector<Module> modules;

    static void SetUpTestSuite() {
        if (!have_openmpt()) return;  // every test here skips
        op_table_fill();
        scratch = std::string(ORVEL_TEST_BINARY_DIR) + "/players_bundled";
        std::error_code ec;
        fs::remove_all(scratch, ec);
        fs::create_directories(scratch);
        std::vector<std::string> paths = {ORVEL_DEMO_MOD};
        for (const char* f : {"CV_BOSS.MOD", "CV_TECH.MOD", "TDZ1.MOD", "TDZ2.MOD", "TDZ3.MOD",
                              "openmpt-test.mod"})
            if (fs::exists(testdata_path(std::string("mods/") + f)))
                paths.push_back(testdata_path(std::string("mods/") + f));
        if (SANITIZED)
            std::printf("  sanitizer build: the tecnoballz modules are left to the plain build\n");
        else
            for (const std::string& p : fetch_tecnoballz()) paths.push_back(p);
        for (const std::string& p : paths) {
            std::vector<uint8_t> data = read_file(p);
            modules.push_back({fs::path(p).filename().string(), p,
                               pt_check(data.data(), uint32_t(data.size())) != PT_FORMAT_NONE});
        }
    }

    static void TearDownTestSuite() {
        std::error_code ec;
        fs::remove_all(scratch, ec);
        modules.clear();
    }

    // The game's music, from the package archive; nothing when offline.
    static std::vector<std::string> fetch_tecnoballz() {
        std::string dir = scratch + "/tecnoballz";
        fs::create_directories(dir);
        std::string cmd = "cd " + shell_word(dir) +
                          " && apt-get download tecnoballz-data >/dev/null 2>&1"
                          " && dpkg-deb -x tecnoballz-data_*.deb x >/dev/null 2>&1";
        std::vector<std::string> found;
        fs::path music = fs::path(dir) / "x/usr/share/games/tecnoballz/musics";
        if (std::system(cmd.c_str()) == 0 && fs::is_directory(music))
            for (const fs::directory_entry& e : fs::directory_iterator(music))
                if (e.path().extension() == ".mod") found.push_back(e.path().string());
        std::sort(found.begin(), found.end());
        if (found.empty())
            std::printf("  tecnoballz-data could not be fetched: only the shared modules are compared\n");
        return found;
    }
};

struct Render {
    int status = -1;
    std::string log;
    std::vector<float> ours, theirs;
    std::string error;
};

Render render_both(const Module& mod, const std::string& dir) {
    Render r;
    // Each tool writes beside its input: a copy per module, under its own name.
    fs::create_directories(dir);
    std::string copy = dir + "/" + mod.name;
    fs::copy_file(mod.path, copy, fs::copy_options::overwrite_existing);
    std::string wav = copy + ".wav", log = copy + ".log";
    std::string cmd = shell_word(ORVEL_EXE) + " auto-wav " + shell_word(copy) + " " + shell_word(wav) + " " +
                      std::to_string(int(RENDER_SECONDS)) + " >" + shell_word(log) + " 2>&1";
    r.status = std::system(cmd.c_str());
    std::vector<uint8_t> text = read_file(log);
    r.log.assign(text.begin(), text.end());
    if (r.status != 0 || !mod.playable) return r;
    std::vector<int16_t> pcm;
    if (!read_wav_s16(wav, pcm, r.error)) return r;
    r.ours.resize(pcm.size());
    std::transform(pcm.begin(), pcm.end(), r.ours.begin(), [](int16_t v) { return v / 32768.0f; });
    r.theirs = render_openmpt(copy, RENDER_SECONDS, HARD_PAN);
    if (r.theirs.empty()) r.error = "openmpt123 did not render it";
    return r;
}

struct SongEndRun {
    std::string error;
    std::string player;
    std::string option;   // what the player was told ("type:pt30", ...)
    double seconds = -1;  // when the player called SongEnd, -1 = never
};

SongEndRun failed(const char* why) {
    SongEndRun r;
    r.error = why;
    return r;
}

// Plays the module in-process as `orvel play` would, the player chosen by
// eagleplayer.conf beside this executable, until the player reports the
// song's end or `limit` seconds have passed.
SongEndRun run_to_song_end(const Module& mod, double limit) {
    SongEndRun r;
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    orvel_reset(m);
    uint32_t len = 0;
    uint8_t* data = load_file(mod.path.c_str(), len);
    if (!data) return failed("cannot read the module");
    char player[4160];
    if (!epconf_identify(mod.path.c_str(), data, len, player, sizeof player)) {
        std::free(data);
        return failed("no player chosen");
    }
    r.player = fs::path(player).filename().string();
    uint32_t image_len = 0;
    uint8_t* image = load_file(player, image_len);
    uint32_t entry = image ? orvel_load_player_mem(m, image, image_len) : 0;
    std::free(image);
    int rc = entry ? orvel_load_module_mem(m, data, len, player, mod.path.c_str()) : 1;
    std::free(data);
    if (rc != 0) return failed("player or module did not load");
    r.option = m.epopt;
    if (orvel_start_playback(m) != 0) return failed("start failed");
    std::vector<float> out(2 * CHUNK_FRAMES);
    const uint64_t max_frames = uint64_t(limit * OUTPUT_RATE);
    while (m.song_end_count == 0 && m.frames_rendered < max_frames)
        orvel_render(m, out.data(), CHUNK_FRAMES);
    if (m.song_end_count) r.seconds = double(m.song_end_frame) / OUTPUT_RATE;
    orvel_stop_playback(m);
    return r;
}

}  // namespace

TEST_F(BundledPlayer, RenderFollowsOpenmptsLoudness) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    std::vector<Render> renders(modules.size());
    parallel_for(modules.size(), [&](size_t i) {
        renders[i] = render_both(modules[i], scratch + "/render" + std::to_string(i));
    });
    // The loudness of both sides together (their power, not their sum), with
    // openmpt123 panning hard left and right as Paula does. At its default
    // 75/25 panning only the mono sum would compare, and there related sounds
    // on opposite sides interfere: the sum's envelope follows their relative
    // phase, which the smallest difference in timing or period moves. One
    // side alone has the same trouble with its own two channels (the demo's
    // bass and pad share harmonics). Both are printed for a closer look.
    std::printf("  RMS envelopes in 20 ms windows, orvel auto-wav against openmpt123's A500\n"
                "  render panned hard: both sides' power (the criterion), each side, mono sum\n");
    for (size_t i = 0; i < modules.size(); i++) {
        const Module& mod = modules[i];
        const Render& r = renders[i];
        SCOPED_TRACE(mod.name);
        if (!mod.playable) {
            std::printf("  %-36s not a module the player takes: refused\n", mod.name.c_str());
            EXPECT_NE(r.status, 0);
            EXPECT_NE(r.log.find(REFUSED), std::string::npos) << r.log;
            continue;
        }
        ASSERT_EQ(r.status, 0) << r.log;
        EXPECT_NE(r.log.find("-> " + std::string(ORVEL_DATA_DIR) + "/players/ProTracker"),
                  std::string::npos)
            << "auto-wav did not pick the bundled player:\n" << r.log;
        ASSERT_EQ(r.error, "");
        size_t windows = std::min(r.ours.size(), r.theirs.size()) / 2 / ENVELOPE_WINDOW;
        ASSERT_GT(windows, 50u);
        double c[4];
        for (int of : {LEFT, RIGHT, MONO, STEREO})
            c[of] = correlation(envelope(r.ours, windows, of), envelope(r.theirs, windows, of));
        std::printf("  %-36s %5.1f s  %.4f  (left %.4f, right %.4f, mono %.4f)\n",
                    mod.name.c_str(), windows * 0.02, c[STEREO], c[LEFT], c[RIGHT], c[MONO]);
        EXPECT_GE(c[STEREO], MIN_CORRELATION);
    }
}

TEST_F(BundledPlayer, SongEndMatchesOpenmptsDuration) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    std::vector<std::optional<double>> want(modules.size());
    std::vector<SongEndRun> got(modules.size());
    parallel_for(modules.size(), [&](size_t i) {
        if (!modules[i].playable) return;
        want[i] = openmpt_duration(modules[i].path);
        if (want[i] && !(SANITIZED && *want[i] > SANITIZED_SONG_MAX_S))
            got[i] = run_to_song_end(modules[i], *want[i] + END_MARGIN_S);
    });
    for (size_t i = 0; i < modules.size(); i++) {
        const Module& mod = modules[i];
        if (!mod.playable) continue;
        SCOPED_TRACE(mod.name);
        ASSERT_TRUE(want[i]) << "openmpt123 gave no duration";
        if (SANITIZED && *want[i] > SANITIZED_SONG_MAX_S) {
            std::printf("  %-36s %.0f s long: left to the plain build\n", mod.name.c_str(), *want[i]);
            continue;
        }
        const SongEndRun& r = got[i];
        ASSERT_EQ(r.error, "");
        EXPECT_EQ(r.player, "ProTracker");
        std::printf("  %-36s SongEnd %8.3f s  openmpt123 %8.3f s  difference %+.3f s\n",
                    mod.name.c_str(), r.seconds, *want[i], r.seconds - *want[i]);
        EXPECT_NEAR(r.seconds, *want[i], END_TOLERANCE_S);
    }
}

// The tracker option reaches the player through the host's option library:
// an N.T. module is NoiseTracker's, whose Dxx always breaks to row 0, where
// ProTracker's breaks to the row given.
TEST_F(BundledPlayer, PlayerFollowsTheTrackerOption) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    ModBuilder b;
    b.tag = "N.T.";
    b.patterns = {{{0, 0, 428, 1, 0, 0}, {0, 1, 0, 0, 0xD, 0x32}}, {{0, 0, 428, 1, 0, 0}}};
    b.orders = {0, 1};
    std::vector<uint8_t> module = b.build();
    Module mod = {"noisetracker.mod", scratch + "/noisetracker.mod", true};
    write_file(mod.path, module);
    std::optional<double> want = openmpt_duration(mod.path);
    ASSERT_TRUE(want);
    // The test tells the trackers apart: ProTracker's reading ends elsewhere.
    SongEnd as_pt = time_to_song_end(module, PT_PROTRACKER);
    ASSERT_TRUE(as_pt.reached);
    EXPECT_GT(std::fabs(as_pt.seconds - *want), 1.0);

    SongEndRun r = run_to_song_end(mod, *want + END_MARGIN_S);
    ASSERT_EQ(r.error, "");
    EXPECT_EQ(r.option, "type:nt20");
    EXPECT_NEAR(r.seconds, *want, END_TOLERANCE_S);
}
