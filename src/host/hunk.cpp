// AmigaOS hunk executables. A file is a HUNK_HEADER (the hunk count and
// every hunk's size, so all memory can be reserved before anything is read)
// followed by one block per hunk: its contents, then optional relocation,
// name, symbol and debug blocks, closed by HUNK_END. Every byte goes into
// chip RAM through the bus; memory-type flags (chip/fast) are ignored since
// all memory here is chip RAM.
#include "host/hunk.h"

#include <cstdio>

#include "cpu/bus.h"
#include "host/deli.h"
#include "machine.h"

namespace {

// Block types, as dos.library numbers them.
constexpr uint32_t HUNK_NAME = 1000;
constexpr uint32_t HUNK_CODE = 1001;
constexpr uint32_t HUNK_DATA = 1002;
constexpr uint32_t HUNK_BSS = 1003;
constexpr uint32_t HUNK_RELOC32 = 1004;
constexpr uint32_t HUNK_RELOC16 = 1005;
constexpr uint32_t HUNK_RELOC8 = 1006;
constexpr uint32_t HUNK_EXT = 1007;
constexpr uint32_t HUNK_SYMBOL = 1008;
constexpr uint32_t HUNK_DEBUG = 1009;
constexpr uint32_t HUNK_END = 1010;
constexpr uint32_t HUNK_HEADER = 1011;

constexpr uint32_t MAX_HUNKS = 64;
// The top three bits of a size or block type carry memory flags; 110 in a
// header size means a longword of explicit memory attributes follows.
constexpr uint32_t HUNK_FLAG_MASK = 0xE0000000;
constexpr uint32_t HUNK_ATTR_FOLLOWS = 0xC0000000;
constexpr uint32_t HUNK_TYPE_MASK = 0x1FFFFFFF;
// AllocMem keeps the block length in the longword before the segment, and a
// segment starts with the BCPL pointer to the next one.
constexpr uint32_t SEG_HEADER = 8;

// A read position in the file. Offsets are 64-bit so that no count or size
// in the file can make them wrap; reads past the end are refused.
struct Reader {
    const uint8_t* data;
    uint64_t size;
    uint64_t pos;

    bool fits(uint64_t bytes) const { return pos <= size && size - pos >= bytes; }
    uint32_t peek32() const {
        const uint8_t* p = data + pos;
        return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    }
    // Caller has checked fits(4).
    uint32_t take32() {
        uint32_t v = peek32();
        pos += 4;
        return v;
    }
    // Moves on even past the end: nothing more will then fit.
    void skip_longs(uint64_t count) { pos += count * 4; }
};

// Zeroing wraps at the top of the 24-bit space, so more than 16 MiB of BSS
// cannot change more than 16 MiB did; the cap keeps a hostile count cheap.
void clear_chip(Machine& m, uint32_t address, uint64_t bytes) {
    if (bytes > CHIP_RAM_SIZE) bytes = CHIP_RAM_SIZE;
    for (uint64_t k = 0; k < bytes; k++) write8(m, address + uint32_t(k), 0);
}

// HUNK_NAME and HUNK_DEBUG: a length, then that many longwords.
bool skip_counted(Reader& r) {
    if (!r.fits(4)) return false;
    r.skip_longs(r.take32());
    return true;
}

// HUNK_SYMBOL: (name length, name, value) entries until a zero length.
bool skip_symbols(Reader& r) {
    for (;;) {
        if (!r.fits(4)) return false;
        uint32_t len = r.take32();
        if (len == 0) return true;
        r.skip_longs(uint64_t(len) + 1);
    }
}

bool short_reloc32() {
    std::fprintf(stderr, "hunk: short reloc32\n");
    return false;
}

// Groups of (count, target hunk, count offsets into this hunk), ended by a
// zero count; each offset names a longword that gets the target's address
// added.
bool apply_reloc32(Machine& m, Reader& r, uint32_t hunk) {
    if (!r.fits(4)) return short_reloc32();
    for (;;) {
        uint32_t count = r.take32();
        if (count == 0) return true;
        if (!r.fits(4)) return short_reloc32();
        uint32_t target = r.take32();
        if (target >= m.hunk_count) {
            std::fprintf(stderr, "hunk: reloc target %u out of range\n", target);
            return false;
        }
        for (uint32_t k = 0; k < count; k++) {
            if (!r.fits(4)) return short_reloc32();
            uint32_t at = m.hunk_addr[hunk] + r.take32();
            write32(m, at, read32(m, at) + m.hunk_addr[target]);
        }
        if (!r.fits(4)) return short_reloc32();
    }
}

// The blocks that may follow a hunk's contents, up to its HUNK_END (or the
// end of the file, which closes the last hunk as well).
bool read_sub_blocks(Machine& m, Reader& r, uint32_t hunk) {
    while (r.fits(4)) {
        uint32_t tag = r.take32();
        switch (tag) {
        case HUNK_END: return true;
        case HUNK_NAME:
        case HUNK_DEBUG:
            if (!skip_counted(r)) return false;
            break;
        case HUNK_SYMBOL:
            if (!skip_symbols(r)) return false;
            break;
        case HUNK_RELOC32:
            if (!apply_reloc32(m, r, hunk)) return false;
            break;
        case HUNK_CODE:
        case HUNK_DATA:
        case HUNK_BSS:
        case HUNK_RELOC16:
        case HUNK_RELOC8:
        case HUNK_EXT:
        default: std::fprintf(stderr, "hunk: unhandled sub-tag %08x\n", tag); return false;
        }
    }
    return true;
}

}  // namespace

int hunk_parse_header(Machine& m, const uint8_t* data, uint32_t size, uint32_t& out_pos) {
    Reader r{data, size, 0};
    if (size < 8 || r.take32() != HUNK_HEADER) {
        std::fprintf(stderr, "hunk: missing HUNK_HEADER\n");
        return 0;
    }
    // Resident-library names: length-prefixed, ended by a zero length.
    while (r.fits(4)) {
        uint32_t len = r.take32();
        if (len == 0) break;
        r.skip_longs(len);
    }
    if (!r.fits(4)) {
        std::fprintf(stderr, "hunk: truncated header\n");
        return 0;
    }
    uint32_t count = r.peek32();
    if (count == 0 || count > MAX_HUNKS) {
        std::fprintf(stderr, "hunk: bad hunk count (%u)\n", count);
        return 0;
    }
    m.hunk_count = count;
    // Table size, first and last hunk: numbering always starts at 0 here.
    r.pos += 12;
    for (uint32_t i = 0; i < count; i++) {
        if (!r.fits(4)) {
            std::fprintf(stderr, "hunk: truncated header\n");
            return 0;
        }
        uint32_t v = r.take32();
        if ((v & HUNK_FLAG_MASK) == HUNK_ATTR_FOLLOWS) r.pos += 4;
        m.hunk_size[i] = (v & HUNK_TYPE_MASK) * 4;
    }
    if (r.pos > size) {
        std::fprintf(stderr, "hunk: truncated header\n");
        return 0;
    }
    out_pos = uint32_t(r.pos);
    return 1;
}

int hunk_read_contents(Machine& m, const uint8_t* data, uint32_t size, uint32_t pos) {
    Reader r{data, size, pos};
    for (uint32_t i = 0; i < m.hunk_count; i++) {
        if (!r.fits(4)) {
            std::fprintf(stderr, "hunk: truncated at hunk %u\n", i);
            return 0;
        }
        uint32_t type = r.take32() & HUNK_TYPE_MASK;
        if (type == HUNK_CODE || type == HUNK_DATA) {
            uint64_t bytes = r.fits(4) ? uint64_t(r.take32()) * 4 : ~uint64_t(0);
            if (!r.fits(bytes)) {
                std::fprintf(stderr, "hunk: short hunk %u\n", i);
                return 0;
            }
            for (uint64_t k = 0; k < bytes; k++)
                write8(m, m.hunk_addr[i] + uint32_t(k), data[r.pos + k]);
            r.pos += bytes;
        } else if (type == HUNK_BSS) {
            if (!r.fits(4)) {
                std::fprintf(stderr, "hunk: short hunk %u\n", i);
                return 0;
            }
            clear_chip(m, m.hunk_addr[i], uint64_t(r.take32()) * 4);
        } else {
            std::fprintf(stderr, "hunk: unexpected tag %08x at hunk %u\n", type, i);
            return 0;
        }
        if (!read_sub_blocks(m, r, i)) return 0;
    }
    return 1;
}

uint32_t hunk_load(Machine& m, const uint8_t* data, uint32_t size, uint32_t load_addr) {
    uint32_t pos = 0;
    if (!hunk_parse_header(m, data, size, pos)) return 0;
    uint32_t next = load_addr;
    for (uint32_t i = 0; i < m.hunk_count; i++) {
        m.hunk_addr[i] = next;
        next += m.hunk_size[i];
    }
    m.image_end = next;
    return hunk_read_contents(m, data, size, pos) ? m.hunk_addr[0] : 0;
}

uint32_t hunk_load_seglist(Machine& m, const uint8_t* data, uint32_t size) {
    uint32_t pos = 0;
    if (!hunk_parse_header(m, data, size, pos)) return 0;
    uint32_t blocks[MAX_HUNKS];
    for (uint32_t i = 0; i < m.hunk_count; i++) {
        uint32_t len = (m.hunk_size[i] + SEG_HEADER + 3) & ~3u;
        if (m.alloc_slab == 0 || uint64_t(m.alloc_slab) + len > SLAB_END) {
            std::fprintf(stderr, "hunk_load_seglist: out of AllocMem slab\n");
            return 0;
        }
        blocks[i] = m.alloc_slab;
        m.alloc_slab += len;
        clear_chip(m, blocks[i], len);
        write32(m, blocks[i], m.hunk_size[i] + SEG_HEADER);
        m.hunk_addr[i] = blocks[i] + SEG_HEADER;
    }
    for (uint32_t i = 0; i < m.hunk_count; i++) {
        bool last = i + 1 == m.hunk_count;
        write32(m, blocks[i] + 4, last ? 0 : (blocks[i + 1] + 4) >> 2);
    }
    if (!hunk_read_contents(m, data, size, pos)) return 0;
    return (blocks[0] + 4) >> 2;
}
