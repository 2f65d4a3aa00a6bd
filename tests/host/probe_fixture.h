// Host calls made as a player makes them: a stub in the player's memory
// calls the slot with chosen registers and condition codes and keeps the
// SR it returns with. Scratch files for the dos tests.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "cli/config.h"
#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/dos.h"
#include "host/runner.h"
#include "host_test.h"
#include "playback/engine.h"
#include "test_machine.h"

// Where the call goes: a library's LVO, a DeliTracker function pointer, a
// negative slot of the DeliTracker base, or one A-line opcode in the player.
enum Probe { P_LIB, P_FPTR, P_NEG, P_RAW };

// Registers handed in (LIB: A4 base, D7 LVO; FPTR: D7 index; NEG: D7 offset; RAW: D7 opcode) and what came back.
struct Regs { uint32_t d0 = 0, d1 = 0, d2 = 0, d3 = 0, a0 = 0, a1 = 0, a4 = 0; int32_t d7 = 0; uint16_t ccr = 0; };
struct Seen { uint32_t d0, a0, a1; uint16_t ccr; };

constexpr uint16_t CCR_MASK = SR_X | SR_N | SR_Z | SR_V | SR_C;
constexpr uint32_t SCRATCH = 0x300000;  // chip RAM no one else uses

struct ProbeTest : MachineTest {
    static constexpr uint32_t MODULE_LEN = 9;  // odd: the next load address is rounded up
    static constexpr uint32_t STUB = PLAYER_LOAD_ADDR, RAW = STUB + 10;

    void SetUp() override {
        orvel_reset(m);
        deli_set_module_path(m, "mods/probe.mod");
        deli_set_module(m, MODULE_ADDR, MODULE_LEN);
        // move.l a4,a6; move.w d6,ccr; jsr (a3); move.w sr,d6; rts; then RAW: an opcode; rts
        put_words(m, STUB, {0x2C4C, 0x44C6, 0x4E93, 0x40C6, 0x4E75, 0xA000, 0x4E75});
    }
    void TearDown() override { dos_close_all(m); }

    Seen call(Probe p, const Regs& r = {}) {
        const uint32_t d[] = {r.d0, r.d1, r.d2, r.d3, 0, 0, r.ccr, 0};
        std::copy(d, d + 8, m.d);
        const uint32_t target[] = {r.a4 + r.d7, read32(m, DELI_BASE + 0x38 + 4 * r.d7), DELI_BASE + r.d7, RAW};
        if (p == P_RAW) write16(m, RAW, uint16_t(r.d7));
        m.a[0] = r.a0, m.a[1] = r.a1, m.a[3] = target[p], m.a[4] = p == P_LIB ? r.a4 : EXEC_BASE;
        deli_call(m, STUB);
        EXPECT_EQ(m.pc, RUNNER_SENTINEL) << "probe " << int(p) << " did not come back";
        return {m.d[0], m.a[0], m.a[1], uint16_t(m.d[6] & CCR_MASK)};
    }
    Seen lib(uint32_t base, int lvo, Regs r = {}) { return r.a4 = base, r.d7 = lvo, call(P_LIB, r); }
    // D0 as wanted, with the flags TST.L D0 leaves and X from before the call.
    static void expect_d0(const Seen& s, uint32_t want, uint16_t ccr_in = CCR_MASK) {
        EXPECT_EQ(s.d0, want);
        EXPECT_EQ(s.ccr, (ccr_in & SR_X) | ((want & 0x80000000u) ? SR_N : want == 0 ? SR_Z : 0));
    }
    uint32_t put(const std::string& s, uint32_t at = SCRATCH) { return put_string(m, at, s), at; }
};

inline std::string write_file(const std::filesystem::path& p, const std::vector<uint8_t>& bytes) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return p.generic_string();
}
inline std::vector<uint8_t> bytes_of(const std::string& s) { return {s.begin(), s.end()}; }

// A directory of its own under the system's temporary directory, removed with everything in it.
struct TempDir {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("orvel-host-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "-" +
         std::to_string(std::random_device{}()));
    TempDir() { std::filesystem::create_directories(path); }
    ~TempDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
    // The file written; its name with forward slashes, as a player spells it.
    std::string file(const std::string& relative, const std::vector<uint8_t>& bytes) const {
        return write_file(path / relative, bytes);
    }
    std::string name(const std::string& relative) const { return (path / relative).generic_string(); }
};

// A file in the test executable's data directory, removed with the directories it leaves empty.
struct DataFile {
    std::filesystem::path path;
    DataFile(const std::string& name, const std::vector<uint8_t>& bytes) {
        char buffer[4096];
        data_path(buffer, sizeof buffer, name.c_str());
        write_file(path = buffer, bytes);
    }
    ~DataFile() { std::error_code ec; for (auto p = path; std::filesystem::remove(p, ec); p = p.parent_path()) {} }
};
