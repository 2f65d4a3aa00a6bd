// The demo module the build composes: a well-formed M.K. file that uses the
// effects it is meant to show and lasts at least 20 seconds.
#include <gtest/gtest.h>

#include <set>

#include "pt_support.h"

using namespace pt_test;

namespace {

constexpr double MIN_SECONDS = 20;

std::vector<uint8_t> demo() { return read_file(ORVEL_DEMO_MOD); }

uint16_t be16(const std::vector<uint8_t>& m, size_t at) {
    return uint16_t(m[at] << 8 | m[at + 1]);
}

}  // namespace

TEST(Demo, IsAWellFormedProTrackerModule) {
    std::vector<uint8_t> m = demo();
    ASSERT_GT(m.size(), 1084u) << "the build did not write " << ORVEL_DEMO_MOD;
    EXPECT_EQ(std::string(m.begin() + 1080, m.begin() + 1084), "M.K.");
    int song_length = m[950], patterns = 0;
    ASSERT_GE(song_length, 1);
    for (int i = 0; i < 128; i++) patterns = std::max(patterns, m[952 + i] + 1);
    size_t samples = 0;
    for (int s = 0; s < 31; s++) {
        size_t h = 20 + 30 * size_t(s);
        samples += 2u * be16(m, h + 22);
        EXPECT_LE(m[h + 25], 64) << "sample " << s + 1;
        EXPECT_LE(be16(m, h + 26) + be16(m, h + 28), std::max<int>(be16(m, h + 22), 1));
    }
    EXPECT_EQ(m.size(), 1084 + 1024u * patterns + samples);
    EXPECT_EQ(pt_check(m.data(), uint32_t(m.size())), PT_FORMAT_31);
}

TEST(Demo, UsesTheEffectsItShowsOff) {
    std::vector<uint8_t> m = demo();
    ASSERT_GT(m.size(), 1084u);
    int patterns = 0;
    for (int i = 0; i < 128; i++) patterns = std::max(patterns, m[952 + i] + 1);
    std::set<std::string> used;
    for (size_t at = 1084; at < 1084 + 1024u * patterns; at += 4) {
        int cmd = m[at + 2] & 0x0F, param = m[at + 3];
        const char* hex = "0123456789ABCDEF";
        if (cmd == 0x0 && param)
            used.insert("arpeggio");
        else if (cmd == 0xE)
            used.insert(std::string("E") + hex[param >> 4]);
        else if (cmd == 0xF)
            used.insert(param < 32 ? "speed" : "tempo");
        else if (cmd)
            used.insert(std::string(1, hex[cmd]));
    }
    for (const char* want : {"arpeggio", "1", "2", "3", "4", "6", "A", "D", "E6", "speed", "tempo"})
        EXPECT_TRUE(used.count(want)) << "effect " << want << " is not used";
}

// Where it ends against openmpt123 is part of bundled_player_test.
TEST(Demo, PlaysForAtLeastTwentySeconds) {
    std::vector<uint8_t> m = demo();
    ASSERT_GT(m.size(), 1084u);
    SongEnd end = time_to_song_end(m);
    ASSERT_TRUE(end.reached);
    EXPECT_GE(end.seconds, MIN_SECONDS);
}
