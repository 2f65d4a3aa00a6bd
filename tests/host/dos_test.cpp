// dos.library and companion files from the probe player: host files
// opened, read and sought through eight handles, ENV: in the data
// directory, names matched without regard to case, LoadSeg of a hunk file
// built by the toolchain.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

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
    std::vector<uint8_t> chip(uint32_t address, size_t n) {
        std::vector<uint8_t> v;
        for (size_t k = 0; k < n; k++) v.push_back(read8(m, address + uint32_t(k)));
        return v;
    }
    std::string read_all(uint32_t handle) {
        uint32_t n = dos(READ, handle, BUFFER, 256).d0;
        return n <= 256 ? get_string(m, BUFFER, n) : "";
    }
    // Whether the host file system itself ignores case in names (Windows).
    bool host_ignores_case(const std::string& lower_name, const std::string& upper_name) {
        FILE* f = std::fopen(upper_name.c_str(), "rb");
        if (f) std::fclose(f);
        return f != nullptr && lower_name != upper_name;
    }
};

// The current directory for a while.
struct ScopedCwd {
    std::filesystem::path saved = std::filesystem::current_path();
    explicit ScopedCwd(const std::filesystem::path& p) { std::filesystem::current_path(p); }
    ~ScopedCwd() { std::filesystem::current_path(saved); }
};

std::string resolved(const std::string& amiga_name) {
    char out[1024];
    host_resolve_path(amiga_name.c_str(), out);
    return out;
}

}  // namespace

TEST_F(DosTest, OpenReadSeekClose) {
    const std::string name = tmp.file("data.bin", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    const uint32_t h = open(name);
    ASSERT_EQ(h, 1u);
    std::memset(m.chip_ram + BUFFER, 0xEE, 64);
    struct Step {
        const char* what;
        int lvo;
        uint32_t d2, d3, want;
        std::vector<uint8_t> memory;  // at D2 afterwards
    };
    const Step steps[] = {
        {"read 4", READ, BUFFER, 4, 4, {0, 1, 2, 3, 0xEE}},
        {"where", SEEK, 0, 0, 4, {}},
        {"to the end: the old position", SEEK, 0, 1, 4, {}},
        {"to 2: the length", SEEK, 2, 0xFFFFFFFF, 10, {}},
        {"read nothing", READ, BUFFER + 8, 0, 0, {0xEE}},
        {"read past the end", READ, BUFFER + 8, 100, 8, {2, 3, 4, 5, 6, 7, 8, 9, 0xEE}},
        {"at the end", READ, BUFFER + 8, 100, 0, {2}},
        {"back 3 from here", SEEK, 0xFFFFFFFD, 0, 10, {}},
        {"all there is", READ, BUFFER + 20, 0xFFFFFFFF, 3, {7, 8, 9, 0xEE}},
        {"before the start: not moved", SEEK, 0xFFFFFFF0, 0xFFFFFFFF, 10, {}},
        {"still at the end", SEEK, 0, 0, 10, {}},
        {"1 before the end", SEEK, 0xFFFFFFFF, 1, 10, {}},
        {"the last byte", READ, BUFFER + 30, 5, 1, {9, 0xEE}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        Seen r = dos(s.lvo, h, s.d2, s.d3);
        EXPECT_EQ(r.d0, s.want);
        EXPECT_EQ(r.ccr, tst_flags(s.want, SR_X));
        EXPECT_EQ(chip(s.d2, s.memory.size()), s.memory);
    }
    Seen r = dos(CLOSE, h);
    EXPECT_EQ(r.d0, DOS_FAIL);
    EXPECT_EQ(r.ccr, SR_X | SR_N);
}

TEST_F(DosTest, BadHandles) {
    ASSERT_EQ(open(tmp.file("x", {1})), 1u);
    ASSERT_EQ(dos(CLOSE, 1).d0, DOS_FAIL);
    write8(m, BUFFER, 0xEE);
    for (uint32_t handle : {0u, 1u, 2u, 9u, 0x80000001u, 0xFFFFFFFFu})
        for (int lvo : {CLOSE, READ, SEEK}) {
            SCOPED_TRACE(testing::Message() << handle << " " << lvo);
            Seen s = dos(lvo, handle, BUFFER, 4);
            EXPECT_EQ(s.d0, DOS_FAIL);
            EXPECT_EQ(s.ccr, SR_X | SR_N);
        }
    EXPECT_EQ(read8(m, BUFFER), 0xEE);
}

TEST_F(DosTest, EightHandlesAtMost) {
    const std::string name = tmp.file("f", {'a', 'b'});
    for (uint32_t k = 1; k <= 8; k++) ASSERT_EQ(open(name), k);
    EXPECT_EQ(open(name), 0u);
    EXPECT_EQ(dos(LOCK, name_arg(name)).d0, 1u);  // Lock takes no handle
    dos(CLOSE, 3);
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
}

TEST_F(DosTest, LockTellsWhetherAFileOpens) {
    const std::string name = tmp.file("l", {1});
    struct Case {
        std::string name;
        uint32_t want;
    };
    tmp.file("sub/x", {});
    const Case cases[] = {{name, 1}, {tmp.name("L"), 1}, {tmp.name("missing"), 0}, {"", 0},
                          {tmp.name("sub"), 0}};  // a directory is no file
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Seen s = dos(LOCK, name_arg(c.name));
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, SR_X));
    }
    EXPECT_EQ(dos(UNLOCK, 1).d0, 0u);
    EXPECT_EQ(open(tmp.name("sub")), 0u);
    EXPECT_EQ(open(name), 1u);  // Lock left every handle free
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
    const bool ignores_case = host_ignores_case(exact, tmp.name("DIR/MOD.TITLE"));

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
    {
        ScopedCwd cwd(tmp.path / "dir");  // a bare name is looked for here
        EXPECT_EQ(resolved("MOD.TITLE"), ignores_case ? "MOD.TITLE" : "mod.title");
        EXPECT_EQ(resolved("other"), "other");
    }
}

// What a player does for an instrument file: the module's directory and
// name, the packer suffix cut, another suffix, LoadFile, GetListData.
TEST_F(DosTest, CompanionBesideThePackedModule) {
    deli_set_module_path(m, tmp.name("song.xpk").c_str());
    tmp.file("song.smp", {1, 2, 3, 4, 5});
    Seen s = call(P_COMPANION);
    EXPECT_EQ(get_string(m, PATH_BUFFER), tmp.name("song.smp"));
    const uint32_t address = MODULE_ADDR + MODULE_LEN + 1;  // even
    EXPECT_EQ(s.d0, 5u);
    EXPECT_EQ(s.a0, address);
    EXPECT_EQ(chip(address, 6), (std::vector<uint8_t>{1, 2, 3, 4, 5, 0}));
    EXPECT_EQ(m.file_list_count, 2u);
    EXPECT_EQ(m.file_list_top, address + 5);
}

TEST_F(DosTest, LoadFileActsOnlyThroughThePointer) {
    const std::string name = tmp.file("c.bin", {7, 7, 7});
    put(name, PATH_BUFFER);
    Seen s = call(P_NEG, {.d0 = 5, .d7 = -72, .ccr = CCR_MASK});
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(m.file_list_count, 1u);

    s = call(P_FPTR, {.d0 = 5, .d7 = 1, .ccr = CCR_MASK});
    EXPECT_EQ(s.d0, 0u);
    EXPECT_EQ(s.ccr, SR_X | SR_Z);
    ASSERT_EQ(m.file_list_count, 2u);
    EXPECT_EQ(m.file_list_addr[1], MODULE_ADDR + MODULE_LEN + 1);
    EXPECT_EQ(m.file_list_len[1], 3u);
    call(P_FPTR, {.d7 = 1});  // the next one starts on the next even address
    ASSERT_EQ(m.file_list_count, 3u);
    EXPECT_EQ(m.file_list_addr[2], MODULE_ADDR + MODULE_LEN + 1 + 4);
}

TEST_F(DosTest, CompanionFailures) {
    const std::string missing = tmp.name("missing.smp"), empty = tmp.file("empty", {});
    const std::string two = tmp.file("two", {1, 2}), four = tmp.file("four", {1, 2, 3, 4}),
                      five = tmp.file("five", {1, 2, 3, 4, 5});
    struct Case {
        const char* what;
        uint32_t module_len;
        std::string name, message;
        uint32_t want;
    };
    // A module that ends 5 bytes before the end of the window (4 after
    // rounding the next address up).
    const uint32_t near_end = MODULE_WINDOW_END - MODULE_ADDR - 5;
    const Case cases[] = {
        {"missing", MODULE_LEN, missing, "deli_load_companion: cannot open '" + missing + "'\n", 1},
        {"empty", MODULE_LEN, empty, "", 1},
        {"a directory", MODULE_LEN, tmp.name(""), "deli_load_companion: cannot open '" + tmp.name("") + "'\n", 1},
        {"one byte too many", near_end, five,
         "deli_load_companion: '" + five + "' (5 bytes) overflows chip RAM\n", 1},
        {"up to the end", near_end, four, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        deli_set_module(m, MODULE_ADDR, c.module_len);
        put(c.name, PATH_BUFFER);
        Seen s{};
        EXPECT_EQ(stderr_of([&] { s = call(P_FPTR, {.d7 = 1, .ccr = CCR_MASK}); }), c.message);
        EXPECT_EQ(s.d0, c.want);
        EXPECT_EQ(s.ccr, tst_flags(c.want, CCR_MASK));
        EXPECT_EQ(m.file_list_count, c.want ? 1u : 2u);
    }
    EXPECT_EQ(m.file_list_addr[1] + m.file_list_len[1], MODULE_WINDOW_END);

    // Sixteen files with the module; the seventeenth does not fit the list.
    deli_set_module(m, MODULE_ADDR, MODULE_LEN);
    for (uint32_t k = 1; k < 16; k++) {
        put(two, PATH_BUFFER);
        ASSERT_EQ(call(P_FPTR, {.d7 = 1}).d0, 0u) << k;
    }
    put(two, PATH_BUFFER);
    Seen s{};
    EXPECT_EQ(stderr_of([&] { s = call(P_FPTR, {.d7 = 1}); }),
              "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(s.d0, 1u);
    EXPECT_EQ(m.file_list_count, 16u);
    s = call(P_FPTR, {.d0 = 15, .d7 = 0});  // GetListData of the last
    EXPECT_EQ(s.d0, 2u);
    EXPECT_EQ(s.a0, m.file_list_addr[15]);
}

TEST_F(DosTest, LoadSegOfABuiltHunkFile) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    const std::string seg = tmp.file("seg", file);
    const uint32_t slab = m.alloc_slab;
    call(P_LOADSEG, {.d1 = name_arg(seg)});
    ASSERT_EQ(st(ST_SEG), (slab + 4) >> 2);
    EXPECT_EQ(st(ST_SEG_COUNT), 3u);  // code, data, bss
    EXPECT_EQ(m.hunk_count, 3u);
    EXPECT_EQ(st(ST_SEG_A0), m.hunk_addr[1] + 4);  // segment 0's code ran, relocated
    uint32_t blocks = 0;
    for (uint32_t i = 0; i < m.hunk_count; i++) blocks += (m.hunk_size[i] + 8 + 3) & ~3u;
    EXPECT_EQ(m.alloc_slab, slab + blocks);

    call(P_LOADSEG, {.d1 = name_arg(seg)});  // the next blocks of the slab
    EXPECT_EQ(st(ST_SEG), (slab + blocks + 4) >> 2);
    EXPECT_EQ(m.alloc_slab, slab + 2 * blocks);
    EXPECT_EQ(dos(UNLOADSEG, st(ST_SEG)).d0, 0u);
    EXPECT_EQ(m.alloc_slab, slab + 2 * blocks);  // nothing given back
}

// LoadSeg takes the name as it stands: no ENV: mapping, no case search.
TEST_F(DosTest, LoadSegFailures) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    const std::string seg = tmp.file("seg", file);
    DataFile env("players/ENV/orvel-probe.seg", file);
    struct Case {
        std::string name, message;
    };
    std::vector<Case> cases = {
        {tmp.name("missing"), ""},
        {tmp.file("empty", {}), ""},
        {tmp.file("text", bytes_of("not a hunk file")), "hunk: missing HUNK_HEADER\n"},
        {"ENV:orvel-probe.seg", ""},
    };
    if (!host_ignores_case(seg, tmp.name("SEG"))) cases.push_back({tmp.name("SEG"), ""});
    const uint32_t slab = m.alloc_slab;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Seen s{};
        EXPECT_EQ(stderr_of([&] { s = dos(LOADSEG, name_arg(c.name)); }), c.message);
        EXPECT_EQ(s.d0, 0u);
        EXPECT_EQ(s.ccr, SR_X | SR_Z);
    }
    EXPECT_EQ(m.alloc_slab, slab);
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

    std::vector<uint8_t> bytes;
    for (uint8_t b = 0x10; b < 0x20; b++) bytes.push_back(b);
    const uint32_t h = open(tmp.file("sixteen", bytes));
    ASSERT_NE(h, 0u);
    write32(m, 16, 0x12345678);
    EXPECT_EQ(dos(READ, h, 0xFFFFF8, 0xFFFFFFFF).d0, 16u);
    EXPECT_EQ(chip(0xFFFFF8, 8), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 8));
    EXPECT_EQ(chip(0, 8), std::vector<uint8_t>(bytes.begin() + 8, bytes.end()));
    EXPECT_EQ(read32(m, 16), 0x12345678u);
}
