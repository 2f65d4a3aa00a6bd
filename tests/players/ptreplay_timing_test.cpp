// When the replay reports the song's end, against openmpt123's duration of
// the first subsong, for small modules that exercise every way a song can
// jump, loop, wait and end. (The real modules are played through the whole
// machine in bundled_player_test.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "pt_support.h"
#include "test_machine.h"

using namespace pt_test;

namespace {

constexpr double TOLERANCE_S = 0.1;
constexpr uint16_t C2 = 428;

// Marks a module as ProTracker-made for openmpt123, which otherwise plays
// modules without ProTracker-only effects with NoiseTracker's pattern break.
constexpr Note PT_MARK = {1, 3, 0, 0, 0xE, 0x11};

std::string scratch(const std::string& name) {
    return std::string(ORVEL_TEST_BINARY_DIR) + "/players_" + name + ".mod";
}

void expect_matches_openmpt(const std::vector<uint8_t>& module, const std::string& name,
                            int variant = PT_AUTO) {
    std::string path = scratch(name);
    write_file(path, module);
    std::optional<double> want = openmpt_duration(path);
    ASSERT_TRUE(want) << "openmpt123 gave no duration for " << path;
    SongEnd got = time_to_song_end(module, variant);
    ASSERT_TRUE(got.reached) << name << ": no song end within an hour";
    EXPECT_NEAR(got.seconds, *want, TOLERANCE_S) << name << " (" << got.ticks << " ticks)";
    std::remove(path.c_str());
}

}  // namespace

// Each case is a one- to three-pattern module; rows that are not listed are
// empty. The note on row 0 of channel 0 keeps a sample playing throughout.
TEST(PtTiming, CraftedFlowMatchesOpenmpt) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    struct Case {
        const char* name;
        std::vector<std::vector<Note>> patterns;
        std::vector<uint8_t> orders;
    };
    auto fx = [](int row, int ch, uint8_t cmd, uint8_t param) {
        return Note{row, ch, 0, 0, cmd, param};
    };
    const Note start = {0, 0, C2, 1, 0, 0};
    const std::vector<Note> plain = {start};
    const Case cases[] = {
        {"one pattern", {plain}, {0}},
        {"speed 1", {{start, PT_MARK, fx(0, 1, 0xF, 1)}}, {0}},
        {"F00 is ignored", {{start, PT_MARK, fx(10, 1, 0xF, 0)}}, {0}},
        {"tempo 32 on row 0", {{start, PT_MARK, fx(0, 1, 0xF, 0x20)}}, {0}},
        {"tempo and speed changes",
         {{start, PT_MARK, fx(0, 1, 0xF, 0xFF), fx(8, 1, 0xF, 3), fx(20, 2, 0xF, 0x50)}},
         {0}},
        {"break to row 10", {{start, PT_MARK, fx(0, 1, 0xD, 0x10)}, plain}, {0, 1}},
        {"break row is decimal", {{start, PT_MARK, fx(0, 1, 0xD, 0x1A)}, plain}, {0, 1}},
        {"break beyond the pattern", {{start, PT_MARK, fx(0, 1, 0xD, 0x64)}, plain}, {0, 1}},
        {"jump forward", {{start, PT_MARK, fx(0, 1, 0xB, 2)}, plain, plain}, {0, 1, 2}},
        {"jump and break together",
         {{start, PT_MARK, fx(0, 1, 0xB, 2), fx(0, 2, 0xD, 0x10)}, plain, plain},
         {0, 1, 2}},
        {"jump back ends the song", {plain, {PT_MARK, fx(5, 1, 0xB, 0)}}, {0, 1}},
        {"jump to itself", {{start, PT_MARK, fx(0, 1, 0xB, 0)}}, {0}},
        {"jump past the order list", {{start, PT_MARK, fx(3, 1, 0xB, 5)}, plain}, {0, 1}},
        {"pattern delay", {{start, PT_MARK, fx(0, 1, 0xE, 0xE2)}}, {0}},
        {"delay and break skip the target row",
         {{start, PT_MARK, fx(0, 1, 0xE, 0xE2), fx(0, 2, 0xD, 0)}, plain},
         {0, 1}},
        {"loop three times", {{start, PT_MARK, fx(0, 1, 0xE, 0x60), fx(3, 1, 0xE, 0x62)}}, {0}},
        {"loop from the pattern start", {{start, PT_MARK, fx(3, 1, 0xE, 0x62)}}, {0}},
        {"loop fifteen times", {{start, PT_MARK, fx(3, 1, 0xE, 0x6F)}}, {0}},
        {"loops in two channels",
         {{start, PT_MARK, fx(0, 1, 0xE, 0x60), fx(3, 1, 0xE, 0x61), fx(4, 2, 0xE, 0x60),
           fx(5, 2, 0xE, 0x61)}},
         {0}},
        {"loop on a delayed row",
         {{start, PT_MARK, fx(0, 1, 0xE, 0x60), fx(3, 1, 0xE, 0x62), fx(3, 2, 0xE, 0xE1)}},
         {0}},
        {"second loop from a used start ends the song",
         {{start, PT_MARK, fx(0, 1, 0xE, 0x60), fx(3, 1, 0xE, 0x62), fx(10, 1, 0xE, 0x61)}},
         {0}},
        {"loop start carried into the next pattern",
         {{start, PT_MARK, fx(5, 1, 0xE, 0x60), fx(6, 1, 0xE, 0x61)}, {fx(10, 1, 0xE, 0x61)}},
         {0, 1}},
        {"loop and break on one row",
         {{start, PT_MARK, fx(3, 1, 0xE, 0x61), fx(3, 2, 0xD, 0)}},
         {0}},
        {"one pattern in two positions", {{start, PT_MARK, fx(3, 1, 0xE, 0x61)}}, {0, 0}},
        {"jump back after a loop in a later position",
         {{start, PT_MARK}, {fx(5, 1, 0xE, 0x61)}, {fx(3, 1, 0xB, 0)}},
         {0, 1, 2}},
        {"loop after a jump keeps the earlier rows visited",
         {{start, PT_MARK, fx(0, 1, 0xB, 1), fx(10, 1, 0xE, 0x60), fx(12, 1, 0xE, 0x61)},
          {fx(4, 1, 0xD, 0x10)}},
         {0, 1}},
        {"delays on two channels",
         {{start, PT_MARK, fx(2, 1, 0xE, 0xE3), fx(2, 2, 0xE, 0xE1), fx(5, 1, 0xE, 0xE2)}},
         {0}},
        {"two loops of one channel share a start: endless",
         {{start, PT_MARK, fx(3, 1, 0xE, 0x61), fx(10, 1, 0xE, 0x61)}},
         {0}},
        {"endless loop found once its counter comes round",
         {{start, PT_MARK, fx(7, 1, 0xE, 0x61), fx(53, 1, 0xE, 0x63)}},
         {0}},
        {"a loop restarted by another channel's loop",
         {{start, PT_MARK, fx(0, 1, 0xE, 0x60), fx(3, 1, 0xE, 0x62), fx(10, 2, 0xE, 0x61)}},
         {0}},
        {"nested loops in two channels",
         {{start, PT_MARK, fx(18, 1, 0xE, 0x61), fx(35, 0, 0xE, 0x62)}},
         {0}},
        {"loop whose start lies in another pattern, round the whole song",
         {{start, PT_MARK, fx(7, 1, 0xE, 0x63)}, plain, plain, {start, fx(17, 1, 0xE, 0x60)}},
         {3, 3, 0, 1, 0}},
        {"break out of a loop",
         {{start, PT_MARK, fx(2, 1, 0xE, 0x60), fx(4, 2, 0xD, 0x20), fx(6, 1, 0xE, 0x63)}, plain},
         {0, 1}},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ModBuilder b;
        b.patterns = c.patterns;
        b.orders = c.orders;
        expect_matches_openmpt(b.build(), "flow" + std::to_string(n++));
    }
}

// Soundtracker files: the tempo byte at 471, Fxx as speed only, Dxx to row 0,
// no E commands.
TEST(PtTiming, SoundtrackerMatchesOpenmpt) {
    if (!have_openmpt()) GTEST_SKIP() << "openmpt123 not available (or Windows build)";
    struct Case {
        const char* name;
        uint8_t tempo_byte;
        std::vector<Note> extra;
    };
    const Case cases[] = {
        {"default tempo byte", 120, {}},
        {"tempo byte 0", 0, {}},
        {"tempo byte 1", 1, {}},
        {"tempo byte 100", 100, {}},
        {"tempo byte 200", 200, {}},
        {"speed 3", 120, {{1, 1, 0, 0, 0xF, 3}}},
        {"speed from the low nibble", 120, {{1, 1, 0, 0, 0xF, 0x7D}}},
        {"break ignores its row", 120, {{1, 1, 0, 0, 0xD, 0x10}}},
        {"no pattern delay", 120, {{1, 1, 0, 0, 0xE, 0xE2}}},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ModBuilder b;
        b.sample_count = 15;
        b.restart = c.tempo_byte;
        b.patterns = {{{0, 0, C2, 1, 0, 0}}, {{0, 0, C2, 1, 0, 0}}};
        for (const Note& x : c.extra) b.patterns[0].push_back(x);
        b.orders = {0, 1};
        expect_matches_openmpt(b.build(), "st" + std::to_string(n++));
    }
}
