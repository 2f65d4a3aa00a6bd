// The opcode table: what the builder reports, which handler some encodings
// reach, and which encodings are instructions at all, checked against
// binutils' 68000 disassembler as an outside opinion.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "test_machine.h"

namespace {

struct OpTable : ::testing::Test {
    static void SetUpTestSuite() { op_table_fill(); }
};

}  // namespace

TEST_F(OpTable, BuilderReport) {
    OpTableStats s = op_table_stats();
    EXPECT_EQ(s.overwritten_slots, 0u);  // no registration takes another family's slot
    // Left illegal: NBCD, MOVEP, the 68010/68020 instructions not executed
    // here, and the holes of the 68000 map.
    EXPECT_EQ(s.illegal_slots, 11768u);
    EXPECT_EQ(s.handlers, 1037u);
    std::vector<OpHandler> first(op_table, op_table + 65536);
    op_table_fill();  // filling again gives the same table
    EXPECT_TRUE(std::equal(first.begin(), first.end(), op_table));
    EXPECT_EQ(op_table_stats().illegal_slots, s.illegal_slots);
}

// Handler names as the design spells them, the 68010/68020 additions, and
// encodings binutils accepts that stay illegal here.
TEST_F(OpTable, EncodingsReachTheirHandlers) {
    const std::pair<uint16_t, const char*> cases[] = {
        {0x3C7A, "op_move_w_pcd16_an"},  {0xD1FA, "op_adda_l_pcd16_an"},
        {0x2D5B, "op_move_l_ainc_ad16"}, {0xD15A, "op_add_w_dn_ainc"},
        {0x42B9, "op_clr_l_absl"},       {0x5048, "op_addq_w_an"},
        {0x4E74, "op_rtd"},              {0x480E, "op_link_l"},
        {0x49C3, "op_extb_l"},           {0x42C0, "op_move_from_ccr"},
        {0x60FF, "op_bcc"},              {0xA000, "op_line_a"},
        {0xAFFF, "op_line_a"},           {0xF000, "op_line_f"},
        {0xFFFF, "op_line_f"},           {0x4AFC, "op_illegal"},  // ILLEGAL
        {0x5108, "op_illegal"},          // SUBQ.B #8,A0
        {0x0108, "op_illegal"},          // MOVEP
        {0x4800, "op_illegal"},          // NBCD
        {0x4E7A, "op_illegal"},          // MOVEC
    };
    for (const auto& [opcode, name] : cases)
        EXPECT_STREQ(op_name(opcode), name) << std::hex << opcode;
    EXPECT_EQ(op_table[0xA123], op_line_a);
}

#if !defined(_WIN32)
// Every encoding the GNU 68000 disassembler decodes has a handler, and every
// one it rejects is illegal here, except the listed differences.
TEST_F(OpTable, LegalityAgreesWithBinutils) {
    if (!have_tool("m68k-linux-gnu-objdump --version"))
        GTEST_SKIP() << "m68k-linux-gnu-objdump is not installed";
    // Each opcode in a slot of its own, followed by NOPs that any extension
    // words can swallow: every slot starts an instruction.
    constexpr int SLOT = 12;
    const std::string base = std::string(ORVEL_TEST_BINARY_DIR) + "/opcodes";
    {
        std::ofstream f(base + ".bin", std::ios::binary);
        for (int op = 0; op < 65536; op++) {
            char slot[SLOT] = {char(op >> 8), char(op)};
            for (int b = 2; b < SLOT; b += 2) slot[b] = 0x4E, slot[b + 1] = 0x71;
            f.write(slot, SLOT);
        }
    }
    ASSERT_EQ(std::system(("m68k-linux-gnu-objdump -D -b binary -m m68k:68000 " + base +
                           ".bin > " + base + ".dis").c_str()),
              0);
    // 68010/68020 additions here; and MOVEP, NBCD, binutils' laxness (SUBQ.B
    // to An, ILLEGAL as an instruction) and its "swbeg" pseudo-op there.
    const std::set<std::string> only_here = {"op_move_from_ccr", "op_link_l", "op_extb_l",
                                             "op_rtd"};
    const std::set<std::string> only_binutils = {"movepw", "movepl", "nbcd",
                                                 "subqb",  "illegal", "swbegl"};
    std::ifstream dis(base + ".dis");
    std::map<std::string, int> unexpected;
    int slots = 0;
    for (std::string line; std::getline(dis, line);) {
        unsigned address;
        char hex[64], mnemonic[64];
        if (std::sscanf(line.c_str(), " %x:\t%63[0-9a-f ]\t%63s", &address, hex, mnemonic) != 3 ||
            address % SLOT)
            continue;
        slots++;
        std::string ours = op_name(uint16_t(address / SLOT));
        if (ours == "op_line_a" || ours == "op_line_f") continue;
        bool theirs_legal = std::string(mnemonic) != ".short", legal_here = ours != "op_illegal";
        if (theirs_legal && !legal_here && !only_binutils.count(mnemonic)) unexpected[mnemonic]++;
        if (!theirs_legal && legal_here && !only_here.count(ours)) unexpected[ours]++;
    }
    std::remove((base + ".bin").c_str());
    std::remove((base + ".dis").c_str());
    EXPECT_EQ(slots, 65536);
    for (const auto& [what, n] : unexpected)
        ADD_FAILURE() << what << ": " << n << " encodings disagree";
}
#endif
