// Agreement with GNU objdump (m68k:68020) on every opcode word, each
// followed by random bytes: the same length and, once both syntaxes are
// brought to one canonical form, the same mnemonic and operands. With the CPU
// agreement test this also holds the CPU's set of instructions to binutils.
//
// Each sample is a slot of 22 bytes (the longest 68020 instruction) followed
// by NOPs, so that whatever objdump makes of the random tail ends inside the
// NOPs and every slot starts an instruction.
//
// Counted, not failures: where this system prints dc.w for what objdump
// decodes: encodings the CPU does not execute ("not executed"), the
// coprocessor forms of line F, TST with An, PC-relative or immediate
// operands and CMPI with PC-relative ones ("68020 modes"), and ADDQ/SUBQ.B
// to An ("byte quick to An").
//
// Syntax the canonical form removes: MIT operands (%fp, %a0@(16), ...);
// dots in mnemonics and branch sizes; immediates as values masked to the
// size; abs.W sign-extended; PC-indexed displacements shown raw here and as
// the target by objdump (the difference must be the address of one of the
// instruction's extension words); outer displacements not shown here;
// MOVEM lists as masks; bit fields "<ea>{o:w}" here and "<ea>,o,w" there
// (width 32 printed as 0); MOVE USP without a size here.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "cpu/cpu_helpers.h"
#include "disasm/disasm.h"
#include "test_machine.h"

#ifndef _WIN32

namespace {

constexpr uint32_t RANDOM_BYTES = 22, SLOT = 48;

std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "%x", v);
    return b;
}

// Immediates are compared at the operation's size; bit numbers are bytes.
uint32_t immediate_mask(const std::string& mn) {
    char size = mn.find('.') != std::string::npos ? mn[mn.find('.') + 1]
                : mn == "stop" || mn == "rtd"      ? 'w'
                : mn == "btst" || mn == "bchg" || mn == "bclr" || mn == "bset" ? 'b'
                                                                                 : 'l';
    return size == 'b' ? 0xFF : size == 'w' ? 0xFFFF : 0xFFFFFFFF;
}

std::string reg(std::string r) {  // MIT "%fp" -> "a6"
    if (r.starts_with("%")) r.erase(0, 1);
    return r == "fp" ? "a6" : r == "sp" ? "a7" : r;
}

// "d0-d7/a0-a6" here, "%d0-%a1" in objdump (a range may run on into a0).
std::string register_mask(const std::string& list) {
    uint16_t mask = 0;
    for (size_t start = 0; list != "#0" && start < list.size();) {
        size_t end = std::min(list.find('/', start), list.size());
        std::string group = list.substr(start, end - start);
        start = end + 1;
        size_t dash = group.find('-');
        auto num = [](const std::string& r) { return (r[0] == 'a' ? 8 : 0) + (r[1] - '0'); };
        int first = num(reg(group.substr(0, dash)));
        int last = dash == std::string::npos ? first : num(reg(group.substr(dash + 1)));
        for (int r = first; r <= last; r++) mask |= uint16_t(1u << r);
    }
    return "regs:" + hex(mask);
}

std::string canon_ours_operand(const std::string& op, uint32_t mask) {
    size_t brace = op.find('{');
    if (brace != std::string::npos)
        return canon_ours_operand(op.substr(0, brace), mask) + op.substr(brace);
    if (op.starts_with("#$")) return "#" + std::to_string(std::strtoul(&op[2], nullptr, 16) & mask);
    if (op.starts_with("#")) return "#" + std::to_string(uint32_t(std::atol(&op[1])) & mask);
    if (op.starts_with("$")) {
        char* end;
        uint32_t v = uint32_t(std::strtoul(op.c_str() + 1, &end, 16));
        if (std::string(end) == ".w") return "abs:" + hex(uint32_t(int16_t(v)));
        return (std::string(end) == "(pc)" ? "pcrel:" : "abs:") + hex(v);
    }
    if (op.starts_with("(") && op.find(',') != std::string::npos) {
        std::vector<std::string> parts = split_operands(op.substr(1, op.size() - 2));
        std::string index = parts.size() > 2 ? "," + parts[2] : "";
        if (parts[1] == "pc") return "pcidx:" + parts[0] + index;
        // objdump shows a full-format base displacement in 64-bit hex, and
        // without an index the same way as d16(An).
        char bd[24];
        std::snprintf(bd, sizeof bd, "%llx", (long long)std::atol(parts[0].c_str()));
        if (index.empty() && parts[1] == "z") return "full:" + parts[0] + "(z)";
        if (index.empty()) return "amb:" + std::string(bd) + "(" + parts[1] + ")";
        return "idx:" + parts[0] + "(" + parts[1] + index + ")";
    }
    size_t digit = op[0] == '-';
    if (op.size() > digit && std::isdigit(uint8_t(op[digit])) && op.back() == ')')
        return "amb:" + op;
    return op;
}

std::string canon_mit_operand(const std::string& op, uint32_t mask) {
    if (op.starts_with("#"))
        return "#" + std::to_string(uint32_t(std::strtoll(&op[1], nullptr, 0)) & mask);
    if (op.starts_with("0x")) return "abs:" + hex(uint32_t(std::strtoull(&op[0], nullptr, 16)));
    size_t at = op.find('@');
    if (at == std::string::npos) return reg(op);
    std::string base = op.substr(0, at), rest = op.substr(at + 1);
    if (rest.empty()) return "(" + reg(base) + ")";
    if (rest == "+") return "(" + reg(base) + ")+";
    if (rest == "-") return "-(" + reg(base) + ")";
    // One or two groups "(x[,index])", the second after another '@'; an
    // index "%d1:l:4" becomes "d1.l*4".
    std::vector<std::vector<std::string>> groups;
    for (size_t i = 0; i < rest.size();) {
        i += rest[i] == '@';
        size_t close = rest.find(')', i);
        groups.push_back(split_operands(rest.substr(i + 1, close - i - 1)));
        i = close + 1;
    }
    std::string bd = groups[0][0], index;
    for (const auto& g : groups) {
        if (g.size() < 2) continue;
        size_t c1 = g[1].find(':'), c2 = g[1].find(':', c1 + 1);
        std::string size = c1 == std::string::npos ? "w" : g[1].substr(c1 + 1, c2 - c1 - 1);
        index = "," + reg(g[1].substr(0, c1)) + "." + size;
        std::string scale = c2 == std::string::npos ? "1" : g[1].substr(c2 + 1);
        if (scale != "1") index += "*" + scale;
    }
    int32_t bd_hex = int32_t(uint32_t(std::strtoull(bd.c_str(), nullptr, 16)));
    if (base == "%pc") return "pcabs:" + hex(uint32_t(bd_hex)) + index;
    std::string b = (base.empty() || base == "%zpc") ? "z" : reg(base);
    if (index.empty() && b != "z") return "amb:" + bd + "(" + b + ")";
    return (index.empty() ? "full:" : "idx:") + std::to_string(bd_hex) + "(" + b + index + ")";
}

struct Sample {
    uint32_t address, length = 0, objdump_length = 0;
    std::string ours, objdump;
};

bool operand_agrees(const std::string& ours, const std::string& mit, const Sample& s) {
    if (ours == mit) return true;
    size_t ob = ours.find('{'), mb = mit.find('{');  // bit fields: the EA, then the field
    if (ob != std::string::npos && mb != std::string::npos)
        return ours.substr(ob) == mit.substr(mb) &&
               operand_agrees(ours.substr(0, ob), mit.substr(0, mb), s);
    if (!mit.starts_with("pcabs:")) return false;
    size_t comma = mit.find(',');
    uint32_t target = uint32_t(std::strtoul(&mit[6], nullptr, 16));
    std::string index = comma == std::string::npos ? "" : mit.substr(comma);
    if (ours.starts_with("pcrel:")) return index.empty() && ours == "pcrel:" + hex(target);
    size_t oc = ours.find(',');
    if (!ours.starts_with("pcidx:") || (oc == std::string::npos ? "" : ours.substr(oc)) != index)
        return false;
    uint32_t ext = target - uint32_t(std::atol(&ours[6]));
    return ext % 2 == 0 && ext >= s.address + 2 && ext < s.address + s.length;
}

bool agrees(const Sample& s) {
    if (s.length != s.objdump_length) return false;
    // Ours: "move.l  d0,d1", "dc.w    $4afc"; objdump: "movel %d0,%d1", ".short 0x4afc".
    size_t sp = s.ours.find(' '), msp = s.objdump.find(' ');
    std::string mn = s.ours.substr(0, sp), mit_mn = s.objdump.substr(0, msp);
    std::string rest =
        sp == std::string::npos ? "" : s.ours.substr(s.ours.find_first_not_of(' ', sp));
    std::string mit_rest = msp == std::string::npos ? "" : s.objdump.substr(msp + 1);
    if (mn == "dc.w" || mit_mn == ".short")
        return mn == "dc.w" && mit_mn == ".short" &&
               std::strtoul(&rest[1], nullptr, 16) == std::strtoul(mit_rest.c_str(), nullptr, 16);
    uint32_t mask = immediate_mask(mn);
    std::vector<std::string> ours, mit;
    for (const std::string& op : split_operands(rest)) {
        bool list = mn.starts_with("movem") &&
                    (op == "#0" || (op[0] != '$' && op.find('(') == std::string::npos));
        ours.push_back(list ? register_mask(op) : canon_ours_operand(op, mask));
    }
    std::string ours_mn;
    for (char ch : mn == "move" ? std::string("move.l") : mn)  // MOVE USP
        if (ch != '.') ours_mn += ch;
    static const char* const BRANCHES[] = {"bra", "bsr", "bhi", "bls", "bcc", "bcs", "bne", "beq",
                                           "bvc", "bvs", "bpl", "bmi", "bge", "blt", "bgt", "ble"};
    for (const char* stem : BRANCHES)
        if (mit_mn.size() == 4 && mit_mn.starts_with(stem) && std::strchr("swl", mit_mn[3]))
            mit_mn = stem;
    std::vector<std::string> ops = split_operands(mit_rest);
    if (mit_mn.starts_with("bf") && ops.size() >= 3) {
        // "<ea>,offset,width" -> "<ea>{offset:width}", after BFINS's source register
        size_t at = mit_mn == "bfins";
        std::string width = reg(ops[at + 2]);
        ops[at] = canon_mit_operand(ops[at], mask) + "{" + reg(ops[at + 1]) + ":" +
                  (width == "0" ? "32" : width) + "}";
        ops.erase(ops.begin() + long(at) + 1, ops.begin() + long(at) + 3);
        for (std::string& o : ops) mit.push_back(o.find('{') == std::string::npos ? reg(o) : o);
    } else {
        for (const std::string& op : ops) {
            bool list = mit_mn.starts_with("movem") && op.find('@') == std::string::npos &&
                        !op.starts_with("0x");
            mit.push_back(list ? register_mask(op) : canon_mit_operand(op, mask));
        }
    }
    if (ours_mn != mit_mn || ours.size() != mit.size()) return false;
    for (size_t i = 0; i < ours.size(); i++)
        if (!operand_agrees(ours[i], mit[i], s)) return false;
    return true;
}

const char* intended_difference(const Sample& s) {
    if (!s.ours.starts_with("dc.w")) return nullptr;
    if (s.address / SLOT >= 0xF000) return "line F";
    std::string mn = s.objdump.substr(0, s.objdump.find(' ')), rest = s.objdump.substr(mn.size());
    static const char* const NOT_EXECUTED[] = {
        "illegal", "movec", "moves",  "bkpt",   "trap",  "cas", "chk2",  "cmp2",  "pack", "unpk",
        "mulsl",   "mulul", "divsl",  "divul",  "chkl",  "callm", "rtm", "cp", "swbeg"};
    for (const char* stem : NOT_EXECUTED)
        if (mn.starts_with(stem) && mn != "trap" && mn != "trapv") return "not executed";
    auto has = [&](const char* s) { return rest.find(s) != std::string::npos; };
    bool pc = has("%pc") || has("%zpc");
    bool tst = mn == "tstb" || mn == "tstw" || mn == "tstl";
    if ((tst && (pc || has(" %a") || has(" %fp") || has(" %sp") || has(" #"))) ||
        ((mn == "cmpib" || mn == "cmpiw" || mn == "cmpil") && pc))
        return "68020 modes";
    if ((mn == "addqb" || mn == "subqb") && (has(",%a") || has(",%fp") || has(",%sp")))
        return "byte quick to An";
    return nullptr;
}

// objdump's text and length for the instruction at each slot start.
bool run_objdump(const std::string& path, std::vector<Sample>& samples) {
    std::string command = "m68k-linux-gnu-objdump -D -z -b binary -m m68k:68020 '" + path + "'";
    FILE* p = popen(command.c_str(), "r");
    if (!p) return false;
    char line[512];
    Sample* pending = nullptr;  // the slot whose length the next line's address ends
    while (std::fgets(line, sizeof line, p)) {
        char* colon = std::strchr(line, ':');
        char* insn = colon && colon[1] == '\t' ? std::strchr(colon + 2, '\t') : nullptr;
        if (!insn) continue;  // not an instruction line, or more of its raw bytes
        uint32_t a = uint32_t(std::strtoul(line, nullptr, 16));
        if (pending) pending->objdump_length = a - pending->address, pending = nullptr;
        if (a % SLOT || a / SLOT >= samples.size()) continue;
        pending = &samples[a / SLOT];
        pending->objdump = insn + 1;
        pending->objdump.erase(pending->objdump.find_last_not_of(" \t\r\n") + 1);
    }
    return pclose(p) == 0;
}

}  // namespace

TEST(ObjdumpAgreement, EveryOpcodeWithRandomExtensionBytes) {
    if (!have_tool("m68k-linux-gnu-objdump --version"))
        GTEST_SKIP() << "m68k-linux-gnu-objdump is not installed";
    const char* env = std::getenv("ORVEL_DISASM_SEED");
    std::mt19937 rng(env ? uint32_t(std::strtoul(env, nullptr, 0)) : 0x6d36386b);
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    std::map<std::string, uint32_t> intended;
    uint32_t agreed = 0, failed = 0;
    const std::string path = std::string(ORVEL_TEST_BINARY_DIR) + "/disasm_objdump_batch.bin";
    std::vector<Sample> samples(0x10000);
    for (uint32_t i = 0; i < samples.size(); i++) {
        uint8_t* slot = m.chip_ram + i * SLOT;
        for (uint32_t k = 0; k < SLOT; k++)  // the opcode, random bytes, then NOPs
            slot[k] = k < 2 ? uint8_t(i >> (8 - 8 * k)) : k < RANDOM_BYTES ? uint8_t(rng())
                                                        : k % 2 ? 0x71 : 0x4E;
        char text[96];
        samples[i] = {i * SLOT, disasm_one(m, i * SLOT, text), 0, text, ""};
    }
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(m.chip_ram), long(samples.size() * SLOT));
    ASSERT_TRUE(run_objdump(path, samples)) << "objdump failed on " << path;
    std::remove(path.c_str());
    for (const Sample& s : samples) {
        const char* why = agrees(s) ? "" : intended_difference(s);
        if (why && *why) intended[why]++;
        else if (why) agreed++;
        else if (++failed <= 40)
            ADD_FAILURE() << hex(s.address / SLOT) << ": ours " << s.ours << " (" << s.length
                          << " bytes), objdump " << s.objdump << " (" << s.objdump_length << ")";
    }
    std::printf("objdump agreement: %u agree, %u disagree", agreed, failed);
    for (const auto& [why, n] : intended) std::printf(", %u %s", n, why.c_str());
    std::printf("\n");
    EXPECT_EQ(failed, 0u);
}

#else

TEST(ObjdumpAgreement, EveryOpcodeWithRandomExtensionBytes) {
    GTEST_SKIP() << "the objdump comparison runs in the Linux build";
}

#endif
