// Helpers shared by the formats tests: whole files as byte vectors, buffers
// in the malloc'ed form load_unpack takes, and big-endian writers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "formats/loadfile.h"
#include "test_machine.h"

using Bytes = std::vector<uint8_t>;

inline bool read_whole(const std::string& path, Bytes& out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    out.clear();
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    std::fclose(f);
    return true;
}

inline bool write_whole(const std::string& path, const Bytes& data) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = data.empty() || std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return std::fclose(f) == 0 && ok;
}

// Skips the calling test when the shared test data folder is absent.
#define REQUIRE_TESTDATA(rel, bytes)                                                       \
    do {                                                                                   \
        if (!read_whole(testdata_path(rel), bytes))                                        \
            GTEST_SKIP() << "test data not found: " << testdata_path(rel)                  \
                         << " (set ORVEL_TESTDATA_DIR to the shared testdata folder)";     \
    } while (0)

// Runs load_unpack on a copy of data; returns the result and its length.
inline Bytes unpack_copy(const Bytes& data) {
    uint8_t* buf = static_cast<uint8_t*>(std::malloc(data.empty() ? 1 : data.size()));
    if (!data.empty()) std::memcpy(buf, data.data(), data.size());
    uint32_t out_len = 0;
    uint8_t* out = load_unpack(buf, uint32_t(data.size()), out_len);
    Bytes result(out, out + out_len);
    std::free(out);
    return result;
}

inline void put_be16(Bytes& b, size_t at, uint32_t v) {
    if (b.size() < at + 2) b.resize(at + 2);
    b[at] = uint8_t(v >> 8);
    b[at + 1] = uint8_t(v);
}
inline void put_be32(Bytes& b, size_t at, uint32_t v) {
    put_be16(b, at, v >> 16);
    put_be16(b, at + 2, v & 0xFFFF);
}

inline Bytes hex(const char* text) {
    Bytes b;
    unsigned v;
    int n;
    while (std::sscanf(text, "%2x%n", &v, &n) == 1) {
        b.push_back(uint8_t(v));
        text += n;
        while (*text == ' ') text++;
    }
    return b;
}

// Sample header s (1-based) of a tracker module.
inline void put_sample(Bytes& b, int s, uint32_t length, uint8_t finetune, uint8_t volume,
                       uint32_t repeat_start, uint32_t repeat_length) {
    size_t h = 20 + 30 * size_t(s - 1);
    put_be16(b, h + 22, length);
    b[h + 24] = finetune;
    b[h + 25] = volume;
    put_be16(b, h + 26, repeat_start);
    put_be16(b, h + 28, repeat_length);
}

// A 31-instrument module: tag, samples, orders and notes set one by one.
struct Mod31 {
    Bytes b;
    Mod31(const char* tag, int patterns) : b(1084 + size_t(patterns) * 1024, 0) {
        std::memcpy(b.data() + 1080, tag, 4);
        b[950] = 1;
    }
    Mod31& sample(int s, uint32_t length, uint8_t finetune, uint8_t volume, uint32_t repeat_start,
                  uint32_t repeat_length) {
        put_sample(b, s, length, finetune, volume, repeat_start, repeat_length);
        return *this;
    }
    // Every sample empty with the given repeat length.
    Mod31& empty_samples(uint32_t repeat_length) {
        for (int s = 1; s <= 31; s++) sample(s, 0, 0, 0, 0, repeat_length);
        return *this;
    }
    Mod31& order(int i, uint8_t pattern) {
        b[952 + i] = pattern;
        return *this;
    }
    Mod31& restart(uint8_t r) {
        b[951] = r;
        return *this;
    }
    Mod31& song_length(uint8_t l) {
        b[950] = l;
        return *this;
    }
    Mod31& note(int pattern, int row, int channel, int effect, uint8_t param) {
        size_t at = 1084 + size_t(pattern) * 1024 + size_t(row) * 16 + size_t(channel) * 4;
        b[at + 2] = uint8_t(effect);
        b[at + 3] = param;
        return *this;
    }
};
