// Helpers for the player-host tests: big-endian file images, code placed in
// chip RAM, the Amiga programs built from tests/host/amiga, and stderr
// capture.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "cpu/bus.h"
#include "machine.h"

// A file image from big-endian longwords.
inline std::vector<uint8_t> be_longs(const std::vector<uint32_t>& longs) {
    std::vector<uint8_t> out;
    for (uint32_t v : longs)
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
    return out;
}

inline void put_words(Machine& m, uint32_t address, const std::vector<uint16_t>& words) {
    for (size_t k = 0; k < words.size(); k++) write16(m, address + 2 * uint32_t(k), words[k]);
}

inline void put_string(Machine& m, uint32_t address, const std::string& s) {
    for (size_t k = 0; k <= s.size(); k++) write8(m, address + uint32_t(k), uint8_t(s.c_str()[k]));
}

inline std::string get_string(Machine& m, uint32_t address, size_t max = 4096) {
    std::string s;
    for (char c; s.size() < max && (c = char(read8(m, address + uint32_t(s.size())))) != 0;) s += c;
    return s;
}

inline std::vector<uint8_t> read_host_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// The hunk file of an Amiga program built for the tests; the test is skipped
// when the build had no m68k cross tools.
#define AMIGA_PROGRAM(var, path)                                                     \
    std::vector<uint8_t> var;                                                        \
    do {                                                                             \
        if (std::string(path).empty())                                               \
            GTEST_SKIP() << "Amiga programs not built (no m68k cross tools)";        \
        var = read_host_file(path);                                                  \
        ASSERT_FALSE(var.empty()) << "cannot read " << (path);                       \
    } while (0)

// Runs f with stderr captured; returns what it printed (without the
// carriage returns of Windows text mode).
template <typename F>
std::string stderr_of(F&& f) {
    testing::internal::CaptureStderr();
    f();
    std::fflush(stderr);
    std::string s = testing::internal::GetCapturedStderr();
    std::erase(s, '\r');
    return s;
}

// One to four random edits of a file: a byte replaced or flipped, a
// longword made huge, or the end cut off.
inline void damage(std::mt19937& rng, std::vector<uint8_t>& file) {
    for (int e = 1 + int(rng() % 4); e > 0 && !file.empty(); e--) {
        size_t at = rng() % file.size();
        switch (rng() % 4) {
        case 0: file[at] = uint8_t(rng()); break;
        case 1: file[at] ^= uint8_t(1u << (rng() % 8)); break;
        case 2: file[at & ~size_t(3)] = 0x80 | uint8_t(rng() & 0x7F); break;
        default: file.resize(at); break;
        }
    }
    file.shrink_to_fit();  // no spare capacity for an overread to hide in
}
