#include <gtest/gtest.h>

#include "formats/loadfile.h"
#include "formats/xpk.h"
#include "formats_test_util.h"

namespace {

struct Chunk {
    uint8_t type;
    Bytes data;
    uint32_t ulen;
};

// An XPKF stream around the given chunks, padded to 4 bytes as XPK writes them.
Bytes xpk_stream(const char* id, uint32_t ulen, const std::vector<Chunk>& chunks, uint8_t flags = 0,
                 const Bytes& extended = {}) {
    Bytes b(36, 0);
    std::memcpy(b.data(), "XPKF", 4);
    std::memcpy(b.data() + 8, id, 4);
    put_be32(b, 12, ulen);
    b[32] = flags;
    if (flags & 4) {
        put_be16(b, 36, uint32_t(extended.size()));
        b.insert(b.end(), extended.begin(), extended.end());
    }
    for (const Chunk& c : chunks) {
        size_t at = b.size();
        if (flags & 1) {
            b.resize(at + 12, 0);
            put_be32(b, at + 4, uint32_t(c.data.size()));
            put_be32(b, at + 8, c.ulen);
        } else {
            b.resize(at + 8, 0);
            put_be16(b, at + 4, uint32_t(c.data.size()));
            put_be16(b, at + 6, c.ulen);
        }
        b[at] = c.type;
        b.insert(b.end(), c.data.begin(), c.data.end());
        while (b.size() % 4) b.push_back(0);
    }
    put_be32(b, 4, uint32_t(b.size() - 8));
    return b;
}

using Decoder = int (*)(const uint8_t*, uint32_t, uint8_t*, uint32_t);
int nuke(const uint8_t* s, uint32_t sl, uint8_t* d, uint32_t dl) { return xpk_nuke(s, sl, d, dl, 0); }
int duke(const uint8_t* s, uint32_t sl, uint8_t* d, uint32_t dl) { return xpk_nuke(s, sl, d, dl, 1); }

// Runs a decoder on an exact-size copy of the chunk (so that ASan sees any
// read past it) into an exact-size output.
bool decode(Decoder f, const Bytes& chunk, uint32_t ulen, Bytes& out) {
    uint8_t* src = static_cast<uint8_t*>(std::malloc(chunk.size() + 1));
    if (!chunk.empty()) std::memcpy(src, chunk.data(), chunk.size());
    uint8_t* dst = static_cast<uint8_t*>(std::malloc(ulen + 1));
    bool ok = f(src, uint32_t(chunk.size()), dst, ulen) == 0;
    out.assign(dst, dst + ulen);
    std::free(src);
    std::free(dst);
    return ok;
}

}  // namespace

TEST(Xpk, RealStreamsUnpackToTheOriginal) {
    Bytes raw;
    REQUIRE_TESTDATA("xpk/test_C1.raw", raw);
    for (const char* name : {"nuke", "duke", "sqsh", "fast", "rlen", "none"}) {
        SCOPED_TRACE(name);
        std::string path = testdata_path(std::string("xpk/test_C1_") + name + ".xpkf");
        testing::internal::CaptureStderr();
        uint32_t len = 0;
        uint8_t* data = load_file(path.c_str(), len);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        ASSERT_NE(data, nullptr);
        ASSERT_EQ(len, raw.size());
        EXPECT_EQ(std::memcmp(data, raw.data(), len), 0);
        std::free(data);
    }
}

TEST(Xpk, UnsupportedSubFormatsComeBackPacked) {
    Bytes file;
    REQUIRE_TESTDATA("xpk/test_C1_mash.xpkf", file);
    for (const char* id : {"MASH", "GZIP"}) {
        SCOPED_TRACE(id);
        std::string lower = id;
        for (char& c : lower) c = char(std::tolower(c));
        ASSERT_TRUE(read_whole(testdata_path("xpk/test_C1_" + lower + ".xpkf"), file));
        testing::internal::CaptureStderr();
        Bytes out = unpack_copy(file);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("xpk: unsupported sub-format '") + id + "'\n");
        EXPECT_EQ(out, file);
    }
}

TEST(Xpk, HandMadeChunks) {
    struct Case {
        const char* what;
        Decoder f;
        const char* chunk;
        uint32_t ulen;
        const char* result;  // null: failure
    };
    const Case cases[] = {
        {"FAST literals then match", xpk_fast, "41 42 00 2E 20 00", 6, "41 42 41 42 41 42"},
        {"FAST match clipped", xpk_fast, "41 42 00 2E 20 00", 5, "41 42 41 42 41"},
        {"FAST distance 0", xpk_fast, "41 42 00 0E 20 00", 6, nullptr},
        {"FAST distance beyond output", xpk_fast, "41 42 00 3E 20 00", 6, nullptr},
        {"FAST one literal", xpk_fast, "41 00 00", 1, "41"},
        {"FAST cursors meet", xpk_fast, "41 00 00", 2, nullptr},
        {"NUKE literals and match", nuke, "20 00 80 00 00 00 00 04 30 00 43 42 41", 6,
         "41 42 43 41 42 43"},
        {"DUKE delta undo", duke, "20 00 80 00 00 00 00 04 30 00 43 42 41", 6, "41 83 C6 07 49 8C"},
        {"NUKE match overflows", nuke, "20 00 80 00 00 00 00 04 30 00 43 42 41", 5, nullptr},
        {"NUKE ends after literals", nuke, "20 00 80 00 00 00 00 04 30 00 43 42 41", 3,
         "41 42 43"},
        {"NUKE distance 0", nuke, "20 00 80 00 00 00 00 04 00 00 43 42 41", 6, nullptr},
        {"NUKE empty chunk", nuke, "", 4, nullptr},
        {"SQSH literal and match", xpk_sqsh, "00 04 10 78 40 04", 4, "10 20 10 20"},
        {"SQSH header above ulen", xpk_sqsh, "00 05 10 78 40 04", 4, nullptr},
        {"SQSH header below ulen", xpk_sqsh, "00 04 10 78 40 04", 3, nullptr},
        {"SQSH two bytes", xpk_sqsh, "00 01", 1, nullptr},
        {"SQSH first byte only", xpk_sqsh, "00 01 7F", 1, "7F"},
        {"SQSH bits run out", xpk_sqsh, "00 03 10 78", 3, nullptr},
        {"RLEN literal and run", xpk_rlen, "02 41 42 FD 43", 5, "41 42 43 43 43"},
        {"RLEN control 0", xpk_rlen, "00 41", 1, nullptr},
        {"RLEN literal past input", xpk_rlen, "03 41 42", 3, nullptr},
        {"RLEN run past output", xpk_rlen, "FD 43", 2, nullptr},
        {"RLEN run without byte", xpk_rlen, "FD", 3, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes out;
        bool ok = decode(c.f, hex(c.chunk), c.ulen, out);
        EXPECT_EQ(ok, c.result != nullptr);
        if (ok && c.result) {
            EXPECT_EQ(out, hex(c.result));
        }
    }
}

TEST(Xpk, RealChunkCutShortFails) {
    Bytes file;
    REQUIRE_TESTDATA("xpk/test_C1_nuke.xpkf", file);
    // First chunk: short header at 36.
    uint32_t clen = uint32_t(file[40]) << 8 | file[41];
    uint32_t ulen = uint32_t(file[42]) << 8 | file[43];
    Bytes chunk(file.begin() + 44, file.begin() + 44 + clen);
    Bytes out;
    EXPECT_TRUE(decode(nuke, chunk, ulen, out));
    chunk.resize(clen / 2);
    EXPECT_FALSE(decode(nuke, chunk, ulen, out));
}

TEST(Xpk, Container) {
    const Bytes abc = hex("41 42 43");
    const Bytes duke_chunk = hex("20 00 80 00 00 00 00 04 30 00 43 42 41");
    struct Case {
        const char* what;
        Bytes stream;
        const char* result;  // null: comes back as it is
        std::string message;
    };
    Bytes password = xpk_stream("NONE", 3, {{1, abc, 3}}, 2);
    Bytes truncated = xpk_stream("NONE", 3, {{1, abc, 3}});
    truncated.resize(44);
    put_be32(truncated, 4, 100);
    Bytes zero_ulen = xpk_stream("NONE", 3, {{1, abc, 3}});
    put_be32(zero_ulen, 12, 0);
    Bytes short_file = password;  // below 44 bytes no stream is looked at: no message
    short_file.resize(43);
    Bytes past_file = xpk_stream("NONE", 3, {{1, abc, 3}});
    put_be16(past_file, 40, 200);  // packed length runs past the file
    const Case cases[] = {
        {"stored chunk", xpk_stream("NUKE", 3, {{0, abc, 3}}), "41 42 43", ""},
        {"NONE chunk", xpk_stream("NONE", 3, {{1, abc, 3}}), "41 42 43", ""},
        {"NONE with unequal lengths", xpk_stream("NONE", 2, {{1, abc, 2}}), nullptr, ""},
        {"stored with unequal lengths", xpk_stream("NONE", 2, {{0, abc, 2}}), nullptr, ""},
        {"long chunk headers", xpk_stream("NONE", 3, {{1, abc, 3}}, 1), "41 42 43", ""},
        {"extended header", xpk_stream("NONE", 3, {{1, abc, 3}}, 4, hex("AA BB CC DD EE")),
         "41 42 43", ""},
        {"two DUKE chunks restart the sum", xpk_stream("DUKE", 12, {{1, duke_chunk, 6}, {1, duke_chunk, 6}}),
         "41 83 C6 07 49 8C 41 83 C6 07 49 8C", ""},
        {"end chunk stops", xpk_stream("NONE", 3, {{1, abc, 3}, {15, {}, 0}, {1, abc, 3}}),
         "41 42 43", ""},
        {"SQSH chunk of nothing", xpk_stream("SQSH", 3, {{1, hex("00 00 00"), 0}, {0, abc, 3}}),
         "41 42 43", ""},
        {"SQSH chunk without its 3 bytes", xpk_stream("SQSH", 3, {{1, {}, 0}, {0, abc, 3}}), nullptr,
         ""},
        {"unknown chunk type", xpk_stream("NONE", 3, {{7, abc, 3}}), nullptr, ""},
        {"password", password, nullptr, "xpk: password-protected stream, cannot unpack\n"},
        {"truncated", truncated, nullptr, "xpk: truncated stream (packed=100 len=44)\n"},
        {"zero unpacked length", zero_ulen, nullptr, ""},
        {"43 bytes", short_file, nullptr, ""},
        {"chunk data past the file", past_file, nullptr, ""},
        {"more output than announced", xpk_stream("NONE", 2, {{1, abc, 3}}), nullptr, ""},
        {"end chunk too early", xpk_stream("NONE", 6, {{1, abc, 3}, {15, {}, 0}}), nullptr,
         "xpk: short output (3 of 6 bytes)\n"},
        {"stream ends too early", xpk_stream("NONE", 9, {{1, abc, 3}, {1, abc, 3}}), nullptr,
         "xpk: short output (6 of 9 bytes)\n"},
        {"failing chunk", xpk_stream("RLEN", 3, {{1, hex("00 00 00"), 3}}), nullptr, ""},
        {"unsupported only when a chunk is packed", xpk_stream("ABCD", 3, {{0, abc, 3}}),
         "41 42 43", ""},
        {"unsupported", xpk_stream("ABCD", 3, {{1, abc, 3}}), nullptr,
         "xpk: unsupported sub-format 'ABCD'\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        testing::internal::CaptureStderr();
        Bytes out = unpack_copy(c.stream);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        EXPECT_EQ(out, c.result ? hex(c.result) : c.stream);
    }
}
