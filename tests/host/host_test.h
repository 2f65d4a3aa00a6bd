// Helpers for the player-host tests: big-endian images, chip RAM contents,
// the Amiga programs built from tests/host/amiga, stderr capture, damage.
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
#include "test_machine.h"

// A zeroed machine, m, for each test.
struct MachineTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
};

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

// The longwords at the given addresses, to compare several at once.
inline std::vector<uint32_t> longs_at(Machine& m, std::initializer_list<uint32_t> addresses) {
    std::vector<uint32_t> out;
    for (uint32_t a : addresses) out.push_back(read32(m, a));
    return out;
}

// An Amiga program built for the tests; skipped without m68k cross tools.
#define AMIGA_PROGRAM(var, path)                                                                     \
    if (std::string(path).empty()) GTEST_SKIP() << "Amiga programs not built (no m68k cross tools)"; \
    std::ifstream var##_in(path, std::ios::binary);                                                  \
    const std::vector<uint8_t> var{std::istreambuf_iterator<char>(var##_in), {}};                     \
    ASSERT_FALSE(var.empty()) << "cannot read " << (path)

// What f prints to stderr, without the carriage returns of Windows text mode.
template <typename F>
std::string stderr_of(F&& f) {
    testing::internal::CaptureStderr();
    f(), std::fflush(stderr);
    std::string s = testing::internal::GetCapturedStderr();
    return std::erase(s, '\r'), s;
}

// Runs f on `rounds` copies of `file`, each with one to four random edits (a
// byte replaced or flipped, a longword made huge, the end cut off); f says
// whether it accepted the copy, and both outcomes must occur.
template <typename F>
void fuzz(std::vector<uint8_t> file, uint32_t seed, int rounds, F&& f) {
    std::mt19937 rng(seed);
    int accepted = 0;
    for (int round = 0; round < rounds; round++) {
        std::vector<uint8_t> v = file;
        for (int e = 1 + int(rng() % 4); e > 0 && !v.empty(); e--) {
            const size_t at = rng() % v.size(), kind = rng() % 4;
            const uint8_t r = uint8_t(rng());
            if (kind == 0) v[at] = r;
            if (kind == 1) v[at] ^= uint8_t(1 << (r % 8));
            if (kind == 2) v[at & ~size_t(3)] = 0x80 | r;
            if (kind == 3) v.resize(at);
        }
        v.shrink_to_fit();  // no spare capacity for an overread to hide in
        accepted += f(v, round) ? 1 : 0;
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, rounds);
}
