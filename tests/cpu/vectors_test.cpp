// The CPU against the single-instruction vectors of a microcoded 68000
// model: registers, SR, PC and every listed RAM word after one instruction.
// Where this CPU differs from a plain 68000 on purpose, the vector is
// skipped or the field masked, each rule with the behaviour it comes from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "test_machine.h"

namespace {

constexpr uint32_t FILE_MAGIC = 0x1A3F5D71, TEST_MAGIC = 0xABC12367, NAME_MAGIC = 0x89ABCDEF,
                   STATE_MAGIC = 0x01234567, TRANS_MAGIC = 0x456789AB;

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
    bool address_error = false;         // a transaction of kind 4 or 5
    std::vector<uint32_t> bus_addresses;  // every address the bus cycles used
};

// A bounds-checked little-endian reader; any overrun makes the file invalid.
struct Reader {
    const std::vector<uint8_t>& bytes;
    size_t pos = 0;
    bool ok = true;
    uint32_t u32() {
        if (pos + 4 > bytes.size()) return ok = false, 0;
        uint32_t v = uint32_t(bytes[pos]) | uint32_t(bytes[pos + 1]) << 8 |
                     uint32_t(bytes[pos + 2]) << 16 | uint32_t(bytes[pos + 3]) << 24;
        pos += 4;
        return v;
    }
    uint16_t u16() {
        if (pos + 2 > bytes.size()) return ok = false, 0;
        uint16_t v = uint16_t(bytes[pos] | bytes[pos + 1] << 8);
        pos += 2;
        return v;
    }
    uint8_t u8() {
        if (pos + 1 > bytes.size()) return ok = false, 0;
        return bytes[pos++];
    }
    void expect(uint32_t magic) {
        if (u32() != magic) ok = false;
    }
};

void read_state(Reader& r, State& s) {
    size_t start = r.pos;
    uint32_t length = r.u32();
    r.expect(STATE_MAGIC);
    for (uint32_t& v : s.reg) v = r.u32();
    r.u32();  // the prefetch queue: the same words are in the RAM list
    r.u32();
    uint32_t n = r.u32();
    for (uint32_t i = 0; i < n && r.ok; i++) {
        uint32_t address = r.u32();
        s.ram.push_back({address & 0xFFFFFF, r.u16()});
    }
    if (r.pos != start + length) r.ok = false;
}

bool parse_file(const std::string& path, std::vector<Vector>& out) {
    std::ifstream f(path, std::ios::binary);
    if (!f) return false;
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    Reader r{bytes};
    r.expect(FILE_MAGIC);
    uint32_t count = r.u32();
    out.resize(count);
    for (Vector& v : out) {
        if (!r.ok) break;
        size_t start = r.pos;
        uint32_t length = r.u32();
        r.expect(TEST_MAGIC);
        r.u32();  // name block length
        r.expect(NAME_MAGIC);
        uint32_t name_length = r.u32();
        if (r.pos + name_length > bytes.size()) return false;
        v.name.assign(reinterpret_cast<const char*>(&bytes[r.pos]), name_length);
        r.pos += name_length;
        read_state(r, v.before);
        read_state(r, v.after);
        r.u32();  // transactions block length
        r.expect(TRANS_MAGIC);
        r.u32();  // cycles
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok; i++) {
            uint8_t kind = r.u8();
            r.u32();  // cycles
            if (kind == 0) continue;
            r.u32();  // function code
            v.bus_addresses.push_back(r.u32() & 0xFFFFFF);
            r.u32();  // data, UDS, LDS
            r.u32();
            r.u32();
            if (kind == 4 || kind == 5) v.address_error = true;
        }
        if (r.pos != start + length) r.ok = false;
    }
    return r.ok && r.pos == bytes.size();
}

// ---- what the vector's name says about the instruction ----

struct Decoded {
    std::string mnemonic;               // "ADD.b"
    std::vector<std::string> operands;  // "(d8, A0, Xn)", "D3", "#"
    uint16_t opcode = 0;
};

Decoded decode_name(const std::string& name) {
    Decoded d;
    size_t first = name.find(' ');
    size_t last = name.rfind(' ');
    d.opcode = uint16_t(std::stoul(name.substr(last + 1), nullptr, 16));
    std::string body = name.substr(first + 1, last - first - 1);
    size_t space = body.find(' ');
    d.mnemonic = body.substr(0, space);
    if (space == std::string::npos) return d;
    std::string cur;
    int depth = 0;
    for (char c : body.substr(space + 1)) {
        if (c == '(') depth++;
        if (c == ')') depth--;
        if (c == ',' && depth == 0) {
            d.operands.push_back(cur);
            cur.clear();
            continue;
        }
        if (c != ' ' || !cur.empty()) cur += c;
    }
    d.operands.push_back(cur);
    return d;
}

bool starts_with(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// Extension words an operand takes, in instruction order.
int operand_words(const Decoded& d, const std::string& operand) {
    if (operand == "#") {
        // An immediate operand of the instruction's own size; the bit
        // number, MOVEM mask, displacements and word-sized operations
        // take one word.
        bool long_imm = d.mnemonic.size() > 2 && d.mnemonic.substr(d.mnemonic.size() - 2) == ".l" &&
                        !starts_with(d.mnemonic, "MOVEM");
        return long_imm ? 2 : 1;
    }
    if (operand == "(xxx).l") return 2;
    if (starts_with(operand, "(d16") || starts_with(operand, "(d8") || operand == "(xxx).w") return 1;
    return 0;
}

// The 68000 reads only a brief index word and ignores its bits 8-10; this
// CPU scales the index by them and takes bit 8 as the full format (68020).
bool uses_68020_index_bits(const Decoded& d, const Vector& v) {
    uint32_t word_address = (v.before.reg[PC] - 2) & 0xFFFFFF;  // first word after the opcode
    std::vector<std::string> in_order = d.operands;
    // MOVEM's register mask comes first, whichever way the name lists it.
    if (starts_with(d.mnemonic, "MOVEM") && in_order.size() == 2 && in_order[1] == "#")
        std::swap(in_order[0], in_order[1]);
    for (const std::string& op : in_order) {
        if (op.find("Xn") != std::string::npos) {
            for (const RamWord& w : v.before.ram)
                if (w.address == word_address && (w.value & 0x0700)) return true;
        }
        word_address += 2 * operand_words(d, op);
    }
    return false;
}

// Addresses at which this bus is not plain RAM: the custom chips and CIAs
// decode there, and a long at $FFFFFE runs past the top of memory (the bus
// faults instead of wrapping).
bool touches_chip_registers(uint32_t a) {
    return (a >= 0xBFD000 && a <= 0xBFEFFF) || (a >= 0xDFF000 && a <= 0xDFF1FF) || a >= 0xFFFFFE;
}

bool touches_special_memory(const Vector& v) {
    for (const RamWord& w : v.before.ram)
        if (touches_chip_registers(w.address)) return true;
    for (const RamWord& w : v.after.ram)
        if (touches_chip_registers(w.address)) return true;
    for (uint32_t a : v.bus_addresses)
        if (touches_chip_registers(a)) return true;
    return false;
}

uint32_t initial_long(const Vector& v, uint32_t address) {
    uint32_t hi = 0, lo = 0;
    int found = 0;
    for (const RamWord& w : v.before.ram) {
        if (w.address == address) hi = w.value, found++;
        if (w.address == address + 2) lo = w.value, found++;
    }
    return found == 2 ? hi << 16 | lo : 0xFFFFFFFF;
}

// The reference took an exception when it ended in supervisor mode at the
// address held by one of the vectors the instruction set raises.
bool takes_exception(const Vector& v) {
    if (!(v.after.reg[SR] & 0x2000)) return false;
    uint32_t pc = v.after.reg[PC] - 4;
    for (uint32_t vec : {4u, 5u, 6u, 7u, 8u, 11u}) {
        if (initial_long(v, vec * 4) == pc) return true;
    }
    for (uint32_t vec = 32; vec < 48; vec++)
        if (initial_long(v, vec * 4) == pc) return true;
    return false;
}

// Whole families that are outside this CPU.
const char* file_skip_reason(const std::string& family) {
    if (family == "NBCD" || starts_with(family, "MOVEP")) return "not executed (illegal here)";
    // RTE pops the 8-byte frame with its vector-offset word first.
    if (family == "RTE") return "8-byte exception frame";
    if (family == "ILLEGAL_LINEA") return "line A is the host-call dispatcher";
    return nullptr;
}

// Why a single vector does not apply, or nullptr.
const char* vector_skip_reason(const std::string& family, const Decoded& d, const Vector& v) {
    // No address errors: odd word and long accesses simply happen.
    if (v.address_error) return "address error";
    if (touches_special_memory(v)) return "chip registers or top of memory";
    if (uses_68020_index_bits(d, v)) return "68020 index bits";
    // $FF announces a 32-bit displacement (68020).
    if ((family == "Bcc" || family == "BSR") && (d.opcode & 0xFF) == 0xFF) return "32-bit branch";
    // MOVE from SR is privileged, as on the 68010.
    if (family == "MOVEfromSR" && !(v.before.reg[SR] & 0x2000)) return "privileged MOVE from SR";
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

struct FileResult {
    int passed = 0, skipped = 0, failed = 0;
    std::map<std::string, int> skip_reasons;
    std::vector<std::string> failures;  // the first few, with their differences
};

void load_state(Machine& m, const State& s) {
    for (int i = 0; i < 8; i++) m.d[i] = s.reg[D0 + i];
    for (int i = 0; i < 7; i++) m.a[i] = s.reg[A0 + i];
    m.sr = uint16_t(s.reg[SR]);
    m.usp = s.reg[USP];
    m.ssp = s.reg[SSP];
    m.a[7] = (m.sr & SR_S) ? m.ssp : m.usp;
    m.pc = s.reg[PC] - 4;
    m.vbr = 0;
    m.stopped = 0;
    m.fault = 0;
    for (const RamWord& w : s.ram) {
        m.chip_ram[w.address] = uint8_t(w.value >> 8);
        m.chip_ram[(w.address + 1) & 0xFFFFFF] = uint8_t(w.value);
    }
}

void clear_ram(Machine& m, const State& s) {
    for (const RamWord& w : s.ram) {
        m.chip_ram[w.address] = 0;
        m.chip_ram[(w.address + 1) & 0xFFFFFF] = 0;
    }
}

void differ(std::string& out, const char* field, uint32_t want, uint32_t got) {
    char buf[96];
    std::snprintf(buf, sizeof buf, " %s=%08x(want %08x)", field, got, want);
    out += buf;
}

// Run one vector; returns the differences (empty when it passed).
std::string run_vector(Machine& m, const std::string& family, const Vector& v) {
    const State& want = v.after;
    load_state(m, v.before);
    uint32_t stack_before = m.ssp;  // where an exception frame lands (below this)
    step(m);

    std::string diff;
    static const char* const names[] = {"d0", "d1", "d2", "d3", "d4", "d5", "d6",
                                        "d7", "a0", "a1", "a2", "a3", "a4", "a5", "a6"};
    for (int i = 0; i < 8; i++)
        if (m.d[i] != want.reg[D0 + i]) differ(diff, names[i], want.reg[D0 + i], m.d[i]);
    for (int i = 0; i < 7; i++)
        if (m.a[i] != want.reg[A0 + i]) differ(diff, names[8 + i], want.reg[A0 + i], m.a[i]);

    bool exception_taken = takes_exception(v);
    bool super = m.sr & SR_S;
    uint32_t usp = super ? m.usp : m.a[7];
    uint32_t ssp = super ? m.a[7] : m.ssp;
    if (usp != want.reg[USP]) differ(diff, "usp", want.reg[USP], usp);
    // An exception here stacks an 8-byte frame, the 68000 a 6-byte one.
    if (!exception_taken && ssp != want.reg[SSP]) differ(diff, "ssp", want.reg[SSP], ssp);

    uint16_t sr_mask = sr_compare_mask(family, v);
    if ((m.sr & sr_mask) != (want.reg[SR] & sr_mask)) differ(diff, "sr", want.reg[SR], m.sr);
    // A stopped 68000 stops prefetching too, so its next-prefetch address is
    // the address after STOP itself.
    uint32_t want_pc = m.stopped ? want.reg[PC] : want.reg[PC] - 4;
    if (m.pc != want_pc) differ(diff, "pc", want_pc, m.pc);

    for (const RamWord& w : want.ram) {
        if (exception_taken && w.address < stack_before && w.address + 8 >= stack_before) continue;
        uint16_t got = uint16_t(m.chip_ram[w.address] << 8 | m.chip_ram[(w.address + 1) & 0xFFFFFF]);
        if (got != w.value) {
            char field[24];
            std::snprintf(field, sizeof field, "ram[%06x]", w.address);
            differ(diff, field, w.value, got);
        }
    }
    clear_ram(m, v.before);
    clear_ram(m, want);
    // Whatever our own frame wrote below the supervisor stack.
    for (uint32_t a = stack_before - 8; a != stack_before; a++) m.chip_ram[a & 0xFFFFFF] = 0;
    return diff;
}

FileResult run_file(Machine& m, const std::string& family, const std::vector<Vector>& vectors) {
    FileResult r;
    for (const Vector& v : vectors) {
        Decoded d = decode_name(v.name);
        if (const char* why = vector_skip_reason(family, d, v)) {
            r.skipped++;
            r.skip_reasons[why]++;
            continue;
        }
        std::string diff = run_vector(m, family, v);
        if (diff.empty()) {
            r.passed++;
            continue;
        }
        r.failed++;
        if (r.failures.size() < 3) r.failures.push_back(v.name + ":" + diff);
    }
    return r;
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
    Machine& m = *mp;
    int total_passed = 0, total_skipped = 0, total_failed = 0;
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
        FileResult r = run_file(m, family, vectors);
        std::printf("%-14s %4d passed %4d skipped %4d failed\n", family.c_str(), r.passed, r.skipped,
                    r.failed);
        for (const std::string& f : r.failures) std::printf("    %s\n", f.c_str());
        EXPECT_EQ(r.failed, 0) << family;
        total_passed += r.passed;
        total_skipped += r.skipped;
        total_failed += r.failed;
        for (const auto& [why, n] : r.skip_reasons) skip_reasons[why] += n;
    }
    std::printf("total: %d passed, %d skipped, %d failed\n", total_passed, total_skipped,
                total_failed);
    for (const auto& [why, n] : skip_reasons) std::printf("  skipped for %s: %d\n", why.c_str(), n);
    std::fflush(stdout);
}
