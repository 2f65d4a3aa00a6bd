// Players built from our own sources, run through the routine runner: the
// skeleton, and the 68000 runtime helpers against the host's arithmetic.
#include <gtest/gtest.h>

#include <cstdio>

#include "amiga/arith.h"
#include "host/deli.h"
#include "host/runner.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

struct PlayerTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    uint32_t load(const std::vector<uint8_t>& player) {
        libs_init(m);
        deli_init(m);
        return orvel_load_player_mem(m, player.data(), uint32_t(player.size()));
    }
};

// The runtime check's output (results big-endian, then the buffer) against
// the same C run on the host.
void expect_arith(const std::vector<uint8_t>& out) {
    arith_u32 results[ARITH_RESULTS];
    unsigned char buffer[MEM_BUFFER];
    arith_compute(results, buffer);
    std::vector<uint8_t> want = be_longs(std::vector<uint32_t>(results, results + ARITH_RESULTS));
    want.insert(want.end(), buffer, buffer + MEM_BUFFER);
    ASSERT_EQ(out.size(), want.size());
    for (size_t k = 0; k < want.size(); k++)
        ASSERT_EQ(out[k], want[k]) << (k < sizeof results ? "result " : "buffer byte ")
                                   << (k < sizeof results ? k / 4 : k - sizeof results);
}

}  // namespace

TEST_F(PlayerTest, SkeletonPlays) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_SKELETON);
    ASSERT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(get_string(m, m.player.player_name), "orvel skeleton");
    EXPECT_EQ(deli_call(m, m.player.init_player), 0xFFFFFFFFu);  // no module: -1
    deli_set_module(m, MODULE_ADDR, 4);
    EXPECT_EQ(deli_call(m, m.player.init_player), 0u);
    for (int k = 0; k < 3; k++) deli_call(m, m.player.interrupt);
    EXPECT_EQ(m.hunk_count, 2u);
    EXPECT_EQ(read32(m, m.hunk_addr[1]), 3u);  // the tick counter, first in the BSS
}

TEST_F(PlayerTest, RuntimeHelpersOnTheEmulator) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_ARITH);
    const uint32_t entry = load(file);
    ASSERT_EQ(entry, PLAYER_LOAD_ADDR);
    ASSERT_EQ(deli_call(m, m.player.init_player), 0u);
    std::vector<uint8_t> out;
    for (uint32_t k = 0; k < 4 * ARITH_RESULTS; k++) out.push_back(read8(m, read32(m, entry + 16) + k));
    for (uint32_t k = 0; k < MEM_BUFFER; k++) out.push_back(read8(m, read32(m, entry + 20) + k));
    expect_arith(out);
}

// The same check on qemu's 68000, which needs no core of ours: it shows
// that a failure above is the emulator's, not the runtime's.
TEST(RuntimeOnQemu, MatchesTheHost) {
#ifndef ORVEL_QEMU_M68K
    GTEST_SKIP() << "qemu-m68k not available in this build";
#else
    std::string cmd = std::string(ORVEL_QEMU_M68K) + " -cpu m68000 " + ORVEL_AMIGA_ARITH_QEMU_ELF;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::vector<uint8_t> out;
    for (int c; (c = std::fgetc(p)) != EOF;) out.push_back(uint8_t(c));
    ASSERT_EQ(pclose(p), 0);
    expect_arith(out);
#endif
}
