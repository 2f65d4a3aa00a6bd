// Players built from our own sources through the routine runner: the
// skeleton, and the 68000 runtime helpers against the host's arithmetic,
// also run on qemu's 68000 to tell a fault of our core from one of the runtime.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "amiga/arith.h"
#include "host/deli.h"
#include "host/runner.h"
#include "playback/engine.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

using PlayerTest = MachineTest;

uint32_t load(Machine& m, const std::vector<uint8_t>& player) {
    return orvel_reset(m), orvel_load_player_mem(m, player.data(), uint32_t(player.size()));
}

// The runtime check's output (results big-endian, then the buffer) against the same C on the host.
void expect_arith(const std::vector<uint8_t>& out, const char* where) {
    arith_u32 results[ARITH_RESULTS];
    unsigned char buffer[MEM_BUFFER];
    arith_compute(results, buffer);
    std::vector<uint8_t> want = be_longs(std::vector<uint32_t>(results, results + ARITH_RESULTS));
    want.insert(want.end(), buffer, buffer + MEM_BUFFER);
    ASSERT_EQ(out.size(), want.size());
    const size_t k = size_t(std::mismatch(want.begin(), want.end(), out.begin()).first - want.begin());
    EXPECT_EQ(k, want.size()) << where << ": " << (k < sizeof results ? "result " : "byte ") << (k < sizeof results ? k / 4 : k);
}

}  // namespace

TEST_F(PlayerTest, SkeletonPlays) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_SKELETON);
    ASSERT_EQ(load(m, file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(deli_call(m, m.player.init_player), 0xFFFFFFFFu);  // no module: -1
    deli_set_module(m, MODULE_ADDR, 4);
    EXPECT_EQ(deli_call(m, m.player.init_player), 0u);
    for (int k = 0; k < 3; k++) deli_call(m, m.player.interrupt);
    EXPECT_EQ(read32(m, m.hunk_addr[1]), 3u);  // the tick counter, first in the BSS
}

TEST_F(PlayerTest, RuntimeHelpersOnTheEmulatorAndOnQemu) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_ARITH);
    const uint32_t entry = load(m, file);
    ASSERT_EQ(deli_call(m, m.player.init_player), 0u);
    const uint8_t *results = m.chip_ram + read32(m, entry + 16), *buffer = m.chip_ram + read32(m, entry + 20);
    std::vector<uint8_t> out(results, results + 4 * ARITH_RESULTS);
    out.insert(out.end(), buffer, buffer + MEM_BUFFER);
    expect_arith(out, "emulator");
#ifndef ORVEL_QEMU_M68K
    GTEST_SKIP() << "qemu-m68k not available in this build";
#else
    FILE* p = popen((std::string(ORVEL_QEMU_M68K) + " -cpu m68000 " + ORVEL_AMIGA_ARITH_QEMU_ELF).c_str(), "r");
    ASSERT_NE(p, nullptr);
    out.clear();
    for (int c; (c = std::fgetc(p)) != EOF;) out.push_back(uint8_t(c));
    ASSERT_EQ(pclose(p), 0);
    expect_arith(out, "qemu");
#endif
}
