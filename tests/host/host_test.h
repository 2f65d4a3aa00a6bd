// Helpers for the player-host tests: big-endian file images, code placed in
// chip RAM, the Amiga programs built from tests/host/amiga, and stderr
// capture.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "cpu/bus.h"
#include "machine.h"

// A file image from big-endian longwords.
inline std::vector<uint8_t> be_longs(std::initializer_list<uint32_t> longs) {
    std::vector<uint8_t> out;
    for (uint32_t v : longs) {
        out.push_back(uint8_t(v >> 24));
        out.push_back(uint8_t(v >> 16));
        out.push_back(uint8_t(v >> 8));
        out.push_back(uint8_t(v));
    }
    return out;
}

inline void put_words(Machine& m, uint32_t address, std::initializer_list<uint16_t> words) {
    for (uint16_t w : words) {
        write16(m, address, w);
        address += 2;
    }
}

inline void put_string(Machine& m, uint32_t address, const std::string& s) {
    for (size_t k = 0; k <= s.size(); k++) write8(m, address + uint32_t(k), uint8_t(s.c_str()[k]));
}

inline std::string get_string(Machine& m, uint32_t address, size_t max = 4096) {
    std::string s;
    for (size_t k = 0; k < max; k++) {
        char c = char(read8(m, address + uint32_t(k)));
        if (!c) break;
        s += c;
    }
    return s;
}

inline std::vector<uint8_t> read_host_file(const std::string& path) {
    std::vector<uint8_t> data;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        uint8_t buf[65536];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.insert(data.end(), buf, buf + n);
        std::fclose(f);
    }
    return data;
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
