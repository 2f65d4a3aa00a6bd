// dos.library and companion files as players call them: host files through
// eight handles, ENV: in the data directory, names matched without regard to
// case, LoadSeg of a hunk file built by the toolchain.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "probe_fixture.h"

namespace {

constexpr int OPEN = -30, CLOSE = -36, READ = -42, SEEK = -66, LOCK = -84, LOADSEG = -150, UNLOADSEG = -156;
constexpr uint32_t NAME = SCRATCH, BUFFER = SCRATCH + 0x1000, DOS_FAIL = 0xFFFFFFFF;

struct DosTest : ProbeTest {
    TempDir tmp;

    Seen dos(int lvo, uint32_t d1, uint32_t d2 = 0, uint32_t d3 = 0) {
        return lib(DOS_BASE, lvo, {.d1 = d1, .d2 = d2, .d3 = d3, .ccr = SR_X});
    }
    uint32_t open(const std::string& name) { return dos(OPEN, put(name), 1005).d0; }  // MODE_OLDFILE
    std::vector<uint8_t> chip(uint32_t address, size_t n) { return {m.chip_ram + address, m.chip_ram + address + n}; }
    std::string read_all(uint32_t handle) { return get_string(m, BUFFER, dos(READ, handle, BUFFER, 256).d0); }
};

}  // namespace

TEST_F(DosTest, OpenReadSeekClose) {
    const uint32_t h = open(tmp.file("data.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    ASSERT_EQ(h, 1u);
    std::memset(m.chip_ram + BUFFER, 0xEE, 64);
    // Seek returns the old position; mode -1 from the start, 0 from here, 1 from the end.
    const int64_t steps[][4] = {{READ, BUFFER, 4, 4}, {SEEK, 0, 1, 4}, {SEEK, 2, 0xFFFFFFFF, 10},
                                 {READ, BUFFER + 8, 100, 8}, {SEEK, 0xFFFFFFFD, 0, 10},
                                 {SEEK, 0xFFFFFFF0, 0xFFFFFFFF, 7},  // before the start: not moved
                                 {READ, BUFFER + 20, 0xFFFFFFFF, 3}};
    for (auto [lvo, d2, d3, want] : steps) expect_d0(dos(int(lvo), h, uint32_t(d2), uint32_t(d3)), uint32_t(want));
    EXPECT_EQ(chip(BUFFER, 24), (std::vector<uint8_t>{0, 1, 2, 3, 0xEE, 0xEE, 0xEE, 0xEE, 2, 3, 4, 5, 6, 7, 8, 9, 0xEE,
                                                      0xEE, 0xEE, 0xEE, 7, 8, 9, 0xEE}));
    expect_d0(dos(CLOSE, h), DOS_FAIL);
    // Eight handles at most.
    const std::string name = tmp.file("f", {'a', 'b'});
    tmp.file("sub/x", {});
    for (uint32_t k = 1; k <= 8; k++) ASSERT_EQ(open(name), k);
    EXPECT_EQ(open(name), 0u);
    // Lock takes no handle: it only tells whether the name opens as a file.
    for (auto [lock, want] : {std::pair{name, 1u}, {tmp.name("missing"), 0u}, {tmp.name("sub"), 0u}})
        expect_d0(dos(LOCK, put(lock)), want);
    dos(CLOSE, 5), dos(CLOSE, 2);
    EXPECT_EQ(open(tmp.name("missing")), 0u);  // keeps no slot
    EXPECT_EQ(open(tmp.name("sub")), 0u);      // a directory is no file
    EXPECT_EQ(open(name), 2u);                 // lowest free first
    EXPECT_EQ(open(name), 5u);
    for (uint32_t k = 0; k < 3; k++) dos(READ, k < 2 ? 2 : 5, BUFFER + k, 1);  // each handle its own position
    EXPECT_EQ(get_string(m, BUFFER, 3), "aba");
    // A closed handle and numbers that never were one.
    dos(CLOSE, 1);
    write8(m, BUFFER + 3, 0xEE);
    for (uint32_t handle : {0u, 1u, 9u})
        for (int lvo : {CLOSE, READ, SEEK}) expect_d0(dos(lvo, handle, BUFFER + 3, 4), DOS_FAIL);
    EXPECT_EQ(read8(m, BUFFER + 3), 0xEE);
}

// ENV: names open in the data directory.
TEST_F(DosTest, NamesOfFiles) {
    DataFile env("players/ENV/orvel-probe.cfg", bytes_of("env!"));
    for (const char* name : {"ENV:orvel-probe.cfg", "EnvArc:orvel-probe.cfg", "env:Orvel-Probe.CFG"}) {
        EXPECT_EQ(read_all(open(name)) + char('0' + dos(LOCK, put(name)).d0), "env!1") << name;
    }
    EXPECT_EQ(open("ENVX:orvel-probe.cfg") | open("EN:orvel-probe.cfg"), 0u);
    // Only the last component is looked up without regard to case. On a host
    // that ignores case anyway, every spelling opens as it stands.
    tmp.file("dir/mod.title", bytes_of("title"));
    EXPECT_EQ(read_all(open(tmp.name("dir/MOD.Title"))), "title");
    const bool ignores_case = std::filesystem::exists(tmp.name("DIR/MOD.TITLE"));  // as Windows does
    EXPECT_EQ(open(tmp.name("DIR/mod.title")) != 0, ignores_case);
    // A name the narrow character set may not spell is passed over.
    std::ofstream(tmp.path / "dir" / std::filesystem::path(u8"Z\u00fcrich \u2603.mod")) << "x";
    EXPECT_EQ(open(tmp.name("dir/other")), 0u);
}

// What a player does for an instrument file: the module's directory and name,
// the packer suffix cut, another suffix, LoadFile, GetListData. The list holds
// sixteen files with the module; a file must fit the module window.
TEST_F(DosTest, Companions) {
    deli_set_module_path(m, tmp.name("song.xpk").c_str());
    const std::string smp = tmp.file("song.smp", {1, 2, 3, 4, 5});
    write8(m, PATH_BUFFER, 0);
    for (int fn : {2, 3, 10}) call(P_FPTR, {.d7 = fn});  // CopyDir, CopyFile, CutSuffix
    call(P_FPTR, {.a0 = put(".smp"), .d7 = 4});           // CopyString
    EXPECT_EQ(get_string(m, PATH_BUFFER), smp);
    for (int k = 1; k < 16; k++) expect_d0(call(P_FPTR, {.d0 = 5, .d7 = 1, .ccr = CCR_MASK}), 0);
    EXPECT_EQ(stderr_of([&] { expect_d0(call(P_FPTR, {.d7 = 1, .ccr = CCR_MASK}), 1); }),
              "deli_load_companion: list full (16 entries)\n");
    const uint32_t first = MODULE_ADDR + MODULE_LEN + 1;  // each file on the next even address
    Seen s = call(P_FPTR, {.d0 = 15, .d7 = 0});            // GetListData of the last
    EXPECT_EQ(s.d0, 5u);
    EXPECT_EQ(s.a0, first + 6 * 14);
    EXPECT_EQ(chip(first, 11), (std::vector<uint8_t>{1, 2, 3, 4, 5, 0, 1, 2, 3, 4, 5}));
    // A module ending 5 bytes before the end of the window (4 after rounding up): 4 bytes fit, 5 do not.
    deli_set_module(m, MODULE_ADDR, MODULE_WINDOW_END - MODULE_ADDR - 5);
    EXPECT_EQ(stderr_of([&] { expect_d0(call(P_FPTR, {.d7 = 1, .ccr = CCR_MASK}), 1); }),
              "deli_load_companion: '" + smp + "' (5 bytes) overflows chip RAM\n");
    EXPECT_EQ(call(P_FPTR, {.a0 = put(tmp.file("empty", {}), PATH_BUFFER), .d7 = 1}).d0, 1u);  // nothing to load
    EXPECT_EQ(call(P_FPTR, {.a0 = put(tmp.file("four", {1, 2, 3, 4}), PATH_BUFFER), .d7 = 1}).d0, 0u);
    EXPECT_EQ(m.file_list_addr[1] + m.file_list_len[1], MODULE_WINDOW_END);
}

// LoadSeg takes the name as it stands (no ENV: mapping) and gives the segment
// list the next blocks of the slab while they last.
TEST_F(DosTest, LoadSeg) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    DataFile env("players/ENV/orvel-probe.seg", file);
    const uint32_t slab = m.alloc_slab;
    EXPECT_EQ(dos(LOADSEG, put(tmp.name("missing"))).d0 | dos(LOADSEG, put("ENV:orvel-probe.seg")).d0, 0u);
    EXPECT_EQ(stderr_of([&] { dos(LOADSEG, put(tmp.file("text", bytes_of("no hunks")))); }),
              "hunk: missing HUNK_HEADER\n");
    EXPECT_EQ(m.alloc_slab, slab);
    const uint32_t bptr = dos(LOADSEG, put(tmp.file("seg", file))).d0;
    ASSERT_EQ(bptr, (slab + 4) >> 2);
    deli_call(m, (bptr << 2) + 4 + 16);  // reloc.s: lea data_word,a0; rts
    EXPECT_EQ(m.a[0], m.hunk_addr[1] + 4);
    // Each hunk in a block of its size + 8: the length, the BPTR to the next block's, the hunk.
    EXPECT_EQ(longs_at(m, {slab, slab + 4, slab + 36, slab + 40, slab + 56, slab + 60}),
              (std::vector<uint32_t>{36, (slab + 40) >> 2, 20, (slab + 60) >> 2, 328, 0}));
    EXPECT_EQ(dos(UNLOADSEG, bptr).d0, 0u);
    EXPECT_EQ(m.alloc_slab, slab + 384);  // for good
    for (uint32_t room : {383u, 384u}) {
        m.alloc_slab = SLAB_END - room;
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(dos(LOADSEG, put(tmp.name("seg"))).d0 != 0, room == 384); }),
                  room == 384 ? "" : "hunk_load_seglist: out of AllocMem slab\n");
    }
}

// Names without an end and reads that run over the top of memory stay in chip RAM.
TEST_F(DosTest, HostileNamesAndLengths) {
    std::memset(m.chip_ram + NAME, 'a', 4096);
    EXPECT_EQ(dos(OPEN, NAME).d0 | dos(LOCK, NAME).d0 | dos(LOADSEG, NAME).d0, 0u);
    write32(m, DELI_BASE + 0x20, NAME);
    EXPECT_EQ(stderr_of([&] { call(P_FPTR, {.d7 = 1}); }),
              "deli_load_companion: cannot open '" + std::string(1023, 'a') + "'\n");
    const uint32_t h = open(tmp.file("eight", {1, 2, 3, 4, 5, 6, 7, 8}));
    write32(m, 4, 0x12345678);
    EXPECT_EQ(dos(READ, h, 0xFFFFFC, 0xFFFFFFFF).d0, 8u);
    EXPECT_EQ(longs_at(m, {0xFFFFFC, 0, 4}), (std::vector<uint32_t>{0x01020304, 0x05060708, 0x12345678}));
}
