// The host-call dispatcher as players meet it: exec through the library
// bases, the DeliTracker functions through the base's pointers and negative
// slots, the CIA resources and the option hand-over, all called from the
// probe player (amiga/probe.S).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <numeric>

#include "probe_fixture.h"

namespace {

constexpr uint16_t X = SR_X, N = SR_N, Z = SR_Z, ALL = CCR_MASK;
constexpr uint32_t DELI_TIMER = DELI_BASE + 0x36;

uint32_t neg_calls(const Machine& m) {
    return std::accumulate(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
}

}  // namespace

TEST_F(ProbeTest, LoadScansTagsAndRunsConfig) {
    EXPECT_EQ(get_string(m, m.player.player_name), "host-call probe");
    EXPECT_EQ(st(ST_CONFIG_A6), EXEC_BASE);
    EXPECT_EQ(st(ST_EAGLE), DELI_BASE);
    EXPECT_EQ(st(ST_STORE), DELI_BASE);
    EXPECT_EQ(read32(m, 4), EXEC_BASE);  // AbsExecBase
    EXPECT_EQ(read32(m, DELI_BASE + 0x24), MODULE_ADDR);
    EXPECT_EQ(read32(m, DELI_BASE + 0x28), MODULE_LEN);
}

TEST_F(ProbeTest, ExecFunctions) {
    // A1 is the name put in chip RAM, or a1 without one; the interrupt
    // vector, if any, must hold A1 afterwards.
    struct Case { int lvo; uint32_t d0; const char* name; uint32_t a1, want; int vector = -1; uint32_t base = EXEC_BASE; };
    const Case cases[] = {
        // OpenLibrary: any version, two characters decide, compared exactly
        {-552, 0, "exec.library", 0, EXEC_BASE}, {-552, 37, "dos.library", 0, DOS_BASE},
        {-552, 0, "intuition.library", 0, LIB3_BASE}, {-552, 0, "graphics.library", 0, LIB4_BASE},
        {-552, 0, "ua.library", 0, LIB5_BASE}, {-552, 0, "dog", 0, DOS_BASE},
        {-552, 0, "Exec.library", 0, 0}, {-552, 0, "e", 0, 0}, {-552, 0, "", 0, 0},
        {-552, 0, "mathffp.library", 0, 0}, {-408, 0, "graphics.library", 0, LIB4_BASE},
        {-414, 0, nullptr, DOS_BASE, 0},     // CloseLibrary
        {-210, 64, nullptr, SLAB_START, 0},  // FreeMem
        // TypeOfMem: chip below the player, fast up to the libraries; 24 bits
        {-534, 0, nullptr, 0x1FFFFF, 3}, {-534, 0, nullptr, PLAYER_LOAD_ADDR, 5},
        {-534, 0, nullptr, 0xF7FFFF, 5}, {-534, 0, nullptr, EXEC_BASE, 0}, {-534, 0, nullptr, 0xFF100000, 3},
        // OpenResource: four characters decide, compared exactly
        {-498, 0, "ciaa.resource", 0, CIAA_RES_BASE}, {-498, 0, "ciab.resource", 0, CIAB_RES_BASE},
        {-498, 0, "ciab", 0, CIAB_RES_BASE}, {-498, 0, "cia", 0, 0},
        {-498, 0, "CIAA.resource", 0, 0}, {-498, 0, "potgo.resource", 0, 0},
        // AddIntServer, SetIntVector (the old one back): numbers modulo 16
        {-168, 5, nullptr, 0x300100, 0, 5}, {-168, 0x15, nullptr, 0x300200, 0, 5},
        {-162, 7, nullptr, 0x300300, 0, 7}, {-162, 7, nullptr, 0x300400, 0x300300, 7},
        {-162, 0xFFFFFFF7, nullptr, 0x300500, 0x300400, 7}, {-162, 15, nullptr, 0x300600, 0, 15},
        {-180, 7, nullptr, SCRATCH + 0x100, 0},  // Cause of a node without code
        // Slots without a function: moveq #0,d0.
        {-6, 5, nullptr, 0, 0}, {-1200, 5, nullptr, 0, 0}, {-480, 5, nullptr, 0, 0, -1, DOS_BASE},
        {-720, 5, nullptr, 0, 0, -1, LIB3_BASE}, {-6, 5, nullptr, 0, 0, -1, LIB4_BASE},
        {-240, 5, nullptr, 0, 0, -1, LIB5_BASE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.base << " " << std::dec << c.lvo << " "
                                        << (c.name ? c.name : "") << std::hex << c.a1);
        const uint32_t a1 = c.name ? put(c.name) : c.a1;
        Seen s = lib(c.base, c.lvo, {.d0 = c.d0, .a1 = a1, .ccr = ALL});
        expect_d0(s, c.want);
        EXPECT_EQ(s.a1, a1);
        if (c.vector >= 0) {
            EXPECT_EQ(m.int_vectors[c.vector], a1);
        }
    }
}

TEST_F(ProbeTest, AllocMemRoundsClearsAndRunsOut) {
    std::memset(m.chip_ram + SLAB_START, 0xEE, SLAB_END - SLAB_START);
    struct Case { uint32_t size, want; };
    const Case cases[] = {
        {0x400001, 0},                                   // more than the whole slab
        {1, 0x400000}, {5, 0x400004}, {0, 0x40000C},     // longwords; 0 takes nothing
        {0xFFFFFFFF, 0}, {0xFFFFFFFD, 0},                // no wrap to a small size
        {SLAB_END - 0x40000C, 0x40000C}, {1, 0}, {0, SLAB_END},  // exactly the rest
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        const uint32_t before = m.alloc_slab;
        expect_d0(lib(EXEC_BASE, -198, {.d0 = c.size, .d1 = 0x10002, .ccr = ALL}), c.want);  // MEMF_CHIP|MEMF_CLEAR
        const uint32_t taken = c.want ? (c.size + 3) & ~3u : 0;
        EXPECT_EQ(m.alloc_slab, before + taken);
        const uint8_t* block = m.chip_ram + c.want;
        EXPECT_TRUE(std::all_of(block, block + taken, [](uint8_t b) { return b == 0; }));
        if (c.want != 0 && c.want + taken < SLAB_END) {
            EXPECT_EQ(block[taken], 0xEE) << "cleared past the block";
        }
    }
}

// The soft interrupt's code runs at once with A1 = is_Data, and its RTS
// returns to the caller of Cause.
TEST_F(ProbeTest, CauseRunsTheSoftInterruptAtOnce) {
    Seen s = lib(EXEC_BASE, -180, {.a1 = node()});
    EXPECT_EQ(st(ST_RUNS), 1u);
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(s.a1, state + ST_RUNS);
}

// Opcodes no installed slot holds: the unknown-function messages, the
// nibbles without a table of their own, and the other functions of each
// table. Each runs with all flags set and all clear going in.
TEST_F(ProbeTest, OpcodesOutsideTheInstalledSlots) {
    const uint32_t dos_name = put("dos.library");
    struct Case { uint16_t opcode; uint32_t d0, a0, a1, want; const char* message; };
    const Case cases[] = {
        {0xA009, 1, 2, 3, 0, "libs_exec_dispatch: unimplemented exec fn 9 (D0=00000001 A0=00000002 A1=00000003)\n"},
        {0xACFF, 0x80000000, 0, 0xFFFFFFFF, 0,
         "libs_exec_dispatch: unimplemented exec fn 255 (D0=80000000 A0=00000000 A1=ffffffff)\n"},
        {0xA202, 0, 0, dos_name, DOS_BASE, ""},  // nibbles 2, 3, 9 to F are exec
        {0xAF04, 0, 0, 0x100, 3, ""},
        {0xA1FF, 5, 0, 0, 0, ""},  // dos beyond UnLoadSeg
        {0xA421, 0x80000000, 0, 0, 0x80000000, "deli_dispatch: unknown fn 33\n"},
        {0xA500, 9, 0, 0, 0, ""},  // outside the negative table: not counted
        {0xA600, 9, 0, 0, 0, ""}, {0xA7FF, 9, 0, 0, 0, ""}, {0xA801, 9, 0, 0, 0, ""},
    };
    for (uint16_t ccr : {uint16_t(0), ALL})
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << std::hex << c.opcode << " ccr " << ccr);
            Seen s{};
            std::string err = stderr_of([&] { s = raw(c.opcode, {.d0 = c.d0, .a0 = c.a0, .a1 = c.a1, .ccr = ccr}); });
            expect_d0(s, c.want, ccr);
            EXPECT_EQ(err, c.message);
        }
    EXPECT_EQ(neg_calls(m), 0u);
}

// D0 and the flags of every DeliTracker function; a negative slot is told by
// the PC and counted in the histogram. What the functions do is checked
// below and in dos_test.cpp.
TEST_F(ProbeTest, DeliFunctionResults) {
    put("x.xpk", PATH_BUFFER);
    struct Case { int fn; uint32_t d0, want; };  // fn >= 0: pointer index; < 0: negative slot
    std::vector<Case> cases = {
        {0, 0, MODULE_LEN}, {0, 1, 0}, {0, 0xFFFFFFFF, 0}, {-66, 0, MODULE_LEN}, {-66, 16, 0},  // GetListData
        {-72, 5, 0},  {-78, 5, 0},  {-84, 5, 0},  {-90, 5, 0},  {-96, 5, 0},  {-102, 5, 0}, {-120, 5, 0},
        {-126, 5, 0}, {-132, 5, 0}, {-246, 5, 5}, {-252, 0x80000000, 0x80000000}, {-258, 0, 0},
        {-264, 7, 7}, {-270, 64, 64}, {-6, 5, 0}, {-276, 5, 0}, {-390, 5, 0}, {-3000, 5, 0},  // the last of 500
    };
    // StartInterrupt, StopInterrupt, SongEnd, SetTimer, WaitAudioDMA, SaveMem,
    // FileReq and TextRequest keep D0; the others without effect return 0.
    for (int fn = 5; fn <= 32; fn++)
        for (uint32_t d0 : {0u, 5u, 0x80000001u})
            if (fn != 10 && fn != 30) cases.push_back({fn, d0, (fn >= 7 && fn <= 9) || (fn >= 11 && fn <= 15) ? d0 : 0});
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fn << " " << c.d0);
        std::fill(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
        const uint16_t dmacon = m.dmacon;
        Seen s = call(c.fn < 0 ? P_NEG : P_FPTR, {.d0 = c.d0, .a0 = 0x1234, .d7 = c.fn, .ccr = ALL});
        expect_d0(s, c.want);
        EXPECT_EQ(s.a0, c.fn != 0 && c.fn != -66 ? 0x1234 : c.want ? MODULE_ADDR : 0);
        EXPECT_EQ(neg_calls(m), c.fn < 0 ? 1u : 0u);
        EXPECT_EQ(m.deli_neg_calls[c.fn < 0 ? -c.fn / 6 : 0], c.fn < 0 ? 1u : 0u);
        if (c.fn >= 0) {
            EXPECT_EQ(m.dmacon, dmacon);  // AllocAudio, FreeAudio here touch no register
        }
    }
    EXPECT_EQ(m.file_list_count, 1u);                 // LoadFile's slot loads nothing
    EXPECT_EQ(get_string(m, PATH_BUFFER), "x.xpk");  // nor do the path functions' slots act

    // The counted PC range reaches past the 500 slots, up to the base itself.
    struct Edge { uint32_t address; int entry; };  // entry -1: not counted
    for (const Edge& e : {Edge{0xF8F402, 511}, Edge{0xF8F3FC, -1}, Edge{DELI_BASE, 0}}) {
        SCOPED_TRACE(e.address);
        std::fill(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
        put_words(m, e.address, {0xA500, 0x4E75});
        EXPECT_EQ(call(P_NEG, {.d0 = 5, .d7 = int32_t(e.address - DELI_BASE)}).d0, 0u);
        write32(m, e.address, 0);
        EXPECT_EQ(neg_calls(m), e.entry < 0 ? 0u : 1u);
        EXPECT_EQ(m.deli_neg_calls[e.entry < 0 ? 0 : e.entry], e.entry < 0 ? 0u : 1u);
    }
}

// CopyDir, CopyFile and CopyString append to the path buffer; CutSuffix cuts
// one packer suffix, in letters of either case.
TEST_F(ProbeTest, PathBufferFunctions) {
    deli_set_module_path(m, "Mods/sub/song.mod");
    struct Case { int fn; const char *before, *a0_text, *after; };
    const Case cases[] = {
        {2, "", nullptr, "Mods/sub/"}, {3, "Mods/sub/", nullptr, "Mods/sub/song.mod"},
        {4, "abc", ".smp", "abc.smp"}, {4, "abc", "", "abc"},
        {10, "mod.song.xpk", nullptr, "mod.song"}, {10, "a.pp", nullptr, "a"},
        {10, "x.lha", nullptr, "x.lha"}, {10, ".xpk", nullptr, ""}, {10, "xpk", nullptr, "xpk"},
        {10, ".pp", nullptr, ""}, {10, "pp", nullptr, "pp"}, {10, "a.pp.xpk", nullptr, "a.pp"},
        {10, "song.XPK", nullptr, "song"}, {10, "song.xpk2", nullptr, "song.xpk2"}, {10, "", nullptr, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fn << " " << c.before);
        put(c.before, PATH_BUFFER);
        const uint32_t end = PATH_BUFFER + uint32_t(std::max(std::strlen(c.before), std::strlen(c.after))) + 1;
        write8(m, end, 0xEE);
        expect_d0(call(P_FPTR, {.d0 = 0x12345678, .a0 = c.a0_text ? put(c.a0_text) : 0, .d7 = c.fn, .ccr = ALL}),
                  0x12345678);
        EXPECT_EQ(get_string(m, PATH_BUFFER), c.after);
        EXPECT_EQ(read8(m, end), 0xEE);
    }
    // A path longer than the buffer (CopyString has no limit) is still cut
    // at its real end.
    write32(m, DELI_BASE + 0x20, put(std::string(3000, 'p') + ".xpk"));
    call(P_FPTR, {.d7 = 10});
    EXPECT_EQ(get_string(m, SCRATCH, 8192).size(), 3000u);
    EXPECT_EQ(read8(m, SCRATCH + 3001), 'x');
}

// The player's interrupt period in output frames from the CIA ticks at
// base+0x36, through the pointer and the negative slot.
TEST_F(ProbeTest, SetTimer) {
    struct Case { uint32_t rate; uint16_t timer; bool negative_slot; int32_t want; };
    const Case cases[] = {
        {48000, 14187, false, 960}, {48000, 14187, true, 960}, {48000, 14188, false, 960},
        {48000, 7093, false, 480},  {48000, 1, false, 1},      {48000, 65535, true, 4434},
        {44100, 14187, false, 882}, {48000, 14195, false, 961},  // 960.57 rounds up
        {48000, 0, false, 123},                                  // 0 changes nothing
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rate << " " << c.timer);
        m.output_rate = c.rate;
        m.interrupt_period = 123;
        write16(m, DELI_TIMER, c.timer);
        call(c.negative_slot ? P_NEG : P_FPTR, {.d7 = c.negative_slot ? -132 : 11});
        EXPECT_EQ(m.interrupt_period, c.want);
    }
}

// DMAMask through the pointer table: only the two parameter checks, of the
// longs at base+0x122 and base+0x132; a refusal puts its status at +0x126.
TEST_F(ProbeTest, DmaMaskParameterChecks) {
    struct Case { uint32_t kind, flags; uint8_t status; };
    for (const Case& c : {Case{4, 0, 0x27}, Case{0, 0, 0x27}, Case{5, 0x100, 0x28}, Case{5, 0x80000000, 0x28},
                          Case{5, 0xFF, 0}}) {
        SCOPED_TRACE(testing::Message() << c.kind << " " << c.flags);
        write32(m, DELI_BASE + 0x122, c.kind);
        write32(m, DELI_BASE + 0x132, c.flags);
        write32(m, DELI_BASE + 0x126, 0xAAAAAA55);
        expect_d0(call(P_FPTR, {.d0 = 0x80000003, .d7 = 30, .ccr = ALL}), c.status ? 0x80000003 : 0);
        EXPECT_EQ(read32(m, DELI_BASE + 0x126), c.status ? c.status : 0xAAAAAA55u);
    }
}

TEST_F(ProbeTest, NegativeSlotsReachTheCustomRegisters) {
    struct Case { int offset; uint32_t d0, d1; std::function<uint32_t()> reg; uint32_t want; };
    auto dma_master = [&] { return uint32_t(m.dmacon & 0x0200); };
    auto dma_audio = [&] { return uint32_t(m.dmacon & 0x00FF); };
    const Case cases[] = {
        {-102, 5, 0, dma_master, 0}, {-96, 5, 0, dma_master, 0x0200},  // FreeAudio, AllocAudio
        // DMAMask: set or clear by bit 15 of D0 alone
        {-246, 0x8000, 0x13, dma_audio, 0x3}, {-246, 0, 0xFFFFFFF1, dma_audio, 0x2},
        {-246, 0x7FFF, 0x4, dma_audio, 0x2},
        // PokeAdr, PokeLen, PokePer, PokeVol: the channel in D1
        {-252, 0x00023456, 5, [&] { return m.aud_lc[1]; }, 0x23456},
        {-258, 0xABCD0100, 2, [&] { return uint32_t(m.aud_len[2]); }, 0x100},
        {-264, 428, 3, [&] { return uint32_t(m.aud_per[3]); }, 428},
        {-270, 64, 0xFFFFFFFC, [&] { return uint32_t(m.aud_vol[0]); }, 64},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.offset << " " << c.d0);
        call(P_NEG, {.d0 = c.d0, .d1 = c.d1, .d7 = c.offset});
        EXPECT_EQ(c.reg(), c.want);
    }
}

// One script through both resources: what each call returns, the resource's
// enable mask, and the handler node of one bit (mirrored into the CIA for
// the two timers).
TEST_F(ProbeTest, CiaResources) {
    const uint32_t bases[] = {CIAA_RES_BASE, CIAB_RES_BASE};
    struct Step { int res, lvo; uint32_t d0, a1, want; uint16_t flags; uint8_t enable; int bit; uint32_t handler; };
    const Step steps[] = {
        {0, -6, 0, 0x300010, 0, Z, 0x01, 0, 0x300010},  // AddICRVector
        {0, -6, 4, 0x300014, 0, Z, 0x11, 4, 0x300014},
        {0, -6, 5, 0x300018, 0, Z, 0x11, 4, 0x300014},    // no bit 5
        {0, -6, 0xF, 0x30001C, 0, Z, 0x11, 0, 0x300010},  // bit 7
        {0, -6, 9, 0x300020, 0, Z, 0x13, 1, 0x300020},    // 9 & 7
        {0, -18, 0x84, 0, 0x13, 0, 0x17, 1, 0x300020},    // AbleICR: the old mask back
        {0, -18, 0x03, 0, 0x17, 0, 0x14, 1, 0x300020},
        {0, -12, 0, 0, 0, Z, 0x14, 0, 0},  // RemICRVector: flags from D0
        {0, -12, 5, 0, 5, 0, 0x14, 4, 0x300014},
        {0, -12, 0x80000005, 0, 0x80000005, N, 0x14, 4, 0x300014},
        {0, -12, 4, 0, 4, 0, 0x04, 4, 0},
        {0, -18, 0x1F, 0, 0x04, 0, 0x00, 1, 0x300020},
        {0, -18, 0x80, 0, 0x00, Z, 0x00, 1, 0x300020},  // Z: the old mask was empty
        {1, -6, 1, 0x300024, 0, Z, 0x02, 1, 0x300024},  // the other resource
        {1, -18, 0x81, 0, 0x02, 0, 0x03, 1, 0x300024},
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
    m.ciares_pending[0] = m.ciares_pending[1] = 0x05;
    struct Ack { int res; uint32_t d0, want; uint8_t pending; };
    for (const Ack& a : {Ack{1, 0x04, 4, 0x01}, Ack{1, 0x02, 0, 0x01}, Ack{1, 0xFF, 1, 0x00}, Ack{0, 0x0C, 4, 0x01}}) {
        expect_d0(lib(bases[a.res], -24, {.d0 = a.d0, .ccr = ALL}), a.want);
        EXPECT_EQ(m.ciares_pending[a.res], a.pending);
    }
}

// A count and (name, flag byte, value buffer) per entry. The option of each
// case is the second entry, after one that never matches: a hit gets flag 1
// and the value, the others flag 0.
TEST_F(ProbeTest, OptionHandOver) {
    constexpr uint32_t block = SCRATCH, flags = SCRATCH + 0x100, values = SCRATCH + 0x200, value = values + 0x40;
    const std::string a56(56, 'a');
    struct Case { std::string epopt, name; int flag; std::string value; };
    const Case cases[] = {
        {"type:pt30", "type", 1, "pt30"}, {"type:", "type", 1, ""}, {"type:pt30", "typ", 0, ""},
        {"type:pt30", "TYPE", 0, ""},     {"type:pt30", "type:", 0, ""}, {"type:pt30", "", 0, ""},
        {"", "type", 0, ""},              {"type", "type", 0, ""},
        {a56 + ":v", a56 + "zz", 1, "v"}, {a56 + "a:v", a56 + "a", 0, ""},  // names read up to 56 characters
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.epopt + " / " + c.name);
        std::strcpy(m.epopt, c.epopt.c_str());
        const uint32_t longs[] = {2, put("speed", SCRATCH + 0x400), flags, values, put(c.name, SCRATCH + 0x500),
                                  flags + 1, value};
        for (uint32_t k = 0; k < 7; k++) write32(m, block + 4 * k, longs[k]);
        std::memset(m.chip_ram + flags, 0xEE, 0x200);
        Seen s = lib(LIB5_BASE, -24, {.d0 = 7, .a0 = block, .ccr = ALL});
        EXPECT_EQ(s.d0, 0u);
        EXPECT_EQ(s.ccr, X | Z);
        EXPECT_EQ(read8(m, flags), 0);
        EXPECT_EQ(read8(m, values), 0xEE);
        EXPECT_EQ(read8(m, flags + 1), c.flag);
        if (c.flag) {
            EXPECT_EQ(get_string(m, value), c.value);
        }
        EXPECT_EQ(read8(m, value + (c.flag ? uint32_t(c.value.size()) + 1 : 0)), 0xEE);
    }
    write32(m, block, 0);  // no entries: nothing written
    write8(m, flags, 0xEE);
    EXPECT_EQ(lib(LIB5_BASE, -24, {.d0 = 7, .a0 = block}).d0, 0u);
    EXPECT_EQ(read8(m, flags), 0xEE);
}

// Every pointer a player hands in is a 24-bit bus address: names and
// buffers wrap at the top of memory, counts are bounded.
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
}
