#include <gtest/gtest.h>

#include <random>

#include "elf2hunk.h"
#include "host_test.h"

namespace {

#ifdef ORVEL_AMIGA_RELOC_ELF
constexpr const char* RELOC_ELF = ORVEL_AMIGA_RELOC_ELF;
constexpr const char* BAD_RELOC_ELF = ORVEL_AMIGA_BAD_RELOC_ELF;
#else
constexpr const char* RELOC_ELF = "";
constexpr const char* BAD_RELOC_ELF = "";
#endif

uint32_t be32(const std::vector<uint8_t>& v, size_t o) {
    return uint32_t(v[o]) << 24 | uint32_t(v[o + 1]) << 16 | uint32_t(v[o + 2]) << 8 | v[o + 3];
}
uint32_t be16(const std::vector<uint8_t>& v, size_t o) { return uint32_t(v[o]) << 8 | v[o + 1]; }

// File offset of the first entry of the first RELA section (type 4).
size_t first_rela(const std::vector<uint8_t>& elf) {
    size_t shoff = be32(elf, 32), entsize = be16(elf, 46), count = be16(elf, 48);
    for (size_t i = 0; i < count; i++) {
        size_t h = shoff + i * entsize;
        if (be32(elf, h + 4) == 4) return be32(elf, h + 16);
    }
    return 0;
}

std::string convert_error(const std::vector<uint8_t>& elf) {
    std::vector<uint8_t> out;
    std::string error;
    EXPECT_FALSE(elf2hunk_convert(elf, out, error));
    return error;
}

}  // namespace

// reloc.s converted: its exact hunk file, every relocation listed by target.
TEST(Elf2Hunk, ConvertsSectionsAndRelocations) {
    AMIGA_PROGRAM(elf, RELOC_ELF);
    std::vector<uint8_t> out;
    std::string error;
    ASSERT_TRUE(elf2hunk_convert(elf, out, error)) << error;
    const std::vector<uint8_t> want = be_longs({
        0x3F3, 0, 3, 0, 2, 7, 3, 80,                                             // header
        0x3E9, 7, 4, 72, 24, 0xDFF096, 0x41F90000, 0x00044E75, 0x12340000,       // code
        0x3EC, 1, 0, 8, 2, 1, 0, 18, 1, 2, 4, 0, 0x3F2,                          // its relocs
        0x3EA, 3, 0xCAFEF00D, 0, 64, 0x3EC, 1, 0, 4, 1, 2, 8, 0, 0x3F2,          // data
        0x3EB, 80, 0x3F2,                                                        // bss
    });
    EXPECT_EQ(out, want);
    // The tool wrote the same file during the build.
    AMIGA_PROGRAM(built, ORVEL_AMIGA_TEST_RELOC);
    EXPECT_EQ(built, want);
}

TEST(Elf2Hunk, RefusesWhatHunksCannotExpress) {
    AMIGA_PROGRAM(bad, BAD_RELOC_ELF);
    EXPECT_EQ(convert_error(bad),
              "R_68K_16 at .text+0x4 to '.text': a hunk file has no relocation of that width");

    AMIGA_PROGRAM(elf, RELOC_ELF);
    size_t rela = first_rela(elf);
    ASSERT_NE(rela, 0u);
    // The first relocation of .text is R_68K_32 at offset 0 against .data;
    // its type byte is the last of r_info.
    struct Case {
        uint8_t type;
        const char* error;
    };
    const Case cases[] = {
        {4, "R_68K_PC32 at .text+0x0 to '.data': PC-relative reference to another section"},
        {7, "R_68K_GOT32 at .text+0x0 to '.data': not expressible in a hunk file"},
        {22, "R_68K_RELATIVE at .text+0x0 to '.data': not expressible in a hunk file"},
        {200, "relocation type 200 at .text+0x0 to '.data': not expressible in a hunk file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.type));
        std::vector<uint8_t> patched = elf;
        patched[rela + 7] = c.type;
        EXPECT_EQ(convert_error(patched), c.error);
    }
}

TEST(Elf2Hunk, RefusesOtherFiles) {
    AMIGA_PROGRAM(elf, RELOC_ELF);
    auto patched = [&](size_t at, uint8_t value) {
        std::vector<uint8_t> v = elf;
        v[at] = value;
        return v;
    };
    struct Case {
        const char* what;
        std::vector<uint8_t> file;
        const char* error;
    };
    const Case cases[] = {
        {"empty", {}, "truncated ELF header"},
        {"text", std::vector<uint8_t>(64, 'x'), "not an ELF file"},
        {"64-bit", patched(4, 2), "not a 32-bit big-endian ELF file"},
        {"little-endian", patched(5, 1), "not a 32-bit big-endian ELF file"},
        {"x86", patched(19, 3), "not an m68k ELF file"},
        {"object file", patched(17, 1), "an object file, not a linked executable"},
        {"shared object", patched(17, 3), "not an ELF executable"},
        {"cut in the section headers", std::vector<uint8_t>(elf.begin(), elf.end() - 1),
         "truncated section headers"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(convert_error(c.file), c.error);
    }
}

TEST(Elf2Hunk, DamagedInputNeverCrashes) {
    AMIGA_PROGRAM(elf, RELOC_ELF);
    std::mt19937 rng(77);
    int converted = 0, refused = 0;
    for (int round = 0; round < 3000; round++) {
        std::vector<uint8_t> v = elf;
        int edits = 1 + int(rng() % 3);
        for (int e = 0; e < edits && !v.empty(); e++) {
            size_t at = rng() % v.size();
            if (rng() % 8 == 0) v.resize(at);
            else v[at] = uint8_t(rng());
        }
        std::vector<uint8_t> out;
        std::string error;
        if (elf2hunk_convert(v, out, error)) {
            converted++;
            ASSERT_GE(out.size(), 24u);
        } else {
            refused++;
            ASSERT_FALSE(error.empty());
            ASSERT_EQ(error.find('\n'), std::string::npos);
        }
    }
    EXPECT_GT(converted, 0);
    EXPECT_GT(refused, 0);
}
