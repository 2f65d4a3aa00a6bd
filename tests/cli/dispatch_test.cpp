#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cli/dispatch.h"
#include "cli/selftest.h"
#include "cpu/cpu.h"
#include "test_machine.h"

namespace {

ParsedCommand parse(std::vector<std::string> args) {
    static std::vector<std::string> keep;
    static std::vector<char*> argv;
    keep = std::move(args);
    keep.insert(keep.begin(), "orvel");
    argv.clear();
    for (auto& s : keep) argv.push_back(s.data());
    argv.push_back(nullptr);
    return parse_command(int(keep.size()), argv.data());
}

std::string str(const char* s) { return s ? s : "(null)"; }

struct Case {
    std::vector<std::string> args;
    Command command;
    std::string player, module, out;
    double seconds;
    uint32_t address, count;
};

constexpr auto U = Command::Usage;
const std::string N = "(null)";

}  // namespace

TEST(Dispatch, FormsAndEdgeCases) {
    const Case cases[] = {
        {{}, Command::Smoke, N, N, N, 0, 0, 0},
        {{"paula-test"}, Command::PaulaTest, N, N, N, 3.0, 0, 0},
        {{"paula-test", "1.5"}, Command::PaulaTest, N, N, N, 1.5, 0, 0},
        {{"cpu-paula-test"}, Command::CpuPaulaTest, N, N, N, 3.0, 0, 0},
        {{"cpu-paula-test", "abc"}, Command::CpuPaulaTest, N, N, N, 0.0, 0, 0},
        {{"play"}, U, N, N, N, 0, 0, 0},
        {{"load"}, U, N, N, N, 0, 0, 0},
        {{"frobnicate"}, U, N, N, N, 0, 0, 0},
        {{"paula-wav", "o.wav"}, Command::PaulaWav, N, N, "o.wav", 3.0, 0, 0},
        {{"paula-wav", "o.wav", "2"}, Command::PaulaWav, N, N, "o.wav", 2.0, 0, 0},
        {{"load", "p", "extra", "more"}, Command::Load, "p", N, N, 0, 0, 0},
        {{"ep-info", "p"}, Command::EpInfo, "p", N, N, 0, 0, 0},
        {{"play", "m.mod"}, Command::Play, N, "m.mod", N, -1.0, 0, 0},
        {{"auto", "m.mod"}, Command::Play, N, "m.mod", N, -1.0, 0, 0},
        {{"dump", "p"}, U, N, N, N, 0, 0, 0},
        {{"trace", "p"}, U, N, N, N, 0, 0, 0},
        {{"dump", "p", "0x1000"}, Command::Dump, "p", N, N, 0, 0x1000, 64},
        {{"dump", "p", "0x1000", "10"}, Command::Dump, "p", N, N, 0, 0x1000, 10},
        {{"disasm", "p", "010"}, Command::Disasm, "p", N, N, 0, 8, 32},
        {{"disasm", "p", "abc", "0x10"}, Command::Disasm, "p", N, N, 0, 0, 16},
        {{"trace", "p", "m"}, Command::Trace, "p", "m", "/dev/null", 3.0, 0, 0},
        {{"trace", "p", "m", "7"}, Command::Trace, "p", "m", "/dev/null", 7.0, 0, 0},
        {{"find", "p", "0xdeadbeef"}, Command::Find, "p", N, N, 0, 0xDEADBEEF, 0},
        {{"find", "p", "5", "ignored"}, Command::Find, "p", N, N, 0, 5, 0},
        {{"callers", "p", "0x200010"}, Command::Callers, "p", N, N, 0, 0x200010, 0},
        {{"trace-pc", "p", "m"}, Command::TracePc, "p", "m", N, 0, 0, 0},
        {{"trace-pc", "p", "m", "max=0", "bogus"}, Command::TracePc, "p", "m", N, 0, 0, 0},
        {{"play", "mod.x", "30"}, Command::Play, N, "mod.x", N, 30.0, 0, 0},
        {{"play", "mod.x", "0"}, Command::Play, N, "mod.x", N, 0.0, 0, 0},
        {{"play", "player", "mod.x"}, Command::Play, "player", "mod.x", N, -1.0, 0, 0},
        {{"play", "mod.x", "-5"}, Command::Play, "mod.x", "-5", N, -1.0, 0, 0},
        {{"play", "mod.x", "30s"}, Command::Play, "mod.x", "30s", N, -1.0, 0, 0},
        {{"play", "mod.x", ""}, Command::Play, "mod.x", "", N, -1.0, 0, 0},
        {{"play", "mod.x", "nan"}, Command::Play, "mod.x", "nan", N, -1.0, 0, 0},
        {{"play", "p", "m", "12"}, Command::Play, "p", "m", N, 12.0, 0, 0},
        {{"auto", "m", "4"}, Command::Play, N, "m", N, 4.0, 0, 0},
        {{"auto", "m", "4", "x"}, Command::Play, N, "m", N, 4.0, 0, 0},
        {{"auto-wav", "m", "o.wav"}, Command::PlayWav, N, "m", "o.wav", 10.0, 0, 0},
        {{"auto-wav", "m", "o.wav", "1.5"}, Command::PlayWav, N, "m", "o.wav", 1.5, 0, 0},
        {{"play-wav", "p", "m"}, U, N, N, N, 0, 0, 0},
        {{"play-wav", "p", "m", "o.wav"}, Command::PlayWav, "p", "m", "o.wav", 10.0, 0, 0},
        {{"play-wav", "p", "m", "o.wav", "2"}, Command::PlayWav, "p", "m", "o.wav", 2.0, 0, 0},
        {{"disasm-chip", "p", "m"}, U, N, N, N, 0, 0, 0},
        {{"disasm-chip", "p", "m", "0x200000"}, Command::DisasmChip, "p", "m", N, 0, 0x200000, 32},
        {{"disasm-chip", "p", "m", "16", "4"}, Command::DisasmChip, "p", "m", N, 0, 16, 4},
        {{"frobnicate", "a", "b"}, U, N, N, N, 0, 0, 0},
        {{"frobnicate", "a", "b", "c"}, U, N, N, N, 0, 0, 0},
        {{"PLAY", "m"}, U, N, N, N, 0, 0, 0},
    };
    for (const Case& c : cases) {
        std::string label;
        for (auto& a : c.args) label += a + " ";
        SCOPED_TRACE("orvel " + label);
        ParsedCommand p = parse(c.args);
        EXPECT_EQ(int(p.command), int(c.command));
        if (c.command == U) continue;
        EXPECT_EQ(str(p.player), c.player);
        EXPECT_EQ(str(p.module), c.module);
        EXPECT_EQ(str(p.out), c.out);
        EXPECT_DOUBLE_EQ(p.seconds, c.seconds);
        EXPECT_EQ(p.address, c.address);
        EXPECT_EQ(p.count, c.count);
        // trace-pc passes on everything from its fourth operand.
        size_t first = c.command == Command::TracePc ? 3 : c.args.size();
        std::vector<std::string> options(p.options, p.options + p.option_count);
        EXPECT_EQ(options, std::vector<std::string>(c.args.begin() + long(first), c.args.end()));
    }
}

TEST(Dispatch, UsageTextIsByteExact) {
    std::ifstream f(std::string(ORVEL_TEST_SOURCE_DIR) + "/cli/data/usage.txt", std::ios::binary);
    ASSERT_TRUE(f) << "usage.txt missing";
    std::string expected((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    EXPECT_EQ(expected.size(), 693u);
    EXPECT_EQ(usage_text_len, 693u);
    EXPECT_EQ(std::string(usage_text, usage_text_len), expected);
}

// The smoke tests stop at the first failed check with its line and exit
// status 1; instructions broken on purpose in the table show it.
TEST(Smoke, StopsAtTheFirstFailure) {
    const struct {
        uint16_t opcode;
        OpHandler broken;
        int passes;
        const char* last_line;
    } cases[] = {
        // ILLEGAL stacks its own address.
        {0x4AFC, [](Machine& m, uint16_t) { m.pc -= 2, exception(m, 4); }, 0,
         "FAIL: expected PC=0x402 after rte, got 00000400\n"},
        {0x72FF, [](Machine& m, uint16_t) { m.d[1] = ~0u; }, 2,  // MOVEQ #-1,D1 without N
         "FAIL moveq #-1,d1: d1=ffffffff sr=2700\n"},
        {0x08C0, [](Machine& m, uint16_t) { m.pc += 2, m.d[0] |= 0x20, m.sr &= ~SR_Z; }, 3,
         "FAIL bset static bit 5: Z should be set (was 0 before set)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.last_line);
        op_table_fill();
        op_table[c.opcode] = c.broken;
        MachinePtr m = make_machine();
        testing::internal::CaptureStdout();
        EXPECT_EQ(selftest_smoke(*m), 1);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(out.ends_with(c.last_line)) << out;
        size_t passes = 0;
        for (size_t at = 0; (at = out.find("smoke test PASS\n", at)) != std::string::npos; at++)
            passes++;
        EXPECT_EQ(passes, size_t(c.passes));
    }
    op_table_fill();
}
