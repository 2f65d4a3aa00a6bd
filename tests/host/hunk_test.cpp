#include <gtest/gtest.h>

#include <random>

#include "host/deli.h"
#include "host/hunk.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

// Block types.
constexpr uint32_t H = 0x3F3, CODE = 0x3E9, DATA = 0x3EA, BSS = 0x3EB, RELOC32 = 0x3EC,
                   NAME = 0x3E8, SYMBOL = 0x3F0, DEBUG = 0x3F1, END = 0x3F2, RELOC16 = 0x3ED,
                   EXT = 0x3EF;

struct HunkTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    uint32_t load(const std::vector<uint8_t>& file, std::string* err = nullptr,
                  uint32_t at = PLAYER_LOAD_ADDR) {
        uint32_t entry = 0;
        std::string e = stderr_of([&] {
            entry = hunk_load(m, file.data(), uint32_t(file.size()), at);
        });
        if (err) *err = e;
        return entry;
    }
};

}  // namespace

TEST_F(HunkTest, RefusedFilesSayWhy) {
    struct Case {
        const char* what;
        std::vector<uint8_t> file;
        const char* message;
    };
    const Case cases[] = {
        {"empty file", {}, "hunk: missing HUNK_HEADER\n"},
        {"header tag alone", be_longs({H}), "hunk: missing HUNK_HEADER\n"},
        {"no header", be_longs({CODE, 1, 0, END}), "hunk: missing HUNK_HEADER\n"},
        {"no hunks", be_longs({H, 0, 0, 0, 0}), "hunk: bad hunk count (0)\n"},
        {"65 hunks", be_longs({H, 0, 65, 0, 64}), "hunk: bad hunk count (65)\n"},
        {"size table cut", be_longs({H, 0, 2, 0, 1, 4}), "hunk: truncated header\n"},
        {"attributes cut", be_longs({H, 0, 1, 0, 0, 0xC0000001}), "hunk: truncated header\n"},
        {"names run off the end", be_longs({H, 5, 0}), "hunk: truncated header\n"},
        {"no hunk blocks", be_longs({H, 0, 1, 0, 0, 1}), "hunk: truncated at hunk 0\n"},
        {"second hunk missing", be_longs({H, 0, 2, 0, 1, 1, 1, CODE, 1, 0, END}),
         "hunk: truncated at hunk 1\n"},
        {"code cut short", be_longs({H, 0, 1, 0, 0, 2, CODE, 2, 0x4E754E75}),
         "hunk: short hunk 0\n"},
        {"code count missing", be_longs({H, 0, 1, 0, 0, 2, DATA}), "hunk: short hunk 0\n"},
        {"bss count missing", be_longs({H, 0, 1, 0, 0, 2, BSS}), "hunk: short hunk 0\n"},
        {"code count past 4 GiB", be_longs({H, 0, 1, 0, 0, 2, CODE, 0xFFFFFFFF, 0}),
         "hunk: short hunk 0\n"},
        {"reloc in place of contents", be_longs({H, 0, 1, 0, 0, 1, RELOC32, 0}),
         "hunk: unexpected tag 000003ec at hunk 0\n"},
        {"flags masked in message", be_longs({H, 0, 1, 0, 0, 1, 0x400003F2}),
         "hunk: unexpected tag 000003f2 at hunk 0\n"},
        {"next hunk without HUNK_END", be_longs({H, 0, 2, 0, 1, 1, 1, CODE, 1, 0, CODE, 1, 0, END}),
         "hunk: unhandled sub-tag 000003e9\n"},
        {"sub-tags are not masked", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, 0x400003F2}),
         "hunk: unhandled sub-tag 400003f2\n"},
        {"HUNK_RELOC16", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC16, 0, END}),
         "hunk: unhandled sub-tag 000003ed\n"},
        {"HUNK_EXT", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, EXT, 0, END}),
         "hunk: unhandled sub-tag 000003ef\n"},
        {"unknown sub-tag", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, 999, END}),
         "hunk: unhandled sub-tag 000003e7\n"},
        {"reloc target = hunk count", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC32, 1, 1, 0, 0, END}),
         "hunk: reloc target 1 out of range\n"},
        {"reloc block empty", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC32}),
         "hunk: short reloc32\n"},
        {"reloc target missing", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC32, 1}),
         "hunk: short reloc32\n"},
        {"reloc offsets cut", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC32, 3, 0, 0}),
         "hunk: short reloc32\n"},
        {"reloc terminator missing", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, RELOC32, 1, 0, 0}),
         "hunk: short reloc32\n"},
        {"name length missing", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, NAME}), ""},
        {"debug length missing", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, DEBUG}), ""},
        {"symbol length missing", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0, SYMBOL, 1, 0x41000000, 7}),
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string err;
        EXPECT_EQ(load(c.file, &err), 0u);
        EXPECT_EQ(err, c.message);
    }
}

TEST_F(HunkTest, AcceptedLayouts) {
    struct Case {
        const char* what;
        std::vector<uint8_t> file;
        std::vector<uint32_t> sizes;  // bytes per hunk
    };
    const Case cases[] = {
        {"last HUNK_END omitted", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0x4E754E71}), {4}},
        {"resident names skipped", be_longs({H, 2, 0x41424344, 0x45464748, 1, 0x49000000, 0, 1, 0, 0, 1, CODE, 1, 0x4E754E71, END}),
         {4}},
        // 110 in the top bits of a size: an attribute longword follows; 111: not.
        {"memory flags on sizes and tags",
         be_longs({H, 0, 3, 0, 2, 0xC0000001, 0x00010002, 0xE0000001, 0x40000001, 0x800003E9, 1,
                   0x4E754E71, END, 0x400003EA, 1, 0, END, 0x400003EB, 1, END}),
         {4, 4, 4}},
        {"name, symbols and debug skipped",
         be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0x4E754E71, NAME, 1, 0x41420000, SYMBOL, 1, 0x41000000,
                   8, 2, 0x42424242, 0x42000000, 12, 0, DEBUG, 2, 1, 2, RELOC32, 0, END}),
         {4}},
        {"name body past the end closes the hunk",
         be_longs({H, 0, 1, 0, 0, 1, CODE, 1, 0x4E754E71, NAME, 100}), {4}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string err;
        EXPECT_EQ(load(c.file, &err), PLAYER_LOAD_ADDR);
        EXPECT_EQ(err, "");
        ASSERT_EQ(m.hunk_count, c.sizes.size());
        for (size_t i = 0; i < c.sizes.size(); i++) EXPECT_EQ(m.hunk_size[i], c.sizes[i]);
        EXPECT_EQ(read32(m, PLAYER_LOAD_ADDR), 0x4E754E71u);
    }
}

TEST_F(HunkTest, HunksLieBackToBack) {
    for (uint32_t a = PLAYER_LOAD_ADDR; a < PLAYER_LOAD_ADDR + 0x200; a++) write8(m, a, 0xEE);
    auto file = be_longs({H, 0, 2, 0, 1, 0x40, 0x10, CODE, 2, 0x11111111, 0x22222222, END, DATA,
                          1, 0x33333333, END});
    EXPECT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(m.hunk_count, 2u);
    EXPECT_EQ(m.hunk_addr[0], 0x200000u);
    EXPECT_EQ(m.hunk_addr[1], 0x200100u);
    EXPECT_EQ(m.image_end, 0x200140u);
    EXPECT_EQ(read32(m, 0x200004), 0x22222222u);
    EXPECT_EQ(read32(m, 0x200100), 0x33333333u);
    // Only what the file holds is written: the rest of a hunk is not cleared.
    EXPECT_EQ(read8(m, 0x200008), 0xEE);
}

TEST_F(HunkTest, BssCountComesFromTheBlock) {
    for (uint32_t a = 0x200000; a < 0x200020; a++) write8(m, a, 0xEE);
    auto file = be_longs({H, 0, 1, 0, 0, 1, BSS, 4, END});
    EXPECT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(read32(m, 0x20000C), 0u);
    EXPECT_EQ(read8(m, 0x200010), 0xEE);
}

TEST_F(HunkTest, RelocationsAddTheTargetHunk) {
    // Hunk 0 (8 bytes) at 0x200000, hunk 1 at 0x200008. Offsets are not
    // checked against the hunk: offset 0x20 patches whatever lies there.
    write32(m, 0x200028, 0x1000);
    auto file = be_longs({H, 0, 2, 0, 1, 2, 1, CODE, 2, 0x10, 0x20, RELOC32, 1, 1, 0, 2, 0, 4, 0x28,
                          0, END, DATA, 1, 0x4, RELOC32, 1, 0, 0, 0, END});
    EXPECT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(read32(m, 0x200000), 0x200008u + 0x10);
    EXPECT_EQ(read32(m, 0x200004), 0x200000u + 0x20);
    EXPECT_EQ(read32(m, 0x200028), 0x200000u + 0x1000);
    EXPECT_EQ(read32(m, 0x200008), 0x200000u + 0x4);
}

TEST_F(HunkTest, SegmentListFromTheSlab) {
    m.alloc_slab = SLAB_START;
    auto file = be_longs({H, 0, 2, 0, 1, 3, 1, CODE, 3, 0x4E75, 0, 0x8, RELOC32, 1, 1, 8, 0, END,
                          BSS, 1, END});
    uint32_t seg = 0;
    std::string err = stderr_of([&] { seg = hunk_load_seglist(m, file.data(), uint32_t(file.size())); });
    EXPECT_EQ(err, "");
    // Blocks of (size + 8) rounded up to longwords: 20 and 12 bytes.
    EXPECT_EQ(seg, (SLAB_START + 4) >> 2);
    EXPECT_EQ(read32(m, SLAB_START), 12u + 8);
    EXPECT_EQ(read32(m, SLAB_START + 4), (SLAB_START + 20 + 4) >> 2);
    EXPECT_EQ(m.hunk_addr[0], SLAB_START + 8);
    EXPECT_EQ(read32(m, SLAB_START + 8), 0x4E75u);
    EXPECT_EQ(read32(m, SLAB_START + 16), SLAB_START + 20 + 8 + 8);  // relocated into hunk 1
    EXPECT_EQ(read32(m, SLAB_START + 20), 4u + 8);
    EXPECT_EQ(read32(m, SLAB_START + 24), 0u);  // last segment
    EXPECT_EQ(m.hunk_addr[1], SLAB_START + 28);
    EXPECT_EQ(m.alloc_slab, SLAB_START + 32);

    // A second LoadSeg takes the next blocks.
    seg = hunk_load_seglist(m, file.data(), uint32_t(file.size()));
    EXPECT_EQ(seg, (SLAB_START + 32 + 4) >> 2);
    EXPECT_EQ(m.alloc_slab, SLAB_START + 64);
}

TEST_F(HunkTest, SegmentListRunsOutOfSlab) {
    auto file = be_longs({H, 0, 1, 0, 0, 2, CODE, 2, 0, 0, END});
    struct Case {
        uint32_t slab;
        bool fits;
    };
    const Case cases[] = {{SLAB_END - 16, true}, {SLAB_END - 12, false}, {0, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slab);
        m.alloc_slab = c.slab;
        uint32_t seg = 1;
        std::string err =
            stderr_of([&] { seg = hunk_load_seglist(m, file.data(), uint32_t(file.size())); });
        EXPECT_EQ(seg != 0, c.fits);
        EXPECT_EQ(err, c.fits ? "" : "hunk_load_seglist: out of AllocMem slab\n");
    }
}

TEST_F(HunkTest, BuiltProgramLoadsAndRelocates) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    for (uint32_t a = 0x200000; a < 0x200400; a++) write8(m, a, 0xEE);
    ASSERT_EQ(load(file), PLAYER_LOAD_ADDR);
    ASSERT_EQ(m.hunk_count, 3u);  // code, data, bss (reloc.s)
    const uint32_t h0 = m.hunk_addr[0], h1 = m.hunk_addr[1], h2 = m.hunk_addr[2];
    EXPECT_EQ(m.hunk_size[0], 28u);
    EXPECT_EQ(m.hunk_size[1], 12u);
    EXPECT_EQ(m.hunk_size[2], 320u);
    EXPECT_EQ(h1, h0 + 28);
    EXPECT_EQ(h2, h1 + 12);
    EXPECT_EQ(m.image_end, h2 + 320);
    EXPECT_EQ(read32(m, h0 + 0), h1 + 4);
    EXPECT_EQ(read32(m, h0 + 4), h2 + 72);
    EXPECT_EQ(read32(m, h0 + 8), h0 + 24);
    EXPECT_EQ(read32(m, h0 + 12), 0xDFF096u);
    EXPECT_EQ(read16(m, h0 + 16), 0x41F9);  // lea abs.l,a0
    EXPECT_EQ(read32(m, h0 + 18), h1 + 4);
    EXPECT_EQ(read16(m, h0 + 24), 0x1234);
    EXPECT_EQ(read32(m, h1 + 0), 0xCAFEF00Du);
    EXPECT_EQ(read32(m, h1 + 4), h0);
    EXPECT_EQ(read32(m, h1 + 8), h2 + 64);
    for (uint32_t k = 0; k < 320; k++) ASSERT_EQ(read8(m, h2 + k), 0) << k;
}

TEST_F(HunkTest, BuiltProgramAsSegmentList) {
    AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_RELOC);
    m.alloc_slab = SLAB_START;
    uint32_t seg = hunk_load_seglist(m, file.data(), uint32_t(file.size()));
    ASSERT_EQ(seg, (SLAB_START + 4) >> 2);
    // Walk the list as LoadSeg's caller would: BCPL pointers to next links.
    uint32_t link = seg << 2, n = 0;
    while (link != 0 && n < 4) {
        EXPECT_EQ(link + 4, m.hunk_addr[n]);
        EXPECT_EQ(read32(m, link - 4), m.hunk_size[n] + 8);
        link = read32(m, link) << 2;
        n++;
    }
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(read32(m, m.hunk_addr[0]), m.hunk_addr[1] + 4);
    EXPECT_EQ(read32(m, m.hunk_addr[1] + 8), m.hunk_addr[2] + 64);
}

// Damaged files: every outcome is a load or a refusal, never a read outside
// the file (the sanitizer build watches), a hang, or a second message line.
TEST_F(HunkTest, DamagedFilesNeverCrash) {
    std::vector<uint8_t> base = be_longs({H, 1, 0x41424344, 0, 3, 0, 2, 3, 2, 0xC0000004, 0,
                                          CODE, 3, 0x4E754E71, 0, 4, RELOC32, 2, 1, 4, 8, 1, 2, 0,
                                          0, NAME, 1, 0x41000000, SYMBOL, 1, 0x42000000, 4, 0,
                                          END, DATA, 2, 0, 0, RELOC32, 1, 0, 0, 0, END, BSS, 4,
                                          DEBUG, 1, 0, END});
    ASSERT_EQ(load(base), PLAYER_LOAD_ADDR);
    std::mt19937 rng(20240611);
    int loaded = 0, refused = 0;
    std::string err = stderr_of([&] {
        for (int round = 0; round < 4000; round++) {
            std::vector<uint8_t> file = base;
            int edits = 1 + int(rng() % 4);
            for (int e = 0; e < edits; e++) {
                size_t at = rng() % file.size();
                switch (rng() % 4) {
                case 0: file[at] = uint8_t(rng()); break;
                case 1: file[at] ^= uint8_t(1u << (rng() % 8)); break;
                case 2: file[at & ~size_t(3)] = 0x80 | uint8_t(rng() & 0x7F); break;  // huge counts
                default: file.resize(at); break;
                }
                if (file.empty()) break;
            }
            // An exact-size heap copy, so that any overread is caught.
            std::vector<uint8_t> exact(file.begin(), file.end());
            uint32_t r;
            if (round & 1) {
                r = hunk_load(m, exact.data(), uint32_t(exact.size()), PLAYER_LOAD_ADDR);
            } else {
                m.alloc_slab = SLAB_START;
                r = hunk_load_seglist(m, exact.data(), uint32_t(exact.size()));
            }
            (r ? loaded : refused)++;
        }
    });
    EXPECT_GT(loaded, 0);
    EXPECT_GT(refused, 0);
    // Every message is one whole line of a known kind.
    size_t lines = 0;
    for (size_t p = 0; p < err.size();) {
        size_t nl = err.find('\n', p);
        ASSERT_NE(nl, std::string::npos);
        std::string line = err.substr(p, nl - p);
        EXPECT_TRUE(line.rfind("hunk: ", 0) == 0 || line.rfind("hunk_load_seglist: ", 0) == 0)
            << line;
        p = nl + 1;
        lines++;
    }
    EXPECT_LE(lines, size_t(refused));
}
