#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>

#include "formats/lha.h"
#include "formats/loadfile.h"
#include "formats_test_util.h"

namespace {

std::unique_ptr<LhaState> new_state() { return std::make_unique<LhaState>(); }

// MSB-first bit writer for hand-made -lh5- streams.
struct BitWriter {
    Bytes bytes;
    int used = 8;
    void put(uint32_t value, int bits) {
        for (int i = bits - 1; i >= 0; i--) {
            if (used == 8) {
                bytes.push_back(0);
                used = 0;
            }
            if (value >> i & 1) bytes.back() |= uint8_t(0x80 >> used);
            used++;
        }
    }
    // A block whose three codes each have a single symbol: every lookup
    // returns it and consumes no bits.
    void single_symbol_block(uint32_t count, uint32_t literal_or_length, uint32_t position) {
        put(count, 16);
        put(0, LHA_TBIT);
        put(0, LHA_TBIT);
        put(0, LHA_CBIT);
        put(literal_or_length, LHA_CBIT);
        put(0, LHA_PBIT);
        put(position, LHA_PBIT);
    }
};

int decode(const Bytes& in, Bytes& out) {
    auto s = new_state();
    return lha_decode(*s, in.data(), uint32_t(in.size()), out.data(), uint32_t(out.size()));
}

// Canonical codes assigned the textbook way (per length, then by symbol),
// left-aligned in 16 bits.
std::vector<uint32_t> canonical_codes(const std::vector<uint8_t>& lengths) {
    uint32_t count[17] = {};
    for (uint8_t l : lengths) count[l]++;
    count[0] = 0;
    uint32_t next[18] = {};
    uint32_t code = 0;
    for (int l = 1; l <= 16; l++) {
        code = (code + count[l - 1]) << 1;
        next[l] = code;
    }
    std::vector<uint32_t> codes(lengths.size());
    for (size_t i = 0; i < lengths.size(); i++)
        if (lengths[i]) codes[i] = next[lengths[i]]++ << (16 - lengths[i]);
    return codes;
}

// Looks a left-aligned 16-bit code up the way the decoder does.
uint32_t lookup(const LhaState& s, const uint16_t* table, int bits, int nchar, uint32_t code16) {
    uint32_t c = table[code16 >> (16 - bits)];
    uint32_t mask = 1u << (15 - bits);
    for (int steps = 0; c >= uint32_t(nchar); steps++, mask >>= 1) {
        if (steps > 16 || c >= uint32_t(LHA_TREE_SIZE)) return UINT32_MAX;
        c = (code16 & mask) ? s.right[c] : s.left[c];
    }
    return c;
}

// Random complete prefix code: split leaves until there are n, never deeper than 16.
std::vector<uint8_t> random_complete_lengths(std::mt19937& rng, int n) {
    std::vector<uint8_t> leaves{1, 1};
    while (int(leaves.size()) < n) {
        size_t i = rng() % leaves.size();
        if (leaves[i] >= 16) continue;
        leaves[i]++;
        leaves.push_back(leaves[i]);
    }
    return leaves;
}

}  // namespace

TEST(Lha, RealArchives) {
    struct Case {
        const char* archive;
        const char* member;  // expected content; null: comes back as it is
        const char* message;
    };
    const Case cases[] = {
        {"lha_amiga_122/lh5.lzh", "gpl-2", ""},
        {"lha_unix114i/h0_lh5.lzh", "gpl-2", ""},
        {"maclha_224/l0_lh5.lzh", "gpl-2", ""},
        {"morphos_lha_2717/h0_lh5.lzh", "gpl-2", ""},
        {"morphos_lha_2717/h2_lh5.lzh", nullptr, "lha: unsupported header level 2\n"},
        {"lha213/lh5_long.lzh", nullptr, "lha: unsupported header level 1\n"},
        {"regression/truncated.lzh", nullptr, "lha: unsupported header level 1\n"},
        {"lha_amiga_122/level1.lzh", nullptr, ""},
        {"lha_amiga_122/lh0.lzh", nullptr, ""},
        {"lha_amiga_122/lh1.lzh", nullptr, ""},
        {"lha_amiga_122/lh4.lzh", nullptr, ""},
        {"morphos_lha_2717/h0_metadata.lzh", nullptr, ""},
    };
    Bytes probe;
    REQUIRE_TESTDATA("lha/archives/lha_amiga_122/lh5.lzh", probe);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.archive);
        std::string path = testdata_path(std::string("lha/archives/") + c.archive);
        Bytes file, expected;
        ASSERT_TRUE(read_whole(path, file));
        if (c.member)
            ASSERT_TRUE(read_whole(
                testdata_path(std::string("lha/expected/") + c.archive + "/" + c.member), expected));
        else
            expected = file;
        testing::internal::CaptureStderr();
        uint32_t len = 0;
        uint8_t* data = load_file(path.c_str(), len);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(Bytes(data, data + len), expected);
        std::free(data);
    }
}

TEST(Lha, NineBlockMemberDecodedDirectly) {
    Bytes file, expected;
    REQUIRE_TESTDATA("lha/archives/lha213/lh5_long.lzh", file);
    ASSERT_TRUE(read_whole(testdata_path("lha/expected/lha213/lh5_long.lzh/long.txt"), expected));
    // Level 1: the base header is followed by extended headers, each led by
    // its size; the packed size counts them too.
    uint32_t pos = file[0] + 2u;
    uint32_t packed = file[7] | file[8] << 8 | file[9] << 16 | uint32_t(file[10]) << 24;
    uint32_t unpacked = file[11] | file[12] << 8 | file[13] << 16 | uint32_t(file[14]) << 24;
    for (uint32_t ext = file[pos - 2] | file[pos - 1] << 8; ext != 0;
         ext = file[pos - 2] | file[pos - 1] << 8) {
        pos += ext;
        packed -= ext;
    }
    ASSERT_EQ(unpacked, expected.size());
    ASSERT_LE(pos + packed, file.size());
    Bytes in(file.begin() + pos, file.begin() + pos + packed);
    Bytes out(unpacked);
    EXPECT_EQ(decode(in, out), 0);
    EXPECT_TRUE(out == expected);
}

TEST(Lha, TruncatedLevel0Member) {
    Bytes file;
    REQUIRE_TESTDATA("lha/archives/regression/truncated.lzh", file);
    file[20] = 0;  // claim level 0: the header now promises more data than there is
    testing::internal::CaptureStderr();
    EXPECT_EQ(unpack_copy(file), file);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "lha: truncated archive (data_off=32 packed=7004 len=3000)\n");
}

TEST(Lha, HandMadeStreams) {
    struct Case {
        const char* what;
        std::vector<std::array<uint32_t, 3>> blocks;  // count, literal/length, position
        size_t out_len;
        int result;
        const char* output;
    };
    const Case cases[] = {
        {"single literal repeats without bits", {{3, 'A', 0}, {2, 'B', 0}}, 5, 0, "41 41 41 42 42"},
        {"match at the very start", {{1, 256, 0}}, 4, 1, nullptr},
        {"match of 10 cut at the end", {{1, 'A', 0}, {1, 256 + 7, 0}}, 5, 0, "41 41 41 41 41"},
        {"match reaching one byte too far", {{2, 'A', 0}, {1, 256, 2}}, 5, 1, nullptr},
        {"distance 2^(p-1) plus bits", {{2, 'A', 0}, {1, 'B', 0}, {1, 256, 2}}, 6, 0,
         "41 41 42 41 41 42"},
        {"empty member", {}, 0, 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        BitWriter w;
        // Position class 2 is 2 plus one plain bit, which past the end is 0.
        for (auto& b : c.blocks) w.single_symbol_block(b[0], b[1], b[2]);
        Bytes out(c.out_len);
        EXPECT_EQ(decode(w.bytes, out), c.result);
        if (c.result == 0) {
            EXPECT_EQ(out, hex(c.output));
        }
    }
    // After 65536 symbols of 'Z' a new block (all zero bits) gives literal 0.
    BitWriter w;
    w.single_symbol_block(0, 'Z', 0);
    Bytes out(65540);
    ASSERT_EQ(decode(w.bytes, out), 0);
    EXPECT_EQ(out[65535], 'Z');
    EXPECT_EQ(out[65536], 0);
}

TEST(Lha, TablesDecodeEveryCanonicalCode) {
    std::mt19937 rng(1234);
    struct Alphabet {
        int nchar, bits;
    };
    for (Alphabet a : {Alphabet{LHA_NT, LHA_PT_TABLE_BITS}, Alphabet{LHA_NP, LHA_PT_TABLE_BITS},
                       Alphabet{LHA_NC, LHA_C_TABLE_BITS}}) {
        for (int round = 0; round < 20; round++) {
            SCOPED_TRACE(testing::Message() << "nchar " << a.nchar << " round " << round);
            int used = 2 + int(rng() % (a.nchar - 1));
            std::vector<uint8_t> lengths = random_complete_lengths(rng, used);
            lengths.resize(a.nchar, 0);
            std::shuffle(lengths.begin(), lengths.end(), rng);
            auto s = new_state();
            uint16_t* table = a.bits == LHA_C_TABLE_BITS ? s->c_table : s->pt_table;
            lha_make_table(a.nchar, lengths.data(), a.bits, table, s->left, s->right);
            std::vector<uint32_t> codes = canonical_codes(lengths);
            for (int ch = 0; ch < a.nchar; ch++) {
                if (!lengths[ch]) continue;
                // Every continuation of the code must give the symbol.
                uint32_t span = 1u << (16 - lengths[ch]);
                for (uint32_t tail : {0u, span / 2, span - 1})
                    ASSERT_EQ(lookup(*s, table, a.bits, a.nchar, codes[ch] + tail), uint32_t(ch))
                        << "length " << int(lengths[ch]);
            }
        }
    }
}
