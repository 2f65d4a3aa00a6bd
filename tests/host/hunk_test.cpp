#include <gtest/gtest.h>

#include <sstream>

#include "host/deli.h"
#include "host/hunk.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

// Block types.
constexpr uint32_t H = 0x3F3, CODE = 0x3E9, DATA = 0x3EA, BSS = 0x3EB, RELOC32 = 0x3EC, NAME = 0x3E8,
                   SYMBOL = 0x3F0, DEBUG = 0x3F1, END = 0x3F2, RTS_NOP = 0x4E754E71;

struct HunkTest : MachineTest {

    // hunk_load at the player's address, or hunk_load_seglist into the slab.
    uint32_t load(const std::vector<uint8_t>& file, std::string* err = nullptr, bool seglist = false) {
        uint32_t r = 0;
        const std::string e = stderr_of([&] {
            r = seglist ? hunk_load_seglist(m, file.data(), uint32_t(file.size()))
                        : hunk_load(m, file.data(), uint32_t(file.size()), PLAYER_LOAD_ADDR);
        });
        return err ? (*err = e, r) : r;
    }
};

// One code hunk of one longword, then `tail`.
std::vector<uint8_t> code1(std::vector<uint32_t> tail) {
    tail.insert(tail.begin(), {H, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP});
    return be_longs(tail);
}

}  // namespace

// Each file is refused with its message, or loaded with these hunk sizes in bytes.
TEST_F(HunkTest, FilesLoadedOrRefused) {
    const char *SHORT_RELOC = "hunk: short reloc32\n", *TRUNCATED = "hunk: truncated header\n",
               *SHORT = "hunk: short hunk 0\n";
    struct Case { std::vector<uint8_t> file; const char* message; std::vector<uint32_t> sizes = {}; };
    const Case cases[] = {
        {be_longs({H}), "hunk: missing HUNK_HEADER\n"}, {be_longs({H, 0, 0, 0, 0}), "hunk: bad hunk count (0)\n"},
        {be_longs({H, 0, 65, 0, 64}), "hunk: bad hunk count (65)\n"}, {be_longs({H, 5, 0}), TRUNCATED},  // names
        {be_longs({H, 0, 2, 0, 1, 4}), TRUNCATED}, {be_longs({H, 0, 1, 0, 0, 0xC0000001}), TRUNCATED},  // attributes
        {be_longs({H, 0, 2, 0, 1, 1, 1, CODE, 1, 0, END}), "hunk: truncated at hunk 1\n"},
        {be_longs({H, 0, 1, 0, 0, 2, CODE, 2, 0}), SHORT}, {be_longs({H, 0, 1, 0, 0, 2, BSS}), SHORT},
        {be_longs({H, 0, 1, 0, 0, 2, CODE, 0xFFFFFFFF, 0}), SHORT},  // past 4 GiB
        {be_longs({H, 0, 1, 0, 0, 1, 0x400003EC, 0}), "hunk: unexpected tag 000003ec at hunk 0\n"},  // flags masked
        {code1({CODE, 1, 0, END}), "hunk: unhandled sub-tag 000003e9\n"}, {code1({RELOC32}), SHORT_RELOC},
        {code1({0x3ED, 0, END}), "hunk: unhandled sub-tag 000003ed\n"},  // HUNK_RELOC16
        {code1({0x400003F2}), "hunk: unhandled sub-tag 400003f2\n"},  // sub-tags are not masked
        {code1({RELOC32, 1, 1, 0, 0, END}), "hunk: reloc target 1 out of range\n"}, {code1({NAME}), ""},
        {code1({RELOC32, 3, 0, 0}), SHORT_RELOC}, {code1({SYMBOL, 1, 0x41000000, 7}), ""},
        {be_longs({H, 2, 0x41424344, 0x45464748, 1, 0x49000000, 0, 1, 0, 0, 1, CODE, 1, RTS_NOP}), "", {4}},  // names
        // 110 in the top bits of a size: an attribute longword follows; 111: not.
        {be_longs({H, 0, 3, 0, 2, 0xC0000001, 0x00010002, 0xE0000001, 0x40000001, 0x800003E9, 1, RTS_NOP, END,
                   0x400003EA, 1, 0, END, 0x400003EB, 1, END}), "", {4, 4, 4}},
        {code1({NAME, 1, 0x41420000, SYMBOL, 1, 0x41000000, 8, 2, 0x42424242, 0x42000000, 12, 0, DEBUG, 2, 1, 2,
                RELOC32, 0, END}), "", {4}},
        {code1({NAME, 100}), "", {4}},  // a name body past the end closes the hunk
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::string err;
        write32(m, PLAYER_LOAD_ADDR, 0);
        EXPECT_EQ(load(c.file, &err), c.sizes.empty() ? 0 : PLAYER_LOAD_ADDR);
        EXPECT_EQ(err, c.message);
        if (c.sizes.empty()) continue;
        EXPECT_EQ(std::vector<uint32_t>(m.hunk_size, m.hunk_size + m.hunk_count), c.sizes);
        EXPECT_EQ(read32(m, PLAYER_LOAD_ADDR), RTS_NOP);
    }
}

// Hunks lie back to back at their header sizes. Only what the file holds is
// written: the rest of a hunk keeps its bytes, a BSS block clears the count
// it gives itself, and relocation offsets are not checked against the hunk.
TEST_F(HunkTest, CraftedFileLayout) {
    for (uint32_t a = 0x200000; a < 0x200220; a++) write8(m, a, 0xEE);
    write32(m, 0x200200, 0x1000);
    auto file = be_longs({H, 0, 3, 0, 2, 0x40, 2, 1, CODE, 2, 0x10, 0x20, RELOC32, 1, 1, 0, 2, 0, 4, 0x200, 0, END,
                          DATA, 2, 0x4, 0x33333333, RELOC32, 1, 0, 0, 0, END, BSS, 4, END});
    EXPECT_EQ(load(file), PLAYER_LOAD_ADDR);
    EXPECT_EQ(m.image_end, 0x20010Cu);
    EXPECT_EQ(longs_at(m, {0x200000, 0x200004, 0x200008, 0x200200, 0x200100, 0x200104, 0x200114, 0x200118}),
              (std::vector<uint32_t>{0x200110, 0x200020, 0xEEEEEEEE, 0x201000, 0x200004, 0x33333333, 0, 0xEEEEEEEE}));
}

// Damaged files: a load or a refusal with at most one known line, never a read
// outside the file (the sanitizer build watches) or a hang.
TEST_F(HunkTest, DamagedFilesNeverCrash) {
    const std::vector<uint8_t> base = be_longs({H, 1, 0x41424344, 0, 3, 0, 2, 3, 2, 0xC0000004, 0, CODE, 3,
                                                0x4E754E71, 0, 4, RELOC32, 2, 1, 4, 8, 1, 2, 0, 0, NAME, 1,
                                                0x41000000, SYMBOL, 1, 0x42000000, 4, 0, END, DATA, 2, 0, 0,
                                                RELOC32, 1, 0, 0, 0, END, BSS, 4, DEBUG, 1, 0, END});
    ASSERT_EQ(load(base), PLAYER_LOAD_ADDR);
    fuzz(base, 20240611, 4000, [&](const std::vector<uint8_t>& file, int round) {
        m.alloc_slab = SLAB_START;
        std::string err;
        const bool loaded = load(file, &err, round & 1) != 0;
        EXPECT_TRUE(err.empty() || (!loaded && err.rfind("hunk", 0) == 0 && err.find('\n') == err.size() - 1)) << err;
        return loaded;
    });
}
