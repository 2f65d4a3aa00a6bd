// The opcode table: what the builder reports, which handler each encoding
// reaches, and which encodings are instructions at all, checked against
// binutils' 68000 disassembler as an outside opinion.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "cpu/cpu.h"
#include "test_machine.h"

namespace {

struct OpTable : ::testing::Test {
    static void SetUpTestSuite() { op_table_fill(); }
};

}  // namespace

TEST_F(OpTable, BuilderReport) {
    OpTableStats s = op_table_stats();
    // No registration takes a slot from another family.
    EXPECT_EQ(s.overwritten_slots, 0u);
    // The encodings that stay illegal: NBCD, MOVEP, the 68010/68020
    // instructions not executed here, and the holes of the 68000 map.
    EXPECT_EQ(s.illegal_slots, 11768u);
    EXPECT_EQ(s.handlers, 1037u);

    // Filling again gives the same table.
    OpHandler first[4] = {op_table[0x3010], op_table[0xD1FA], op_table[0x4E75], op_table[0xE2D0]};
    op_table_fill();
    EXPECT_EQ(op_table[0x3010], first[0]);
    EXPECT_EQ(op_table[0xD1FA], first[1]);
    EXPECT_EQ(op_table[0x4E75], first[2]);
    EXPECT_EQ(op_table[0xE2D0], first[3]);
    EXPECT_EQ(op_table_stats().illegal_slots, s.illegal_slots);
}

// Handlers per family, as the instruction set defines the legal modes.
TEST_F(OpTable, HandlersPerFamily) {
    std::map<std::string, std::set<std::string>> family;
    for (int op = 0; op < 65536; op++) {
        std::string name = op_name(uint16_t(op));
        std::string f = name.substr(3, name.find('_', 3) - 3);
        family[f].insert(name);
    }
    const struct {
        const char* family;
        size_t handlers;
    } expected[] = {
        // MOVE.B 88, MOVE.W/MOVEA.W and MOVE.L/MOVEA.L 108 each, and the
        // six SR/CCR/USP moves.
        {"move", 88 + 108 + 108 + 6},
        {"add", 56}, {"sub", 56}, {"and", 54}, {"or", 54}, {"cmp", 35}, {"eor", 24},
        {"adda", 24}, {"suba", 24}, {"cmpa", 24},
        {"addi", 24}, {"subi", 24}, {"cmpi", 24}, {"andi", 26}, {"ori", 26}, {"eori", 26},
        {"addq", 26}, {"subq", 26},
        {"clr", 24}, {"neg", 24}, {"negx", 24}, {"not", 24}, {"tst", 24},
        {"btst", 2}, {"bchg", 2}, {"bclr", 2}, {"bset", 2},
        {"movem", 4}, {"shift", 2}, {"mulu", 1}, {"muls", 1}, {"divu", 1}, {"divs", 1},
        {"exg", 3}, {"link", 2}, {"ext", 2}, {"extb", 1},
    };
    for (const auto& e : expected) EXPECT_EQ(family[e.family].size(), e.handlers) << e.family;
}

TEST_F(OpTable, EncodingsReachTheirHandlers) {
    const struct {
        uint16_t opcode;
        const char* name;
    } cases[] = {
        {0x3C7A, "op_move_w_pcd16_an"},  // MOVEA.W d16(PC),A6
        {0xD1FA, "op_adda_l_pcd16_an"},  // ADDA.L d16(PC),A0
        {0x42B9, "op_clr_l_absl"},       // CLR.L abs.L
        {0x1E3C, "op_move_b_imm_dn"},    // MOVE.B #imm,D7
        {0x2D5B, "op_move_l_ainc_ad16"}, // MOVE.L (A3)+,d16(A6)
        {0xD15A, "op_add_w_dn_ainc"},    // ADD.W D0,(A2)+
        {0xD05A, "op_add_w_ainc_dn"},    // ADD.W (A2)+,D0
        {0xB388, "op_cmpm"},             // CMPM.L (A0)+,(A1)+
        {0xB380, "op_eor_l_dn_dn"},      // EOR.L D1,D0
        {0x0A3C, "op_eori_to_ccr"},
        {0x007C, "op_ori_to_sr"},
        {0x5048, "op_addq_w_an"},        // ADDQ.W #8,A0
        {0x7001, "op_moveq"},
        {0x4E71, "op_nop"}, {0x4E73, "op_rte"}, {0x4E74, "op_rtd"}, {0x4E75, "op_rts"},
        {0x4E77, "op_rtr"}, {0x4E76, "op_trapv"}, {0x4E72, "op_stop"}, {0x4E70, "op_reset"},
        {0x4E4F, "op_trap"}, {0x4E56, "op_link_w"}, {0x480E, "op_link_l"}, {0x4E5E, "op_unlk"},
        {0x49C3, "op_extb_l"}, {0x4845, "op_swap"}, {0xC343, "op_exg_dn_dn"},
        {0x60FF, "op_bcc"}, {0x6100, "op_bcc"}, {0x51C8, "op_dbcc"}, {0x57C0, "op_scc"},
        {0x4EB9, "op_jsr"}, {0x4EFA, "op_jmp"}, {0x43FA, "op_lea"}, {0x487A, "op_pea"},
        {0x48E7, "op_movem_to_mem_l"}, {0x4CDF, "op_movem_from_mem_l"},
        {0x4AD0, "op_tas"}, {0x4AC0, "op_tas"}, {0x4190, "op_chk_w"},
        {0xC0FC, "op_mulu_w"}, {0x81C1, "op_divs_w"}, {0xC308, "op_abcd"}, {0x8300, "op_sbcd"},
        {0xD389, "op_addx"}, {0x9300, "op_subx"},
        {0x0839, "op_btst_stat"}, {0x013C, "op_btst_dyn"},  // BTST Dn,#imm exists; BTST #n,#imm not
        {0xE3C0 | 0x10, "op_shift_mem"}, {0xE388, "op_shift_dn"},
        {0x42C0, "op_move_from_ccr"}, {0x40C0, "op_move_from_sr"}, {0x44FC, "op_move_to_ccr"},
        {0x4E60, "op_move_an_to_usp"}, {0x4E68, "op_move_usp_to_an"},
        {0xA000, "op_line_a"}, {0xAFFF, "op_line_a"}, {0xF000, "op_line_f"}, {0xFFFF, "op_line_f"},
        // Illegal: ILLEGAL itself, bytes to An, MOVEQ with bit 8, invalid
        // modes inside families, and what is not executed here.
        {0x4AFC, "op_illegal"},
        {0x5008, "op_illegal"},  // ADDQ.B #8,A0
        {0x1048, "op_illegal"},  // MOVE.B A0,D0
        {0x1E48, "op_illegal"},  // MOVEA.B
        {0x7101, "op_illegal"},  // MOVEQ with bit 8 set
        {0x4ED8, "op_illegal"},  // JMP (A0)+
        {0x41C0, "op_illegal"},  // LEA D0,A0
        {0x083C, "op_illegal"},  // BTST #n,#imm
        {0x44C8, "op_illegal"},  // MOVE A0,CCR
        {0x4E7A, "op_illegal"},  // MOVEC
        {0x0108, "op_illegal"},  // MOVEP
        {0x4800, "op_illegal"},  // NBCD
        {0x4C00, "op_illegal"},  // MULS.L/MULU.L
        {0x4100, "op_illegal"},  // CHK.L
        {0xE8C0, "op_illegal"},  // BFTST
        {0x0AD0, "op_illegal"},  // CAS
        {0x4848, "op_illegal"},  // BKPT
        {0x51FC, "op_illegal"},  // TRAPF
        {0x06C0, "op_illegal"},  // RTM
        {0x8140, "op_illegal"},  // PACK
    };
    for (const auto& c : cases) EXPECT_STREQ(op_name(c.opcode), c.name) << std::hex << c.opcode;
    EXPECT_EQ(op_table[0xA123], op_line_a);
}

#if !defined(_WIN32)
// Every encoding the GNU 68000 disassembler decodes must have a handler,
// and every encoding it rejects must be illegal here, except for the
// documented differences listed below.
TEST_F(OpTable, LegalityAgreesWithBinutils) {
    if (std::system("m68k-linux-gnu-objdump --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "m68k-linux-gnu-objdump is not installed";
    // Each opcode in a slot of its own, followed by NOPs that any extension
    // words it takes can swallow: every slot starts an instruction.
    constexpr int SLOT_WORDS = 6;
    const std::string base = std::string(ORVEL_TEST_BINARY_DIR) + "/opcodes";
    {
        std::ofstream f(base + ".bin", std::ios::binary);
        for (int op = 0; op < 65536; op++) {
            unsigned char slot[2 * SLOT_WORDS] = {uint8_t(op >> 8), uint8_t(op)};
            for (int w = 1; w < SLOT_WORDS; w++) slot[2 * w] = 0x4E, slot[2 * w + 1] = 0x71;
            f.write(reinterpret_cast<const char*>(slot), sizeof slot);
        }
    }
    std::string cmd = "m68k-linux-gnu-objdump -D -b binary -m m68k:68000 " + base + ".bin > " + base + ".dis";
    ASSERT_EQ(std::system(cmd.c_str()), 0);

    // What binutils decodes, or not, that this CPU does differently on
    // purpose: 68010/68020 additions, the instructions not executed here,
    // and binutils' own laxness (SUBQ.B to An, ILLEGAL as an instruction,
    // the 68020 "swbeg" pseudo-op).
    const std::set<std::string> only_here = {"op_move_from_ccr", "op_link_l", "op_extb_l", "op_rtd"};
    const std::set<std::string> only_binutils = {"movepw", "movepl", "nbcd", "subqb", "illegal", "swbegl"};

    std::ifstream dis(base + ".dis");
    std::string line;
    int slots = 0;
    std::map<std::string, int> unexpected;
    while (std::getline(dis, line)) {
        unsigned address;
        char hex[64], mnemonic[64];
        if (std::sscanf(line.c_str(), " %x:\t%63[0-9a-f ]\t%63s", &address, hex, mnemonic) != 3) continue;
        if (address % (2 * SLOT_WORDS)) continue;
        uint16_t op = uint16_t(address / (2 * SLOT_WORDS));
        slots++;
        std::string ours = op_name(op);
        if (ours == "op_line_a" || ours == "op_line_f") continue;
        bool binutils_legal = std::string(mnemonic) != ".short";
        bool legal_here = ours != "op_illegal";
        if (binutils_legal && !legal_here && !only_binutils.count(mnemonic)) unexpected[mnemonic]++;
        if (!binutils_legal && legal_here && !only_here.count(ours)) unexpected[ours]++;
    }
    std::remove((base + ".bin").c_str());
    std::remove((base + ".dis").c_str());
    EXPECT_EQ(slots, 65536);
    for (const auto& [what, n] : unexpected) ADD_FAILURE() << what << ": " << n << " encodings disagree";
}
#endif
