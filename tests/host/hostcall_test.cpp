// The host calls as players meet them: exec through the library bases, the
// DeliTracker functions through the base's pointers and negative slots, the
// CIA resources and the option hand-over, called from the player's memory.
// The bundled player's end-to-end runs cover the common paths; these the edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

#include "probe_fixture.h"

namespace {

constexpr uint16_t ALL = CCR_MASK;

// The negative-slot histogram's total if all of it is in `slot` (else ~0), cleared.
uint32_t neg_calls(Machine& m, int slot = 0) {
    const uint32_t n = std::accumulate(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
    const uint32_t in_slot = m.deli_neg_calls[slot];
    std::fill(std::begin(m.deli_neg_calls), std::end(m.deli_neg_calls), 0u);
    return n == in_slot ? n : ~0u;
}

}  // namespace

// Each call's D0, with the flags TST.L D0 leaves and X kept; A1 kept, A0 kept
// but by GetListData; what it prints; a negative slot told by the PC and counted.
TEST_F(ProbeTest, CallResults) {
    put("x.xpk", PATH_BUFFER);
    struct Case { Probe p; int32_t fn; uint32_t d0; const char* name; uint32_t a1, want, base = EXEC_BASE; int vector = -1;
                  const char* message = ""; };
    std::vector<Case> cases = {
        // OpenLibrary, OldOpenLibrary: any version, two characters decide, exactly
        {P_LIB, -552, 37, "dos.library", 0, DOS_BASE}, {P_LIB, -552, 0, "intuition", 0, LIB3_BASE},
        {P_LIB, -552, 0, "gr", 0, LIB4_BASE}, {P_LIB, -552, 0, "exec.library", 0, EXEC_BASE},
        {P_LIB, -552, 0, "dog", 0, DOS_BASE}, {P_LIB, -552, 0, "Exec.library", 0, 0}, {P_LIB, -552, 0, "e", 0, 0},
        {P_LIB, -408, 0, "graphics.library", 0, LIB4_BASE},
        // TypeOfMem: chip below the player, fast up to the libraries; 24 bits
        {P_LIB, -534, 0, nullptr, 0x1FFFFF, 3}, {P_LIB, -534, 0, nullptr, PLAYER_LOAD_ADDR, 5},
        {P_LIB, -534, 0, nullptr, EXEC_BASE, 0}, {P_LIB, -534, 0, nullptr, 0xFF100000, 3},
        // OpenResource: four characters decide, exactly
        {P_LIB, -498, 0, "ciab", 0, CIAB_RES_BASE}, {P_LIB, -498, 0, "cia", 0, 0}, {P_LIB, -498, 0, "CIAA.resource", 0, 0},
        // AddIntServer, SetIntVector (the old one back): numbers modulo 16
        {P_LIB, -168, 0x15, nullptr, 0x300200, 0, EXEC_BASE, 5}, {P_LIB, -162, 7, nullptr, 0x300300, 0, EXEC_BASE, 7},
        {P_LIB, -162, 0xFFFFFFF7, nullptr, 0x300400, 0x300300, EXEC_BASE, 7},
        // Cause of a node without code, FreeMem, slots without a function
        {P_LIB, -180, 7, nullptr, SCRATCH + 0x100, 0}, {P_LIB, -210, 64, nullptr, SLAB_START, 0},
        {P_LIB, -1200, 5, nullptr, 0, 0}, {P_LIB, -480, 5, nullptr, 0, 0, DOS_BASE}, {P_LIB, -720, 5, nullptr, 0, 0, LIB3_BASE},
        // Opcodes no installed slot holds; nibbles 2, 3, 9 to F are exec; A500 is no negative slot
        {P_RAW, 0xACFF, 0x80000000, nullptr, 0xFFFFFFFF, 0, 0, -1,
         "libs_exec_dispatch: unimplemented exec fn 255 (D0=80000000 A0=00001234 A1=ffffffff)\n"},
        {P_RAW, 0xA421, 0x80000000, nullptr, 0, 0x80000000, 0, -1, "deli_dispatch: unknown fn 33\n"},
        {P_RAW, 0xA202, 0, "dos.library", 0, DOS_BASE}, {P_RAW, 0xAF04, 0, nullptr, 0x100, 3}, {P_RAW, 0xA1FF, 5, nullptr, 0, 0},
        {P_RAW, 0xA500, 9, nullptr, 0, 0}, {P_RAW, 0xA7FF, 9, nullptr, 0, 0}, {P_RAW, 0xA801, 9, nullptr, 0, 0},
        // DeliTracker functions: GetListData, then those without effect here
        {P_FPTR, 0, 0, nullptr, 0, MODULE_LEN}, {P_FPTR, 0, 1, nullptr, 0, 0}, {P_FPTR, 0, 0xFFFFFFFF, nullptr, 0, 0},
        {P_NEG, -66, 0, nullptr, 0, MODULE_LEN}, {P_NEG, -66, 16, nullptr, 0, 0}, {P_NEG, -72, 5, nullptr, 0, 0},
        {P_NEG, -78, 5, nullptr, 0, 0}, {P_NEG, -84, 5, nullptr, 0, 0}, {P_NEG, -90, 5, nullptr, 0, 0},
        {P_NEG, -120, 5, nullptr, 0, 0}, {P_NEG, -132, 5, nullptr, 0, 0}, {P_NEG, -246, 5, nullptr, 0, 5},
        {P_NEG, -252, 0x80000000, nullptr, 0, 0x80000000}, {P_NEG, -258, 0, nullptr, 0, 0}, {P_NEG, -6, 5, nullptr, 0, 0},
        {P_NEG, -390, 5, nullptr, 0, 0}, {P_NEG, -3000, 5, nullptr, 0, 0},  // the last of 500
    };
    // StartInterrupt, StopInterrupt, SongEnd, SetTimer, WaitAudioDMA, SaveMem, FileReq and
    // TextRequest keep D0; the others without effect return 0.
    for (int fn = 5; fn <= 32; fn++)
        for (uint32_t d0 : {0u, 0x80000001u})
            if (fn != 10 && fn != 30)
                cases.push_back({P_FPTR, fn, d0, nullptr, 0, (fn >= 7 && fn <= 9) || (fn >= 11 && fn <= 15) ? d0 : 0});
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.p << " " << c.fn << " " << (c.name ? c.name : "") << " " << c.d0);
        const uint32_t a1 = c.name ? put(c.name) : c.a1, dmacon = m.dmacon;
        const uint16_t ccr = (&c - cases.data()) % 2 ? CCR_MASK : 0;
        Seen s{};
        EXPECT_EQ(stderr_of([&] { s = call(c.p, {.d0 = c.d0, .a0 = 0x1234, .a1 = a1, .a4 = c.base, .d7 = c.fn, .ccr = ccr}); }),
                  c.message);
        expect_d0(s, c.want, ccr);
        EXPECT_EQ(s.a1, a1);
        EXPECT_EQ(s.a0, c.p == P_LIB || (c.fn != 0 && c.fn != -66) ? 0x1234 : c.want ? MODULE_ADDR : 0);
        EXPECT_EQ(neg_calls(m, c.p == P_NEG ? -c.fn / 6 : 0), c.p == P_NEG ? 1u : 0u);
        if (c.vector >= 0) { EXPECT_EQ(m.int_vectors[c.vector], a1); }
        if (c.p == P_FPTR) { EXPECT_EQ(m.dmacon, dmacon); }  // AllocAudio, FreeAudio here touch no register
    }
    EXPECT_EQ(m.file_list_count, 1u);                 // LoadFile's slot loads nothing
    EXPECT_EQ(get_string(m, PATH_BUFFER), "x.xpk");  // nor do the path functions' slots act
    // The counted PC range reaches past the 500 slots, up to the base itself.
    for (auto [address, entry] : {std::pair{0xF8F402u, 511}, {0xF8F3FCu, -1}, {DELI_BASE, 0}}) {
        put_words(m, address, {0xA500, 0x4E75});
        call(P_NEG, {.d7 = int32_t(address - DELI_BASE)});
        EXPECT_EQ(neg_calls(m, std::max(entry, 0)), entry < 0 ? 0u : 1u) << address;
    }
    // Cause: the soft interrupt's code (addq.l #1,(a1); rts) runs at once with A1 = is_Data.
    put_words(m, STUB + 0x40, {0x5291, 0x4E75});
    write32(m, SCRATCH + 14, SCRATCH + 0x80), write32(m, SCRATCH + 18, STUB + 0x40);
    EXPECT_EQ(lib(EXEC_BASE, -180, {.a1 = SCRATCH}).a1, SCRATCH + 0x80);
    EXPECT_EQ(read32(m, SCRATCH + 0x80), 1u);
}

TEST_F(ProbeTest, AllocMemRoundsClearsAndRunsOut) {
    std::memset(m.chip_ram + SLAB_START, 0xEE, SLAB_END - SLAB_START + 1);
    const uint32_t cases[][2] = {{0x400001, 0}, {1, 0x400000}, {5, 0x400004}, {0, 0x40000C},  // longwords
                                 {0xFFFFFFFD, 0}, {SLAB_END - 0x40000C, 0x40000C}, {1, 0}, {0, SLAB_END}};
    for (const auto& [size, want] : cases) {
        SCOPED_TRACE(size);
        const uint32_t before = m.alloc_slab, taken = want ? (size + 3) & ~3u : 0;
        expect_d0(lib(EXEC_BASE, -198, {.d0 = size, .d1 = 0x10002, .ccr = ALL}), want);  // MEMF_CHIP|MEMF_CLEAR
        EXPECT_EQ(m.alloc_slab, before + taken);
        if (want) { EXPECT_EQ(std::count(m.chip_ram + want, m.chip_ram + want + taken + 1, 0), taken); }  // no more
    }
}

// CutSuffix cuts one packer suffix, in letters of either case; a path longer
// than the buffer (CopyString has no limit) is still cut at its real end.
TEST_F(ProbeTest, CutSuffix) {
    const std::string long_path(3000, 'p');
    const std::pair<std::string, std::string> cases[] = {
        {"mod.song.xpk", "mod.song"}, {"a.pp", "a"}, {"x.lha", "x.lha"}, {".xpk", ""}, {"xpk", "xpk"},
        {"a.pp.xpk", "a.pp"}, {"song.XPK", "song"}, {"song.xpk2", "song.xpk2"}, {long_path + ".xpk", long_path}};
    for (const auto& [before, after] : cases) {
        write32(m, DELI_BASE + 0x20, put(before));
        expect_d0(call(P_FPTR, {.d0 = 0x12345678, .d7 = 10, .ccr = ALL}), 0x12345678);
        EXPECT_EQ(get_string(m, SCRATCH, 8192), after);
    }
}

// SetTimer turns the CIA ticks at base+0x36 into the interrupt period in
// output frames; DMAMask through the pointer only checks the longs at
// base+0x122 and +0x132 and puts a refusal at +0x126; the negative slots
// reach the custom registers.
TEST_F(ProbeTest, DeliFunctionEffects) {
    const int32_t timers[][4] = {{48000, 14187, 11, 960}, {48000, 65535, -132, 4434}, {44100, 14187, 11, 882},
                                 {48000, 14195, 11, 961}, {48000, 0, 11, 123}};  // 960.57 rounds up; 0: no change
    for (auto [rate, ticks, fn, want] : timers) {
        m.output_rate = uint32_t(rate), m.interrupt_period = 123;
        write16(m, DELI_BASE + 0x36, uint16_t(ticks));
        call(fn < 0 ? P_NEG : P_FPTR, {.d7 = fn});
        EXPECT_EQ(m.interrupt_period, want) << ticks;
    }
    for (auto [kind, flags, status] : {std::array<uint32_t, 3>{4, 0, 0x27}, {5, 0x100, 0x28}, {5, 0xFF, 0}}) {
        write32(m, DELI_BASE + 0x122, kind), write32(m, DELI_BASE + 0x132, flags), write32(m, DELI_BASE + 0x126, 0xAAAAAA55);
        expect_d0(call(P_FPTR, {.d0 = 0x80000003, .d7 = 30, .ccr = ALL}), status ? 0x80000003 : 0);
        EXPECT_EQ(read32(m, DELI_BASE + 0x126), status ? status : 0xAAAAAA55u);
    }
    // FreeAudio, AllocAudio, DMAMask (set or clear by bit 15 of D0), then PokeAdr, PokeLen, PokePer and
    // PokeVol with the channel in D1.
    const int64_t steps[][4] = {{-102, 0, 0, 0}, {-96, 0, 0, 0x200}, {-246, 0x8000, 0x13, 0x203},
                                {-246, 0x7FFF, 0xFFFFFFF1, 0x202}, {-252, 0x23456, 5, 0x202}, {-258, 0xABCD0100, 2, 0x202},
                                {-264, 428, 3, 0x202}, {-270, 64, 0xFFFFFFFC, 0x202}};
    for (auto [fn, d0, d1, dma] : steps) {
        call(P_NEG, {.d0 = uint32_t(d0), .d1 = uint32_t(d1), .d7 = int32_t(fn)});
        EXPECT_EQ(m.dmacon & 0x2FF, dma) << fn;
    }
    EXPECT_EQ((std::array<uint32_t, 4>{m.aud_lc[1], m.aud_len[2], m.aud_per[3], m.aud_vol[0]}),
              (std::array<uint32_t, 4>{0x23456, 0x100, 428, 64}));
}

// One script through a resource: what each call returns, the enable mask,
// and the handler of one bit (mirrored into the CIA for the timers).
TEST_F(ProbeTest, CiaResources) {
    struct Step { int lvo; uint32_t d0, a1, want; uint8_t enable; int bit; uint32_t handler; };
    const Step steps[] = {
        {-6, 4, 0x300014, 0, 0x10, 4, 0x300014}, {-6, 5, 0x300018, 0, 0x10, 4, 0x300014},  // AddICRVector; no bit 5
        {-6, 9, 0x300020, 0, 0x12, 1, 0x300020},                                           // 9 & 7
        {-18, 0x84, 0, 0x12, 0x16, 1, 0x300020}, {-18, 0x03, 0, 0x16, 0x14, 1, 0x300020},  // AbleICR: the old mask
        {-12, 0x80000005, 0, 0x80000005, 0x14, 4, 0x300014}, {-12, 4, 0, 4, 0x04, 4, 0},  // RemICRVector: D0 kept
        {-18, 0x80, 0, 0x04, 0x04, 4, 0},
    };
    for (const Step& t : steps) {
        SCOPED_TRACE(&t - steps);
        expect_d0(lib(CIAB_RES_BASE, t.lvo, {.d0 = t.d0, .a1 = t.a1, .ccr = ALL}), t.want);
        EXPECT_EQ(m.ciares_enable[1], t.enable);
        EXPECT_EQ(m.ciares_handler[1][t.bit], t.handler);
        if (t.bit < 2) { EXPECT_EQ(m.cia[1].handler[t.bit], t.handler); }
        EXPECT_EQ(m.cia[1].icr_mask & 3, t.enable & 3);
    }
    // SetICR acknowledges pending bits, in the other resource alone.
    m.ciares_pending[0] = 0x05;
    for (auto [d0, want, pending] : {std::array<uint32_t, 3>{0x04, 4, 0x01}, {0x02, 0, 0x01}, {0xFF, 1, 0x00}}) {
        expect_d0(lib(CIAA_RES_BASE, -24, {.d0 = d0, .ccr = ALL}), want);
        EXPECT_EQ(m.ciares_pending[0] | m.ciares_enable[0] << 4, pending);
    }
}

// A count and (name, flag byte, value buffer) per entry; each case's option
// is the second, after one that never matches: a hit gets flag 1 and the value.
TEST_F(ProbeTest, OptionHandOver) {
    constexpr uint32_t flags = SCRATCH + 0x100, value = SCRATCH + 0x200;
    const std::string a56(56, 'a');
    const std::array<std::string, 3> cases[] = {  // option string, name, value handed over ("-": none)
        {"type:", "type", ""}, {"type:pt30", "typ", "-"}, {"type:pt30", "TYPE", "-"}, {"type:pt30", "", "-"},
        {"type", "type", "-"}, {a56 + ":v", a56 + "zz", "v"}, {a56 + "a:v", a56 + "a", "-"}};  // 56 characters read
    for (const auto& [epopt, name, want] : cases) {
        std::strcpy(m.epopt, epopt.c_str());
        const uint32_t longs[] = {2, put("speed", SCRATCH + 0x400), flags, value - 0x40, put(name, SCRATCH + 0x500),
                                  flags + 1, value};
        for (uint32_t k = 0; k < 7; k++) write32(m, SCRATCH + 4 * k, longs[k]);
        std::memset(m.chip_ram + flags, 0xEE, 0x200);
        expect_d0(lib(LIB5_BASE, -24, {.d0 = 7, .a0 = SCRATCH, .ccr = ALL}), 0);
        EXPECT_EQ(read16(m, flags), want != "-") << epopt << " / " << name;
        // The byte before the value buffer, then the value and two bytes after it.
        std::string got(1, char(m.chip_ram[value - 0x40]));
        got.append(m.chip_ram + value, m.chip_ram + value + want.size() + 2);
        std::string expect("\xEE");
        if (want == "-") expect.append("\xEE\xEE\xEE");
        else expect.append(want).append(1, '\0').append("\xEE");
        EXPECT_EQ(got, expect);
    }
}

// Every pointer a player hands in is a 24-bit bus address: names and buffers
// wrap at the top of memory, counts are bounded.
TEST_F(ProbeTest, HostileArgumentsStayInChipRam) {
    put("ex", 0xFFFFFE);  // its terminator at 0
    EXPECT_EQ(lib(EXEC_BASE, -552, {.a1 = 0xFFFFFFFE}).d0, EXEC_BASE);
    put("p", PATH_BUFFER);
    call(P_FPTR, {.a0 = 0xFFFFFE, .d7 = 4});  // CopyString
    EXPECT_EQ(get_string(m, PATH_BUFFER), "pex");
    // An option block of 0xFFFFFFFF entries, all pointing at the last byte.
    std::strcpy(m.epopt, "b:1");
    write32(m, SCRATCH, 0xFFFFFFFF);
    std::memset(m.chip_ram + SCRATCH + 4, 0xFF, 0xC0000);
    EXPECT_EQ(lib(LIB5_BASE, -24, {.a0 = SCRATCH}).d0, 0u);
    EXPECT_EQ(read16(m, DELI_STUBS), 0xA400);
}
