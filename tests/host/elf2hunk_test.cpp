#include <gtest/gtest.h>

#include "elf2hunk.h"
#include "host_test.h"

namespace {

#ifdef ORVEL_AMIGA_RELOC_ELF
constexpr const char* RELOC_ELF = ORVEL_AMIGA_RELOC_ELF;
#else
constexpr const char* RELOC_ELF = "";
#endif

// File offset of the first entry of the first RELA section (type 4).
size_t first_rela(const std::vector<uint8_t>& elf) {
    auto be = [&](size_t at, int bytes) { uint32_t r = 0; while (bytes--) r = r << 8 | elf[at++]; return r; };
    size_t shoff = be(32, 4), entsize = be(46, 2), count = be(48, 2);
    for (size_t h = shoff; h < shoff + count * entsize; h += entsize)
        if (be(h + 4, 4) == 4) return be(h + 16, 4);
    return 0;
}

}  // namespace

// reloc.s converted: its exact hunk file, every relocation listed by target.
TEST(Elf2Hunk, ConvertsSectionsAndRelocations) {
    AMIGA_PROGRAM(elf, RELOC_ELF);
    AMIGA_PROGRAM(built, ORVEL_AMIGA_TEST_RELOC);  // the tool's output during the build
    std::vector<uint8_t> out;
    std::string error;
    ASSERT_TRUE(elf2hunk_convert(elf, out, error)) << error;
    EXPECT_EQ(out, built);
    EXPECT_EQ(built, be_longs({
        0x3F3, 0, 3, 0, 2, 7, 3, 80,                                             // header
        0x3E9, 7, 4, 72, 24, 0xDFF096, 0x41F90000, 0x00044E75, 0x12340000,       // code
        0x3EC, 1, 0, 8, 2, 1, 0, 18, 1, 2, 4, 0, 0x3F2,                          // its relocs
        0x3EA, 3, 0xCAFEF00D, 0, 64, 0x3EC, 1, 0, 4, 1, 2, 8, 0, 0x3F2,          // data
        0x3EB, 80, 0x3F2,                                                        // bss
    }));
}

// Files that are no linked m68k ELF, relocations a hunk file cannot express
// (R_68K_16 is checked on the tool itself, in tests.cmake), damaged files.
TEST(Elf2Hunk, Refuses) {
    AMIGA_PROGRAM(elf, RELOC_ELF);
    auto patched = [&](size_t at, uint8_t value) { auto v = elf; return v[at] = value, v; };
    // The first relocation of .text is R_68K_32 at offset 0 against .data;
    // its type is the last byte of r_info.
    const size_t type = first_rela(elf) + 7;
    ASSERT_NE(type, 7u);
    struct Case { std::vector<uint8_t> file; const char* error; };
    const Case cases[] = {
        {{}, "truncated ELF header"}, {std::vector<uint8_t>(64, 'x'), "not an ELF file"},
        {patched(5, 1), "not a 32-bit big-endian ELF file"}, {patched(19, 3), "not an m68k ELF file"},
        {patched(17, 1), "an object file, not a linked executable"}, {patched(17, 3), "not an ELF executable"},
        {std::vector<uint8_t>(elf.begin(), elf.end() - 1), "truncated section headers"},
        {patched(type, 4), "R_68K_PC32 at .text+0x0 to '.data': PC-relative reference to another section"},
        {patched(type, 200), "relocation type 200 at .text+0x0 to '.data': not expressible in a hunk file"},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> out;
        std::string error;
        EXPECT_FALSE(elf2hunk_convert(c.file, out, error)) << c.error;
        EXPECT_EQ(error, c.error);
    }
    // Damaged files: a conversion or one line of refusal, never a crash.
    fuzz(elf, 77, 3000, [](const std::vector<uint8_t>& v, int) {
        std::vector<uint8_t> out;
        std::string error;
        const bool converted = elf2hunk_convert(v, out, error);
        EXPECT_TRUE(converted ? out.size() >= 24 : !error.empty() && error.find('\n') == std::string::npos) << error;
        return converted;
    });
}
