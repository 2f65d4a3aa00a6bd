// elf2hunk: turns an m68k ELF executable, linked with -q so that its
// relocations survive, into an AmigaOS hunk executable.
//
// Each allocated section becomes one hunk, in section order (the linker
// script puts .text first, so hunk 0 holds the entry). The linker has already
// resolved every reference for the section addresses of the script; an
// absolute 32-bit reference is rewritten as an offset into the hunk that
// holds its symbol and listed in HUNK_RELOC32, so that the loader adds that
// hunk's address back. PC-relative references within one section need
// nothing. Everything else would need a loader feature AmigaOS lacks and is
// refused.
//
// Usage: elf2hunk <in.elf> <out>
#include "elf2hunk.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace {

// ELF constants (System V ABI, m68k supplement).
constexpr uint8_t ELFCLASS32 = 1;
constexpr uint8_t ELFDATA2MSB = 2;
constexpr uint16_t ET_REL = 1;
constexpr uint16_t ET_EXEC = 2;
constexpr uint16_t EM_68K = 4;
constexpr uint32_t SHT_PROGBITS = 1;
constexpr uint32_t SHT_SYMTAB = 2;
constexpr uint32_t SHT_RELA = 4;
constexpr uint32_t SHT_NOBITS = 8;
constexpr uint32_t SHT_REL = 9;
constexpr uint32_t SHF_ALLOC = 0x2;
constexpr uint32_t SHF_EXECINSTR = 0x4;
constexpr uint16_t SHN_UNDEF = 0;
constexpr uint16_t SHN_ABS = 0xFFF1;
constexpr uint32_t EHDR_SIZE = 52;
constexpr uint32_t SHDR_SIZE = 40;
constexpr uint32_t SYM_SIZE = 16;
constexpr uint32_t RELA_SIZE = 12;

enum RelocType : uint32_t {
    R_68K_NONE = 0,
    R_68K_32 = 1,
    R_68K_16 = 2,
    R_68K_8 = 3,
    R_68K_PC32 = 4,
    R_68K_PC16 = 5,
    R_68K_PC8 = 6,
};
constexpr const char* RELOC_NAMES[] = {
    "R_68K_NONE",    "R_68K_32",       "R_68K_16",       "R_68K_8",        "R_68K_PC32",
    "R_68K_PC16",    "R_68K_PC8",      "R_68K_GOT32",    "R_68K_GOT16",    "R_68K_GOT8",
    "R_68K_GOT32O",  "R_68K_GOT16O",   "R_68K_GOT8O",    "R_68K_PLT32",    "R_68K_PLT16",
    "R_68K_PLT8",    "R_68K_PLT32O",   "R_68K_PLT16O",   "R_68K_PLT8O",    "R_68K_COPY",
    "R_68K_GLOB_DAT", "R_68K_JMP_SLOT", "R_68K_RELATIVE",
};

// Hunk block types.
constexpr uint32_t HUNK_CODE = 1001;
constexpr uint32_t HUNK_DATA = 1002;
constexpr uint32_t HUNK_BSS = 1003;
constexpr uint32_t HUNK_RELOC32 = 1004;
constexpr uint32_t HUNK_END = 1010;
constexpr uint32_t HUNK_HEADER = 1011;
constexpr size_t MAX_HUNKS = 64;  // what the loaders accept

struct Failure {
    std::string reason;
};

struct Bytes {
    const std::vector<uint8_t>& v;

    void need(uint64_t offset, uint64_t len, const char* what) const {
        if (offset > v.size() || v.size() - offset < len)
            throw Failure{std::string("truncated ") + what};
    }
    uint32_t u8(uint64_t o) const { return v[o]; }
    uint32_t u16(uint64_t o) const { return uint32_t(v[o]) << 8 | v[o + 1]; }
    uint32_t u32(uint64_t o) const { return u16(o) << 16 | u16(o + 2); }
};

struct Section {
    std::string name;
    uint32_t name_index, type, flags, addr, offset, size, link, info;
    int hunk = -1;  // -1: not loaded
};

struct Symbol {
    std::string name;
    uint32_t value;
    uint16_t shndx;
};

struct Hunk {
    uint32_t type;
    int section;
    std::vector<uint8_t> contents;  // empty for BSS
    uint32_t longs;
    std::map<uint32_t, std::vector<uint32_t>> relocs;  // target hunk -> offsets
};

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

std::string c_string(const Bytes& b, const Section& strtab, uint32_t index) {
    std::string s;
    for (uint64_t o = uint64_t(strtab.offset) + index; o < b.v.size() && b.v[o]; o++) s += char(b.v[o]);
    return s;
}

std::vector<Section> read_sections(const Bytes& b) {
    b.need(0, EHDR_SIZE, "ELF header");
    const auto& v = b.v;
    if (!(v[0] == 0x7F && v[1] == 'E' && v[2] == 'L' && v[3] == 'F')) throw Failure{"not an ELF file"};
    if (v[4] != ELFCLASS32 || v[5] != ELFDATA2MSB)
        throw Failure{"not a 32-bit big-endian ELF file"};
    if (b.u16(18) != EM_68K) throw Failure{"not an m68k ELF file"};
    uint32_t type = b.u16(16);
    if (type == ET_REL) throw Failure{"an object file, not a linked executable"};
    if (type != ET_EXEC) throw Failure{"not an ELF executable"};
    uint32_t shoff = b.u32(32), shentsize = b.u16(46), shnum = b.u16(48), shstrndx = b.u16(50);
    if (shentsize < SHDR_SIZE) throw Failure{"bad section header size"};
    b.need(shoff, uint64_t(shentsize) * shnum, "section headers");
    std::vector<Section> sections(shnum);
    for (uint32_t i = 0; i < shnum; i++) {
        uint64_t h = shoff + uint64_t(i) * shentsize;
        Section& s = sections[i];
        s.name_index = b.u32(h);
        s.type = b.u32(h + 4);
        s.flags = b.u32(h + 8);
        s.addr = b.u32(h + 12);
        s.offset = b.u32(h + 16);
        s.size = b.u32(h + 20);
        s.link = b.u32(h + 24);
        s.info = b.u32(h + 28);
        if (s.type != SHT_NOBITS) b.need(s.offset, s.size, "section contents");
    }
    if (shstrndx < shnum)
        for (Section& s : sections) s.name = c_string(b, sections[shstrndx], s.name_index);
    return sections;
}

std::vector<Hunk> make_hunks(const Bytes& b, std::vector<Section>& sections) {
    std::vector<Hunk> hunks;
    for (size_t i = 0; i < sections.size(); i++) {
        Section& s = sections[i];
        if (!(s.flags & SHF_ALLOC) || s.size == 0) continue;
        Hunk h;
        h.section = int(i);
        h.longs = uint32_t((uint64_t(s.size) + 3) / 4);
        if (s.type == SHT_NOBITS) {
            h.type = HUNK_BSS;
        } else if (s.type == SHT_PROGBITS) {
            h.type = (s.flags & SHF_EXECINSTR) ? HUNK_CODE : HUNK_DATA;
            h.contents.assign(b.v.begin() + s.offset, b.v.begin() + s.offset + s.size);
            h.contents.resize(size_t(h.longs) * 4, 0);
        } else {
            throw Failure{"section " + s.name + " of type " + std::to_string(s.type) +
                          " cannot become a hunk"};
        }
        if (h.longs > 0x1FFFFFFF) throw Failure{"section " + s.name + " is too large"};
        s.hunk = int(hunks.size());
        hunks.push_back(std::move(h));
    }
    if (hunks.empty()) throw Failure{"no loadable sections"};
    if (hunks.size() > MAX_HUNKS) throw Failure{"more than 64 loadable sections"};
    if (hunks[0].type != HUNK_CODE) throw Failure{"the first loadable section is not code"};
    return hunks;
}

std::vector<Symbol> read_symbols(const Bytes& b, const std::vector<Section>& sections) {
    std::vector<Symbol> symbols;
    for (const Section& s : sections) {
        if (s.type != SHT_SYMTAB) continue;
        if (s.link >= sections.size()) throw Failure{"symbol table without string table"};
        for (uint64_t o = s.offset; o + SYM_SIZE <= uint64_t(s.offset) + s.size; o += SYM_SIZE) {
            Symbol sym{c_string(b, sections[s.link], b.u32(o)), b.u32(o + 4),
                       uint16_t(b.u16(o + 14))};
            // Section symbols are nameless; messages show the section.
            if (sym.name.empty() && sym.shndx < sections.size()) sym.name = sections[sym.shndx].name;
            symbols.push_back(sym);
        }
        break;
    }
    return symbols;
}

std::string reloc_name(uint32_t type) {
    if (type < sizeof RELOC_NAMES / sizeof RELOC_NAMES[0]) return RELOC_NAMES[type];
    return "relocation type " + std::to_string(type);
}

void put32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    out[at] = uint8_t(v >> 24);
    out[at + 1] = uint8_t(v >> 16);
    out[at + 2] = uint8_t(v >> 8);
    out[at + 3] = uint8_t(v);
}

// One relocation of the section that hunk h was made from.
void apply_relocation(const std::vector<Section>& sections, const std::vector<Symbol>& symbols,
                      std::vector<Hunk>& hunks, Hunk& h, uint32_t offset, uint32_t type,
                      uint32_t sym_index, uint32_t addend) {
    const Section& s = sections[size_t(h.section)];
    std::string where = s.name + "+" + hex(offset);
    if (type == R_68K_NONE) return;
    if (sym_index >= symbols.size())
        throw Failure{reloc_name(type) + " at " + where + " names no symbol"};
    // Symbol 0 stands for none: the addend alone is an absolute value.
    const Symbol sym = sym_index == 0 ? Symbol{"", 0, SHN_ABS} : symbols[sym_index];
    std::string what = reloc_name(type) + " at " + where + " to '" + sym.name + "'";
    if (sym.shndx == SHN_UNDEF) throw Failure{what + ": undefined symbol"};
    bool absolute = sym.shndx == SHN_ABS;
    int target = -1;
    if (!absolute) {
        if (sym.shndx >= sections.size() || sections[sym.shndx].hunk < 0)
            throw Failure{what + ": symbol is in no loadable section"};
        target = sections[sym.shndx].hunk;
    }
    uint32_t width = type == R_68K_32 || type == R_68K_PC32   ? 4
                     : type == R_68K_16 || type == R_68K_PC16 ? 2
                                                              : 1;
    if (h.type == HUNK_BSS || uint64_t(offset) + width > s.size)
        throw Failure{what + ": outside the section's contents"};
    switch (type) {
    case R_68K_32:
        if (absolute) return;
        put32(h.contents, offset, sym.value + addend - sections[size_t(hunks[size_t(target)].section)].addr);
        h.relocs[uint32_t(target)].push_back(offset);
        return;
    case R_68K_16:
    case R_68K_8:
        if (absolute) return;
        throw Failure{what + ": a hunk file has no relocation of that width"};
    case R_68K_PC32:
    case R_68K_PC16:
    case R_68K_PC8:
        if (target == s.hunk) return;
        throw Failure{what + ": PC-relative reference to another section"};
    default: throw Failure{what + ": not expressible in a hunk file"};
    }
}

void apply_relocations(const Bytes& b, const std::vector<Section>& sections,
                       const std::vector<Symbol>& symbols, std::vector<Hunk>& hunks) {
    for (const Section& r : sections) {
        if (r.type != SHT_RELA && r.type != SHT_REL) continue;
        if (r.info >= sections.size() || sections[r.info].hunk < 0) continue;  // debug info
        if (r.type == SHT_REL) throw Failure{"REL relocations in " + r.name + " (m68k uses RELA)"};
        const Section& s = sections[r.info];
        Hunk& h = hunks[size_t(s.hunk)];
        for (uint64_t o = r.offset; o + RELA_SIZE <= uint64_t(r.offset) + r.size; o += RELA_SIZE) {
            uint32_t info = b.u32(o + 4);
            apply_relocation(sections, symbols, hunks, h, b.u32(o) - s.addr, info & 0xFF,
                             info >> 8, b.u32(o + 8));
        }
    }
}

void append32(std::vector<uint8_t>& out, uint32_t v) {
    out.resize(out.size() + 4);
    put32(out, out.size() - 4, v);
}

std::vector<uint8_t> write_hunks(const std::vector<Hunk>& hunks) {
    std::vector<uint8_t> out;
    append32(out, HUNK_HEADER);
    append32(out, 0);  // no resident libraries
    append32(out, uint32_t(hunks.size()));
    append32(out, 0);
    append32(out, uint32_t(hunks.size() - 1));
    for (const Hunk& h : hunks) append32(out, h.longs);
    for (const Hunk& h : hunks) {
        append32(out, h.type);
        append32(out, h.longs);
        out.insert(out.end(), h.contents.begin(), h.contents.end());
        if (!h.relocs.empty()) {
            append32(out, HUNK_RELOC32);
            for (const auto& [target, offsets] : h.relocs) {
                std::vector<uint32_t> sorted = offsets;
                std::sort(sorted.begin(), sorted.end());
                append32(out, uint32_t(sorted.size()));
                append32(out, target);
                for (uint32_t o : sorted) append32(out, o);
            }
            append32(out, 0);
        }
        append32(out, HUNK_END);
    }
    return out;
}

}  // namespace

bool elf2hunk_convert(const std::vector<uint8_t>& elf, std::vector<uint8_t>& hunk,
                      std::string& error) {
    try {
        Bytes b{elf};
        std::vector<Section> sections = read_sections(b);
        std::vector<Hunk> hunks = make_hunks(b, sections);
        std::vector<Symbol> symbols = read_symbols(b, sections);
        apply_relocations(b, sections, symbols, hunks);
        hunk = write_hunks(hunks);
        return true;
    } catch (const Failure& f) {
        error = f.reason;
        return false;
    }
}

#ifndef ELF2HUNK_NO_MAIN
int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: elf2hunk <in.elf> <out>\n");
        return 2;
    }
    std::vector<uint8_t> elf;
    if (FILE* f = std::fopen(argv[1], "rb")) {
        uint8_t buf[65536];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) elf.insert(elf.end(), buf, buf + n);
        std::fclose(f);
    } else {
        std::fprintf(stderr, "elf2hunk: cannot open '%s'\n", argv[1]);
        return 1;
    }
    std::vector<uint8_t> out;
    std::string error;
    if (!elf2hunk_convert(elf, out, error)) {
        std::fprintf(stderr, "elf2hunk: %s: %s\n", argv[1], error.c_str());
        return 1;
    }
    FILE* f = std::fopen(argv[2], "wb");
    bool ok = f && std::fwrite(out.data(), 1, out.size(), f) == out.size();
    if (f && std::fclose(f) != 0) ok = false;
    if (!ok) {
        std::fprintf(stderr, "elf2hunk: cannot write '%s'\n", argv[2]);
        std::remove(argv[2]);
        return 1;
    }
    return 0;
}
#endif
