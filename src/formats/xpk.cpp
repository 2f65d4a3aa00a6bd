// XPK streams. A stream is a header and a run of chunks, each packed on its
// own: type 0 stored, type 1 packed with the stream's sub-format, type 15
// the end. NUKE, DUKE and FAST read from both ends of a chunk at once; SQSH
// is an adaptive delta coder for 8-bit samples with LZ matches mixed in.
#include "formats/xpk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "formats/loadfile.h"

namespace {

// ---- chunk input read from both ends ----

// Front cursor f moves up, back cursor b moves down; a byte may be taken
// from either end only while f < b, so no byte is used twice. Running out
// sets bad and yields zeros; callers check bad before trusting a value.
struct TwoEnds {
    const uint8_t* src;
    uint32_t f, b;
    bool bad;

    uint32_t front(int bytes) {
        uint32_t v = 0;
        for (int i = 0; i < bytes; i++) {
            if (f >= b) return fail();
            v = v << 8 | src[f++];
        }
        return v;
    }
    // Big-endian in memory like everything else: the low byte is nearer the end.
    uint32_t back(int bytes) {
        uint32_t v = 0;
        for (int i = 0; i < bytes; i++) {
            if (f >= b) return fail();
            v |= uint32_t(src[--b]) << (8 * i);
        }
        return v;
    }
    uint32_t fail() {
        bad = true;
        return 0;
    }
};

enum End { FRONT, BACK };

// Bits handed out most significant first from units of UNIT_BYTES. A unit is
// loaded only when a read needs a bit and none is left: the formats
// interleave units for several readers on one cursor, so the moment of each
// load is part of the format.
template <int UNIT_BYTES, End FROM>
struct MsbBits {
    uint32_t unit = 0;
    int left = 0;

    uint32_t read(TwoEnds& in, int n) {
        uint32_t v = 0;
        while (n > 0) {
            if (left == 0) {
                unit = FROM == FRONT ? in.front(UNIT_BYTES) : in.back(UNIT_BYTES);
                if (in.bad) return 0;
                left = 8 * UNIT_BYTES;
            }
            int take = std::min(n, left);
            left -= take;
            n -= take;
            v = v << take | ((unit >> left) & ((1u << take) - 1));
        }
        return v;
    }
};

// NUKE's nibble reader: 32-bit units from the front, least significant nibble first.
struct LsbNibbles {
    uint32_t unit = 0;
    int left = 0;

    uint32_t read(TwoEnds& in) {
        if (left == 0) {
            unit = in.front(4);
            if (in.bad) return 0;
            left = 32;
        }
        uint32_t v = unit & 15;
        unit >>= 4;
        left -= 4;
        return v;
    }
};

// Back-reference inside the chunk, one byte at a time so that short
// distances repeat a pattern.
void copy_match(uint8_t* dst, uint32_t& pos, uint32_t distance, uint32_t length) {
    for (const uint8_t* from = dst + pos - distance; length > 0; length--) dst[pos++] = *from++;
}

// ---- NUKE / DUKE ----

struct NukeClass {
    uint8_t bits;    // distance bits read from RX
    uint16_t base;   // added to them
    uint8_t length;  // 0: a long length follows
};

// Three groups (length 2, length 3, long), each row's base being the
// previous base plus the range of the previous row's bits.
constexpr NukeClass NUKE_CLASSES[16] = {
    {4, 0, 2},     {6, 16, 2},    {8, 80, 2},     {9, 336, 2},    {4, 0, 3},      {7, 16, 3},
    {9, 144, 3},   {11, 656, 3},  {13, 2704, 3},  {14, 10896, 3}, {5, 0, 0},      {7, 32, 0},
    {9, 160, 0},   {11, 672, 0},  {13, 2720, 0},  {14, 10912, 0},
};

constexpr bool nuke_bases_consistent() {
    for (int k = 1; k < 16; k++) {
        bool group_start = k == 4 || k == 10;
        uint32_t expect =
            group_start ? 0 : NUKE_CLASSES[k - 1].base + (1u << NUKE_CLASSES[k - 1].bits);
        if (NUKE_CLASSES[k].base != expect) return false;
    }
    return true;
}
static_assert(nuke_bases_consistent());

// ---- SQSH ----

constexpr int SQSH_MIN_WIDTH = 2;
constexpr int SQSH_MAX_WIDTH = 8;
constexpr int SQSH_STREAK_SELECT = 8;  // from here on a selector code precedes each item
constexpr int SQSH_STREAK_MAX = 31;
constexpr uint32_t SQSH_HEAT_DOUBLE = 20;  // 8-bit groups grow to two bytes once this hot

// New literal width for selectors 010, 0110, 0111+00 .. 0111+11, by the
// previous width: the six widths other than the previous one.
constexpr uint8_t SQSH_WIDTHS[SQSH_MAX_WIDTH - SQSH_MIN_WIDTH + 1][6] = {
    {3, 4, 5, 6, 7, 8}, {2, 4, 5, 6, 7, 8}, {3, 5, 2, 6, 7, 8}, {4, 6, 2, 3, 7, 8},
    {5, 7, 2, 3, 4, 8}, {6, 8, 2, 3, 4, 5}, {7, 6, 2, 3, 4, 5},
};

struct SqshCode {
    uint8_t extra_bits;
    uint16_t base;
};
// Match length by prefix 0, 10, 110, 1110, 1111.
constexpr SqshCode SQSH_LENGTHS[5] = {{1, 2}, {1, 4}, {1, 6}, {3, 8}, {5, 16}};
// Match distance by prefix 00, 01, 1.
constexpr SqshCode SQSH_DISTANCES[3] = {{8, 1}, {14, 4353}, {12, 257}};

// ---- the container ----

constexpr uint32_t XPK_MIN_STREAM = 44;
constexpr uint32_t XPK_HEADER = 36;
constexpr uint32_t XPK_EXT_HEADER = 38;  // with the 2-byte extended-header length
constexpr uint8_t XPK_LONG_HEADERS = 1 << 0;
constexpr uint8_t XPK_PASSWORD = 1 << 1;
constexpr uint8_t XPK_EXTENDED = 1 << 2;
constexpr uint32_t CHUNK_HEADER_SHORT = 8;
constexpr uint32_t CHUNK_HEADER_LONG = 12;
constexpr uint8_t CHUNK_STORED = 0;
constexpr uint8_t CHUNK_PACKED = 1;
constexpr uint8_t CHUNK_END = 15;

uint32_t be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }

int decode_none(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    if (src_len != dst_len) return 1;
    std::memcpy(dst, src, dst_len);
    return 0;
}
int decode_nuke(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    return xpk_nuke(src, src_len, dst, dst_len, 0);
}
int decode_duke(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    return xpk_nuke(src, src_len, dst, dst_len, 1);
}

using ChunkDecoder = int (*)(const uint8_t*, uint32_t, uint8_t*, uint32_t);
struct SubFormat {
    char id[5];
    ChunkDecoder decode;
};
constexpr SubFormat SUB_FORMATS[] = {
    {"NUKE", decode_nuke}, {"DUKE", decode_duke}, {"SQSH", xpk_sqsh},
    {"FAST", xpk_fast},  {"RLEN", xpk_rlen}, {"NONE", decode_none},
};

ChunkDecoder find_sub_format(const uint8_t* id) {
    for (const SubFormat& f : SUB_FORMATS)
        if (std::memcmp(f.id, id, 4) == 0) return f.decode;
    return nullptr;
}

}  // namespace

int xpk_nuke(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len, int variant) {
    // Control bits from the front through four readers sharing the cursor;
    // literal bytes from the back, in output order.
    TwoEnds in{src, 0, src_len, false};
    MsbBits<2, FRONT> flags, pieces, distance_bits;
    LsbNibbles nibbles;
    uint32_t pos = 0;
    for (;;) {
        if (flags.read(in, 1) == 0) {
            uint32_t run = 1;
            if (flags.read(in, 1) == 0) {
                // 2-bit pieces: 0 adds 3 and continues, 1..3 add 4..2 and end.
                run = 0;
                for (;;) {
                    uint32_t p = pieces.read(in, 2);
                    if (in.bad || run > dst_len) return 1;
                    if (p != 0) {
                        run += 5 - p;
                        break;
                    }
                    run += 3;
                }
            }
            if (in.bad || run > dst_len - pos) return 1;
            for (; run > 0; run--) dst[pos++] = uint8_t(in.back(1));
            if (in.bad) return 1;
        }
        if (in.bad) return 1;
        if (pos == dst_len) break;

        const NukeClass& k = NUKE_CLASSES[nibbles.read(in)];
        uint32_t distance = k.base + distance_bits.read(in, k.bits);
        uint32_t length = k.length;
        if (length == 0) {
            // Pieces 3, 2, 1 give 4, 5, 6; 0 goes on in nibbles: 0 adds 15 and
            // continues, 1..15 add 15..1 and end.
            uint32_t p = pieces.read(in, 2);
            length = 7 - p;
            if (p == 0) {
                length = 6;
                for (;;) {
                    uint32_t q = nibbles.read(in);
                    if (in.bad || length > dst_len) return 1;
                    if (q != 0) {
                        length += 16 - q;
                        break;
                    }
                    length += 15;
                }
            }
        }
        if (in.bad || distance == 0 || distance > pos || length > dst_len - pos) return 1;
        copy_match(dst, pos, distance, length);
    }

    // DUKE: the LZ stage produced byte differences; sum them up, from 0 in every chunk.
    if (variant) {
        uint8_t sum = 0;
        for (uint32_t i = 0; i < dst_len; i++) dst[i] = sum = uint8_t(sum + dst[i]);
    }
    return 0;
}

int xpk_sqsh(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    if (src_len < 3 || be16(src) != dst_len) return 1;
    if (dst_len == 0) return 0;
    TwoEnds in{src, 3, src_len, false};
    MsbBits<1, FRONT> bits;
    uint8_t cur = src[2];
    dst[0] = cur;
    uint32_t pos = 1;
    int streak = 0;
    int width = 0;
    uint32_t heat = 0;

    while (pos < dst_len) {
        bool match;
        int w = SQSH_MAX_WIDTH;
        uint32_t group = 1;
        if (streak < SQSH_STREAK_SELECT) {
            match = bits.read(in, 1);
        } else {
            // Selector: 1 same width, 00 match, 010 / 0110 / 0111+rr new width.
            int selector;
            if (bits.read(in, 1)) selector = 0;
            else if (!bits.read(in, 1)) selector = 1;
            else if (!bits.read(in, 1)) selector = 2;
            else if (!bits.read(in, 1)) selector = 3;
            else selector = 4 + int(bits.read(in, 2));
            match = selector == 1;
            if (!match) {
                if (width < SQSH_MIN_WIDTH || width > SQSH_MAX_WIDTH) return 1;
                w = selector == 0 ? width : SQSH_WIDTHS[width - SQSH_MIN_WIDTH][selector - 2];
                if (w != SQSH_MAX_WIDTH) {
                    group = 5;
                    heat += 8;
                } else if (heat >= SQSH_HEAT_DOUBLE) {
                    group = 2;
                    heat += 8;
                }
            }
        }

        if (match) {
            int code = 0;
            while (code < 4 && bits.read(in, 1)) code++;
            uint32_t length = SQSH_LENGTHS[code].base + bits.read(in, SQSH_LENGTHS[code].extra_bits);
            if (length >= 3 && streak > 0) streak--;
            if (length >= 4 && streak > 0) streak--;
            int dcode = bits.read(in, 1) ? 2 : int(bits.read(in, 1));
            uint32_t distance =
                SQSH_DISTANCES[dcode].base + bits.read(in, SQSH_DISTANCES[dcode].extra_bits);
            if (in.bad || distance > pos) return 1;
            copy_match(dst, pos, distance, std::min(length, dst_len - pos));
            cur = dst[pos - 1];
        } else {
            // Differences in w-bit two's complement, subtracted from the last sample.
            for (group = std::min(group, dst_len - pos); group > 0; group--) {
                uint32_t v = bits.read(in, w);
                int32_t diff = v >= (1u << (w - 1)) ? int32_t(v) - (1 << w) : int32_t(v);
                dst[pos++] = cur = uint8_t(cur - diff);
            }
            if (in.bad) return 1;
            if (streak < SQSH_STREAK_MAX) streak++;
            width = w;
        }
        heat -= heat >> 3;
    }
    return 0;
}

int xpk_fast(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    // Literals from the front; control words and match words from the back.
    TwoEnds in{src, 0, src_len, false};
    MsbBits<2, BACK> control;
    uint32_t pos = 0;
    while (pos < dst_len) {
        uint32_t bit = control.read(in, 1);
        if (in.bad) return 1;
        if (bit == 0) {
            uint32_t literal = in.front(1);
            if (in.bad) return 1;
            dst[pos++] = uint8_t(literal);
            continue;
        }
        uint32_t word = in.back(2);
        uint32_t distance = word >> 4;
        if (in.bad || distance == 0 || distance > pos) return 1;
        copy_match(dst, pos, distance, std::min(18 - (word & 15), dst_len - pos));
    }
    return 0;
}

int xpk_rlen(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len) {
    // Control byte c: 1..127 literal bytes follow; 128..255 one byte repeated 256 - c times.
    uint32_t i = 0;
    uint32_t pos = 0;
    while (pos < dst_len) {
        if (i >= src_len) return 1;
        uint32_t c = src[i++];
        if (c == 0) return 1;
        if (c < 128) {
            if (c > src_len - i || c > dst_len - pos) return 1;
            std::memcpy(dst + pos, src + i, c);
            i += c;
            pos += c;
        } else {
            uint32_t n = 256 - c;
            if (i >= src_len || n > dst_len - pos) return 1;
            std::memset(dst + pos, src[i++], n);
            pos += n;
        }
    }
    return 0;
}

uint8_t* xpk_unpack(const uint8_t* data, uint32_t len, uint32_t& out_len) {
    if (len < XPK_MIN_STREAM || std::memcmp(data, "XPKF", 4) != 0) return nullptr;
    const uint32_t stream_len = be32(data + 4);
    const uint32_t unpacked = be32(data + 12);
    const uint8_t flags = data[32];
    if (unpacked == 0 || stream_len == 0) return nullptr;
    if (flags & XPK_PASSWORD) {
        std::fprintf(stderr, "xpk: password-protected stream, cannot unpack\n");
        return nullptr;
    }
    const uint64_t stream_end = uint64_t(stream_len) + 8;
    if (len < stream_end) {
        std::fprintf(stderr, "xpk: truncated stream (packed=%u len=%u)\n", stream_len, len);
        return nullptr;
    }
    if (unpacked > LOAD_UNPACKED_MAX) return nullptr;
    uint8_t* out = static_cast<uint8_t*>(std::malloc(unpacked));
    if (!out) return nullptr;

    const uint32_t header = (flags & XPK_LONG_HEADERS) ? CHUNK_HEADER_LONG : CHUNK_HEADER_SHORT;
    const ChunkDecoder decode = find_sub_format(data + 8);
    uint64_t pos = (flags & XPK_EXTENDED) ? XPK_EXT_HEADER + be16(data + XPK_HEADER) : XPK_HEADER;
    uint64_t produced = 0;
    bool end_seen = false;
    while (pos < stream_end && !end_seen) {
        if (pos + header > stream_end) break;
        const uint8_t* h = data + pos;
        const uint8_t type = h[0];
        const uint32_t packed = header == CHUNK_HEADER_LONG ? be32(h + 4) : be16(h + 4);
        const uint32_t size = header == CHUNK_HEADER_LONG ? be32(h + 8) : be16(h + 6);
        const uint64_t at = pos + header;
        bool ok = at + packed <= len && produced + size <= unpacked;
        uint8_t* dst = out + produced;
        if (ok && type == CHUNK_STORED) {
            ok = packed == size;
            if (ok) std::memcpy(dst, data + at, size);
        } else if (ok && type == CHUNK_PACKED) {
            if (!decode) {
                const uint8_t* id = data + 8;
                std::fprintf(stderr, "xpk: unsupported sub-format '%c%c%c%c'\n", id[0], id[1], id[2],
                             id[3]);
                ok = false;
            } else {
                ok = decode(data + at, packed, dst, size) == 0;
            }
        } else if (ok && type == CHUNK_END) {
            std::memset(dst, 0, size);
            end_seen = true;
        } else {
            ok = false;
        }
        if (!ok) {
            std::free(out);
            return nullptr;
        }
        produced += size;
        pos = at + ((uint64_t(packed) + 3) & ~uint64_t(3));
    }
    if (produced != unpacked) {
        std::fprintf(stderr, "xpk: short output (%u of %u bytes)\n", uint32_t(produced), unpacked);
        std::free(out);
        return nullptr;
    }
    out_len = unpacked;
    return out;
}
