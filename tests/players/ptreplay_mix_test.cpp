// The replay driving orvel's own custom registers and Paula mixer, against
// openmpt123's A500 render of the same module: their loudness envelopes
// (RMS in 20 ms windows, both sides summed) must follow each other.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "chipset/custom.h"
#include "pt_support.h"
#include "test_machine.h"

using namespace pt_test;

namespace {

constexpr double SECONDS = 30;
constexpr int WINDOW = ENVELOPE_WINDOW;
constexpr double MIN_CORRELATION = 0.95;
constexpr uint32_t MODULE_ADDRESS = 0x10000;  // where orvel places modules
constexpr uint32_t CUSTOM_BASE = 0xDFF000;

struct Run {
    MachinePtr machine = make_machine();
    PtState state;
};

// Interleaved stereo at 48 kHz, up to `seconds` or the song's first end.
std::vector<float> render_orvel(const std::vector<uint8_t>& module, double seconds) {
    auto run = std::make_unique<Run>();
    Machine& m = *run->machine;
    custom_paula_init(m);
    // Both renders start with the LED filter off; E0x switches it.
    m.paula.led_on = 0;
    std::copy(module.begin(), module.end(), m.chip_ram + MODULE_ADDRESS);
    pt_hw_hooks = {};
    pt_hw_hooks.ctx = &m;
    pt_hw_hooks.write = [](void* ctx, uint16_t reg, uint16_t value) {
        custom_write_word(*static_cast<Machine*>(ctx), CUSTOM_BASE + reg, value);
    };
    pt_hw_hooks.address = [](void* ctx, const void* p) {
        return uint32_t(static_cast<const uint8_t*>(p) - static_cast<Machine*>(ctx)->chip_ram);
    };
    pt_hw_hooks.filter = [](void* ctx, int on) {
        static_cast<Machine*>(ctx)->paula.led_on = uint32_t(on);
    };
    PtState* s = &run->state;
    if (pt_init(s, m.chip_ram + MODULE_ADDRESS, uint32_t(module.size()), PT_AUTO) != PT_OK) return {};
    const int frames = int(seconds * OUTPUT_RATE);
    std::vector<float> out(2 * size_t(frames), 0.0f);
    double due = 0;
    int done = 0;
    while (done < frames) {
        pt_tick(s);
        if (s->song_ends) break;
        due += OUTPUT_RATE * tick_seconds(*s);
        int n = std::min(frames, int(due)) - done;
        if (n > 0) paula_mix_frames(m.paula, &out[2 * size_t(done)], n);
        done += std::max(n, 0);
    }
    pt_hw_hooks = {};
    out.resize(2 * size_t(done));
    return out;
}

}  // namespace

TEST(PtMix, LoudnessFollowsOpenmptsAmigaRender) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    std::vector<std::string> paths = {ORVEL_DEMO_MOD};
    for (const char* f : {"CV_BOSS.MOD", "CV_TECH.MOD", "TDZ1.MOD", "TDZ2.MOD", "TDZ3.MOD",
                          "openmpt-test.mod"})
        paths.push_back(testdata_path(std::string("mods/") + f));
    int compared = 0;
    for (const std::string& path : paths) {
        std::vector<uint8_t> module = read_file(path);
        if (module.empty()) continue;
        std::string name = path.substr(path.find_last_of('/') + 1);
        SCOPED_TRACE(name);
        // openmpt123 writes its render next to the module: use a copy.
        std::string copy = std::string(ORVEL_TEST_BINARY_DIR) + "/players_mix_" + name;
        write_file(copy, module);
        std::vector<float> ours = render_orvel(module, SECONDS);
        std::vector<float> theirs = render_openmpt(copy, SECONDS);
        std::remove(copy.c_str());
        ASSERT_FALSE(ours.empty());
        ASSERT_FALSE(theirs.empty()) << "openmpt123 did not render " << name;
        size_t windows = std::min(ours.size(), theirs.size()) / 2 / WINDOW;
        ASSERT_GT(windows, 50u);
        double c[3];
        for (int side = 0; side < 3; side++)
            c[side] = correlation(envelope(ours, windows, side), envelope(theirs, windows, side));
        std::printf("  %-18s %5.1f s  RMS correlation %.4f (left %.4f, right %.4f)\n",
                    name.c_str(), windows * 0.02, c[2], c[0], c[1]);
        EXPECT_GE(c[2], MIN_CORRELATION);
        compared++;
    }
    EXPECT_GT(compared, 0);
}
