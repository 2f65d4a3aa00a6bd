#include <gtest/gtest.h>

#include <sstream>

#include "host/deli.h"
#include "host/hunk.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

// Block types.
constexpr uint32_t H = 0x3F3, CODE = 0x3E9, DATA = 0x3EA, BSS = 0x3EB, RELOC32 = 0x3EC, NAME = 0x3E8,
                   SYMBOL = 0x3F0, DEBUG = 0x3F1, END = 0x3F2, RELOC16 = 0x3ED;

struct HunkTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    // hunk_load at the player's address, or hunk_load_seglist into the slab.
    uint32_t load(const std::vector<uint8_t>& file, std::string* err = nullptr, bool seglist = false) {
        uint32_t r = 0;
        std::string e = stderr_of([&] {
            r = seglist ? hunk_load_seglist(m, file.data(), uint32_t(file.size()))
                        : hunk_load(m, file.data(), uint32_t(file.size()), PLAYER_LOAD_ADDR);
        });
        if (err) *err = e;
        return r;
    }
};

// One code hunk of one longword, then `tail`.
std::vector<uint8_t> code1(std::vector<uint32_t> tail) {
    tail.insert(tail.begin(), {H, 0, 1, 0, 0, 1, CODE, 1, 0});
    return be_longs(tail);
}

}  // namespace

TEST_F(HunkTest, RefusedFilesSayWhy) {
    const char* SHORT_RELOC = "hunk: short reloc32\n";
    struct Case { const char* what; std::vector<uint8_t> file; const char* message; };
    const Case cases[] = {
        {"header tag alone", be_longs({H}), "hunk: missing HUNK_HEADER\n"},
        {"no header", be_longs({CODE, 1, 0, END}), "hunk: missing HUNK_HEADER\n"},
        {"no hunks", be_longs({H, 0, 0, 0, 0}), "hunk: bad hunk count (0)\n"},
        {"65 hunks", be_longs({H, 0, 65, 0, 64}), "hunk: bad hunk count (65)\n"},
        {"size table cut", be_longs({H, 0, 2, 0, 1, 4}), "hunk: truncated header\n"},
        {"attributes cut", be_longs({H, 0, 1, 0, 0, 0xC0000001}), "hunk: truncated header\n"},
        {"names run off the end", be_longs({H, 5, 0}), "hunk: truncated header\n"},
        {"second hunk missing", be_longs({H, 0, 2, 0, 1, 1, 1, CODE, 1, 0, END}), "hunk: truncated at hunk 1\n"},
        {"code cut short", be_longs({H, 0, 1, 0, 0, 2, CODE, 2, 0}), "hunk: short hunk 0\n"},
        {"code count missing", be_longs({H, 0, 1, 0, 0, 2, DATA}), "hunk: short hunk 0\n"},
        {"bss count missing", be_longs({H, 0, 1, 0, 0, 2, BSS}), "hunk: short hunk 0\n"},
        {"code count past 4 GiB", be_longs({H, 0, 1, 0, 0, 2, CODE, 0xFFFFFFFF, 0}), "hunk: short hunk 0\n"},
        {"reloc for contents, flags masked", be_longs({H, 0, 1, 0, 0, 1, 0x400003EC, 0}),
         "hunk: unexpected tag 000003ec at hunk 0\n"},
        {"no HUNK_END before the next", code1({CODE, 1, 0, END}), "hunk: unhandled sub-tag 000003e9\n"},
        {"sub-tags are not masked", code1({0x400003F2}), "hunk: unhandled sub-tag 400003f2\n"},
        {"HUNK_RELOC16", code1({RELOC16, 0, END}), "hunk: unhandled sub-tag 000003ed\n"},
        {"reloc target = hunk count", code1({RELOC32, 1, 1, 0, 0, END}), "hunk: reloc target 1 out of range\n"},
        {"reloc block empty", code1({RELOC32}), SHORT_RELOC},
        {"reloc target missing", code1({RELOC32, 1}), SHORT_RELOC},
        {"reloc offsets cut", code1({RELOC32, 3, 0, 0}), SHORT_RELOC},
        {"reloc terminator missing", code1({RELOC32, 1, 0, 0}), SHORT_RELOC},
        {"name length missing", code1({NAME}), ""},
        {"symbol length missing", code1({SYMBOL, 1, 0x41000000, 7}), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string err;
        EXPECT_EQ(load(c.file, &err), 0u);
        EXPECT_EQ(err, c.message);
    }
}

TEST_F(HunkTest, AcceptedLayouts) {
    const uint32_t RTS_NOP = 0x4E754E71;
    struct Case { const char* what; std::vector<uint8_t> file; std::vector<uint32_t> sizes; };  // sizes in bytes
    const Case cases[] = {
        {"last HUNK_END omitted", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP}), {4}},
        {"resident names skipped",
         be_longs({H, 2, 0x41424344, 0x45464748, 1, 0x49000000, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP, END}), {4}},
        // 110 in the top bits of a size: an attribute longword follows; 111: not.
        {"memory flags on sizes and tags",
         be_longs({H, 0, 3, 0, 2, 0xC0000001, 0x00010002, 0xE0000001, 0x40000001, 0x800003E9, 1, RTS_NOP, END,
                   0x400003EA, 1, 0, END, 0x400003EB, 1, END}), {4, 4, 4}},
        {"name, symbols and debug skipped",
         be_longs({H, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP, NAME, 1, 0x41420000, SYMBOL, 1, 0x41000000, 8, 2,
                   0x42424242, 0x42000000, 12, 0, DEBUG, 2, 1, 2, RELOC32, 0, END}), {4}},
        {"name body past the end closes the hunk", be_longs({H, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP, NAME, 100}), {4}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string err;
        EXPECT_EQ(load(c.file, &err), PLAYER_LOAD_ADDR);
        EXPECT_EQ(err, "");
        ASSERT_EQ(m.hunk_count, c.sizes.size());
        for (size_t i = 0; i < c.sizes.size(); i++) EXPECT_EQ(m.hunk_size[i], c.sizes[i]);
        EXPECT_EQ(read32(m, PLAYER_LOAD_ADDR), RTS_NOP);
    }
}

// Hunks lie back to back at their header sizes. Only what the file holds is
// written: the rest of a hunk keeps its bytes, a BSS block clears the count
// it gives itself, and relocation offsets are not checked against the hunk.
TEST_F(HunkTest, CraftedFileLayout) {
    for (uint32_t a = 0x200000; a < 0x200220; a++) write8(m, a, 0xEE);
    write32(m, 0x200200, 0x1000);
    auto file = be_longs({H, 0, 3, 0, 2, 0x40, 2, 1,
                          CODE, 2, 0x10, 0x20, RELOC32, 1, 1, 0, 2, 0, 4, 0x200, 0, END,
                          DATA, 2, 0x4, 0x33333333, RELOC32, 1, 0, 0, 0, END, BSS, 4, END});
    EXPECT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(m.hunk_count, 3u);
    EXPECT_EQ(m.hunk_addr[1], 0x200100u);
    EXPECT_EQ(m.hunk_addr[2], 0x200108u);
    EXPECT_EQ(m.image_end, 0x20010Cu);
    EXPECT_EQ(read32(m, 0x200000), 0x200100u + 0x10);
    EXPECT_EQ(read32(m, 0x200004), 0x200000u + 0x20);
    EXPECT_EQ(read32(m, 0x200200), 0x200000u + 0x1000);
    EXPECT_EQ(read32(m, 0x200100), 0x200000u + 0x4);
    EXPECT_EQ(read32(m, 0x200104), 0x33333333u);
    EXPECT_EQ(read8(m, 0x200008), 0xEE);
    EXPECT_EQ(read32(m, 0x200114), 0u);
    EXPECT_EQ(read8(m, 0x200118), 0xEE);
}

TEST_F(HunkTest, SegmentListFromTheSlab) {
    m.alloc_slab = SLAB_START;
    auto file = be_longs({H, 0, 2, 0, 1, 3, 1, CODE, 3, 0x4E75, 0, 0x8, RELOC32, 1, 1, 8, 0, END, BSS, 1, END});
    std::string err;
    EXPECT_EQ(load(file, &err, true), (SLAB_START + 4) >> 2);
    EXPECT_EQ(err, "");
    // Blocks of (size + 8) rounded up to longwords: 20 and 12 bytes, each
    // its length, the BPTR to the next, then the hunk.
    const uint32_t longs[] = {12 + 8, (SLAB_START + 24) >> 2, 0x4E75, 0, SLAB_START + 36, 4 + 8, 0, 0};
    for (uint32_t k = 0; k < 8; k++) EXPECT_EQ(read32(m, SLAB_START + 4 * k), longs[k]) << k;
    EXPECT_EQ(m.hunk_addr[0], SLAB_START + 8);
    EXPECT_EQ(m.hunk_addr[1], SLAB_START + 28);
    EXPECT_EQ(m.alloc_slab, SLAB_START + 32);
    EXPECT_EQ(load(file, nullptr, true), (SLAB_START + 36) >> 2);  // the next blocks
    EXPECT_EQ(m.alloc_slab, SLAB_START + 64);

    struct Case { uint32_t slab; bool fits; };
    for (const Case& c : {Case{SLAB_END - 32, true}, Case{SLAB_END - 28, false}, Case{0, false}}) {
        SCOPED_TRACE(c.slab);
        m.alloc_slab = c.slab;
        EXPECT_EQ(load(file, &err, true) != 0, c.fits);
        EXPECT_EQ(err, c.fits ? "" : "hunk_load_seglist: out of AllocMem slab\n");
    }
}

// Damaged files: every outcome is a load or a refusal, never a read outside
// the file (the sanitizer build watches), a hang, or a second message line.
TEST_F(HunkTest, DamagedFilesNeverCrash) {
    const std::vector<uint8_t> base = be_longs({H, 1, 0x41424344, 0, 3, 0, 2, 3, 2, 0xC0000004, 0, CODE, 3,
                                                0x4E754E71, 0, 4, RELOC32, 2, 1, 4, 8, 1, 2, 0, 0, NAME, 1,
                                                0x41000000, SYMBOL, 1, 0x42000000, 4, 0, END, DATA, 2, 0, 0,
                                                RELOC32, 1, 0, 0, 0, END, BSS, 4, DEBUG, 1, 0, END});
    ASSERT_EQ(load(base), PLAYER_LOAD_ADDR);
    std::mt19937 rng(20240611);
    int loaded = 0, refused = 0;
    const std::string err = stderr_of([&] {
        for (int round = 0; round < 4000; round++) {
            std::vector<uint8_t> file = base;
            damage(rng, file);
            m.alloc_slab = SLAB_START;
            const uint32_t size = uint32_t(file.size());
            const uint32_t r = round & 1 ? hunk_load(m, file.data(), size, PLAYER_LOAD_ADDR)
                                         : hunk_load_seglist(m, file.data(), size);
            (r ? loaded : refused)++;
        }
    });
    EXPECT_GT(loaded, 0);
    EXPECT_GT(refused, 0);
    // At most one whole line of a known kind per refusal.
    std::istringstream lines(err);
    int count = 0;
    for (std::string line; std::getline(lines, line); count++)
        EXPECT_TRUE(line.rfind("hunk: ", 0) == 0 || line.rfind("hunk_load_seglist: ", 0) == 0) << line;
    EXPECT_TRUE(err.empty() || err.back() == '\n');
    EXPECT_LE(count, refused);
}
