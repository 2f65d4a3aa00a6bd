// The 68000/68020 disassembler. Every instruction form it knows is one row
// of a pattern table: the opcode drawn as a picture (0 and 1 are fixed bits,
// letters are fields), the mnemonic, where the operation size comes from,
// the operand shape and the addressing modes the form admits. The rows are
// compiled once into an index over all 65536 opcode words, so decoding an
// instruction is one lookup and one shape function.
#include "disasm/disasm.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <type_traits>

#include "cpu/bus.h"
#include "machine.h"

const char* const da_size_sfx[3] = {"b", "w", "l"};
const char* const da_cc[16] = {"t",  "f",  "hi", "ls", "cc", "cs", "ne", "eq",
                               "vc", "vs", "pl", "mi", "ge", "lt", "gt", "le"};

namespace {

constexpr size_t TEXT_MAX = 96;
constexpr size_t OPERAND_MAX = 64;
constexpr size_t MNEMONIC_MAX = 16;
constexpr int LISTING_WORDS = 5;  // instruction words shown in front of the text

// ---- reading code without disturbing the machine ----

static_assert(std::is_standard_layout_v<Machine> && std::is_trivially_copyable_v<Machine>);
// Everything in the Machine in front of chip RAM: the registers of every chip.
constexpr size_t REGISTER_BYTES = offsetof(Machine, chip_ram);

// Some reads change the machine: the CIA time-of-day low byte advances the
// counter, the CIA interrupt-control register clears itself, VHPOSR moves the
// beam, and a read past $FFFFFF sets the bus fault. The disassembler shows
// what the CPU would fetch, so it reads through the bus like the CPU does;
// outside plain chip RAM it then puts the register state back as it was.
template <typename T>
T peek(Machine& m, uint32_t address, T (*read)(Machine&, uint32_t)) {
    if ((address & ADDR_MASK) < BUS_FAST_LIMIT) return read(m, address);
    std::unique_ptr<unsigned char[]> saved(new unsigned char[REGISTER_BYTES]);
    std::memcpy(saved.get(), &m, REGISTER_BYTES);
    T value = read(m, address);
    std::memcpy(static_cast<void*>(&m), saved.get(), REGISTER_BYTES);
    return value;
}

uint16_t peek16(Machine& m, uint32_t address) { return peek(m, address, read16); }

uint16_t next16(Machine& m, uint32_t& address) {
    uint16_t w = peek(m, address, read16);
    address += 2;
    return w;
}

uint32_t next32(Machine& m, uint32_t& address) {
    uint32_t v = peek(m, address, read32);
    address += 4;
    return v;
}

// ---- extension words ----

// Brief and full extension words share the index description in bits 15-9.
constexpr uint16_t EXT_INDEX_IS_A = 0x8000;
constexpr uint16_t EXT_INDEX_LONG = 0x0800;
constexpr uint16_t EXT_FULL_FORMAT = 0x0100;
// Full format only.
constexpr uint16_t EXT_BASE_SUPPRESS = 0x0080;
constexpr uint16_t EXT_INDEX_SUPPRESS = 0x0040;
constexpr uint16_t EXT_INDIRECT = 0x0007;  // I/IS: 0 = no memory indirection
constexpr int DISP_WORD = 2;               // BD SIZE and OD SIZE codes
constexpr int DISP_LONG = 3;

constexpr size_t INDEX_MAX = 16;  // "d7.l*8"

void index_text(char* out, uint16_t ext) {
    char cls = (ext & EXT_INDEX_IS_A) ? 'a' : 'd';
    unsigned n = (ext >> 12) & 7;
    char size = (ext & EXT_INDEX_LONG) ? 'l' : 'w';
    unsigned scale = (ext >> 9) & 3;
    if (scale) std::snprintf(out, INDEX_MAX, "%c%u.%c*%u", cls, n, size, 1u << scale);
    else std::snprintf(out, INDEX_MAX, "%c%u.%c", cls, n, size);
}

int32_t displacement(Machine& m, uint32_t& address, int size_code) {
    if (size_code == DISP_WORD) return int16_t(next16(m, address));
    if (size_code == DISP_LONG) return int32_t(next32(m, address));
    return 0;
}

// ---- pattern rows ----

// Addressing modes as bits, in the order of the mode field with mode 7
// spread over its register numbers.
enum : uint16_t {
    DN = 1 << 0,
    AN = 1 << 1,
    AI = 1 << 2,
    AINC = 1 << 3,
    ADEC = 1 << 4,
    AD16 = 1 << 5,
    AIDX = 1 << 6,
    ABSW = 1 << 7,
    ABSL = 1 << 8,
    PCD16 = 1 << 9,
    PCIDX = 1 << 10,
    IMM = 1 << 11,
    // Not a mode: An is admitted for word and long operations only.
    AN_NOT_BYTE = 1 << 15,
};
constexpr uint16_t CONTROL_ALT = AI | AD16 | AIDX | ABSW | ABSL;
constexpr uint16_t CONTROL = CONTROL_ALT | PCD16 | PCIDX;
constexpr uint16_t MEM_ALT = CONTROL_ALT | AINC | ADEC;
constexpr uint16_t DATA_ALT = DN | MEM_ALT;
constexpr uint16_t ALTERABLE = DATA_ALT | AN | AN_NOT_BYTE;
constexpr uint16_t DATA = DATA_ALT | PCD16 | PCIDX | IMM;
constexpr uint16_t ALL = DATA | AN;

uint16_t mode_bit(int mode, int reg) {
    if (mode < 7) return uint16_t(1u << mode);
    return reg <= 4 ? uint16_t(1u << (7 + reg)) : 0;
}

// Where a row's operation size comes from. The variable ones print a
// suffix; fixed sizes are part of the mnemonic where the syntax shows them.
enum class Size : uint8_t { none, b, w, l, bits76, bit8, bit6 };

struct Ctx {
    Machine& m;
    uint32_t address;  // of the opcode word
    uint32_t pc;       // next extension word
    uint16_t op;
    int size;  // 0/1/2 = b/w/l, -1 when the form has none
    char mnemonic[MNEMONIC_MAX];
    char src[OPERAND_MAX];
    char dst[OPERAND_MAX];
};

// Fills the operands (and the mnemonic where it depends on fields); false
// when an extension word turns out to be invalid for the form.
using Shape = bool (*)(Ctx&);

struct Row {
    uint16_t mask = 0, match = 0;
    const char* name;
    Size size;
    Shape shape;
    uint16_t modes;      // admitted modes of the EA in bits 5-0; 0 = those bits are no EA
    uint16_t dst_modes;  // admitted modes of MOVE's destination in bits 11-6

    constexpr Row(const char* picture, const char* name_, Size size_, Shape shape_,
                  uint16_t modes_ = 0, uint16_t dst_modes_ = 0)
        : name(name_), size(size_), shape(shape_), modes(modes_), dst_modes(dst_modes_) {
        int bits = 0;
        for (const char* p = picture; *p; p++) {
            if (*p == ' ') continue;
            mask = uint16_t(mask << 1);
            match = uint16_t(match << 1);
            if (*p == '0' || *p == '1') {
                mask |= 1;
                match |= uint16_t(*p - '0');
            }
            bits++;
        }
        if (bits != 16) throw "opcode picture must have 16 bits";
    }
};

int row_size(Size s, uint16_t op) {
    switch (s) {
    case Size::none: return -1;
    case Size::b: return 0;
    case Size::w: return 1;
    case Size::l: return 2;
    case Size::bits76: return (op >> 6) & 3;  // 3 is no size: another instruction
    case Size::bit8: return (op & 0x0100) ? 2 : 1;
    case Size::bit6: return (op & 0x0040) ? 2 : 1;
    }
    return -1;
}

bool variable_size(Size s) { return s == Size::bits76 || s == Size::bit8 || s == Size::bit6; }

// ---- operand shapes ----

int rx(const Ctx& c) { return (c.op >> 9) & 7; }
int ry(const Ctx& c) { return c.op & 7; }

void reg(char* out, char cls, int n) { std::snprintf(out, OPERAND_MAX, "%c%d", cls, n); }
void ea(Ctx& c, char* out) { da_ea(c.m, c.pc, (c.op >> 3) & 7, c.op & 7, c.size, out); }
void imm(Ctx& c, char* out) { da_ea(c.m, c.pc, 7, 4, c.size, out); }
void quick(char* out, int q) { std::snprintf(out, OPERAND_MAX, "#%d", q ? q : 8); }
void set_mnemonic(Ctx& c, const char* stem, const char* suffix) {
    std::snprintf(c.mnemonic, MNEMONIC_MAX, "%s%s", stem, suffix);
}
void target(char* out, uint32_t address) { std::snprintf(out, OPERAND_MAX, "$%x", address); }

bool none(Ctx&) { return true; }
bool ea_only(Ctx& c) { ea(c, c.src); return true; }
bool imm_only(Ctx& c) { imm(c, c.src); return true; }
bool ea_dx(Ctx& c) { ea(c, c.src); reg(c.dst, 'd', rx(c)); return true; }
bool dx_ea(Ctx& c) { reg(c.src, 'd', rx(c)); ea(c, c.dst); return true; }
bool ea_ax(Ctx& c) { ea(c, c.src); reg(c.dst, 'a', rx(c)); return true; }
bool imm_ea(Ctx& c) { imm(c, c.src); ea(c, c.dst); return true; }
bool quick_ea(Ctx& c) { quick(c.src, rx(c)); ea(c, c.dst); return true; }
bool imm_ccr(Ctx& c) { imm(c, c.src); std::strcpy(c.dst, "ccr"); return true; }
bool imm_sr(Ctx& c) { imm(c, c.src); std::strcpy(c.dst, "sr"); return true; }
bool ea_ccr(Ctx& c) { ea(c, c.src); std::strcpy(c.dst, "ccr"); return true; }
bool ea_sr(Ctx& c) { ea(c, c.src); std::strcpy(c.dst, "sr"); return true; }
bool ccr_ea(Ctx& c) { std::strcpy(c.src, "ccr"); ea(c, c.dst); return true; }
bool sr_ea(Ctx& c) { std::strcpy(c.src, "sr"); ea(c, c.dst); return true; }
bool an_usp(Ctx& c) { reg(c.src, 'a', ry(c)); std::strcpy(c.dst, "usp"); return true; }
bool usp_an(Ctx& c) { std::strcpy(c.src, "usp"); reg(c.dst, 'a', ry(c)); return true; }
bool dy(Ctx& c) { reg(c.src, 'd', ry(c)); return true; }
bool ay(Ctx& c) { reg(c.src, 'a', ry(c)); return true; }
bool dy_dx(Ctx& c) { reg(c.src, 'd', ry(c)); reg(c.dst, 'd', rx(c)); return true; }
bool dx_dy(Ctx& c) { reg(c.src, 'd', rx(c)); reg(c.dst, 'd', ry(c)); return true; }
bool ax_ay(Ctx& c) { reg(c.src, 'a', rx(c)); reg(c.dst, 'a', ry(c)); return true; }
bool dx_ay(Ctx& c) { reg(c.src, 'd', rx(c)); reg(c.dst, 'a', ry(c)); return true; }

bool move(Ctx& c) {
    ea(c, c.src);
    da_ea(c.m, c.pc, (c.op >> 6) & 7, (c.op >> 9) & 7, c.size, c.dst);
    return true;
}

bool moveq(Ctx& c) {
    std::snprintf(c.src, OPERAND_MAX, "#%d", int(int8_t(c.op)));
    reg(c.dst, 'd', rx(c));
    return true;
}

bool adec_pair(Ctx& c) {
    std::snprintf(c.src, OPERAND_MAX, "-(a%d)", ry(c));
    std::snprintf(c.dst, OPERAND_MAX, "-(a%d)", rx(c));
    return true;
}

bool cmpm(Ctx& c) {
    std::snprintf(c.src, OPERAND_MAX, "(a%d)+", ry(c));
    std::snprintf(c.dst, OPERAND_MAX, "(a%d)+", rx(c));
    return true;
}

bool link(Ctx& c) {
    reg(c.src, 'a', ry(c));
    int32_t d = c.size == 2 ? int32_t(next32(c.m, c.pc)) : int16_t(next16(c.m, c.pc));
    std::snprintf(c.dst, OPERAND_MAX, "#%d", int(d));
    return true;
}

bool trap(Ctx& c) { std::snprintf(c.src, OPERAND_MAX, "#%d", c.op & 15); return true; }

int condition(const Ctx& c) { return (c.op >> 8) & 15; }

// Branch displacements count from the word after the opcode; an 8-bit
// displacement of $00 announces a word and $FF (68020) a long.
bool bcc(Ctx& c) {
    int cc = condition(c);
    set_mnemonic(c, cc == 0 ? "bra" : cc == 1 ? "bsr" : "b", cc > 1 ? da_cc[cc] : "");
    uint32_t base = c.pc;
    int32_t d = int8_t(c.op);
    if ((c.op & 0xFF) == 0x00) d = int16_t(next16(c.m, c.pc));
    else if ((c.op & 0xFF) == 0xFF) d = int32_t(next32(c.m, c.pc));
    target(c.src, base + uint32_t(d));
    return true;
}

bool dbcc(Ctx& c) {
    set_mnemonic(c, "db", da_cc[condition(c)]);
    reg(c.src, 'd', ry(c));
    uint32_t base = c.pc;
    target(c.dst, base + uint32_t(int32_t(int16_t(next16(c.m, c.pc)))));
    return true;
}

bool scc(Ctx& c) {
    set_mnemonic(c, "s", da_cc[condition(c)]);
    ea(c, c.src);
    return true;
}

// Register list of MOVEM: bit 0 = d0 ... bit 15 = a7, reversed for -(An).
// Runs join as "d0-d3", never across from d7 to a0; groups split by "/".
void register_list(char* out, uint16_t mask, bool reversed) {
    if (reversed) {
        uint16_t r = 0;
        for (int i = 0; i < 16; i++)
            if (mask & (1u << i)) r |= uint16_t(1u << (15 - i));
        mask = r;
    }
    if (!mask) {
        std::strcpy(out, "#0");
        return;
    }
    size_t len = 0;
    out[0] = 0;
    for (int i = 0; i < 16;) {
        if (!(mask & (1u << i))) {
            i++;
            continue;
        }
        int last = i;
        while (last + 1 < 16 && (last + 1) % 8 != 0 && (mask & (1u << (last + 1)))) last++;
        const char* sep = len ? "/" : "";
        char cls = i < 8 ? 'd' : 'a';
        if (last > i)
            len += size_t(std::snprintf(out + len, OPERAND_MAX - len, "%s%c%d-%c%d", sep, cls,
                                        i % 8, cls, last % 8));
        else
            len += size_t(std::snprintf(out + len, OPERAND_MAX - len, "%s%c%d", sep, cls, i % 8));
        i = last + 1;
    }
}

bool movem_to_mem(Ctx& c) {
    uint16_t mask = next16(c.m, c.pc);
    register_list(c.src, mask, ((c.op >> 3) & 7) == 4);
    ea(c, c.dst);
    return true;
}

bool movem_from_mem(Ctx& c) {
    uint16_t mask = next16(c.m, c.pc);
    ea(c, c.src);
    register_list(c.dst, mask, false);
    return true;
}

const char* const SHIFT_STEMS[4] = {"as", "ls", "rox", "ro"};

void shift_name(Ctx& c, int type, const char* size) {
    std::snprintf(c.mnemonic, MNEMONIC_MAX, "%s%c.%s", SHIFT_STEMS[type],
                  (c.op & 0x0100) ? 'l' : 'r', size);
}

// Register form: the count is an immediate 1-8 or a data register.
bool shift_reg(Ctx& c) {
    shift_name(c, (c.op >> 3) & 3, da_size_sfx[c.size]);
    if (c.op & 0x0020) reg(c.src, 'd', rx(c));
    else quick(c.src, rx(c));
    reg(c.dst, 'd', ry(c));
    return true;
}

// Memory form: one bit of a word in memory.
bool shift_mem(Ctx& c) {
    shift_name(c, (c.op >> 9) & 3, "w");
    ea(c, c.src);
    return true;
}

void movep_mem(Ctx& c, char* out) {
    std::snprintf(out, OPERAND_MAX, "%d(a%d)", int(int16_t(next16(c.m, c.pc))), ry(c));
}
bool movep_to_reg(Ctx& c) { movep_mem(c, c.src); reg(c.dst, 'd', rx(c)); return true; }
bool movep_to_mem(Ctx& c) { reg(c.src, 'd', rx(c)); movep_mem(c, c.dst); return true; }

// Bit-field extension word: 0 rrr Do offset(5) Dw width(5); a register
// offset sits in bits 8-6 and a register width in bits 2-0; width 0 is 32.
constexpr uint16_t BF_OFFSET_REG = 0x0800;
constexpr uint16_t BF_WIDTH_REG = 0x0020;

// The extension word precedes the EA's own extension words.
void bitfield(Ctx& c, char* out, uint16_t ext) {
    char base[OPERAND_MAX], offset[8], width[8];
    ea(c, base);
    if (ext & BF_OFFSET_REG) reg(offset, 'd', (ext >> 6) & 7);
    else std::snprintf(offset, sizeof offset, "%d", (ext >> 6) & 31);
    if (ext & BF_WIDTH_REG) reg(width, 'd', ext & 7);
    else std::snprintf(width, sizeof width, "%d", (ext & 31) ? (ext & 31) : 32);
    std::snprintf(out, OPERAND_MAX, "%.40s{%s:%s}", base, offset, width);
}

// BFTST, BFCHG, BFCLR, BFSET: the register field must be zero.
bool bf_ea(Ctx& c) {
    uint16_t ext = next16(c.m, c.pc);
    if (ext & 0xF000) return false;
    bitfield(c, c.src, ext);
    return true;
}

bool bf_ea_dn(Ctx& c) {
    uint16_t ext = next16(c.m, c.pc);
    if (ext & 0x8000) return false;
    bitfield(c, c.src, ext);
    reg(c.dst, 'd', (ext >> 12) & 7);
    return true;
}

bool bf_dn_ea(Ctx& c) {
    uint16_t ext = next16(c.m, c.pc);
    if (ext & 0x8000) return false;
    reg(c.src, 'd', (ext >> 12) & 7);
    bitfield(c, c.dst, ext);
    return true;
}

// clang-format off
// Letters in the pictures: s size, x and y register fields, e the EA
// (mode and register), q quick data, c condition, d displacement (branches)
// or direction (shifts), i count in a register, t shift type, v trap
// vector, m MOVE's destination (register then mode).
constexpr Row ROWS[] = {
    // ---- 0000: immediates, bit operations, MOVEP ----
    {"0000 0000 0011 1100", "ori.b",  Size::b,      imm_ccr},
    {"0000 0000 0111 1100", "ori.w",  Size::w,      imm_sr},
    {"0000 0000 ssee eeee", "ori",    Size::bits76, imm_ea, DATA_ALT},
    {"0000 0010 0011 1100", "andi.b", Size::b,      imm_ccr},
    {"0000 0010 0111 1100", "andi.w", Size::w,      imm_sr},
    {"0000 0010 ssee eeee", "andi",   Size::bits76, imm_ea, DATA_ALT},
    {"0000 0100 ssee eeee", "subi",   Size::bits76, imm_ea, DATA_ALT},
    {"0000 0110 ssee eeee", "addi",   Size::bits76, imm_ea, DATA_ALT},
    {"0000 1010 0011 1100", "eori.b", Size::b,      imm_ccr},
    {"0000 1010 0111 1100", "eori.w", Size::w,      imm_sr},
    {"0000 1010 ssee eeee", "eori",   Size::bits76, imm_ea, DATA_ALT},
    {"0000 1100 ssee eeee", "cmpi",   Size::bits76, imm_ea, DATA_ALT},
    {"0000 1000 00ee eeee", "btst",   Size::b,      imm_ea, DATA & ~IMM},
    {"0000 1000 01ee eeee", "bchg",   Size::b,      imm_ea, DATA_ALT},
    {"0000 1000 10ee eeee", "bclr",   Size::b,      imm_ea, DATA_ALT},
    {"0000 1000 11ee eeee", "bset",   Size::b,      imm_ea, DATA_ALT},
    {"0000 xxx1 00ee eeee", "btst",   Size::b,      dx_ea,  DATA},
    {"0000 xxx1 01ee eeee", "bchg",   Size::b,      dx_ea,  DATA_ALT},
    {"0000 xxx1 10ee eeee", "bclr",   Size::b,      dx_ea,  DATA_ALT},
    {"0000 xxx1 11ee eeee", "bset",   Size::b,      dx_ea,  DATA_ALT},
    {"0000 xxx1 0s00 1yyy", "movep",  Size::bit6,   movep_to_reg},
    {"0000 xxx1 1s00 1yyy", "movep",  Size::bit6,   movep_to_mem},

    // ---- 0001, 0011, 0010: MOVE and MOVEA ----
    {"0001 mmmm mmee eeee", "move.b",  Size::b, move,  DATA, DATA_ALT},
    {"0011 mmmm mmee eeee", "move.w",  Size::w, move,  ALL,  DATA_ALT},
    {"0010 mmmm mmee eeee", "move.l",  Size::l, move,  ALL,  DATA_ALT},
    {"0011 xxx0 01ee eeee", "movea.w", Size::w, ea_ax, ALL},
    {"0010 xxx0 01ee eeee", "movea.l", Size::l, ea_ax, ALL},

    // ---- 0100: miscellaneous ----
    {"0100 0000 ssee eeee", "negx",   Size::bits76, ea_only, DATA_ALT},
    {"0100 0010 ssee eeee", "clr",    Size::bits76, ea_only, DATA_ALT},
    {"0100 0100 ssee eeee", "neg",    Size::bits76, ea_only, DATA_ALT},
    {"0100 0110 ssee eeee", "not",    Size::bits76, ea_only, DATA_ALT},
    {"0100 1010 ssee eeee", "tst",    Size::bits76, ea_only, DATA_ALT},
    {"0100 0000 11ee eeee", "move.w", Size::w,      sr_ea,   DATA_ALT},
    {"0100 0010 11ee eeee", "move.w", Size::w,      ccr_ea,  DATA_ALT},
    {"0100 0100 11ee eeee", "move.w", Size::w,      ea_ccr,  DATA},
    {"0100 0110 11ee eeee", "move.w", Size::w,      ea_sr,   DATA},
    {"0100 1000 00ee eeee", "nbcd",   Size::b,      ea_only, DATA_ALT},
    {"0100 1000 0000 1yyy", "link.l", Size::l,      link},
    {"0100 1000 0100 0yyy", "swap",   Size::none,   dy},
    {"0100 1000 01ee eeee", "pea",    Size::none,   ea_only, CONTROL},
    {"0100 1000 1000 0yyy", "ext.w",  Size::none,   dy},
    {"0100 1000 1100 0yyy", "ext.l",  Size::none,   dy},
    {"0100 1001 1100 0yyy", "extb.l", Size::none,   dy},
    {"0100 1000 1see eeee", "movem",  Size::bit6,   movem_to_mem,   CONTROL_ALT | ADEC},
    {"0100 1100 1see eeee", "movem",  Size::bit6,   movem_from_mem, CONTROL | AINC},
    {"0100 1010 11ee eeee", "tas",    Size::b,      ea_only, DATA_ALT},
    {"0100 1110 0100 vvvv", "trap",   Size::none,   trap},
    {"0100 1110 0101 0yyy", "link.w", Size::w,      link},
    {"0100 1110 0101 1yyy", "unlk",   Size::none,   ay},
    {"0100 1110 0110 0yyy", "move",   Size::none,   an_usp},
    {"0100 1110 0110 1yyy", "move",   Size::none,   usp_an},
    {"0100 1110 0111 0000", "reset",  Size::none,   none},
    {"0100 1110 0111 0001", "nop",    Size::none,   none},
    {"0100 1110 0111 0010", "stop",   Size::w,      imm_only},
    {"0100 1110 0111 0011", "rte",    Size::none,   none},
    {"0100 1110 0111 0100", "rtd",    Size::w,      imm_only},
    {"0100 1110 0111 0101", "rts",    Size::none,   none},
    {"0100 1110 0111 0110", "trapv",  Size::none,   none},
    {"0100 1110 0111 0111", "rtr",    Size::none,   none},
    {"0100 1110 10ee eeee", "jsr",    Size::none,   ea_only, CONTROL},
    {"0100 1110 11ee eeee", "jmp",    Size::none,   ea_only, CONTROL},
    {"0100 xxx1 10ee eeee", "chk.w",  Size::w,      ea_dx,   DATA},
    {"0100 xxx1 11ee eeee", "lea",    Size::l,      ea_ax,   CONTROL},

    // ---- 0101: quick arithmetic, Scc, DBcc ----
    {"0101 qqq0 ssee eeee", "addq",   Size::bits76, quick_ea, ALTERABLE},
    {"0101 qqq1 ssee eeee", "subq",   Size::bits76, quick_ea, ALTERABLE},
    {"0101 cccc 11ee eeee", nullptr,  Size::b,      scc,      DATA_ALT},
    {"0101 cccc 1100 1yyy", nullptr,  Size::none,   dbcc},

    // ---- 0110: branches; 0111: MOVEQ ----
    {"0110 cccc dddd dddd", nullptr,  Size::none,   bcc},
    {"0111 xxx0 dddd dddd", "moveq",  Size::none,   moveq},

    // ---- 1000: OR, DIVU, DIVS, SBCD ----
    {"1000 xxx0 ssee eeee", "or",     Size::bits76, ea_dx, DATA},
    {"1000 xxx1 ssee eeee", "or",     Size::bits76, dx_ea, MEM_ALT},
    {"1000 xxx0 11ee eeee", "divu.w", Size::w,      ea_dx, DATA},
    {"1000 xxx1 11ee eeee", "divs.w", Size::w,      ea_dx, DATA},
    {"1000 xxx1 0000 0yyy", "sbcd",   Size::none,   dy_dx},
    {"1000 xxx1 0000 1yyy", "sbcd",   Size::none,   adec_pair},

    // ---- 1001: SUB, SUBA, SUBX ----
    {"1001 xxx0 ssee eeee", "sub",    Size::bits76, ea_dx, ALL | AN_NOT_BYTE},
    {"1001 xxx1 ssee eeee", "sub",    Size::bits76, dx_ea, MEM_ALT},
    {"1001 xxxs 11ee eeee", "suba",   Size::bit8,   ea_ax, ALL},
    {"1001 xxx1 ss00 0yyy", "subx",   Size::bits76, dy_dx},
    {"1001 xxx1 ss00 1yyy", "subx",   Size::bits76, adec_pair},

    // ---- 1011: CMP, CMPA, CMPM, EOR ----
    {"1011 xxx0 ssee eeee", "cmp",    Size::bits76, ea_dx, ALL | AN_NOT_BYTE},
    {"1011 xxxs 11ee eeee", "cmpa",   Size::bit8,   ea_ax, ALL},
    {"1011 xxx1 ss00 1yyy", "cmpm",   Size::bits76, cmpm},
    {"1011 xxx1 ssee eeee", "eor",    Size::bits76, dx_ea, DATA_ALT},

    // ---- 1100: AND, MULU, MULS, ABCD, EXG ----
    {"1100 xxx0 ssee eeee", "and",    Size::bits76, ea_dx, DATA},
    {"1100 xxx1 ssee eeee", "and",    Size::bits76, dx_ea, MEM_ALT},
    {"1100 xxx0 11ee eeee", "mulu.w", Size::w,      ea_dx, DATA},
    {"1100 xxx1 11ee eeee", "muls.w", Size::w,      ea_dx, DATA},
    {"1100 xxx1 0000 0yyy", "abcd",   Size::none,   dy_dx},
    {"1100 xxx1 0000 1yyy", "abcd",   Size::none,   adec_pair},
    {"1100 xxx1 0100 0yyy", "exg",    Size::none,   dx_dy},
    {"1100 xxx1 0100 1yyy", "exg",    Size::none,   ax_ay},
    {"1100 xxx1 1000 1yyy", "exg",    Size::none,   dx_ay},

    // ---- 1101: ADD, ADDA, ADDX ----
    {"1101 xxx0 ssee eeee", "add",    Size::bits76, ea_dx, ALL | AN_NOT_BYTE},
    {"1101 xxx1 ssee eeee", "add",    Size::bits76, dx_ea, MEM_ALT},
    {"1101 xxxs 11ee eeee", "adda",   Size::bit8,   ea_ax, ALL},
    {"1101 xxx1 ss00 0yyy", "addx",   Size::bits76, dy_dx},
    {"1101 xxx1 ss00 1yyy", "addx",   Size::bits76, adec_pair},

    // ---- 1110: shifts and rotates, 68020 bit fields ----
    {"1110 xxxd ssit tyyy", nullptr,  Size::bits76, shift_reg},
    {"1110 0ttd 11ee eeee", nullptr,  Size::w,      shift_mem, MEM_ALT},
    {"1110 1000 11ee eeee", "bftst",  Size::none,   bf_ea,    DN | CONTROL},
    {"1110 1001 11ee eeee", "bfextu", Size::none,   bf_ea_dn, DN | CONTROL},
    {"1110 1010 11ee eeee", "bfchg",  Size::none,   bf_ea,    DN | CONTROL_ALT},
    {"1110 1011 11ee eeee", "bfexts", Size::none,   bf_ea_dn, DN | CONTROL},
    {"1110 1100 11ee eeee", "bfclr",  Size::none,   bf_ea,    DN | CONTROL_ALT},
    {"1110 1101 11ee eeee", "bfffo",  Size::none,   bf_ea_dn, DN | CONTROL},
    {"1110 1110 11ee eeee", "bfset",  Size::none,   bf_ea,    DN | CONTROL_ALT},
    {"1110 1111 11ee eeee", "bfins",  Size::none,   bf_dn_ea, DN | CONTROL_ALT},
};
// clang-format on

constexpr size_t ROW_COUNT = sizeof ROWS / sizeof ROWS[0];
constexpr uint8_t NO_ROW = 0xFF;
static_assert(ROW_COUNT < NO_ROW);

bool row_accepts(const Row& r, uint16_t op) {
    if ((op & r.mask) != r.match) return false;
    int size = row_size(r.size, op);
    if (r.size == Size::bits76 && size == 3) return false;
    if (r.modes) {
        int mode = (op >> 3) & 7;
        if (!(r.modes & mode_bit(mode, op & 7))) return false;
        if (mode == 1 && size == 0 && (r.modes & AN_NOT_BYTE)) return false;
    }
    if (r.dst_modes && !(r.dst_modes & mode_bit((op >> 6) & 7, (op >> 9) & 7))) return false;
    return true;
}

struct Table {
    std::array<uint8_t, 0x10000> row;
    uint32_t overlaps = 0;
};

// Each opcode word goes to the one row that accepts it; a word that two rows
// accept is a fault in the table and is counted.
Table build_table() {
    Table t;
    t.row.fill(NO_ROW);
    for (size_t i = 0; i < ROW_COUNT; i++) {
        const Row& r = ROWS[i];
        uint16_t free_bits = uint16_t(~r.mask);
        // Every opcode that fits the fixed bits: walk the subsets of the free bits.
        uint16_t x = 0;
        do {
            uint16_t op = uint16_t(r.match | x);
            if (row_accepts(r, op)) {
                if (t.row[op] == NO_ROW) t.row[op] = uint8_t(i);
                else t.overlaps++;
            }
            x = uint16_t((x - free_bits) & free_bits);
        } while (x);
    }
    return t;
}

const Table& table() {
    static const Table t = build_table();
    return t;
}

// The address and up to five instruction words, shared by listings and traces.
void print_words(Machine& m, uint32_t address, uint32_t length) {
    std::printf("%08x: ", address);
    uint32_t words = length >= 2 ? length / 2 : 1;
    for (uint32_t i = 0; i < LISTING_WORDS; i++) {
        if (i < words) std::printf("%04x ", peek16(m, address + 2 * i));
        else std::printf("     ");
    }
}

}  // namespace

void da_emit(char* text, const char* mnemonic, const char* operand1, const char* operand2) {
    if (!operand1) std::snprintf(text, TEXT_MAX, "%s", mnemonic);
    else if (!operand2) std::snprintf(text, TEXT_MAX, "%-7s %s", mnemonic, operand1);
    else std::snprintf(text, TEXT_MAX, "%-7s %s,%s", mnemonic, operand1, operand2);
}

void da_index(Machine& m, uint32_t& address, const char* base_text, char* text) {
    uint16_t ext = next16(m, address);
    char index[INDEX_MAX];
    index_text(index, ext);
    if (!(ext & EXT_FULL_FORMAT)) {
        std::snprintf(text, OPERAND_MAX, "(%d,%s,%s)", int(int8_t(ext)), base_text, index);
        return;
    }
    // Full format: base displacement, then the outer displacement of the
    // memory-indirect forms, which is consumed but not shown.
    int32_t bd = displacement(m, address, (ext >> 4) & 3);
    if (ext & EXT_INDIRECT) displacement(m, address, ext & 3);
    const char* base = (ext & EXT_BASE_SUPPRESS) ? "z" : base_text;
    if (ext & EXT_INDEX_SUPPRESS) std::snprintf(text, OPERAND_MAX, "(%d,%s)", int(bd), base);
    else std::snprintf(text, OPERAND_MAX, "(%d,%s,%s)", int(bd), base, index);
}

void da_ea(Machine& m, uint32_t& address, int mode, int reg, int size, char* text) {
    unsigned r = unsigned(reg) & 7;
    switch (mode & 7) {
    case 0: std::snprintf(text, OPERAND_MAX, "d%u", r); return;
    case 1: std::snprintf(text, OPERAND_MAX, "a%u", r); return;
    case 2: std::snprintf(text, OPERAND_MAX, "(a%u)", r); return;
    case 3: std::snprintf(text, OPERAND_MAX, "(a%u)+", r); return;
    case 4: std::snprintf(text, OPERAND_MAX, "-(a%u)", r); return;
    case 5:
        std::snprintf(text, OPERAND_MAX, "%d(a%u)", int(int16_t(next16(m, address))), r);
        return;
    case 6: {
        char base[4] = {'a', char('0' + r), 0, 0};
        da_index(m, address, base, text);
        return;
    }
    }
    switch (r) {
    case 0: std::snprintf(text, OPERAND_MAX, "$%x.w", unsigned(next16(m, address))); return;
    case 1: std::snprintf(text, OPERAND_MAX, "$%x.l", unsigned(next32(m, address))); return;
    case 2: {
        // PC-relative: counted from the extension word's own address.
        uint32_t base = address;
        int32_t d = int16_t(next16(m, address));
        std::snprintf(text, OPERAND_MAX, "$%x(pc)", unsigned(base + uint32_t(d)));
        return;
    }
    case 3: da_index(m, address, "pc", text); return;
    case 4: {
        // A byte immediate is the low byte of its word.
        uint32_t v = size == 2 ? next32(m, address) : next16(m, address);
        if (size == 0) v &= 0xFF;
        std::snprintf(text, OPERAND_MAX, "#$%x", unsigned(v));
        return;
    }
    default: std::snprintf(text, OPERAND_MAX, "?"); return;
    }
}

uint32_t disasm_one(Machine& m, uint32_t address, char* text) {
    uint16_t op = peek16(m, address);
    uint8_t i = table().row[op];
    if (i != NO_ROW) {
        const Row& r = ROWS[i];
        Ctx c{m, address, address + 2, op, row_size(r.size, op), {}, {}, {}};
        if (r.name) {
            if (variable_size(r.size))
                std::snprintf(c.mnemonic, MNEMONIC_MAX, "%s.%s", r.name, da_size_sfx[c.size]);
            else set_mnemonic(c, r.name, "");
        }
        if (r.shape(c)) {
            da_emit(text, c.mnemonic, c.src[0] ? c.src : nullptr, c.dst[0] ? c.dst : nullptr);
            return c.pc - address;
        }
    }
    char word[8];
    std::snprintf(word, sizeof word, "$%04x", unsigned(op));
    da_emit(text, "dc.w", word, nullptr);
    return 2;
}

void disasm_print(Machine& m, uint32_t address, uint32_t count) {
    char text[TEXT_MAX];
    for (uint32_t n = 0; n < count; n++) {
        uint32_t length = disasm_one(m, address, text);
        print_words(m, address, length);
        std::printf(" %s\n", text);
        address += length ? length : 2;
    }
}

void trace_print_step(Machine& m) {
    char text[TEXT_MAX];
    uint32_t length = disasm_one(m, m.pc, text);
    print_words(m, m.pc, length);
    std::printf(" %-28s | d %08x %08x %08x %08x %08x %08x %08x %08x  a %08x %08x %08x %08x %08x "
                "%08x %08x %08x sr %04x\n",
                text, m.d[0], m.d[1], m.d[2], m.d[3], m.d[4], m.d[5], m.d[6], m.d[7], m.a[0],
                m.a[1], m.a[2], m.a[3], m.a[4], m.a[5], m.a[6], m.a[7], m.sr);
}

uint32_t da_table_overlaps() { return table().overlaps; }
