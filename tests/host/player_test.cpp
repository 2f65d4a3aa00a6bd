// Players built from our own sources, run through the routine runner. All
// but the qemu comparison need the 68000 core.
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

    // Reset as a play mode does, load the player and a module.
    uint32_t start(const std::vector<uint8_t>& player, const std::vector<uint8_t>& module) {
        libs_init(m);
        deli_init(m);
        deli_set_module_path(m, "mods/test.mod");
        uint32_t entry = orvel_load_player_mem(m, player.data(), uint32_t(player.size()));
        for (size_t k = 0; k < module.size(); k++) write8(m, MODULE_ADDR + uint32_t(k), module[k]);
        deli_set_module(m, MODULE_ADDR, uint32_t(module.size()));
        return entry;
    }
};

// Offsets of the test player's state record (player.c).
constexpr uint32_t S_MAGIC = 0, S_EXEC = 4, S_CONFIG_CALLS = 16, S_INIT_CALLS = 20,
                   S_TICKS = 24, S_BASE = 28, S_MODULE = 32, S_MODULE_LEN = 36, S_SUM = 40,
                   S_TEMPO = 44, S_COPY = 48;

uint32_t be(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

}  // namespace

TEST_F(PlayerTest, TestPlayerRoutinesRun) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_PLAYER);
    const std::vector<uint8_t> module = {'M', '.', 'K', '.', 1, 2, 3, 4, 5};
    std::string err;
    uint32_t entry = 0;
    err = stderr_of([&] { entry = start(file, module); });
    ASSERT_EQ(entry, PLAYER_LOAD_ADDR);
    EXPECT_EQ(err, "");
    const uint32_t state = read32(m, entry + 16);
    ASSERT_EQ(read32(m, state + S_MAGIC), 0x504C4159u);
    // Config ran once, while loading, with the exec base in A6.
    EXPECT_EQ(read32(m, state + S_CONFIG_CALLS), 1u);
    EXPECT_EQ(read32(m, state + S_EXEC), EXEC_BASE);

    EXPECT_EQ(deli_call(m, m.player.init_player), 0u);
    EXPECT_EQ(read32(m, state + S_INIT_CALLS), 1u);
    EXPECT_EQ(read32(m, state + S_BASE), DELI_BASE);
    EXPECT_EQ(read32(m, state + S_MODULE), MODULE_ADDR);
    EXPECT_EQ(read32(m, state + S_MODULE_LEN), module.size());
    uint32_t sum = 0;
    for (uint8_t b : module) sum = sum * 31 + b;
    EXPECT_EQ(read32(m, state + S_SUM), sum);
    EXPECT_EQ(read32(m, state + S_TEMPO), 709379u / 14188);
    EXPECT_EQ(read32(m, state + S_COPY), be(module.data()));
    EXPECT_EQ(read32(m, state + S_COPY + 4), be(module.data() + 4));

    for (int k = 0; k < 5; k++) deli_call(m, m.player.interrupt);
    EXPECT_EQ(read32(m, state + S_TICKS), 5u);
    EXPECT_EQ(deli_call(m, m.player.end_player), 0xFFFFFFFEu);  // moveq #-2,d0
}

TEST_F(PlayerTest, SkeletonPlays) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_SKELETON);
    ASSERT_EQ(start(file, {1, 2, 3, 4}), PLAYER_LOAD_ADDR);
    EXPECT_EQ(get_string(m, m.player.player_name), "orvel skeleton");
    ASSERT_NE(m.player.init_player, 0u);
    ASSERT_NE(m.player.interrupt, 0u);
    EXPECT_EQ(deli_call(m, m.player.init_player), 0u);
    for (int k = 0; k < 3; k++) deli_call(m, m.player.interrupt);
    // The tick counter is the skeleton's only BSS variable.
    EXPECT_EQ(m.hunk_count, 2u);
    EXPECT_EQ(read32(m, m.hunk_addr[1]), 3u);
}

TEST_F(PlayerTest, SkeletonRefusesAMissingModule) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_SKELETON);
    libs_init(m);
    deli_init(m);
    ASSERT_EQ(orvel_load_player_mem(m, file.data(), uint32_t(file.size())), PLAYER_LOAD_ADDR);
    EXPECT_EQ(deli_call(m, m.player.init_player), 0xFFFFFFFFu);  // returns -1
}

// The runtime helpers on the emulated 68000 against the host's arithmetic.
TEST_F(PlayerTest, RuntimeHelpersOnTheEmulator) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_ARITH);
    uint32_t entry = start(file, {});
    ASSERT_EQ(entry, PLAYER_LOAD_ADDR);
    ASSERT_EQ(deli_call(m, m.player.init_player), 0u);
    arith_u32 want[ARITH_RESULTS];
    unsigned char buffer[MEM_BUFFER];
    arith_compute(want, buffer);
    const uint32_t results = read32(m, entry + 16), emu_buffer = read32(m, entry + 20);
    for (uint32_t k = 0; k < ARITH_RESULTS; k++)
        EXPECT_EQ(read32(m, results + 4 * k), want[k]) << "result " << k;
    for (uint32_t k = 0; k < MEM_BUFFER; k++)
        ASSERT_EQ(read8(m, emu_buffer + k), buffer[k]) << "buffer byte " << k;
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
    uint8_t buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.insert(out.end(), buf, buf + n);
    ASSERT_EQ(pclose(p), 0);
    arith_u32 want[ARITH_RESULTS];
    unsigned char buffer[MEM_BUFFER];
    arith_compute(want, buffer);
    ASSERT_EQ(out.size(), sizeof want + sizeof buffer);
    for (size_t k = 0; k < ARITH_RESULTS; k++) EXPECT_EQ(be(&out[4 * k]), want[k]) << "result " << k;
    for (size_t k = 0; k < MEM_BUFFER; k++)
        ASSERT_EQ(out[sizeof want + k], buffer[k]) << "buffer byte " << k;
#endif
}
