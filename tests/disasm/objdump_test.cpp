// Agreement with GNU objdump (m68k:68020) on random instruction bytes: the
// same length and, once both syntaxes are brought to one canonical form, the
// same mnemonic and operands.
//
// Each sample is one slot: 22 random bytes (room for the longest 68020
// instruction) followed by NOPs. objdump decodes the random tail after the
// first instruction as well; whatever it makes of it ends inside the NOP run
// (no instruction is longer than 22 bytes), so every slot start is decoded
// as an instruction of its own.
//
// Intended differences, where this system prints dc.w and objdump decodes;
// counted and reported, not failures:
//  - not executed: encodings that the emulated CPU does not execute (ILLEGAL,
//    MOVEC, MOVES, BKPT, TRAPcc, CAS/CAS2, CHK2/CMP2, PACK/UNPK, 32-bit
//    MUL/DIV, CHK.L, CALLM/RTM) and objdump's "swbeg" pseudo-op.
//  - line F: the 68851/68881 coprocessor forms that objdump also decodes.
//  - 68020 modes: TST with An, PC-relative or immediate operands and CMPI
//    with PC-relative operands, which the CPU does not execute either.
//  - byte quick to An: ADDQ.B/SUBQ.B to an address register, which the
//    68000 does not have and objdump accepts.
// Differences of syntax that the normaliser removes:
//  - MIT operands (%d0, %a0@(16), %pc@(...), %fp/%sp for a6/a7) become this
//    system's forms; mnemonics are compared without the dot (movea.l and
//    moveal).
//  - Immediates are compared as values masked to the operation size
//    (objdump prints signed decimal, this system unsigned hex).
//  - abs.W is printed as its word here and sign-extended by objdump.
//  - PC-indexed displacements are shown raw here and as the absolute target
//    by objdump: the target minus the displacement must be the address of
//    one of the instruction's extension words.
//  - Memory-indirect forms: the outer displacement is consumed but not shown
//    here and there is no indirection mark, so objdump's "@(od)" is dropped.
//  - MOVEM lists are compared as register masks (objdump joins d7 to a0).
//  - Bit fields: "<ea>{offset:width}" here, "<ea>,offset,width" in objdump,
//    which prints a width of 32 as 0.
//  - MOVE USP has no size here; objdump says movel.
//  - Branches carry no size here; objdump adds s, w or l.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "disasm/disasm.h"
#include "test_machine.h"

#ifndef _WIN32

namespace {

constexpr const char* OBJDUMP = "m68k-linux-gnu-objdump";
constexpr uint32_t RANDOM_BYTES = 22;
constexpr uint32_t SLOT = 48;
constexpr uint32_t BATCH = 25000;
constexpr int BATCHES = 4;
constexpr uint16_t NOP = 0x4E71;

std::vector<std::string> split_operands(const std::string& s) {
    std::vector<std::string> out;
    int depth = 0;
    std::string cur;
    for (char ch : s) {
        if (ch == '(' || ch == '{') depth++;
        if (ch == ')' || ch == '}') depth--;
        if (ch == ',' && depth == 0) {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += ch;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

bool starts(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

uint32_t immediate_mask(const std::string& mnemonic) {
    size_t dot = mnemonic.find('.');
    if (dot != std::string::npos) {
        char sz = mnemonic[dot + 1];
        return sz == 'b' ? 0xFF : sz == 'w' ? 0xFFFF : 0xFFFFFFFF;
    }
    if (mnemonic == "stop" || mnemonic == "rtd") return 0xFFFF;
    if (mnemonic == "btst" || mnemonic == "bchg" || mnemonic == "bclr" || mnemonic == "bset")
        return 0xFF;
    return 0xFFFFFFFF;
}

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "%x", v);
    return b;
}

// ---- this system's syntax ----

uint16_t ours_register_mask(const std::string& list) {
    if (list == "#0") return 0;
    uint16_t mask = 0;
    size_t i = 0;
    while (i < list.size()) {
        int cls = list[i] == 'a' ? 8 : 0;
        int first = list[i + 1] - '0';
        int last = first;
        i += 2;
        if (i < list.size() && list[i] == '-') {
            last = list[i + 2] - '0';
            i += 3;
        }
        for (int r = first; r <= last; r++) mask |= uint16_t(1u << (cls + r));
        if (i < list.size() && list[i] == '/') i++;
    }
    return mask;
}

std::string canon_ours_operand(const std::string& op, uint32_t mask) {
    size_t brace = op.find('{');
    if (brace != std::string::npos)
        return canon_ours_operand(op.substr(0, brace), mask) + op.substr(brace);
    if (starts(op, "#$"))
        return "#" + std::to_string(std::strtoul(op.c_str() + 2, nullptr, 16) & mask);
    if (starts(op, "#"))
        return "#" + std::to_string(uint32_t(std::strtol(op.c_str() + 1, nullptr, 10)) & mask);
    if (starts(op, "$")) {
        char* end;
        uint32_t v = uint32_t(std::strtoul(op.c_str() + 1, &end, 16));
        std::string rest = end;
        if (rest == ".w") return "abs:" + hex(uint32_t(int32_t(int16_t(v))));
        if (rest == "(pc)") return "pcrel:" + hex(v);
        return "abs:" + hex(v);
    }
    if (starts(op, "(") && op.find(',') != std::string::npos) {
        std::vector<std::string> parts = split_operands(op.substr(1, op.size() - 2));
        std::string d = parts[0], base = parts[1];
        std::string index = parts.size() > 2 ? "," + parts[2] : "";
        if (base == "pc") return "pcidx:" + d + index;
        if (index.empty()) return "full:" + d + "(" + base + ")";
        return "idx:" + d + "(" + base + index + ")";
    }
    size_t digit = op[0] == '-' ? 1 : 0;
    if (op.size() > digit && std::isdigit(uint8_t(op[digit])) && op.back() == ')')
        return "d16:" + op;
    return op;
}

struct Canon {
    std::string mnemonic;
    std::vector<std::string> operands;
};

Canon canon_ours(const std::string& text) {
    Canon c;
    size_t sp = text.find(' ');
    std::string mn = text.substr(0, sp);
    std::string rest = sp == std::string::npos ? "" : text.substr(text.find_first_not_of(' ', sp));
    if (mn == "dc.w") {
        c.mnemonic = "dcw:" + rest.substr(1);
        return c;
    }
    uint32_t mask = immediate_mask(mn);
    for (const std::string& op : split_operands(rest)) {
        if (starts(mn, "movem") &&
            (op == "#0" || (op[0] != '$' && op.find('(') == std::string::npos)))
            c.operands.push_back("regs:" + hex(ours_register_mask(op)));
        else
            c.operands.push_back(canon_ours_operand(op, mask));
    }
    if (mn == "move") mn = "move.l";  // MOVE USP
    for (char ch : mn)
        if (ch != '.') c.mnemonic += ch;
    return c;
}

// ---- objdump's MIT syntax ----

std::string mit_register(std::string r) {
    if (starts(r, "%")) r = r.substr(1);
    if (r == "fp") return "a6";
    if (r == "sp") return "a7";
    return r;
}

// "%d1:l:4" -> "d1.l*4"
std::string mit_index(const std::string& s) {
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t i = 0; i <= s.size(); i++)
        if (i == s.size() || s[i] == ':') {
            f.push_back(s.substr(start, i - start));
            start = i + 1;
        }
    std::string out = mit_register(f[0]) + "." + (f.size() > 1 ? f[1] : "w");
    if (f.size() > 2 && f[2] != "1") out += "*" + f[2];
    return out;
}

int32_t mit_hex(const std::string& s) {
    return int32_t(uint32_t(std::strtoull(s.c_str(), nullptr, 16)));
}

uint16_t mit_register_mask(const std::string& list) {
    if (list == "#0") return 0;
    uint16_t mask = 0;
    size_t start = 0;
    for (size_t i = 0; i <= list.size(); i++) {
        if (i < list.size() && list[i] != '/') continue;
        std::string group = list.substr(start, i - start);
        start = i + 1;
        size_t dash = group.find('-');
        auto num = [](const std::string& r) {
            std::string n = mit_register(r);
            return (n[0] == 'a' ? 8 : 0) + (n[1] - '0');
        };
        int first = num(group.substr(0, dash));
        int last = dash == std::string::npos ? first : num(group.substr(dash + 1));
        for (int r = first; r <= last; r++) mask |= uint16_t(1u << r);
    }
    return mask;
}

std::string canon_mit_operand(const std::string& op, uint32_t mask) {
    if (starts(op, "#")) {
        long long v = std::strtoll(op.c_str() + 1, nullptr, 0);
        return "#" + std::to_string(uint32_t(v) & mask);
    }
    if (starts(op, "0x")) return "abs:" + hex(uint32_t(std::strtoull(op.c_str(), nullptr, 16)));
    size_t at = op.find('@');
    if (at == std::string::npos) return mit_register(op);
    std::string base = op.substr(0, at);
    std::string rest = op.substr(at + 1);
    if (rest.empty()) return "(" + mit_register(base) + ")";
    if (rest == "+") return "(" + mit_register(base) + ")+";
    if (rest == "-") return "-(" + mit_register(base) + ")";
    // One or two groups "(x[,index])", the second after another '@'.
    std::vector<std::vector<std::string>> groups;
    size_t i = 0;
    while (i < rest.size()) {
        if (rest[i] == '@') i++;
        size_t close = rest.find(')', i);
        groups.push_back(split_operands(rest.substr(i + 1, close - i - 1)));
        i = close + 1;
    }
    std::string bd = groups[0][0];
    std::string index;
    for (const auto& g : groups)
        if (g.size() > 1) index = "," + mit_index(g[1]);
    if (base == "%pc")
        return "pcabs:" + hex(uint32_t(std::strtoull(bd.c_str(), nullptr, 16))) + index;
    std::string b = (base.empty() || base == "%zpc") ? "z" : mit_register(base);
    if (groups.size() == 1 && index.empty() && b != "z") return "amb:" + bd + "(" + b + ")";
    std::string d = std::to_string(mit_hex(bd));
    if (index.empty()) return "full:" + d + "(" + b + ")";
    return "idx:" + d + "(" + b + index + ")";
}

const char* const BRANCH_STEMS[] = {"bra", "bsr", "bhi", "bls", "bcc", "bcs", "bne", "beq",
                                    "bvc", "bvs", "bpl", "bmi", "bge", "blt", "bgt", "ble"};

Canon canon_mit(const std::string& text, const std::string& ours_mnemonic) {
    Canon c;
    size_t sp = text.find(' ');
    std::string mn = text.substr(0, sp);
    std::string rest = sp == std::string::npos ? "" : text.substr(sp + 1);
    if (mn == ".short") {
        char b[16];
        std::snprintf(b, sizeof b, "%04lx", std::strtoul(rest.c_str(), nullptr, 16));
        c.mnemonic = std::string("dcw:") + b;
        return c;
    }
    for (const char* stem : BRANCH_STEMS)
        if (mn.size() == 4 && starts(mn, stem) && std::strchr("swl", mn[3])) mn = stem;
    c.mnemonic = mn;
    std::vector<std::string> ops = split_operands(rest);
    uint32_t mask = immediate_mask(ours_mnemonic);
    if (starts(mn, "bf") && ops.size() >= 3) {
        // "<ea>,offset,width" -> "<ea>{offset:width}"
        size_t at = mn == "bfins" ? 1 : 0;
        std::string width = mit_register(ops[at + 2]);
        std::string field = canon_mit_operand(ops[at], mask) + "{" + mit_register(ops[at + 1]) +
                            ":" + (width == "0" ? "32" : width) + "}";
        ops.erase(ops.begin() + long(at), ops.begin() + long(at) + 3);
        c.operands.push_back(field);
        for (const std::string& o : ops)
            c.operands.insert(mn == "bfins" ? c.operands.begin() : c.operands.end(),
                              mit_register(o));
        return c;
    }
    for (const std::string& op : ops) {
        if (starts(mn, "movem") && op.find('@') == std::string::npos && !starts(op, "0x"))
            c.operands.push_back("regs:" + hex(mit_register_mask(op)));
        else
            c.operands.push_back(canon_mit_operand(op, mask));
    }
    return c;
}

// ---- comparison ----

struct Sample {
    uint32_t address;
    uint16_t opcode;
    uint32_t length;  // ours
    std::string ours;
    uint32_t objdump_length = 0;
    std::string objdump;
};

bool operand_agrees(const std::string& ours, const std::string& mit, const Sample& s) {
    if (ours == mit) return true;
    // Bit fields: compare the EA part, then the field.
    size_t ob = ours.find('{'), mb = mit.find('{');
    if (ob != std::string::npos && mb != std::string::npos)
        return ours.substr(ob) == mit.substr(mb) &&
               operand_agrees(ours.substr(0, ob), mit.substr(0, mb), s);
    if (starts(mit, "amb:")) {
        // objdump prints d16(An) in decimal and a full-format base
        // displacement without index in hex, in the same form.
        std::string bd = mit.substr(4, mit.find('(') - 4);
        std::string reg = mit.substr(mit.find('('));
        if (starts(ours, "d16:"))
            return ours == "d16:" + std::to_string(std::strtol(bd.c_str(), nullptr, 10)) + reg;
        if (starts(ours, "full:")) return ours == "full:" + std::to_string(mit_hex(bd)) + reg;
        return false;
    }
    if (starts(mit, "pcabs:")) {
        size_t comma = mit.find(',');
        uint32_t target = uint32_t(std::strtoul(mit.c_str() + 6, nullptr, 16));
        std::string index = comma == std::string::npos ? "" : mit.substr(comma);
        if (starts(ours, "pcrel:")) return index.empty() && ours == "pcrel:" + hex(target);
        if (!starts(ours, "pcidx:")) return false;
        size_t oc = ours.find(',');
        std::string oindex = oc == std::string::npos ? "" : ours.substr(oc);
        if (oindex != index) return false;
        uint32_t ext = target - uint32_t(std::strtol(ours.c_str() + 6, nullptr, 10));
        return ext % 2 == 0 && ext >= s.address + 2 && ext < s.address + s.length;
    }
    return false;
}

bool agrees(const Sample& s) {
    if (s.length != s.objdump_length) return false;
    std::string mn = s.ours.substr(0, s.ours.find(' '));
    Canon o = canon_ours(s.ours);
    Canon m = canon_mit(s.objdump, mn);
    if (o.mnemonic != m.mnemonic || o.operands.size() != m.operands.size()) return false;
    for (size_t i = 0; i < o.operands.size(); i++)
        if (!operand_agrees(o.operands[i], m.operands[i], s)) return false;
    return true;
}

// Encodings that objdump knows and the emulated CPU does not execute.
const char* const NOT_EXECUTED[] = {"illegal", "movec", "moves",  "bkpt",   "trap",  "cas",
                                    "chk2",    "cmp2",  "pack",   "unpk",   "mulsl", "mulul",
                                    "divsl",   "divul", "divsll", "divull", "chkl",  "callm",
                                    "rtm",     "cp",    "swbeg"};

const char* intended_difference(const Sample& s) {
    if (!starts(s.ours, "dc.w")) return nullptr;
    std::string mn = s.objdump.substr(0, s.objdump.find(' '));
    std::string rest = s.objdump.substr(mn.size());
    if ((s.opcode & 0xF000) == 0xF000) return "line F";
    for (const char* stem : NOT_EXECUTED)
        if (starts(mn, stem) &&
            !(std::strcmp(stem, "trap") == 0 && (mn == "trap" || mn == "trapv")))
            return "not executed";
    bool tst = mn == "tstb" || mn == "tstw" || mn == "tstl";
    bool cmpi = mn == "cmpib" || mn == "cmpiw" || mn == "cmpil";
    bool extended = rest.find("%pc") != std::string::npos || rest.find("%zpc") != std::string::npos;
    if (tst && (extended || rest.find(" %a") != std::string::npos ||
                rest.find(" %fp") != std::string::npos || rest.find(" %sp") != std::string::npos ||
                rest.find(" #") != std::string::npos))
        return "68020 modes";
    if (cmpi && extended) return "68020 modes";
    bool to_an = rest.find(",%a") != std::string::npos || rest.find(",%fp") != std::string::npos ||
                 rest.find(",%sp") != std::string::npos;
    if ((mn == "addqb" || mn == "subqb") && to_an) return "byte quick to An";
    return nullptr;
}

// Runs objdump over the batch and fills in its text and length per slot.
bool run_objdump(const std::string& path, std::vector<Sample>& samples) {
    std::string cmd = std::string(OBJDUMP) + " -D -z -b binary -m m68k:68020 '" + path + "'";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return false;
    char line[512];
    long pending = -1;
    while (std::fgets(line, sizeof line, p)) {
        char* colon = std::strchr(line, ':');
        if (!colon || colon[1] != '\t') continue;
        char* insn = std::strchr(colon + 2, '\t');
        if (!insn) continue;  // continuation of the raw bytes
        uint32_t a = uint32_t(std::strtoul(line, nullptr, 16));
        if (pending >= 0) {
            samples[size_t(pending)].objdump_length = a - samples[size_t(pending)].address;
            pending = -1;
        }
        if (a % SLOT == 0 && a / SLOT < samples.size()) {
            std::string t = insn + 1;
            while (!t.empty() && (t.back() == '\n' || t.back() == ' ')) t.pop_back();
            samples[a / SLOT].objdump = t;
            pending = long(a / SLOT);
        }
    }
    return pclose(p) == 0;
}

}  // namespace

TEST(ObjdumpAgreement, RandomInstructionBytes) {
    if (std::system((std::string(OBJDUMP) + " --version > /dev/null 2>&1").c_str()) != 0)
        GTEST_SKIP() << OBJDUMP << " is not installed";
    uint32_t seed = 0x6d36386b;
    if (const char* s = std::getenv("ORVEL_DISASM_SEED"))
        seed = uint32_t(std::strtoul(s, nullptr, 0));
    std::printf(
        "objdump agreement: seed %#x (set ORVEL_DISASM_SEED to repeat another), %u samples\n", seed,
        BATCH * BATCHES);
    std::mt19937 rng(seed);
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    std::map<std::string, uint32_t> intended;
    uint32_t agreed = 0, failed = 0;
    for (int b = 0; b < BATCHES; b++) {
        std::vector<uint8_t> bytes(size_t(BATCH) * SLOT);
        for (uint32_t i = 0; i < BATCH; i++) {
            uint8_t* slot = bytes.data() + size_t(i) * SLOT;
            for (uint32_t k = 0; k < RANDOM_BYTES; k++) slot[k] = uint8_t(rng());
            for (uint32_t k = RANDOM_BYTES; k < SLOT; k += 2) {
                slot[k] = NOP >> 8;
                slot[k + 1] = NOP & 0xFF;
            }
        }
        std::string path = std::string(ORVEL_TEST_BINARY_DIR) + "/disasm_objdump_batch.bin";
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr) << path;
        ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
        std::fclose(f);
        std::memcpy(m.chip_ram, bytes.data(), bytes.size());

        std::vector<Sample> samples(BATCH);
        char text[96];
        for (uint32_t i = 0; i < BATCH; i++) {
            samples[i].address = i * SLOT;
            samples[i].opcode = uint16_t(bytes[i * SLOT] << 8 | bytes[i * SLOT + 1]);
            samples[i].length = disasm_one(m, i * SLOT, text);
            samples[i].ours = text;
        }
        ASSERT_TRUE(run_objdump(path, samples)) << "objdump failed on " << path;
        std::remove(path.c_str());

        for (const Sample& s : samples) {
            if (agrees(s)) {
                agreed++;
                continue;
            }
            if (const char* why = intended_difference(s)) {
                intended[why]++;
                continue;
            }
            if (++failed <= 40) {
                char words[64] = {};
                for (uint32_t k = 0; k < 12; k++)
                    std::snprintf(words + 5 * k, 6, "%02x%02x ", m.chip_ram[s.address + 2 * k],
                                  m.chip_ram[s.address + 2 * k + 1]);
                ADD_FAILURE() << words << "\n  ours:    " << s.ours << " (" << s.length
                              << " bytes)\n  objdump: " << s.objdump << " (" << s.objdump_length
                              << " bytes)";
            }
        }
    }
    std::printf("objdump agreement: %u agree, %u disagree", agreed, failed);
    for (const auto& [why, n] : intended) std::printf(", %u %s", n, why.c_str());
    std::printf("\n");
    EXPECT_EQ(failed, 0u);
}

#else

TEST(ObjdumpAgreement, RandomInstructionBytes) {
    GTEST_SKIP() << "the objdump comparison runs in the Linux build";
}

#endif
