// The host-call dispatcher as players meet it: exec through the library
// base, the DeliTracker functions through the base's pointers and negative
// slots, the CIA resources and the option hand-over, all called from the
// probe player (amiga/probe.S).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <numeric>

#include "probe_fixture.h"

namespace {

constexpr uint16_t X = SR_X, N = SR_N, Z = SR_Z;
constexpr uint16_t ALL = CCR_MASK;  // every flag set going in
constexpr uint32_t DELI_TIMER = DELI_BASE + 0x36;

uint32_t histogram_total(const Machine& m) {
    return std::accumulate(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
}

}  // namespace

TEST_F(ProbeTest, ExecFunctions) {
    struct Case {
        const char* what;
        int lvo;
        uint32_t d0;
        const char* name;  // put at A1 when given
        uint32_t a1;       // A1 otherwise
        uint32_t want;
    };
    const Case cases[] = {
        {"OpenLibrary exec", -552, 0, "exec.library", 0, EXEC_BASE},
        {"OpenLibrary dos, any version", -552, 37, "dos.library", 0, DOS_BASE},
        {"OpenLibrary intuition", -552, 0, "intuition.library", 0, LIB3_BASE},
        {"OpenLibrary graphics", -552, 0, "graphics.library", 0, LIB4_BASE},
        {"OpenLibrary the fifth", -552, 0, "ua.library", 0, LIB5_BASE},
        {"two characters decide", -552, 0, "dog", 0, DOS_BASE},
        {"compared exactly", -552, 0, "Exec.library", 0, 0},
        {"one character", -552, 0, "e", 0, 0},
        {"empty name", -552, 0, "", 0, 0},
        {"unknown library", -552, 0, "mathffp.library", 0, 0},
        {"OldOpenLibrary", -408, 0, "graphics.library", 0, LIB4_BASE},
        {"CloseLibrary", -414, 0, nullptr, DOS_BASE, 0},
        {"FreeMem", -210, 64, nullptr, SLAB_START, 0},
        {"TypeOfMem chip", -534, 0, nullptr, 0x1FFFFF, 3},
        {"TypeOfMem player", -534, 0, nullptr, PLAYER_LOAD_ADDR, 5},
        {"TypeOfMem below the libraries", -534, 0, nullptr, 0xF7FFFF, 5},
        {"TypeOfMem libraries", -534, 0, nullptr, EXEC_BASE, 0},
        {"TypeOfMem top byte ignored", -534, 0, nullptr, 0xFF100000, 3},
        {"OpenResource ciaa", -498, 0, "ciaa.resource", 0, CIAA_RES_BASE},
        {"OpenResource ciab", -498, 0, "ciab.resource", 0, CIAB_RES_BASE},
        {"four characters decide", -498, 0, "ciab", 0, CIAB_RES_BASE},
        {"three do not", -498, 0, "cia", 0, 0},
        {"OpenResource compared exactly", -498, 0, "CIAA.resource", 0, 0},
        {"OpenResource unknown", -498, 0, "potgo.resource", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        uint32_t a1 = c.name ? put(c.name) : c.a1;
        Seen s = lib(EXEC_BASE, c.lvo, {.d0 = c.d0, .a1 = a1, .ccr = ALL});
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, ALL));
    }
}

TEST_F(ProbeTest, AllocMemRoundsClearsAndRunsOut) {
    std::memset(m.chip_ram + SLAB_START, 0xEE, SLAB_END - SLAB_START);
    struct Case {
        uint32_t size, want;
    };
    const Case cases[] = {
        {0x400001, 0},                    // more than the whole slab
        {1, 0x400000},                    // rounded up to longwords
        {5, 0x400004},
        {0, 0x40000C},                    // takes nothing
        {0xFFFFFFFF, 0},                  // no wrap to a small size
        {0xFFFFFFFD, 0},
        {SLAB_END - 0x40000C, 0x40000C},  // exactly the rest
        {1, 0},
        {0, SLAB_END},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        const uint32_t before = m.alloc_slab;
        Seen s = lib(EXEC_BASE, -198, {.d0 = c.size, .d1 = 0x10002, .ccr = ALL});  // MEMF_CHIP|MEMF_CLEAR
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, ALL));
        const uint32_t taken = c.want ? (c.size + 3) & ~3u : 0;
        EXPECT_EQ(m.alloc_slab, before + taken);
        const uint8_t* block = m.chip_ram + c.want;
        EXPECT_TRUE(std::all_of(block, block + taken, [](uint8_t b) { return b == 0; }));
        if (c.want != 0 && c.want + taken < SLAB_END) {
            EXPECT_EQ(block[taken], 0xEE) << "cleared past the block";
        }
    }
}

TEST_F(ProbeTest, InterruptVectors) {
    struct Case {
        int lvo;
        uint32_t d0, a1, want;
        int entry;
    };
    const Case cases[] = {
        {-168, 5, 0x300100, 0, 5},                  // AddIntServer
        {-168, 0x15, 0x300200, 0, 5},               // numbers taken modulo 16
        {-162, 7, 0x300300, 0, 7},                  // SetIntVector hands back the old one
        {-162, 7, 0x300400, 0x300300, 7},
        {-162, 0xFFFFFFF7, 0x300500, 0x300400, 7},
        {-162, 15, 0x300600, 0, 15},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.a1);
        Seen s = lib(EXEC_BASE, c.lvo, {.d0 = c.d0, .a1 = c.a1, .ccr = ALL});
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, ALL));
        EXPECT_EQ(m.int_vectors[c.entry], c.a1);
    }
}

TEST_F(ProbeTest, CauseRunsTheSoftInterruptAtOnce) {
    Seen s = call(P_CAUSE);
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(st(ST_SOFT_RUNS), 1u);
    EXPECT_EQ(st(ST_SOFT_A1), state + ST_DATA);  // A1 = is_Data
    EXPECT_EQ(st(ST_AFTER_CAUSE), 1u);           // and its RTS came back to the caller

    // A node without code: nothing runs, A1 stays.
    write32(m, SCRATCH + 14, 0x1234);
    s = lib(EXEC_BASE, -180, {.d0 = 7, .a1 = SCRATCH, .ccr = ALL});
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(s.ccr, X | Z);
    EXPECT_EQ(s.a1, SCRATCH);
    EXPECT_EQ(st(ST_SOFT_RUNS), 1u);
}

// Opcodes no installed slot holds: the unknown-function messages, the
// nibbles without a table of their own, and the other functions of each
// table. Each runs with all flags set and all clear going in.
TEST_F(ProbeTest, OpcodesOutsideTheInstalledSlots) {
    const uint32_t dos_name = put("dos.library", SCRATCH), ciab_name = put("ciab.resource", SCRATCH + 64);
    struct Case {
        uint16_t opcode;
        uint32_t d0, a0, a1, want;
        const char* message;
    };
    const Case cases[] = {
        {0xA009, 1, 2, 3, 0, "libs_exec_dispatch: unimplemented exec fn 9 (D0=00000001 A0=00000002 A1=00000003)\n"},
        {0xA0FF, 0x80000000, 0, 0xFFFFFFFF, 0,
         "libs_exec_dispatch: unimplemented exec fn 255 (D0=80000000 A0=00000000 A1=ffffffff)\n"},
        {0xAC0A, 0, 0, 0, 0, "libs_exec_dispatch: unimplemented exec fn 10 (D0=00000000 A0=00000000 A1=00000000)\n"},
        {0xA202, 0, 0, dos_name, DOS_BASE, ""},  // nibbles 2, 3, 9 to F are exec
        {0xA304, 0, 0, 0x100, 3, ""},
        {0xA905, 0, 0, ciab_name, CIAB_RES_BASE, ""},
        {0xAF00, 0, 0, 0, SLAB_START, ""},
        {0xA105, 5, 0, 0, 0, ""},  // dos: UnLock, UnLoadSeg and beyond
        {0xA107, 5, 0, 0, 0, ""},
        {0xA1FF, 5, 0, 0, 0, ""},
        {0xA421, 0x80000000, 0, 0, 0x80000000, "deli_dispatch: unknown fn 33\n"},
        {0xA4FF, 3, 0, 0, 3, "deli_dispatch: unknown fn 255\n"},
        {0xA500, 9, 0, 0, 0, ""},  // outside the negative table
        {0xA600, 9, 0, 0, 0, ""},
        {0xA605, 9, 0, 0, 0, ""},
        {0xA7FF, 9, 0, 0, 0, ""},
        {0xA801, 9, 0, 0, 0, ""},
        {0xA8FF, 9, 0, 0, 0, ""},
    };
    for (uint16_t ccr : {uint16_t(0), ALL})
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << std::hex << c.opcode << " ccr " << ccr);
            Seen s{};
            std::string err = stderr_of([&] { s = raw(c.opcode, {.d0 = c.d0, .a0 = c.a0, .a1 = c.a1, .ccr = ccr}); });
            EXPECT_EQ(s.d0, c.want);
            EXPECT_EQ(s.ccr, tst_flags(c.want, ccr));
            EXPECT_EQ(err, c.message);
        }
    EXPECT_EQ(histogram_total(m), 0u);
    EXPECT_EQ(m.alloc_slab, SLAB_START);
}

TEST_F(ProbeTest, GetListData) {
    struct Case {
        bool negative_slot;
        uint32_t d0, want_d0, want_a0;
    };
    const Case cases[] = {
        {false, 0, MODULE_LEN, MODULE_ADDR}, {false, 1, 0, 0}, {false, 0xFFFFFFFF, 0, 0},
        {true, 0, MODULE_LEN, MODULE_ADDR},  {true, 16, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.d0);
        Regs r{.d0 = c.d0, .a0 = 0x1234, .d7 = c.negative_slot ? -66 : 0, .ccr = ALL};
        Seen s = call(c.negative_slot ? P_NEG : P_FPTR, r);
        EXPECT_EQ(s.d0, c.want_d0);
        EXPECT_EQ(s.a0, c.want_a0);
        EXPECT_EQ(s.ccr, tst_flags(c.want_d0, ALL));
    }
}

TEST_F(ProbeTest, PathBufferFunctions) {
    deli_set_module_path(m, "Mods/sub/song.mod");
    struct Case {
        int fn;  // pointer index, or negative-slot offset
        const char* before;
        const char* a0_text;
        const char* after;
    };
    const Case cases[] = {
        {2, "", nullptr, "Mods/sub/"},  // CopyDir
        {3, "Mods/sub/", nullptr, "Mods/sub/song.mod"},  // CopyFile
        {4, "abc", ".smp", "abc.smp"},  // CopyString
        {4, "abc", "", "abc"},
        {10, "mod.song.xpk", nullptr, "mod.song"},  // CutSuffix
        {10, "a.pp", nullptr, "a"},
        {10, "x.lha", nullptr, "x.lha"},
        {10, ".xpk", nullptr, ""},
        {10, "xpk", nullptr, "xpk"},
        {10, ".pp", nullptr, ""},
        {10, "pp", nullptr, "pp"},
        {10, "a.pp.xpk", nullptr, "a.pp"},  // one suffix per call
        {10, "song.XPK", nullptr, "song"},
        {10, "song.xpk2", nullptr, "song.xpk2"},
        {10, "", nullptr, ""},
        {-78, "", nullptr, ""},  // the negative-slot forms do nothing
        {-84, "abc", nullptr, "abc"},
        {-90, "abc", ".smp", "abc"},
        {-126, "a.xpk", nullptr, "a.xpk"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fn << " " << c.before);
        put(c.before, PATH_BUFFER);
        const uint32_t a0 = c.a0_text ? put(c.a0_text) : 0, d0 = 0x12345678;
        Seen s = call(c.fn >= 0 ? P_FPTR : P_NEG, {.d0 = d0, .a0 = a0, .d7 = c.fn, .ccr = ALL});
        EXPECT_EQ(get_string(m, PATH_BUFFER), c.after);
        const uint32_t want = c.fn >= 0 ? d0 : 0;
        EXPECT_EQ(s.d0, want);
        EXPECT_EQ(s.ccr, tst_flags(want, ALL));
    }
}

// A path longer than the buffer (CopyString has no limit) is still cut at
// its real end.
TEST_F(ProbeTest, CutSuffixOfALongPath) {
    const std::string path = std::string(3000, 'p') + ".xpk";
    write32(m, DELI_BASE + 0x20, put(path));
    call(P_FPTR, {.d7 = 10});
    const std::string cut = get_string(m, SCRATCH, 8192);
    EXPECT_EQ(cut.size(), 3000u);
    EXPECT_EQ(read8(m, SCRATCH + 3001), 'x');
}

TEST_F(ProbeTest, FunctionPointersWithoutEffects) {
    const uint16_t dmacon = m.dmacon;
    for (int index = 5; index <= 32; index++) {
        if (index == 10 || index == 11 || index == 30) continue;
        // StartInterrupt, StopInterrupt, SongEnd, WaitAudioDMA, SaveMem,
        // FileReq and TextRequest keep D0; the rest return 0.
        const bool keeps = (index >= 7 && index <= 9) || (index >= 12 && index <= 15);
        for (uint32_t d0 : {0u, 5u, 0x80000001u}) {
            SCOPED_TRACE(testing::Message() << index << " " << d0);
            Seen s = call(P_FPTR, {.d0 = d0, .d7 = index, .ccr = ALL});
            const uint32_t want = keeps ? d0 : 0;
            EXPECT_EQ(s.d0, want);
            EXPECT_EQ(s.ccr, tst_flags(want, ALL));
        }
    }
    EXPECT_EQ(m.dmacon, dmacon);  // AllocAudio and FreeAudio here touch no register
    EXPECT_EQ(histogram_total(m), 0u);
}

TEST_F(ProbeTest, SetTimer) {
    struct Case {
        uint32_t rate;
        uint16_t timer;
        bool negative_slot;
        int32_t want;
    };
    const Case cases[] = {
        {48000, 14187, false, 960}, {48000, 14187, true, 960},  {48000, 14188, false, 960},
        {48000, 7093, false, 480},  {48000, 1, false, 1},       {48000, 65535, true, 4434},
        {44100, 14187, false, 882}, {48000, 14195, false, 961},  // 960.57 rounds up
        {48000, 0, false, 123},  // 0 changes nothing
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rate << " " << c.timer);
        m.output_rate = c.rate;
        m.interrupt_period = 123;
        write16(m, DELI_TIMER, c.timer);
        const uint32_t d0 = 0x80000000;
        Seen s = call(c.negative_slot ? P_NEG : P_FPTR,
                      {.d0 = d0, .d7 = c.negative_slot ? -132 : 11, .ccr = ALL});
        EXPECT_EQ(m.interrupt_period, c.want);
        const uint32_t want_d0 = c.negative_slot ? 0 : d0;
        EXPECT_EQ(s.d0, want_d0);
        EXPECT_EQ(s.ccr, tst_flags(want_d0, ALL));
    }
}

// DMAMask through the pointer table: only the two parameter checks.
TEST_F(ProbeTest, DmaMaskParameterChecks) {
    struct Case {
        uint32_t kind, flags;  // the longs at base+0x122 and base+0x132
        uint8_t status;        // 0: accepted
    };
    const Case cases[] = {{4, 0, 0x27}, {0, 0, 0x27}, {5, 0x100, 0x28}, {5, 0x80000000, 0x28}, {5, 0xFF, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kind << " " << c.flags);
        write32(m, DELI_BASE + 0x122, c.kind);
        write32(m, DELI_BASE + 0x132, c.flags);
        write32(m, DELI_BASE + 0x126, 0xAAAAAA55);
        Seen s = call(P_FPTR, {.d0 = 0x80000003, .d7 = 30, .ccr = ALL});
        if (c.status == 0) {
            EXPECT_EQ(s.d0, 0u);
            EXPECT_EQ(s.ccr, X | Z);
        } else {
            EXPECT_EQ(s.d0, 0x80000003u);
            EXPECT_EQ(s.ccr, X | N);
            EXPECT_EQ(read32(m, DELI_BASE + 0x126), uint32_t(c.status));
        }
    }
}

// Each negative slot is told by the PC and counted in the histogram; the
// functions that act are checked below.
TEST_F(ProbeTest, NegativeSlotsAreCounted) {
    put("x.xpk", PATH_BUFFER);
    struct Case {
        int offset;
        uint32_t d0, want;
    };
    const Case cases[] = {
        {-66, 0, MODULE_LEN}, {-72, 5, 0},  {-78, 5, 0},  {-84, 5, 0},   {-90, 5, 0},
        {-96, 5, 0},          {-102, 5, 0}, {-120, 5, 0}, {-126, 5, 0},  {-132, 5, 0},
        {-246, 5, 5},         {-252, 0x80000000, 0x80000000},            {-258, 0, 0},
        {-264, 7, 7},         {-270, 64, 64}, {-6, 5, 0}, {-276, 5, 0},  {-390, 5, 0},
        {-3000, 5, 0},  // the last of the 500
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.offset);
        std::fill(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
        Seen s = call(P_NEG, {.d0 = c.d0, .d7 = c.offset, .ccr = ALL});
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, ALL));
        EXPECT_EQ(m.deli_neg_calls[-c.offset / 6], 1u);
        EXPECT_EQ(histogram_total(m), 1u);
    }
    EXPECT_EQ(m.file_list_count, 1u);  // LoadFile here loads nothing
    EXPECT_EQ(get_string(m, PATH_BUFFER), "x.xpk");

    // The counted PC range reaches past the 500 installed slots, up to the
    // base itself.
    struct Edge {
        uint32_t address;
        int entry;  // -1: not counted
    };
    const Edge edges[] = {{0xF8F402, 511}, {0xF8F3FC, -1}, {DELI_BASE, 0}};
    for (const Edge& e : edges) {
        SCOPED_TRACE(e.address);
        std::fill(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
        put_words(m, e.address, {0xA500, 0x4E75});
        Seen s = call(P_NEG, {.d0 = 5, .d7 = int32_t(e.address - DELI_BASE)});
        write32(m, e.address, 0);
        EXPECT_EQ(s.d0, 0u);
        EXPECT_EQ(histogram_total(m), e.entry < 0 ? 0u : 1u);
        if (e.entry >= 0) {
            EXPECT_EQ(m.deli_neg_calls[e.entry], 1u);
        }
    }
}

TEST_F(ProbeTest, NegativeSlotsReachTheCustomRegisters) {
    struct Case {
        const char* what;
        int offset;
        uint32_t d0, d1;
        std::function<uint32_t()> reg;
        uint32_t want_reg, want_d0;
    };
    auto dma_master = [&] { return uint32_t(m.dmacon & 0x0200); };
    auto dma_audio = [&] { return uint32_t(m.dmacon & 0x00FF); };
    const Case cases[] = {
        {"FreeAudio", -102, 5, 0, dma_master, 0, 0},
        {"AllocAudio", -96, 5, 0, dma_master, 0x0200, 0},
        {"DMAMask set", -246, 0x8000, 0x13, dma_audio, 0x3, 0x8000},
        {"DMAMask clear", -246, 0, 0xFFFFFFF1, dma_audio, 0x2, 0},
        {"DMAMask looks at bit 15 of D0 only", -246, 0x7FFF, 0x4, dma_audio, 0x2, 0x7FFF},
        {"PokeAdr", -252, 0x00023456, 5, [&] { return m.aud_lc[1]; }, 0x23456, 0x00023456},
        {"PokeLen", -258, 0xABCD0100, 2, [&] { return uint32_t(m.aud_len[2]); }, 0x100, 0xABCD0100},
        {"PokePer", -264, 428, 3, [&] { return uint32_t(m.aud_per[3]); }, 428, 428},
        {"PokeVol", -270, 64, 0xFFFFFFFC, [&] { return uint32_t(m.aud_vol[0]); }, 64, 64},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Seen s = call(P_NEG, {.d0 = c.d0, .d1 = c.d1, .d7 = c.offset, .ccr = ALL});
        EXPECT_EQ(c.reg(), c.want_reg);
        EXPECT_EQ(s.d0, c.want_d0);
        EXPECT_EQ(s.ccr, tst_flags(c.want_d0, ALL));
    }
}

// One script through both resources: what each call returns, the resource's
// enable mask, and the handler node of one bit (mirrored into the CIA for
// the two timers).
TEST_F(ProbeTest, CiaResources) {
    const uint32_t bases[] = {CIAA_RES_BASE, CIAB_RES_BASE};
    struct Step {
        int res, lvo;
        uint32_t d0, a1, want;
        uint16_t flags;
        uint8_t enable;
        int bit;
        uint32_t handler;
    };
    const Step steps[] = {
        {0, -6, 0, 0x300010, 0, Z, 0x01, 0, 0x300010},  // AddICRVector
        {0, -6, 4, 0x300014, 0, Z, 0x11, 4, 0x300014},
        {0, -6, 5, 0x300018, 0, Z, 0x11, 4, 0x300014},  // no bit 5
        {0, -6, 0xF, 0x30001C, 0, Z, 0x11, 0, 0x300010},  // bit 7
        {0, -6, 9, 0x300020, 0, Z, 0x13, 1, 0x300020},  // 9 & 7
        {0, -18, 0x84, 0, 0x13, 0, 0x17, 1, 0x300020},  // AbleICR: the old mask back
        {0, -18, 0x03, 0, 0x17, 0, 0x14, 1, 0x300020},
        {0, -12, 0, 0, 0, Z, 0x14, 0, 0},  // RemICRVector: flags from D0
        {0, -12, 5, 0, 5, 0, 0x14, 4, 0x300014},
        {0, -12, 0x80000005, 0, 0x80000005, N, 0x14, 4, 0x300014},
        {0, -12, 4, 0, 4, 0, 0x04, 4, 0},
        {0, -18, 0x1F, 0, 0x04, 0, 0x00, 1, 0x300020},
        {0, -18, 0x80, 0, 0x00, Z, 0x00, 1, 0x300020},  // Z: the old mask was empty
        {1, -6, 1, 0x300024, 0, Z, 0x02, 1, 0x300024},  // the other resource
    };
    for (const Step& t : steps) {
        SCOPED_TRACE(testing::Message() << t.res << " " << t.lvo << " " << std::hex << t.d0);
        Seen s = lib(bases[t.res], t.lvo, {.d0 = t.d0, .a1 = t.a1, .ccr = ALL});
        EXPECT_EQ(s.d0, t.want);
        EXPECT_EQ(s.ccr, X | t.flags);
        EXPECT_EQ(m.ciares_enable[t.res], t.enable);
        EXPECT_EQ(m.ciares_handler[t.res][t.bit], t.handler);
        if (t.bit < 2) {
            EXPECT_EQ(m.cia[t.res].handler[t.bit], t.handler);
        }
        EXPECT_EQ(m.cia[t.res].icr_mask & 3, t.enable & 3);
    }
    EXPECT_EQ(m.ciares_enable[0], 0);

    // SetICR acknowledges pending bits.
    m.ciares_pending[1] = 0x05;
    struct Ack {
        uint32_t d0, want;
        uint8_t pending;
    };
    const Ack acks[] = {{0x04, 4, 0x01}, {0x02, 0, 0x01}, {0xFF, 1, 0x00}};
    for (const Ack& a : acks) {
        Seen s = lib(CIAB_RES_BASE, -24, {.d0 = a.d0, .ccr = ALL});
        EXPECT_EQ(s.d0, a.want);
        EXPECT_EQ(s.ccr, tst_flags(a.want, ALL));
        EXPECT_EQ(m.ciares_pending[1], a.pending);
    }
}

// What players install runs when the engine's time reaches it: a CIA-B
// timer A handler at each underflow, a vertical-blank server at 50 Hz, and
// DeliTracker's own Interrupt routine at the rate SetTimer gives.
TEST_F(ProbeTest, InstalledHandlersRunAsTheEngineAdvances) {
    ASSERT_EQ(orvel_start_playback(m), 0);
    call(P_CIA_START);
    EXPECT_EQ(st(ST_CIAB), CIAB_RES_BASE);
    EXPECT_EQ(st(ST_CIA_ADD), 0u);
    call(P_VBLANK);
    std::vector<float> out(2 * 4800);
    auto one_second = [&] {
        for (int k = 0; k < 10; k++) orvel_render(m, out.data(), 4800);
    };
    one_second();
    EXPECT_NEAR(double(st(ST_TIMER_RUNS)), 50.0, 1.0);
    EXPECT_EQ(st(ST_TIMER_A1), state + ST_DATA);
    EXPECT_EQ(st(ST_VBLANK_RUNS), 50u);
    EXPECT_EQ(st(ST_INTERRUPTS), 50u);

    call(P_CIA_STOP);
    write16(m, DELI_TIMER, 7093);
    call(P_FPTR, {.d7 = 11});
    const uint32_t timer_runs = st(ST_TIMER_RUNS);
    one_second();
    EXPECT_EQ(st(ST_TIMER_RUNS), timer_runs);
    EXPECT_EQ(st(ST_VBLANK_RUNS), 100u);
    EXPECT_EQ(st(ST_INTERRUPTS), 150u);
}

TEST_F(ProbeTest, OptionHandOver) {
    std::strcpy(m.epopt, "type:pt30");
    write16(m, state + ST_OPT_FLAGS, 0xEEEE);
    write8(m, state + ST_OPT_VALUE2, 0xEE);
    Seen s = call(P_OPTIONS, {.ccr = ALL});
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(read8(m, state + ST_OPT_FLAGS), 1);
    EXPECT_EQ(read8(m, state + ST_OPT_FLAGS + 1), 0);
    EXPECT_EQ(get_string(m, state + ST_OPT_VALUE1), "pt30");
    EXPECT_EQ(read8(m, state + ST_OPT_VALUE2), 0xEE);

    // One entry per case: count, name, flag byte, value buffer.
    constexpr uint32_t block = SCRATCH, name = SCRATCH + 0x100, flag = SCRATCH + 0x200,
                       value = SCRATCH + 0x300;
    const std::string a56(56, 'a');
    struct Case {
        std::string epopt, name;
        int flag;
        std::string value;
    };
    const Case cases[] = {
        {"type:pt30", "type", 1, "pt30"},
        {"type:", "type", 1, ""},
        {"type:pt30", "typ", 0, ""},
        {"type:pt30", "TYPE", 0, ""},
        {"type:pt30", "type:", 0, ""},
        {"type:pt30", "", 0, ""},
        {"", "type", 0, ""},
        {"type", "type", 0, ""},
        {a56 + ":v", a56 + "zz", 1, "v"},  // names are read up to 56 characters
        {a56 + "a:v", a56 + "a", 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.epopt + " / " + c.name);
        std::strcpy(m.epopt, c.epopt.c_str());
        write32(m, block, 1);
        write32(m, block + 4, put(c.name, name));
        write32(m, block + 8, flag);
        write32(m, block + 12, value);
        write8(m, flag, 0xEE);
        std::memset(m.chip_ram + value, 0xEE, 64);
        s = lib(LIB5_BASE, -24, {.d0 = 7, .a0 = block, .ccr = ALL});
        EXPECT_EQ(s.d0, 0u);
        EXPECT_EQ(s.ccr, X | Z);
        EXPECT_EQ(read8(m, flag), c.flag);
        if (c.flag) {
            EXPECT_EQ(get_string(m, value), c.value);
            EXPECT_EQ(read8(m, value + uint32_t(c.value.size()) + 1), 0xEE);
        } else {
            EXPECT_EQ(read8(m, value), 0xEE);
        }
    }

    write32(m, block, 0);  // no entries: nothing written
    write8(m, flag, 0xEE);
    EXPECT_EQ(lib(LIB5_BASE, -24, {.d0 = 7, .a0 = block}).d0, 0u);
    EXPECT_EQ(read8(m, flag), 0xEE);
}

// Every pointer a player hands in is a 24-bit bus address: names and
// buffers wrap at the top of memory, counts and numbers are bounded.
TEST_F(ProbeTest, HostileArgumentsStayInChipRam) {
    write8(m, 0xFFFFFF, 'e');
    write8(m, 0, 'x');
    EXPECT_EQ(lib(EXEC_BASE, -552, {.a1 = 0xFFFFFF}).d0, EXEC_BASE);
    EXPECT_EQ(lib(EXEC_BASE, -552, {.a1 = 0xFFFFFFFF}).d0, EXEC_BASE);

    write8(m, 0xFFFFFE, 'a');
    write8(m, 0xFFFFFF, 'b');
    write8(m, 0, 0);
    put("p", PATH_BUFFER);
    call(P_FPTR, {.a0 = 0xFFFFFE, .d7 = 4});  // CopyString
    EXPECT_EQ(get_string(m, PATH_BUFFER), "pab");

    // An option block of 0xFFFFFFFF entries, all pointing at the last byte.
    std::strcpy(m.epopt, "b:1");
    write32(m, SCRATCH, 0xFFFFFFFF);
    std::memset(m.chip_ram + SCRATCH + 4, 0xFF, 0xC0000);
    EXPECT_EQ(lib(LIB5_BASE, -24, {.a0 = SCRATCH}).d0, 0u);
    EXPECT_EQ(read16(m, DELI_STUBS), 0xA400);

    EXPECT_EQ(call(P_FPTR, {.d0 = 0xFFFFFFFF, .a0 = 0x1234, .d7 = 0}).a0, 0u);  // GetListData
    lib(CIAA_RES_BASE, -6, {.d0 = 0xFFFFFFFF, .a1 = SCRATCH});                  // bit 7
    EXPECT_EQ(m.ciares_enable[0], 0);
    lib(EXEC_BASE, -162, {.d0 = 0xFFFFFFFF, .a1 = SCRATCH});
    EXPECT_EQ(m.int_vectors[15], SCRATCH);
    call(P_NEG, {.d0 = 33, .d1 = 0xFFFFFFFF, .d7 = -270});  // PokeVol, channel 3
    EXPECT_EQ(m.aud_vol[3], 33);
}
