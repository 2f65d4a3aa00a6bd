// The CPU against the single-instruction vectors of a microcoded 68000
// model: registers, SR, PC and every listed RAM word after one instruction.
// Where this CPU differs from a plain 68000 on purpose, the vector is
// skipped or the field masked, each rule with the behaviour it comes from.
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

struct RamWord {
    uint32_t address;
    uint16_t value;
};

struct State {
    uint32_t reg[REG_COUNT];
    std::vector<RamWord> ram;
};

struct Vector {
    std::string name;
    State before, after;
    bool address_error = false;  // a transaction of kind 4 or 5
    bool special = false;        // a RAM word or bus cycle in special memory
};

// Addresses at which this bus is not plain RAM: the custom chips and CIAs
// decode there, and a long at $FFFFFE runs past the top of memory (the bus
// faults instead of wrapping).
bool special(uint32_t a) {
    return (a >= 0xBFD000 && a <= 0xBFEFFF) || (a >= 0xDFF000 && a <= 0xDFF1FF) || a >= 0xFFFFFE;
}

// A bounds-checked little-endian reader; any overrun or wrong magic number
// makes the file invalid.
struct Reader {
    const std::vector<uint8_t>& bytes;
    size_t pos = 0;
    bool ok = true;
    uint32_t get(size_t n) {
        if (pos + n > bytes.size()) return ok = false, 0;
        uint32_t v = 0;
        for (size_t i = n; i-- > 0;) v = v << 8 | bytes[pos + i];
        pos += n;
        return v;
    }
    uint32_t u32() { return get(4); }
    void expect(uint32_t magic) { ok &= u32() == magic; }
    void skip(int longs) { pos += 4 * size_t(longs); }
};

void read_state(Reader& r, State& s, bool& touches_special) {
    size_t start = r.pos;
    uint32_t length = r.u32();
    r.expect(0x01234567);
    for (uint32_t& v : s.reg) v = r.u32();
    r.skip(2);  // the prefetch queue: the same words are in the RAM list
    for (uint32_t i = 0, n = r.u32(); i < n && r.ok; i++) {
        uint32_t address = r.u32() & 0xFFFFFF;
        s.ram.push_back({address, uint16_t(r.get(2))});
        touches_special |= special(address);
    }
    r.ok &= r.pos == start + length;
}

bool parse_file(const std::string& path, std::vector<Vector>& out) {
    std::ifstream f(path, std::ios::binary);
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    Reader r{bytes};
    r.expect(0x1A3F5D71);
    out.resize(r.u32());
    for (Vector& v : out) {
        size_t start = r.pos;
        uint32_t length = r.u32();
        r.expect(0xABC12367);
        r.skip(1);  // name block length
        r.expect(0x89ABCDEF);
        uint32_t name_length = r.u32();
        if (!r.ok || r.pos + name_length > bytes.size()) return false;
        v.name.assign(reinterpret_cast<const char*>(&bytes[r.pos]), name_length);
        r.pos += name_length;
        read_state(r, v.before, v.special);
        read_state(r, v.after, v.special);
        r.skip(1);  // transactions block length
        r.expect(0x456789AB);
        r.skip(1);  // cycles
        for (uint32_t i = 0, n = r.u32(); i < n && r.ok; i++) {
            uint32_t kind = r.get(1);
            r.skip(kind ? 2 : 1);  // cycles, function code
            if (kind == 0) continue;
            v.special |= special(r.u32() & 0xFFFFFF);
            r.skip(3);  // data, UDS, LDS
            v.address_error |= kind == 4 || kind == 5;
        }
        r.ok &= r.pos == start + length;
        if (!r.ok) return false;
    }
    return r.pos == bytes.size();
}

// The name, e.g. "000 ADD.b D3, (d16, A2) d72a": mnemonic, operands, opcode.
struct Decoded {
    std::string mnemonic;
    std::vector<std::string> operands;  // "(d8, A0, Xn)", "D3", "#"
    uint16_t opcode = 0;
};

Decoded decode_name(const std::string& name) {
    Decoded d;
    size_t first = name.find(' '), last = name.rfind(' ');
    d.opcode = uint16_t(std::stoul(name.substr(last + 1), nullptr, 16));
    std::string body = name.substr(first + 1, last - first - 1);
    size_t space = body.find(' ');
    d.mnemonic = body.substr(0, space);
    if (space != std::string::npos) d.operands = split_operands(body.substr(space + 1));
    for (std::string& op : d.operands) op.erase(0, op.find_first_not_of(' '));
    return d;
}

// Extension words an operand takes: an immediate of the instruction's own
// size (the bit number, MOVEM mask and word operations take one word), an
// absolute long two, displacements and absolute words one.
int operand_words(const Decoded& d, const std::string& op) {
    if (op == "#") return d.mnemonic.ends_with(".l") && !d.mnemonic.starts_with("MOVEM") ? 2 : 1;
    if (op == "(xxx).l") return 2;
    return op.starts_with("(d16") || op.starts_with("(d8") || op == "(xxx).w";
}

// The 68000 reads only a brief index word and ignores its bits 8-10; this
// CPU scales the index by them and takes bit 8 as the full format (68020).
bool uses_68020_index_bits(const Decoded& d, const Vector& v) {
    uint32_t word_address = (v.before.reg[PC] - 2) & 0xFFFFFF;  // first word after the opcode
    std::vector<std::string> in_order = d.operands;
    // MOVEM's register mask comes first, whichever way the name lists it.
    if (d.mnemonic.starts_with("MOVEM") && in_order.size() == 2 && in_order[1] == "#")
        std::swap(in_order[0], in_order[1]);
    for (const std::string& op : in_order) {
        if (op.find("Xn") != std::string::npos)
            for (const RamWord& w : v.before.ram)
                if (w.address == word_address && (w.value & 0x0700)) return true;
        word_address += 2 * operand_words(d, op);
    }
    return false;
}

// The reference took an exception when it ended in supervisor mode at the
// address held by one of the vectors the instruction set raises.
bool takes_exception(const Vector& v) {
    if (!(v.after.reg[SR] & SR_S)) return false;
    auto word = [&](uint32_t a) -> int {
        for (const RamWord& w : v.before.ram)
            if (w.address == a) return w.value;
        return -1;
    };
    for (uint32_t vec : {4, 5, 6, 7, 8, 11, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44,
                         45, 46, 47}) {
        int hi = word(vec * 4), lo = word(vec * 4 + 2);
        if (hi >= 0 && lo >= 0 && (uint32_t(hi) << 16 | uint32_t(lo)) == v.after.reg[PC] - 4)
            return true;
    }
    return false;
}

// Whole families that are outside this CPU.
const char* file_skip_reason(const std::string& family) {
    if (family == "NBCD" || family.starts_with("MOVEP")) return "not executed (illegal here)";
    // RTE pops the 8-byte frame with its vector-offset word first.
    if (family == "RTE") return "8-byte exception frame";
    if (family == "ILLEGAL_LINEA") return "line A is the host-call dispatcher";
    return nullptr;
}

// Why a single vector does not apply, or nullptr.
const char* vector_skip_reason(const std::string& family, const Vector& v) {
    // No address errors: odd word and long accesses simply happen.
    if (v.address_error) return "address error";
    if (v.special) return "chip registers or top of memory";
    Decoded d = decode_name(v.name);
    if (uses_68020_index_bits(d, v)) return "68020 index bits";
    // $FF announces a 32-bit displacement (68020).
    if ((family == "Bcc" || family == "BSR") && (d.opcode & 0xFF) == 0xFF) return "32-bit branch";
    // MOVE from SR is privileged, as on the 68010.
    if (family == "MOVEfromSR" && !(v.before.reg[SR] & SR_S)) return "privileged MOVE from SR";
    return nullptr;
}

// SR bits that are compared: all, except where this CPU defines what the
// 68000 leaves undefined or differs by design.
uint16_t sr_compare_mask(const std::string& family, const Vector& v) {
    uint16_t mask = 0xFFFF;
    // SR has the 68020's T0 and M bits (14, 12): MOVE to SR, the SR
    // immediates and STOP keep them where a 68000 drops them.
    if (family == "MOVEtoSR" || family == "ANDItoSR" || family == "ORItoSR" ||
        family == "EORItoSR" || family == "STOP")
        mask &= ~0x5000;
    // MOVE to CCR and RTR store all eight low bits.
    if (family == "MOVEtoCCR" || family == "RTR") mask &= ~0x00E0;
    // Division overflow sets V alone and keeps N, Z and C.
    if ((family == "DIVU" || family == "DIVS") && (v.after.reg[SR] & SR_V) && !takes_exception(v))
        mask &= ~(SR_N | SR_Z | SR_C);
    // ABCD/SBCD always clear Z and keep V.
    if (family == "ABCD" || family == "SBCD") mask &= ~(SR_Z | SR_V);
    // CHK sets N from the register and leaves Z, V and C.
    if (family == "CHK") mask &= ~(SR_Z | SR_V | SR_C);
    return mask;
}

void set_ram(Machine& m, const State& s, bool clear) {
    for (const RamWord& w : s.ram) {
        m.chip_ram[w.address] = clear ? 0 : uint8_t(w.value >> 8);
        m.chip_ram[(w.address + 1) & 0xFFFFFF] = clear ? 0 : uint8_t(w.value);
    }
}

// Run one vector; returns the differences (empty when it passed).
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
    const uint32_t stack_before = m.ssp;  // an exception frame lands below this
    step(m);

    std::string diff;
    auto differ = [&](const std::string& field, uint32_t want_value, uint32_t got) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "=%08x(want %08x)", got, want_value);
        if (got != want_value) diff += " " + field + buf;
    };
    for (int i = 0; i < 8; i++) differ("d" + std::to_string(i), want.reg[D0 + i], m.d[i]);
    for (int i = 0; i < 7; i++) differ("a" + std::to_string(i), want.reg[A0 + i], m.a[i]);
    bool super = m.sr & SR_S, exception_taken = takes_exception(v);
    differ("usp", want.reg[USP], super ? m.usp : m.a[7]);
    // An exception here stacks an 8-byte frame, the 68000 a 6-byte one.
    if (!exception_taken) differ("ssp", want.reg[SSP], super ? m.a[7] : m.ssp);
    uint16_t sr_mask = sr_compare_mask(family, v);
    if ((m.sr ^ want.reg[SR]) & sr_mask) differ("sr", want.reg[SR], m.sr);
    // A stopped 68000 stops prefetching too: its next-prefetch address is
    // the address after STOP itself.
    differ("pc", m.stopped ? want.reg[PC] : want.reg[PC] - 4, m.pc);
    for (const RamWord& w : want.ram) {
        if (exception_taken && w.address < stack_before && w.address + 8 >= stack_before) continue;
        char field[24];
        std::snprintf(field, sizeof field, "ram[%06x]", w.address);
        differ(field, w.value, chip_peek16(m, w.address));
    }
    set_ram(m, before, true);
    set_ram(m, want, true);
    for (uint32_t a = stack_before - 8; a != stack_before; a++) m.chip_ram[a & 0xFFFFFF] = 0;
    return diff;
}

}  // namespace

TEST(Vectors, M68000SingleInstructionVectors) {
    namespace fs = std::filesystem;
    const fs::path dir = testdata_path("m68000/v1");
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) GTEST_SKIP() << "68000 vectors not found at " << dir.string();
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(dir, ec))
        if (e.path().extension() == ".bin") files.push_back(e.path().filename().string());
    std::sort(files.begin(), files.end());
    ASSERT_EQ(files.size(), 127u);

    op_table_fill();
    MachinePtr mp = make_machine();
    int total[3] = {};  // passed, skipped, failed
    std::map<std::string, int> skip_reasons;
    for (const std::string& file : files) {
        std::string family = file.substr(0, file.find(".json.bin"));
        if (const char* why = file_skip_reason(family)) {
            std::printf("%-14s skipped: %s\n", family.c_str(), why);
            continue;
        }
        std::vector<Vector> vectors;
        bool parsed = parse_file((dir / file).string(), vectors);
        EXPECT_TRUE(parsed) << file << ": malformed vector file";
        if (!parsed) continue;
        int count[3] = {};
        std::vector<std::string> failures;  // the first few, with their differences
        for (const Vector& v : vectors) {
            const char* why = vector_skip_reason(family, v);
            std::string diff = why ? "" : run_vector(*mp, family, v);
            count[why ? 1 : diff.empty() ? 0 : 2]++;
            if (why) skip_reasons[why]++;
            if (!diff.empty() && failures.size() < 3) failures.push_back(v.name + ":" + diff);
        }
        std::printf("%-14s %4d passed %4d skipped %4d failed\n", family.c_str(), count[0],
                    count[1], count[2]);
        for (const std::string& f : failures) std::printf("    %s\n", f.c_str());
        EXPECT_EQ(count[2], 0) << family;
        for (int i = 0; i < 3; i++) total[i] += count[i];
    }
    std::printf("total: %d passed, %d skipped, %d failed\n", total[0], total[1], total[2]);
    for (const auto& [why, n] : skip_reasons) std::printf("  skipped for %s: %d\n", why.c_str(), n);
    std::fflush(stdout);
}
