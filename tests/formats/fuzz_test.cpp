// Damaged archives and modules: whatever the bytes, unpacking and
// identification stay inside their buffers (the sanitizer build checks
// that), end, and either unpack fully or hand back the file as it is.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "formats/lha.h"
#include "formats/loadfile.h"
#include "formats/modclass.h"
#include "formats/xpk.h"
#include "formats_test_util.h"

namespace {

uint32_t le32(const Bytes& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24;
}
uint32_t be32(const Bytes& b, size_t at) {
    return uint32_t(b[at]) << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3];
}

// Every LHA and XPK test file; unpacking an .lzh file takes the LHA road.
const char* const ARCHIVES[] = {
    "lha/archives/lha_amiga_122/lh5.lzh",   "lha/archives/lha_unix114i/h0_lh5.lzh",
    "lha/archives/maclha_224/l0_lh5.lzh",   "lha/archives/morphos_lha_2717/h0_lh5.lzh",
    "lha/archives/regression/truncated.lzh", "lha/archives/lha213/lh5_long.lzh",
    "lha/archives/morphos_lha_2717/h2_lh5.lzh", "lha/archives/morphos_lha_2717/h0_metadata.lzh",
    "lha/archives/lha_amiga_122/level1.lzh", "lha/archives/lha_amiga_122/lh0.lzh",
    "lha/archives/lha_amiga_122/lh1.lzh",   "lha/archives/lha_amiga_122/lh4.lzh",
    "xpk/test_C1_nuke.xpkf", "xpk/test_C1_duke.xpkf", "xpk/test_C1_sqsh.xpkf",
    "xpk/test_C1_fast.xpkf", "xpk/test_C1_rlen.xpkf", "xpk/test_C1_none.xpkf",
    "xpk/test_C1_mash.xpkf", "xpk/test_C1_gzip.xpkf",
};

// The damaged file must come back either whole and unchanged or unpacked to
// the size its header announces.
void check_unpack(const Bytes& file, bool lha) {
    Bytes out = unpack_copy(file);
    if (out == file) return;
    ASSERT_GE(file.size(), 22u);
    uint32_t announced = lha ? le32(file, 11) : be32(file, 12);
    EXPECT_EQ(out.size(), announced);
}

// The header made to agree with a cut: level 0 with the packed size, or the
// XPK stream length, so that the decoders themselves meet the end.
void agree_with_cut(Bytes& file, bool lha) {
    if (lha && file.size() >= 22) {
        file[20] = 0;
        uint32_t data_off = file[0] + 2u;
        uint32_t packed = file.size() > data_off ? uint32_t(file.size()) - data_off : 0;
        for (int i = 0; i < 4; i++) file[7 + i] = uint8_t(packed >> (8 * i));
    } else if (!lha && file.size() >= 44) {
        put_be32(file, 4, uint32_t(file.size() - 8));
    }
}

}  // namespace

TEST(Fuzz, DamagedArchives) {
    Bytes probe;
    REQUIRE_TESTDATA("xpk/test_C1_nuke.xpkf", probe);
    std::mt19937 rng(20240601);
    testing::internal::CaptureStderr();
    for (const std::string path : ARCHIVES) {
        SCOPED_TRACE(path);
        const bool lha = path.ends_with(".lzh");
        Bytes original;
        ASSERT_TRUE(read_whole(testdata_path(path), original));
        if (lha) agree_with_cut(original, true);  // level-1 and -2 files as level 0
        const size_t n = original.size();

        // Cut at offsets spread over the file, and all through the headers.
        std::vector<size_t> cuts;
        for (size_t c = 0; c < 64 && c < n; c++) cuts.push_back(c);
        for (int i = 1; i < 24; i++) cuts.push_back(n * size_t(i) / 24);
        for (size_t cut : cuts) {
            Bytes f(original.begin(), original.begin() + cut);
            check_unpack(f, lha);
            agree_with_cut(f, lha);
            check_unpack(f, lha);
        }
        // Bits flipped and bytes replaced, anywhere or only in the packed data.
        for (int round = 0; round < 120; round++) {
            Bytes f = original;
            size_t from = round % 2 ? 0 : (lha ? original[0] + 2u : 36u);
            int changes = 1 + int(rng() % 8);
            for (int i = 0; i < changes; i++) {
                size_t at = from + rng() % (n - from);
                if (rng() % 2) f[at] ^= uint8_t(1u << (rng() % 8));
                else f[at] = uint8_t(rng());
            }
            check_unpack(f, lha);
        }
    }
    testing::internal::GetCapturedStderr();
}

TEST(Fuzz, RandomChunksIntoEachDecoder) {
    using Decoder = int (*)(const uint8_t*, uint32_t, uint8_t*, uint32_t);
    const Decoder decoders[] = {
        [](const uint8_t* s, uint32_t sl, uint8_t* d, uint32_t dl) { return xpk_nuke(s, sl, d, dl, 0); },
        [](const uint8_t* s, uint32_t sl, uint8_t* d, uint32_t dl) { return xpk_nuke(s, sl, d, dl, 1); },
        xpk_sqsh, xpk_fast, xpk_rlen,
    };
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        uint32_t src_len = rng() % 64;
        uint32_t dst_len = rng() % 512;
        // Exact-size heap buffers: any access beyond them is caught.
        std::unique_ptr<uint8_t[]> src(new uint8_t[src_len + 1]);
        std::unique_ptr<uint8_t[]> dst(new uint8_t[dst_len + 1]);
        for (uint32_t i = 0; i < src_len; i++) src[i] = uint8_t(rng());
        if (src_len >= 2 && rng() % 2) {  // SQSH needs its length word to get going
            src[0] = uint8_t(dst_len >> 8);
            src[1] = uint8_t(dst_len);
        }
        int result = decoders[round % 5](src.get(), src_len, dst.get(), dst_len);
        ASSERT_TRUE(result == 0 || result == 1);
    }
}

TEST(Fuzz, RandomLh5Streams) {
    std::mt19937 rng(11);
    auto state = std::make_unique<LhaState>();
    for (int round = 0; round < 1500; round++) {
        uint32_t in_len = rng() % 200;
        uint32_t out_len = rng() % 4096;
        std::unique_ptr<uint8_t[]> in(new uint8_t[in_len + 1]);
        std::unique_ptr<uint8_t[]> out(new uint8_t[out_len + 1]);
        for (uint32_t i = 0; i < in_len; i++) in[i] = uint8_t(rng());
        *state = {};
        int result = lha_decode(*state, in.get(), in_len, out.get(), out_len);
        ASSERT_TRUE(result == 0 || result == 1);
    }
}

TEST(Fuzz, DamagedModulesClassify) {
    Bytes original;
    REQUIRE_TESTDATA("mods/CV_BOSS.MOD", original);
    std::mt19937 rng(3);
    for (int round = 0; round < 400; round++) {
        Bytes m = original;
        // Damage the header (samples, orders, tag) and sometimes the length.
        for (int i = 0; i < 20; i++) m[rng() % 1084] = uint8_t(rng());
        std::memcpy(m.data() + 1080, "M.K.", 4);
        if (round % 3 == 0) m[952 + rng() % 128] = uint8_t(rng() % 128);
        if (round % 2) m.resize(1084 + rng() % (original.size() - 1084));
        int cls = mod31_classify(m.data(), uint32_t(m.size()));
        ASSERT_GE(cls, 0);
        ASSERT_LE(cls, 7);
    }
}
