// dos.library and companion files from the probe player: host files
// opened, read and sought through eight handles, ENV: in the data
// directory, names matched without regard to case, LoadSeg of a hunk file
// built by the toolchain.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <numeric>

#include "probe_fixture.h"

namespace {

constexpr int OPEN = -30, CLOSE = -36, READ = -42, SEEK = -66, LOCK = -84, UNLOCK = -90,
              LOADSEG = -150, UNLOADSEG = -156;
constexpr uint32_t NAME = SCRATCH, BUFFER = SCRATCH + 0x1000;
constexpr uint32_t DOS_FAIL = 0xFFFFFFFF;

struct DosTest : ProbeTest {
    TempDir tmp;

    Seen dos(int lvo, uint32_t d1, uint32_t d2 = 0, uint32_t d3 = 0) {
        return lib(DOS_BASE, lvo, {.d1 = d1, .d2 = d2, .d3 = d3, .ccr = SR_X});
    }
    uint32_t name_arg(const std::string& name) { return put(name, NAME); }
    uint32_t open(const std::string& name) { return dos(OPEN, name_arg(name), 1005).d0; }  // MODE_OLDFILE
    std::vector<uint8_t> chip(uint32_t address, size_t n) { return {m.chip_ram + address, m.chip_ram + address + n}; }
    std::string read_all(uint32_t handle) {
        uint32_t n = dos(READ, handle, BUFFER, 256).d0;
        return n <= 256 ? get_string(m, BUFFER, n) : "";
    }
};

std::string resolved(const std::string& amiga_name) {
    char out[1024];
    host_resolve_path(amiga_name.c_str(), out);
    return out;
}

}  // namespace

TEST_F(DosTest, OpenReadSeekClose) {
    const uint32_t h = open(tmp.file("data.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    ASSERT_EQ(h, 1u);
    std::memset(m.chip_ram + BUFFER, 0xEE, 64);
    struct Step { int lvo; uint32_t d2, d3, want; std::vector<uint8_t> memory; };  // memory at D2 afterwards
    // Seek returns the old position; mode -1 from the start, 0 from here, 1 from the end.
    const Step steps[] = {
        {READ, BUFFER, 4, 4, {0, 1, 2, 3, 0xEE}}, {SEEK, 0, 0, 4, {}}, {SEEK, 0, 1, 4, {}},
        {SEEK, 2, 0xFFFFFFFF, 10, {}}, {READ, BUFFER + 8, 0, 0, {0xEE}},  // read nothing
        {READ, BUFFER + 8, 100, 8, {2, 3, 4, 5, 6, 7, 8, 9, 0xEE}},       // past the end
        {READ, BUFFER + 8, 100, 0, {2}}, {SEEK, 0xFFFFFFFD, 0, 10, {}},
        {READ, BUFFER + 20, 0xFFFFFFFF, 3, {7, 8, 9, 0xEE}},
        {SEEK, 0xFFFFFFF0, 0xFFFFFFFF, 10, {}}, {SEEK, 0, 0, 10, {}},  // before the start: not moved
        {SEEK, 0xFFFFFFFF, 1, 10, {}}, {READ, BUFFER + 30, 5, 1, {9, 0xEE}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(&s - steps);
        expect_d0(dos(s.lvo, h, s.d2, s.d3), s.want);
        EXPECT_EQ(chip(s.d2, s.memory.size()), s.memory);
    }
    expect_d0(dos(CLOSE, h), DOS_FAIL);
}

TEST_F(DosTest, EightHandlesAtMost) {
    const std::string name = tmp.file("f", {'a', 'b'});
    for (uint32_t k = 1; k <= 8; k++) ASSERT_EQ(open(name), k);
    EXPECT_EQ(open(name), 0u);
    // Lock takes no handle: it only tells whether the name opens as a file.
    tmp.file("sub/x", {});
    struct Case { std::string name; uint32_t want; };
    for (const Case& c : {Case{name, 1}, Case{tmp.name("F"), 1}, Case{tmp.name("missing"), 0}, Case{"", 0},
                          Case{tmp.name("sub"), 0}}) {  // a directory is no file
        SCOPED_TRACE(c.name);
        expect_d0(dos(LOCK, name_arg(c.name)), c.want);
    }
    EXPECT_EQ(dos(UNLOCK, 1).d0, 0u);
    dos(CLOSE, 3);
    EXPECT_EQ(open(tmp.name("sub")), 0u);
    EXPECT_EQ(open(name), 3u);
    EXPECT_EQ(open(name), 0u);
    dos(CLOSE, 5);
    dos(CLOSE, 2);
    EXPECT_EQ(open(tmp.name("missing")), 0u);  // keeps no slot
    EXPECT_EQ(open(name), 2u);                 // lowest free first
    EXPECT_EQ(open(name), 5u);
    // Each handle has its own position.
    EXPECT_EQ(dos(READ, 2, BUFFER, 1).d0, 1u);
    EXPECT_EQ(dos(READ, 2, BUFFER + 1, 1).d0, 1u);
    EXPECT_EQ(dos(READ, 5, BUFFER + 2, 1).d0, 1u);
    EXPECT_EQ(get_string(m, BUFFER, 3), "aba");

    // A closed handle and numbers that never were one.
    dos(CLOSE, 1);
    write8(m, BUFFER + 3, 0xEE);
    for (uint32_t handle : {0u, 1u, 9u, 0x80000001u, 0xFFFFFFFFu})
        for (int lvo : {CLOSE, READ, SEEK}) {
            SCOPED_TRACE(testing::Message() << handle << " " << lvo);
            expect_d0(dos(lvo, handle, BUFFER + 3, 4), DOS_FAIL);
        }
    EXPECT_EQ(read8(m, BUFFER + 3), 0xEE);
}

TEST_F(DosTest, EnvNamesOpenInTheDataDirectory) {
    DataFile env("players/ENV/orvel-probe.cfg", bytes_of("env!"));
    for (const char* name : {"ENV:orvel-probe.cfg", "env:orvel-probe.cfg", "ENVARC:orvel-probe.cfg",
                             "EnvArc:orvel-probe.cfg", "ENV:Orvel-Probe.CFG"}) {
        SCOPED_TRACE(name);
        uint32_t h = open(name);
        ASSERT_NE(h, 0u);
        EXPECT_EQ(read_all(h), "env!");
        dos(CLOSE, h);
        EXPECT_EQ(dos(LOCK, name_arg(name)).d0, 1u);
    }
    EXPECT_EQ(open("ENVX:orvel-probe.cfg"), 0u);
    EXPECT_EQ(open("EN:orvel-probe.cfg"), 0u);
    char missing[1024];
    data_path(missing, sizeof missing, "players/ENV/orvel-missing");
    EXPECT_EQ(resolved("env:orvel-missing"), missing);
}

// Only the last component is looked up without regard to case. On a host
// that ignores case anyway, every spelling opens as it stands.
TEST_F(DosTest, LastComponentFoundWithoutRegardToCase) {
    const std::string exact = tmp.file("dir/mod.title", bytes_of("title"));
    const bool ignores_case = std::filesystem::exists(tmp.name("DIR/MOD.TITLE"));  // as Windows does

    const std::string other_case = tmp.name("dir/MOD.Title");
    EXPECT_EQ(resolved(other_case), ignores_case ? other_case : exact);
    uint32_t h = open(other_case);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(read_all(h), "title");

    const std::string other_dir = tmp.name("DIR/mod.title");
    EXPECT_EQ(resolved(other_dir), other_dir);
    EXPECT_EQ(open(other_dir) != 0, ignores_case);

    // A name the narrow character set may not spell is passed over.
    std::ofstream(tmp.path / "dir" / std::filesystem::path(u8"Z\u00fcrich \u2603.mod")) << "x";
    EXPECT_EQ(resolved(tmp.name("dir/other")), tmp.name("dir/other"));
    EXPECT_EQ(resolved(tmp.name("nodir/x")), tmp.name("nodir/x"));
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(tmp.path / "dir");  // a bare name is looked for here
    EXPECT_EQ(resolved("MOD.TITLE"), ignores_case ? "MOD.TITLE" : "mod.title");
    EXPECT_EQ(resolved("other"), "other");
    std::filesystem::current_path(cwd);
}

// What a player does for an instrument file: the module's directory and
// name, the packer suffix cut, another suffix, LoadFile, GetListData.
TEST_F(DosTest, CompanionBesideThePackedModule) {
    deli_set_module_path(m, tmp.name("song.xpk").c_str());
    tmp.file("song.smp", {1, 2, 3, 4, 5});
    write8(m, PATH_BUFFER, 0);
    for (int fn : {2, 3, 10}) call(P_FPTR, {.d7 = fn});  // CopyDir, CopyFile, CutSuffix
    call(P_FPTR, {.a0 = put(".smp"), .d7 = 4});           // CopyString
    EXPECT_EQ(get_string(m, PATH_BUFFER), tmp.name("song.smp"));
    EXPECT_EQ(call(P_NEG, {.d0 = 5, .d7 = -72}).d0, 0u);  // LoadFile's negative slot loads nothing
    EXPECT_EQ(m.file_list_count, 1u);
    // Twice through the pointer: each file starts on the next even address.
    const uint32_t first = MODULE_ADDR + MODULE_LEN + 1;
    for (uint32_t k = 1; k <= 2; k++) {
        expect_d0(call(P_FPTR, {.d0 = 5, .d7 = 1, .ccr = CCR_MASK}), 0);
        Seen s = call(P_FPTR, {.d0 = k, .d7 = 0});
        EXPECT_EQ(s.d0, 5u);
        EXPECT_EQ(s.a0, first + 6 * (k - 1));
    }
    EXPECT_EQ(chip(first, 6), (std::vector<uint8_t>{1, 2, 3, 4, 5, 0}));
    EXPECT_EQ(m.file_list_count, 3u);
    EXPECT_EQ(m.file_list_top, first + 11);
}

TEST_F(DosTest, CompanionFailures) {
    const std::string missing = tmp.name("missing.smp"), dir = tmp.name(""), two = tmp.file("two", {1, 2}),
                      four = tmp.file("four", {1, 2, 3, 4}), five = tmp.file("five", {1, 2, 3, 4, 5});
    struct Case { uint32_t module_len; std::string name, message; uint32_t want; };
    // A module that ends 5 bytes before the end of the window (4 after
    // rounding the next address up): 4 bytes fit, 5 do not.
    const uint32_t near_end = MODULE_WINDOW_END - MODULE_ADDR - 5;
    const Case cases[] = {
        {MODULE_LEN, missing, "deli_load_companion: cannot open '" + missing + "'\n", 1},
        {MODULE_LEN, tmp.file("empty", {}), "", 1},
        {MODULE_LEN, dir, "deli_load_companion: cannot open '" + dir + "'\n", 1},
        {near_end, five, "deli_load_companion: '" + five + "' (5 bytes) overflows chip RAM\n", 1},
        {near_end, four, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        deli_set_module(m, MODULE_ADDR, c.module_len);
        put(c.name, PATH_BUFFER);
        Seen s{};
        EXPECT_EQ(stderr_of([&] { s = call(P_FPTR, {.d7 = 1, .ccr = CCR_MASK}); }), c.message);
        expect_d0(s, c.want);
        EXPECT_EQ(m.file_list_count, c.want ? 1u : 2u);
    }
    EXPECT_EQ(m.file_list_addr[1] + m.file_list_len[1], MODULE_WINDOW_END);

    // Sixteen files with the module; the seventeenth does not fit the list.
    deli_set_module(m, MODULE_ADDR, MODULE_LEN);
    put(two, PATH_BUFFER);
    for (uint32_t k = 1; k < 16; k++) ASSERT_EQ(call(P_FPTR, {.d7 = 1}).d0, 0u) << k;
    Seen s{};
    EXPECT_EQ(stderr_of([&] { s = call(P_FPTR, {.d7 = 1}); }),
              "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(s.d0, 1u);
    EXPECT_EQ(m.file_list_count, 16u);
    s = call(P_FPTR, {.d0 = 15, .d7 = 0});  // GetListData of the last
    EXPECT_EQ(s.d0, 2u);
    EXPECT_EQ(s.a0, m.file_list_addr[15]);
}

// LoadSeg takes the name as it stands (no ENV: mapping, no case search) and
// gives each segment list the next blocks of the slab.
TEST_F(DosTest, LoadSeg) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    const std::string seg = tmp.file("seg", file);
    DataFile env("players/ENV/orvel-probe.seg", file);
    struct Case { std::string name, message; };
    std::vector<Case> cases = {{tmp.name("missing"), ""}, {tmp.file("empty", {}), ""}, {"ENV:orvel-probe.seg", ""},
                               {tmp.file("text", bytes_of("not a hunk file")), "hunk: missing HUNK_HEADER\n"}};
    if (!std::filesystem::exists(tmp.name("SEG"))) cases.push_back({tmp.name("SEG"), ""});  // unless as on Windows
    const uint32_t slab = m.alloc_slab;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Seen s{};
        EXPECT_EQ(stderr_of([&] { s = dos(LOADSEG, name_arg(c.name)); }), c.message);
        expect_d0(s, 0);
    }
    EXPECT_EQ(m.alloc_slab, slab);

    uint32_t bptr = 0;
    for (int k = 0; k < 2; k++) {
        const uint32_t start = m.alloc_slab;
        bptr = dos(LOADSEG, name_arg(seg)).d0;
        ASSERT_EQ(bptr, (start + 4) >> 2);
        ASSERT_EQ(m.hunk_count, 3u);  // code, data, bss
        deli_call(m, (bptr << 2) + 4 + 16);  // reloc.s: lea data_word,a0; rts
        EXPECT_EQ(m.a[0], m.hunk_addr[1] + 4);
    }
    uint32_t blocks = 0;
    for (uint32_t i = 0; i < m.hunk_count; i++) blocks += (m.hunk_size[i] + 8 + 3) & ~3u;
    EXPECT_EQ(m.alloc_slab, slab + 2 * blocks);
    EXPECT_EQ(dos(UNLOADSEG, bptr).d0, 0u);
    EXPECT_EQ(m.alloc_slab, slab + 2 * blocks);  // nothing given back
}

// Names without an end and reads that run over the top of memory stay in
// chip RAM.
TEST_F(DosTest, HostileNamesAndLengths) {
    std::memset(m.chip_ram + NAME, 'a', 4096);
    EXPECT_EQ(dos(OPEN, NAME).d0, 0u);
    EXPECT_EQ(dos(LOCK, NAME).d0, 0u);
    EXPECT_EQ(dos(LOADSEG, NAME).d0, 0u);
    write32(m, DELI_BASE + 0x20, NAME);
    const std::string cut(1023, 'a');
    EXPECT_EQ(stderr_of([&] { call(P_FPTR, {.d7 = 1}); }),
              "deli_load_companion: cannot open '" + cut + "'\n");

#ifndef _WIN32  // paths there end at 260 characters
    // Names are read up to 511 characters: one of exactly that length
    // opens, whatever follows it in memory.
    std::string relative;
    size_t rest = 511 - tmp.name("").size();
    for (; rest > 101; rest -= 101) relative += std::string(100, 'd') + "/";
    const std::string longest = tmp.file(relative + std::string(rest, 'f'), {1});
    ASSERT_EQ(longest.size(), 511u);
    EXPECT_NE(open(longest + "zzz"), 0u);
#endif

    std::vector<uint8_t> bytes(16);
    std::iota(bytes.begin(), bytes.end(), uint8_t(0x10));
    const uint32_t h = open(tmp.file("sixteen", bytes));
    ASSERT_NE(h, 0u);
    write32(m, 16, 0x12345678);
    EXPECT_EQ(dos(READ, h, 0xFFFFF8, 0xFFFFFFFF).d0, 16u);
    EXPECT_EQ(chip(0xFFFFF8, 8), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 8));
    EXPECT_EQ(chip(0, 8), std::vector<uint8_t>(bytes.begin() + 8, bytes.end()));
    EXPECT_EQ(read32(m, 16), 0x12345678u);
}
