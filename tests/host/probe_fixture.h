// The host-call probe player (amiga/probe.S) in a machine reset as a play
// mode does it, its routines called with chosen registers, and scratch
// files for the dos tests.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "amiga/probe.h"
#include "cli/config.h"
#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/dos.h"
#include "host/runner.h"
#include "host_test.h"
#include "playback/engine.h"
#include "test_machine.h"

enum Probe { P_LIB, P_FPTR, P_NEG, P_RAW };

// Registers handed to a probe; the others keep whatever they hold.
struct Regs {
    uint32_t d0 = 0, d1 = 0, d2 = 0, d3 = 0, a0 = 0, a1 = 0;
    uint32_t a4 = 0;   // LIB: the library base
    int32_t d7 = 0;    // LIB: LVO; FPTR: index; NEG: negative offset
    uint16_t ccr = 0;  // condition codes at the call
};

// What the probe stored after the call.
struct Seen {
    uint32_t d0, d1, a0, a1;
    uint16_t ccr;  // X N Z V C
};

constexpr uint16_t CCR_MASK = SR_X | SR_N | SR_Z | SR_V | SR_C;
constexpr uint32_t SCRATCH = 0x300000;  // chip RAM no one else uses

struct ProbeTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    uint32_t entry = 0, state = 0;
    static constexpr uint32_t MODULE_LEN = 9;  // odd: the next load address is rounded up

    void SetUp() override {
        AMIGA_PROGRAM(file, ORVEL_AMIGA_TEST_PROBE);
        orvel_reset(m);
        deli_set_module_path(m, "mods/probe.mod");
        entry = orvel_load_player_mem(m, file.data(), uint32_t(file.size()));
        ASSERT_EQ(entry, PLAYER_LOAD_ADDR);
        state = read32(m, entry + 20);
        for (uint32_t k = 0; k < MODULE_LEN; k++) write8(m, MODULE_ADDR + k, uint8_t(0x41 + k));
        deli_set_module(m, MODULE_ADDR, MODULE_LEN);
    }
    void TearDown() override { dos_close_all(m); }

    uint32_t routine(Probe p) { return read32(m, read32(m, entry + 16) + 4 * uint32_t(p)); }
    uint32_t node() { return read32(m, entry + 24); }
    uint32_t st(uint32_t offset) { return read32(m, state + offset); }

    Seen call(Probe p, const Regs& r = {}) {
        const uint32_t d[] = {r.d0, r.d1, r.d2, r.d3};
        std::copy(d, d + 4, m.d);
        m.d[6] = r.ccr;
        m.d[7] = uint32_t(r.d7);
        m.a[0] = r.a0;
        m.a[1] = r.a1;
        m.a[4] = r.a4;
        write16(m, state + ST_SR, 0xFFFF);  // no SR the probe can store
        deli_call(m, routine(p));
        uint16_t sr = read16(m, state + ST_SR);
        EXPECT_NE(sr, 0xFFFF) << "probe " << int(p) << " did not come back";
        return {st(ST_D0), st(ST_D1), st(ST_A0), st(ST_A1), uint16_t(sr & CCR_MASK)};
    }
    // Library function `lvo` called through its base in A6.
    Seen lib(uint32_t base, int lvo, Regs r = {}) {
        r.a4 = base;
        r.d7 = lvo;
        return call(P_LIB, r);
    }
    // One A-line opcode executed inside the player.
    Seen raw(uint16_t opcode, const Regs& r = {}) {
        write16(m, routine(P_RAW) + RAW_OPCODE, opcode);
        return call(P_RAW, r);
    }
    // D0 as wanted, with the flags TST.L D0 leaves and X from before the call.
    static void expect_d0(const Seen& s, uint32_t want, uint16_t ccr_in = CCR_MASK) {
        EXPECT_EQ(s.d0, want);
        EXPECT_EQ(s.ccr, (ccr_in & SR_X) | ((want & 0x80000000u) ? SR_N : want == 0 ? SR_Z : 0));
    }
    uint32_t put(const std::string& s, uint32_t at = SCRATCH) {
        put_string(m, at, s);
        return at;
    }
};

// A directory of its own under the system's temporary directory, removed
// with everything in it.
struct TempDir {
    const std::filesystem::path path = [] {
        static int serial = 0;
        auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        auto p = std::filesystem::temp_directory_path() /
                 ("orvel-host-" + std::to_string(stamp) + "-" + std::to_string(serial++));
        std::filesystem::create_directories(p);
        return p;
    }();

    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    // Writes the file (directories made as needed); returns its name with
    // forward slashes, as a player would spell it.
    std::string file(const std::string& relative, const std::vector<uint8_t>& bytes) const {
        return write_file(path / relative, bytes);
    }
    std::string name(const std::string& relative) const { return (path / relative).generic_string(); }

    static std::string write_file(const std::filesystem::path& p, const std::vector<uint8_t>& bytes) {
        std::filesystem::create_directories(p.parent_path());
        std::ofstream f(p, std::ios::binary);
        if (!bytes.empty()) f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        return p.generic_string();
    }
};

// A file in the test executable's data directory, removed afterwards with
// the directories it leaves empty.
struct DataFile {
    std::filesystem::path path;

    DataFile(const std::string& name, const std::vector<uint8_t>& bytes) {
        char buffer[4096];
        data_path(buffer, sizeof buffer, name.c_str());
        path = buffer;
        TempDir::write_file(path, bytes);
    }
    ~DataFile() {
        std::error_code ec;
        for (auto p = path; std::filesystem::remove(p, ec); p = p.parent_path()) {
        }
    }
};

inline std::vector<uint8_t> bytes_of(const std::string& s) { return {s.begin(), s.end()}; }
