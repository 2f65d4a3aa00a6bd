// The CPU against the single-instruction vectors of a microcoded 68000
// model: registers, SR, PC and every listed RAM word after one instruction.
// Where this CPU differs from a plain 68000 on purpose, the vector (or the
// whole file) is skipped or the field masked, each rule with the behaviour
// it comes from. One line per file: passed, skipped or FAILED, with counts,
// and for a failure the first vector's differing fields.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "test_machine.h"

namespace {

enum Reg { D0 = 0, A0 = 8, USP = 15, SSP = 16, SR = 17, PC = 18, REG_COUNT = 19 };

struct State {
    uint32_t reg[REG_COUNT];
    std::map<uint32_t, uint16_t> ram;  // word address -> value
};

struct Vector {
    std::string name;
    State before, after;
    const char* bus_skip = nullptr;  // why the bus cycles do not apply here
};

// Which bus cycles this system's bus does not run as plain RAM, by the
// behaviour each comes from.
const char* bus_difference(uint32_t a, uint32_t kind) {
    if (kind == 4 || kind == 5) return "address error";  // none here: odd accesses happen
    if ((a >= 0xBFD000 && a <= 0xBFEFFF) || (a >= 0xDFF000 && a <= 0xDFF1FF))
        return "chip registers";  // the CIAs and custom chips decode there
    return nullptr;
}

// Little-endian fields in length-prefixed blocks, each with a magic number;
// the whole file must be consumed exactly.
bool parse_file(const std::string& path, std::vector<Vector>& out) {
    std::ifstream f(path, std::ios::binary);
    const std::vector<uint8_t> b{std::istreambuf_iterator<char>(f), {}};
    size_t pos = 0;
    auto get = [&](size_t n = 4) {
        uint32_t v = 0;
        for (size_t i = n; i-- > 0;) v = v << 8 | (pos + i < b.size() ? b[pos + i] : 0);
        return pos += n, v;
    };
    // An address error names the vector whatever else it touches.
    auto note = [](Vector& v, const char* why) {
        if (why && (!v.bus_skip || why[0] == 'a')) v.bus_skip = why;
    };
    auto state = [&](Vector& v, State& s) {
        pos += 8;  // block length, magic
        for (uint32_t& r : s.reg) r = get();
        pos += 8;  // the prefetch queue: the same words are in the RAM list
        for (uint32_t i = 0, n = get(); i < n && pos < b.size(); i++) {
            uint32_t address = get() & 0xFFFFFF;
            s.ram[address] = uint16_t(get(2));
            note(v, bus_difference(address, 0));
        }
    };
    if (get() != 0x1A3F5D71) return false;
    out.resize(get());
    for (Vector& v : out) {
        pos += 16;  // block length, magic, name block length, magic
        uint32_t length = get();
        if (pos + length > b.size()) return false;
        v.name.assign(b.begin() + long(pos), b.begin() + long(pos + length));
        pos += length;
        state(v, v.before);
        state(v, v.after);
        pos += 12;  // transactions block length, magic, cycles
        for (uint32_t i = 0, n = get(); i < n && pos < b.size(); i++) {
            uint32_t kind = get(1);
            pos += kind ? 8 : 4;  // cycles, function code
            if (!kind) continue;
            note(v, bus_difference(get() & 0xFFFFFF, kind));
            pos += 12;  // data, UDS, LDS
        }
    }
    return pos == b.size();
}

// The 68000 reads only a brief index word and ignores its bits 8-10; this
// CPU scales the index by them and takes bit 8 as the full format (68020).
// The name, e.g. "000 MOVE.b (d8, A0, Xn), (xxx).l 11b0", tells where each
// operand's extension words are.
bool uses_68020_index_bits(const Vector& v) {
    size_t first = v.name.find(' '), last = v.name.rfind(' ');
    std::string body = v.name.substr(first + 1, last - first - 1);
    std::string mn = body.substr(0, body.find(' '));
    std::vector<std::string> ops = split_operands(body.substr(mn.size()));
    for (std::string& op : ops) op.erase(0, op.find_first_not_of(' '));
    // MOVEM's register mask comes first, whichever way the name lists it.
    if (mn.starts_with("MOVEM") && ops.size() == 2 && ops[1] == "#") std::swap(ops[0], ops[1]);
    uint32_t at = (v.before.reg[PC] - 2) & 0xFFFFFF;  // the first word after the opcode
    for (const std::string& op : ops) {
        if (op.find("Xn") != std::string::npos && (v.before.ram.at(at) & 0x0700)) return true;
        bool imm_long = op == "#" && mn.ends_with(".l") && !mn.starts_with("MOVEM");
        bool one_word = op == "#" || op.starts_with("(d") || op == "(xxx).w";
        at += imm_long || op == "(xxx).l" ? 4 : one_word ? 2 : 0;
    }
    return false;
}

// The reference took an exception: it ended in supervisor mode at the
// address one of the vectors holds.
bool takes_exception(const Vector& v) {
    const auto& ram = v.before.ram;
    for (uint32_t a = 8; a < 0xC0 && (v.after.reg[SR] & SR_S); a += 4)
        if (ram.count(a) && ram.count(a + 2) &&
            (uint32_t(ram.at(a)) << 16 | ram.at(a + 2)) == v.after.reg[PC] - 4)
            return true;
    return false;
}

// Files that do not apply at all, and why.
const char* family_skip(const std::string& family) {
    if (family == "NBCD" || family.starts_with("MOVEP")) return "not executed here (illegal)";
    if (family == "RTE") return "RTE pops the 8-byte frame of this CPU";
    if (family == "ILLEGAL_LINEA") return "line A calls the host";
    return nullptr;
}

// Why a vector does not apply, or nullptr.
const char* skip_reason(const std::string& family, const Vector& v) {
    if (v.bus_skip) return v.bus_skip;
    if (uses_68020_index_bits(v)) return "68020 index bits";
    // $FF announces a 32-bit displacement (68020).
    uint16_t opcode = v.before.ram.at((v.before.reg[PC] - 4) & 0xFFFFFF);
    if ((family == "Bcc" || family == "BSR") && (opcode & 0xFF) == 0xFF) return "32-bit branch";
    // MOVE from SR is privileged, as on the 68010.
    if (family == "MOVEfromSR" && !(v.before.reg[SR] & SR_S)) return "user MOVE from SR";
    return nullptr;
}

// SR bits compared: all but those this CPU defines where the 68000 leaves
// them undefined, or keeps by design.
uint16_t sr_compare_mask(const std::string& family, const Vector& v) {
    // SR has the 68020's T0 and M bits: SR writes keep them.
    if (family == "MOVEtoSR" || family == "ANDItoSR" || family == "ORItoSR" ||
        family == "EORItoSR" || family == "STOP")
        return 0xAFFF;
    if (family == "MOVEtoCCR" || family == "RTR") return 0xFF1F;  // all eight low bits stored
    // Division overflow sets V alone and keeps N, Z and C.
    if ((family == "DIVU" || family == "DIVS") && (v.after.reg[SR] & SR_V) && !takes_exception(v))
        return 0xFFF2;
    if (family == "ABCD" || family == "SBCD") return 0xFFF9;  // Z cleared, V kept
    // Out of bounds CHK sets N from the register only; in bounds it changes
    // nothing, where the 68000 leaves N undefined.
    if (family == "CHK") return takes_exception(v) ? 0xFFF8 : 0xFFF0;
    return 0xFFFF;
}

std::string hex_field(const char* name, uint32_t address) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%s%06x", name, address);
    return buf;
}

void set_ram(Machine& m, const State& s, bool clear) {
    for (const auto& [address, value] : s.ram) {
        m.chip_ram[address] = clear ? 0 : uint8_t(value >> 8);
        m.chip_ram[(address + 1) & 0xFFFFFF] = clear ? 0 : uint8_t(value);
    }
}

// Runs one vector; returns the differences (empty when it passed).
std::string run_vector(Machine& m, const std::string& family, const Vector& v) {
    const State &before = v.before, &want = v.after;
    std::copy(before.reg + D0, before.reg + D0 + 8, m.d);
    std::copy(before.reg + A0, before.reg + A0 + 7, m.a);
    m.sr = uint16_t(before.reg[SR]);
    m.usp = before.reg[USP];
    m.ssp = before.reg[SSP];
    m.a[7] = (m.sr & SR_S) ? m.ssp : m.usp;
    m.pc = before.reg[PC] - 4;
    m.vbr = m.stopped = m.fault = 0;
    set_ram(m, before, false);
    step(m);

    std::string diff;
    auto differ = [&](const char* field, uint32_t want_value, uint32_t got) {
        if (got == want_value) return;
        char buf[64];
        std::snprintf(buf, sizeof buf, " %s=%x (want %x)", field, got, want_value);
        diff += buf;
    };
    static const char* const REG_NAMES[] = {"d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7",
                                            "a0", "a1", "a2", "a3", "a4", "a5", "a6"};
    for (int i = 0; i < 8; i++) differ(REG_NAMES[i], want.reg[D0 + i], m.d[i]);
    for (int i = 0; i < 7; i++) differ(REG_NAMES[8 + i], want.reg[A0 + i], m.a[i]);
    bool super = m.sr & SR_S, exception_taken = takes_exception(v);
    differ("usp", want.reg[USP], super ? m.usp : m.a[7]);
    // An exception here stacks an 8-byte frame, the 68000 a 6-byte one.
    if (!exception_taken) differ("ssp", want.reg[SSP], super ? m.a[7] : m.ssp);
    if ((m.sr ^ want.reg[SR]) & sr_compare_mask(family, v)) differ("sr", want.reg[SR], m.sr);
    // A stopped 68000 stops prefetching too: its PC stays after STOP itself.
    differ("pc", m.stopped ? want.reg[PC] : want.reg[PC] - 4, m.pc);
    for (const auto& [address, value] : want.ram)
        if (!exception_taken || address >= before.reg[SSP] || address + 8 < before.reg[SSP])
            differ(hex_field("ram@", address).c_str(), value, chip_peek16(m, address));
    set_ram(m, before, true);
    set_ram(m, want, true);
    for (uint32_t a = before.reg[SSP] - 8; a != before.reg[SSP]; a++) m.chip_ram[a & 0xFFFFFF] = 0;
    return diff;
}

}  // namespace

TEST(Vectors, M68000SingleInstructionVectors) {
    namespace fs = std::filesystem;
    const fs::path dir = testdata_path("m68000/v1");
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) GTEST_SKIP() << "68000 vectors not found at " << dir.string();
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(dir, ec))
        if (e.path().extension() == ".bin") files.push_back(e.path());
    ASSERT_EQ(files.size(), 127u);
    std::sort(files.begin(), files.end());
    op_table_fill();
    MachinePtr mp = make_machine();
    int passed = 0, failed = 0, skipped = 0, files_skipped = 0;
    for (const fs::path& file : files) {
        std::string family = file.stem().stem().string();  // "ADD.b.json.bin" -> "ADD.b"
        if (const char* why = family_skip(family)) {
            std::printf("%-13s skipped: %s\n", family.c_str(), why);
            files_skipped++;
            continue;
        }
        std::vector<Vector> vectors;
        ASSERT_TRUE(parse_file(file.string(), vectors)) << file << ": malformed vector file";
        int file_passed = 0, file_failed = 0;
        std::map<std::string, int> file_skipped;
        std::string first_failure;
        for (const Vector& v : vectors) {
            if (const char* why = skip_reason(family, v)) {
                file_skipped[why]++;
                continue;
            }
            std::string diff = run_vector(*mp, family, v);
            if (diff.empty()) file_passed++;
            else if (file_failed++ == 0) first_failure = v.name + ":" + diff;
        }
        std::string skips;
        int file_skipped_total = 0;
        for (const auto& [why, n] : file_skipped) {
            skips += (skips.empty() ? " (" : ", ") + std::to_string(n) + " " + why;
            file_skipped_total += n;
        }
        std::printf("%-13s %s: %d passed, %d skipped%s, %d failed%s\n", family.c_str(),
                    file_failed ? "FAILED" : file_passed ? "passed" : "skipped", file_passed,
                    file_skipped_total, skips.empty() ? "" : (skips + ")").c_str(), file_failed,
                    first_failure.empty() ? "" : ("; first: " + first_failure).c_str());
        if (file_failed) ADD_FAILURE() << family << ": " << first_failure;
        passed += file_passed;
        failed += file_failed;
        skipped += file_skipped_total;
    }
    std::printf("68000 vectors: %zu files (%d skipped whole): %d vectors passed, %d skipped, "
                "%d failed\n", files.size(), files_skipped, passed, skipped, failed);
    EXPECT_EQ(failed, 0);
}
