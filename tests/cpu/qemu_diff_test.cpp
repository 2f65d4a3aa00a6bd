// Differential test against qemu-m68k as a second, independent 68000:
// random user-mode instruction streams run on both; the registers and
// condition codes after every instruction and the data memory at the end
// must agree.
//
// The program is generated while this CPU runs it, so that instructions that
// trap here (division by zero, CHK) are replaced before qemu sees them and
// every memory operand stays inside the data area. qemu runs it as a static
// m68k ELF; after each instruction the program logs its registers and SR,
// and writes the log to standard output at the end (or from a signal
// handler, should qemu trap).
//
// Flags a 68000 leaves undefined are masked (ABCD/SBCD N, Z, V; CHK within
// bounds N, Z, V, C; DIVU/DIVS overflow N, Z, C) and redefined by the next
// instruction. Not generated: control flow, privileged instructions, abs.W
// (qemu's addresses are 32-bit), scaled or full-format indexes (qemu's 68000
// ignores them), and three qemu 7.2 faults: memory ASd/LSd swapped, A7 moved
// by 1 for byte ADDX/SUBX -(A7) and for TAS (A7)+/-(A7).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "disasm/disasm.h"
#include "test_machine.h"

#ifdef _WIN32

TEST(QemuDiff, RandomInstructionStreamsAgreeWithQemu) {
    GTEST_SKIP() << "qemu-m68k cannot be driven from the Windows build";
}

#else

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int PROGRAMS = 10, INSNS = 10000;  // few long programs: starting qemu costs most

// One loadable segment: padding (read by PC-relative operands), the code,
// the data area every memory operand points into, and the state log.
constexpr uint32_t SEGMENT = 0x100000, CODE = 0x110000, CODE_END = 0x170000;
constexpr uint32_t DATA = CODE_END, DATA_SIZE = 0x40000, DATA_CENTER = DATA + DATA_SIZE / 2;
constexpr uint32_t LOG = DATA + DATA_SIZE, LOG_ENTRY = 68;  // 16 registers, SR, pad
constexpr uint32_t INIT_REGS = LOG - 64, SEGMENT_END = LOG + INSNS * LOG_ENTRY;
// A base register stays this close to the middle of the data area, so a
// 16-bit displacement or index keeps the operand inside it.
constexpr uint32_t BASE_WINDOW = 0x4000;
// m68k Linux: exit, write and sigaction; the signal handler is the write-out.
constexpr uint32_t SIGACTION = CODE - 16, HANDLER = CODE_END - 0x80;

enum Mode { DN, AN, AI, AINC, ADEC, AD16, AIDX, ABSW, ABSL, PCD16, PCIDX, IMM };
constexpr unsigned bit(Mode m) { return 1u << m; }
constexpr unsigned ALL = 0xFFF & ~bit(ABSW), DATA_MODES = ALL & ~bit(AN);
constexpr unsigned MEM_ALT = bit(AI) | bit(AINC) | bit(ADEC) | bit(AD16) | bit(AIDX) | bit(ABSL);
constexpr unsigned DATA_ALT = MEM_ALT | bit(DN);
constexpr unsigned CONTROL_ALT = bit(AI) | bit(AD16) | bit(AIDX) | bit(ABSL);
constexpr unsigned CONTROL = CONTROL_ALT | bit(PCD16) | bit(PCIDX);
enum Size { BYTE, WORD, LONG };

bool in_window(uint32_t a) { return a - (DATA_CENTER - BASE_WINDOW) < 2 * BASE_WINDOW; }

// A static big-endian m68k ELF32 with one RWX segment that also holds the
// headers (in the padding at its start): the code as built in chip RAM and
// the data area as it was before this CPU ran the program.
std::vector<uint8_t> elf_file(const Machine& m, const std::vector<uint8_t>& initial_data) {
    std::vector<uint8_t> f(m.chip_ram + SEGMENT, m.chip_ram + DATA);
    f.insert(f.end(), initial_data.begin(), initial_data.end());
    std::fill(f.begin(), f.begin() + 84, 0);
    const std::array<uint32_t, 3> fields[] = {
        {0, 4, 0x7F454C46}, {4, 1, 1}, {5, 1, 2}, {6, 1, 1},  // ELF, 32-bit, big-endian
        {16, 2, 2}, {18, 2, 4}, {20, 4, 1},                   // executable, 68000, version
        {24, 4, CODE}, {28, 4, 52}, {40, 2, 52}, {42, 2, 32}, {44, 2, 1}, {46, 2, 40},
        {52, 4, 1}, {60, 4, SEGMENT}, {64, 4, SEGMENT}, {68, 4, LOG - SEGMENT},  // PT_LOAD
        {72, 4, SEGMENT_END - SEGMENT}, {76, 4, 7}, {80, 4, 0x1000},  // the log is zero-filled
    };
    for (auto [at, bytes, value] : fields)
        for (uint32_t i = 0; i < bytes; i++) f[at + i] = uint8_t(value >> 8 * (bytes - 1 - i));
    return f;
}

// Builds one program in chip RAM while this CPU runs it; this CPU's log is
// at LOG, with the condition codes both CPUs define alike per instruction.
struct Generator {
    Machine& m;
    std::mt19937_64 rng;
    std::vector<uint8_t> initial_data;
    std::vector<std::pair<uint32_t, uint16_t>> logged;  // address, compared CCR bits
    uint32_t at = CODE;  // where the next instruction goes
    uint32_t span = 4;   // bytes a PC-relative operand may read
    std::vector<uint16_t> w;
    uint16_t ccr_mask = 0x1F;
    bool define_flags_next = false;

    Generator(Machine& machine, uint64_t seed) : m(machine), rng(seed) {}
    uint32_t rnd(uint32_t n) { return uint32_t(rng() % n); }
    uint32_t r32() { return uint32_t(rng()); }
    bool chance(int percent) { return rnd(100) < uint32_t(percent); }
    uint16_t pick(std::initializer_list<uint16_t> l, unsigned k = ~0u) {
        return l.begin()[k < l.size() ? k : rnd(uint32_t(l.size()))];
    }
    void emit(std::initializer_list<uint32_t> words) {  // above $FFFF: a long
        for (uint32_t v : words) {
            if (v > 0xFFFF) write16(m, at, uint16_t(v >> 16)), at += 2;
            write16(m, at, uint16_t(v)), at += 2;
        }
    }
    int base_register() {
        int candidates[7], n = 0;
        for (int r : {0, 1, 2, 3, 4, 5, 7})
            if (in_window(m.a[r])) candidates[n++] = r;
        return n ? candidates[rnd(n)] : -1;
    }
    int ea(unsigned modes, Size size);
    bool with_ea(uint16_t op, std::initializer_list<uint16_t> extra, unsigned modes, Size s);
    bool make_instruction();
    bool build();
};

// A mode out of `modes` with its extension words appended to w; returns the
// 6-bit mode/register field, or -1.
int Generator::ea(unsigned modes, Size size) {
    for (int attempt = 0; attempt < 64; attempt++) {
        Mode md = Mode(rnd(12));
        uint32_t ext_address = at + 2 * uint32_t(w.size());
        if (!(modes & bit(md)) || md == ABSW) continue;
        if (md == DN || md == AN) return md << 3 | int(rnd(8));
        if (md == ABSL) {
            uint32_t a = DATA + rnd(DATA_SIZE - 64);
            w.insert(w.end(), {uint16_t(a >> 16), uint16_t(a)});
            return 7 << 3 | 1;
        }
        if (md == PCD16) {  // only what is already written: the padding and earlier code
            uint32_t lo = std::max<uint32_t>(SEGMENT + 0x100, ext_address - 0x7FF0);
            w.push_back(uint16_t(lo + rnd(at - span - lo) - ext_address));
            return 7 << 3 | 2;
        }
        if (md == PCIDX) {
            uint16_t ext = uint16_t(rnd(16) << 12 | rnd(256));
            uint32_t xn = ext >> 15 ? m.a[(ext >> 12) & 7] : m.d[(ext >> 12) & 7];
            uint32_t target = ext_address + uint32_t(int8_t(ext)) + uint32_t(int16_t(xn));
            if (target < SEGMENT + 0x100 || target + span > at) continue;
            w.push_back(ext);
            return 7 << 3 | 3;
        }
        if (md == IMM) {
            if (size == LONG) w.push_back(uint16_t(r32() >> 16));
            w.push_back(size == BYTE ? uint16_t(rnd(256)) : uint16_t(r32()));
            return 7 << 3 | 4;
        }
        int r = base_register();  // (An), (An)+, -(An), d16(An), d8(An,Xn) in the window
        if (r < 0) continue;
        if (md == AD16) w.push_back(uint16_t(r32()));
        if (md == AIDX) w.push_back(uint16_t(rnd(16) << 12 | rnd(256)));  // brief, no scale
        return md << 3 | r;
    }
    return -1;
}

// The opcode, any words that come before the operand's, then the operand.
bool Generator::with_ea(uint16_t op, std::initializer_list<uint16_t> extra, unsigned modes,
                        Size s) {
    w = {op};
    w.insert(w.end(), extra);
    int e = ea(modes, s);
    w[0] |= uint16_t(e);
    return e >= 0;
}

bool Generator::make_instruction() {
    ccr_mask = 0x1F;
    span = 4;
    if (define_flags_next) {  // TST.L Dn defines N, Z, V and C without reading them
        define_flags_next = false;
        w = {uint16_t(0x4A80 | rnd(8))};
        return true;
    }
    static const int weights[] = {20, 14, 6, 6, 6, 4, 5, 2, 5, 1, 6, 8, 4, 3, 2, 3, 2};
    int roll = int(rnd(97)), family = 0;  // 97: the sum of the weights
    while (roll >= weights[family]) roll -= weights[family++];
    Size s = Size(rnd(3)), wl = chance(50) ? WORD : LONG;
    uint16_t size = uint16_t(s << 6), rx = uint16_t(rnd(8) << 9);
    uint16_t imm = s == BYTE ? uint16_t(rnd(256)) : uint16_t(r32());
    switch (family) {
    case 0: {  // MOVE, and MOVEA to A6 only
        w = {0};
        int src = ea(s == BYTE ? DATA_MODES : ALL, s);
        int dst = src < 0 ? -1 : s != BYTE && chance(15) ? 1 << 3 | 6 : ea(DATA_ALT, s);
        w[0] = uint16_t((s == BYTE ? 0x1000 : s == WORD ? 0x3000 : 0x2000) | (dst & 7) << 9 |
                        (dst >> 3 & 7) << 6 | (src & 0x3F));
        return dst >= 0;
    }
    case 1: {  // ADD SUB CMP AND OR to Dn or (not CMP) to memory, EOR Dn,<ea>
        unsigned k = rnd(6);
        bool to_memory = k == 5 || (k != 2 && chance(40));
        unsigned modes = k == 5                ? DATA_ALT
                         : to_memory             ? MEM_ALT
                         : s == BYTE || k >= 3 ? DATA_MODES
                                               : ALL;
        uint16_t op = pick({0xD000, 0x9000, 0xB000, 0xC000, 0x8000, 0xB000}, k);
        return with_ea(uint16_t(op | rx | (to_memory ? 0x100 : 0) | size), {}, modes, s);
    }
    case 2: {  // ADDI SUBI CMPI ANDI ORI EORI
        uint16_t op = uint16_t(pick({0x0600, 0x0400, 0x0C00, 0x0200, 0x0000, 0x0A00}) | size);
        if (s == LONG) return with_ea(op, {uint16_t(r32()), imm}, DATA_ALT, s);
        return with_ea(op, {imm}, DATA_ALT, s);
    }
    case 3: {  // ADDQ SUBQ; an address register only inside its window (or A6)
        uint16_t op = uint16_t(0x5000 | rx | (chance(50) ? 0x100 : 0) | size);
        if (s == BYTE || !chance(20)) return with_ea(op, {}, DATA_ALT, s);
        unsigned r = rnd(8);
        w = {uint16_t(op | 8 | r)};
        return r == 6 || in_window(m.a[r]);
    }
    case 4:  // NEGX CLR NEG NOT TST
        return with_ea(uint16_t(pick({0x4000, 0x4200, 0x4400, 0x4600, 0x4A00}) | size), {},
                       DATA_ALT, s);
    case 5:  // ADDA and SUBA to A6, CMPA with any address register
        return with_ea(uint16_t(pick({0xDC00, 0x9C00, uint16_t(0xB000 | rx)}) |
                                (wl == LONG ? 0x1C0 : 0xC0)), {}, ALL, wl);
    case 6: {  // ADDX SUBX (registers or -(Ay),-(Ax)), CMPM (Ay)+,(Ax)+
        unsigned k = rnd(3);
        int x = int(rnd(8)), y = int(rnd(8));
        bool memory = k == 2 || chance(50);
        if (memory && ((x = base_register()) < 0 || (y = base_register()) < 0 ||
                       (k != 2 && s == BYTE && (x == 7 || y == 7))))
            return false;
        w = {uint16_t(pick({0xD100, 0x9100, 0xB108}, k) | x << 9 | size | (memory ? 8 : 0) | y)};
        return true;
    }
    case 7: {  // ABCD SBCD on valid BCD bytes (the CPUs differ on others); X, C compared
        unsigned x = rnd(8), y = rnd(8);
        auto bcd = [](uint32_t v) { return (v & 0x0F) <= 9 && (v & 0xF0) <= 0x90; };
        w = {uint16_t((chance(50) ? 0xC100 : 0x8100) | x << 9 | y)};
        ccr_mask = SR_X | SR_C;
        return define_flags_next = bcd(m.d[x]) && bcd(m.d[y]);
    }
    case 8:  // MULU MULS DIVU DIVS
        return with_ea(uint16_t(pick({0xC0C0, 0xC1C0, 0x80C0, 0x81C0}) | rx), {}, DATA_MODES,
                       WORD);
    case 9:  // CHK within bounds (out of bounds it traps): N, Z, V, C undefined
        ccr_mask = SR_X;
        return define_flags_next = with_ea(uint16_t(0x4180 | rx), {}, DATA_MODES, WORD);
    case 10: {  // BTST BCHG BCLR BSET, dynamic or static
        unsigned op = rnd(4), modes = op == 0 ? DATA_MODES : DATA_ALT;
        if (chance(50)) return with_ea(uint16_t(0x0100 | rx | op << 6), {}, modes, BYTE);
        return with_ea(uint16_t(0x0800 | op << 6), {uint16_t(rnd(256))}, modes & ~bit(IMM), BYTE);
    }
    case 11:  // register shifts; in memory rotates only (qemu 7.2 swaps ASd and LSd)
        if (chance(25)) return with_ea(uint16_t(0xE4C0 | rnd(4) << 8), {}, MEM_ALT, WORD);
        w = {uint16_t(0xE000 | rx | rnd(2) << 8 | size | rnd(2) << 5 | rnd(4) << 3 | rnd(8))};
        return true;
    case 12: {  // EXG Dx,Dy / Dx,A6 / A6,A6, SWAP, EXT.W, EXT.L, EXTB.L, MOVEQ
        uint16_t r = uint16_t(rnd(8));
        w = {pick({uint16_t(0xC140 | rx | r), uint16_t(0xC188 | rx | 6), 0xCD4E,
                   uint16_t(0x4840 | r), uint16_t(0x4880 | r), uint16_t(0x48C0 | r),
                   uint16_t(0x49C0 | r), uint16_t(0x7000 | rx | rnd(256))})};
        return true;
    }
    case 13: {  // Scc, TAS (not (A7)+ or -(A7))
        bool tas = chance(30);
        bool ok = with_ea(tas ? 0x4AC0 : uint16_t(0x50C0 | rnd(16) << 8), {}, DATA_ALT, BYTE);
        return ok && !(tas && ((w[0] & 0x3F) == 0x1F || (w[0] & 0x3F) == 0x27));
    }
    case 14: {  // LEA to A6, PEA onto the stack in the data area
        bool pea = chance(30);
        return (!pea || in_window(m.a[7])) && with_ea(pea ? 0x4840 : 0x4DC0, {}, CONTROL, LONG);
    }
    case 15: {  // MOVEM; loads only into data registers and A6, the bases stay put
        uint16_t sz = wl == LONG ? 0x40 : 0;
        if (chance(50))
            return with_ea(0x4880 | sz, {uint16_t(r32())}, CONTROL_ALT | bit(ADEC), wl);
        span = 16 * 4;
        uint16_t mask = uint16_t((r32() & 0x00FF) | (chance(30) ? 0x4000 : 0));
        return with_ea(0x4C80 | sz, {mask}, CONTROL | bit(AINC), wl);
    }
    default:  // MOVE to CCR, ANDI/ORI/EORI to CCR
        if (chance(50)) return with_ea(0x44C0, {}, DATA_MODES, WORD);
        w = {pick({0x023C, 0x003C, 0x0A3C}), uint16_t(rnd(256))};
        return true;
    }
}

bool Generator::build() {
    // Random padding and data; random registers with the bases, and the user
    // stack, in the middle of the data area.
    std::generate(m.chip_ram + SEGMENT, m.chip_ram + LOG, [&] { return uint8_t(rng()); });
    std::fill(m.chip_ram + LOG, m.chip_ram + SEGMENT_END, 0);
    std::fill(m.chip_ram + SIGACTION, m.chip_ram + CODE_END, 0);
    for (uint32_t& d : m.d) d = r32();
    for (uint32_t& a : m.a) a = DATA_CENTER + (rnd(0x2000) & ~1u) - 0x1000;
    m.a[6] = r32();
    m.sr = uint16_t(rnd(32));  // user mode, random condition codes
    m.ssp = 0xE00000;          // a trap here lands on this side only
    m.usp = m.vbr = m.stopped = 0;
    for (int i = 0; i < 16; i++) write32(m, INIT_REGS + 4 * i, i < 8 ? m.d[i] : m.a[i - 8]);
    initial_data.assign(m.chip_ram + DATA, m.chip_ram + LOG);

    // The signal handler, also the end of the program: write the log and the
    // data area to standard output, then exit with 3 (trapped) or with D4.
    at = HANDLER;
    emit({0x7803});  // MOVEQ #3,D4
    for (auto [address, size] : {std::pair{LOG, INSNS * LOG_ENTRY}, std::pair{DATA, DATA_SIZE}})
        // MOVEQ #write,D0; MOVEQ #1,D1; MOVE.L #address,D2; MOVE.L #size,D3; TRAP #0
        emit({0x7004, 0x7201, 0x243C, address >> 16, address & 0xFFFF, 0x263C, size >> 16,
              size & 0xFFFF, 0x4E40});
    emit({0x7001, 0x2204, 0x4E40});  // MOVEQ #exit,D0; MOVE.L D4,D1; TRAP #0
    write32(m, SIGACTION, HANDLER);

    // qemu's side only: the handler for SIGILL, SIGTRAP, SIGBUS, SIGFPE and
    // SIGSEGV, the registers and the CCR.
    at = CODE;
    for (uint16_t sig : {4, 5, 7, 8, 11})  // MOVEQ #sigaction,D0; MOVEQ #sig,D1; MOVE.L #act,D2
        emit({0x7043, 0x7200u | sig, 0x243C, SIGACTION, 0x7600, 0x4E40});
    emit({0x4CF9, 0xFFFF, INIT_REGS, 0x44FC, m.sr & 0x1Fu});  // MOVEM.L to D0-A7; MOVE to CCR

    for (int i = 0; i < INSNS; i++) {
        bool done = false;
        for (int attempt = 0; attempt < 200 && !done; attempt++) {
            const uint32_t start = at;
            uint8_t registers[offsetof(Machine, dmacon)];  // the 68000 registers come first
            std::memcpy(registers, &m, sizeof registers);
            if (!make_instruction() || start + 2 * w.size() + 20 > HANDLER - 16) continue;
            for (uint16_t word : w) write16(m, at, word), at += 2;
            m.pc = start;
            step(m);
            if (m.pc != at) {  // it trapped: take it back, it never reaches qemu
                std::memcpy(&m, registers, sizeof registers);
                at = start;
                continue;
            }
            // A division that overflowed sets V alone here; N, Z, C are undefined.
            if ((w[0] & 0xF0C0) == 0x80C0 && (m.sr & SR_V))
                ccr_mask = SR_X | SR_V, define_flags_next = true;
            logged.push_back({start, ccr_mask});
            uint32_t entry = LOG + uint32_t(i) * LOG_ENTRY;
            for (int r = 0; r < 16; r++) write32(m, entry + 4 * r, r < 8 ? m.d[r] : m.a[r - 8]);
            write16(m, entry + 64, m.sr & 0x1F);  // bits 7-5 may be set here (MOVE to CCR)
            // qemu's side only: MOVEM.L D0-A7,entry; MOVE SR,entry+64; then
            // MOVE entry+64,CCR, without which qemu 7.2 miscomputes a memory
            // BSET/BCHG/BCLR after a compare whose flags MOVE from SR read.
            emit({0x48F9, 0xFFFF, entry, 0x40F9, entry + 64, 0x44F9, entry + 64});
            done = true;
        }
        if (!done) return false;
    }
    emit({0x7800, 0x4EF9, HANDLER + 2});  // MOVEQ #0,D4; JMP to the write-out
    return true;
}

// Runs the program under qemu; its exit status (-1 when it did not run) and output.
int run_qemu(const std::vector<uint8_t>& elf, int program, std::vector<uint8_t>& out) {
    std::string path = std::string(ORVEL_TEST_BINARY_DIR) + "/qemu_diff_" +
                       std::to_string(getpid()) + "_" + std::to_string(program) + ".elf";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(elf.data()), long(elf.size()));
    chmod(path.c_str(), 0755);  // qemu runs only executable files
    FILE* p = popen(("ulimit -c 0; qemu-m68k -cpu m68000 " + path + " 2>/dev/null").c_str(), "r");
    uint8_t buf[65536];
    for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
        out.insert(out.end(), buf, buf + n);
    int rc = p ? pclose(p) : -1;
    std::remove(path.c_str());
    return rc != -1 && WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// The first instruction after which qemu's log differs from this CPU's, or -1.
long first_difference(Machine& m, const std::vector<uint8_t>& out, const Generator& g) {
    for (size_t i = 0; i < g.logged.size(); i++) {
        const uint8_t *ours = m.chip_ram + LOG + i * LOG_ENTRY, *qemu = &out[i * LOG_ENTRY];
        if (std::memcmp(ours, qemu, 64) || ((ours[65] ^ qemu[65]) & g.logged[i].second))
            return long(i);
    }
    return -1;
}

}  // namespace

TEST(QemuDiff, RandomInstructionStreamsAgreeWithQemu) {
    if (!have_tool("qemu-m68k -version")) GTEST_SKIP() << "qemu-m68k is not installed";
    op_table_fill();
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    const char* env = std::getenv("ORVEL_DIFF_SEED");
    uint64_t seed = env ? std::strtoull(env, nullptr, 0) : std::random_device{}();
    std::printf("qemu differential test: seed %llu (replay with ORVEL_DIFF_SEED), %d programs "
                "of %d instructions\n", (unsigned long long)seed, PROGRAMS, INSNS);
    const size_t log_size = size_t(INSNS) * LOG_ENTRY;
    for (int p = 0; p < PROGRAMS; p++) {
        Generator g(m, seed * 1000003u + uint64_t(p));
        ASSERT_TRUE(g.build()) << "generator stuck, program " << p;
        std::vector<uint8_t> out;
        int status = run_qemu(elf_file(m, g.initial_data), p, out);
        std::string where = "seed " + std::to_string(seed) + " program " + std::to_string(p) + ": ";
        ASSERT_EQ(out.size(), log_size + DATA_SIZE) << where << "qemu status " << status;
        if (long i = first_difference(m, out, g); i >= 0) {
            const uint8_t *ours = m.chip_ram + LOG + i * LOG_ENTRY, *qemu = &out[i * LOG_ENTRY];
            disasm_print(m, g.logged[size_t(i)].first, 1);
            for (const uint8_t* r : {ours, qemu}) {  // d0-d7, a0-a7, SR
                for (int k = 0; k < 64; k += 4)
                    std::printf("%02x%02x%02x%02x ", r[k], r[k + 1], r[k + 2], r[k + 3]);
                std::printf("sr %02x%02x %s\n", r[64], r[65], r == ours ? "ours" : "qemu");
            }
            FAIL() << where << "instruction " << i << " differs (CCR bits compared: "
                   << g.logged[size_t(i)].second << ")";
        }
        ASSERT_EQ(status, 0) << where << "qemu trapped after the last instruction";
        uint8_t* data = m.chip_ram + DATA;
        auto [ours, qemu] = std::mismatch(data, data + DATA_SIZE, out.begin() + long(log_size));
        ASSERT_EQ(ours, data + DATA_SIZE) << where << "data byte at " << std::hex
                                          << (ours - m.chip_ram) << " is " << int(*ours)
                                          << ", qemu " << int(*qemu);
    }
    std::printf("qemu differential test: %d instructions agree\n", PROGRAMS * INSNS);
}

#endif
