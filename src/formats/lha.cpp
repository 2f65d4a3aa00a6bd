// -lh5- decoding: each block carries three Huffman codes (the code-length
// code, the literal/length code and the position code) and a symbol count.
// The output buffer is the dictionary, so no ring buffer is needed.
#include "formats/lha.h"

#include <algorithm>

namespace {

constexpr int MAX_CODE_LEN = 16;
constexpr uint32_t CODE_SPACE = 1u << MAX_CODE_LEN;  // codes are ranked in 16-bit space
constexpr int NO_SPECIAL = -1;
constexpr int MIN_MATCH = 3;
constexpr uint32_t FIRST_LENGTH_SYMBOL = 256;

// The small codes and the literal/length code share left/right. A small code
// adds at most 16 - 8 nodes per symbol above its alphabet, so its tree never
// reaches the nodes of the large one, which start at LHA_NC.
static_assert(LHA_NT * (1 + MAX_CODE_LEN - LHA_PT_TABLE_BITS) <= LHA_NC);

uint32_t getbits(LhaState& s, int n) {
    uint32_t x = uint32_t(s.bitbuf) >> (16 - n);
    lha_fillbuf(s, n);
    return x;
}

// How many code lengths follow, at most nchar. A count of 0 announces a
// single-symbol code, sent as the symbol alone: every lookup returns it and
// consumes no bits (an out-of-range symbol decodes as 0).
uint32_t read_length_count(LhaState& s, int nbit, int nchar, uint16_t* table, int table_bits,
                           uint8_t* lengths) {
    uint32_t n = getbits(s, nbit);
    if (n == 0) {
        uint32_t value = getbits(s, nbit);
        std::fill(lengths, lengths + nchar, uint8_t(0));
        std::fill(table, table + (1 << table_bits), uint16_t(value < uint32_t(nchar) ? value : 0));
    }
    return std::min(n, uint32_t(nchar));
}

// Table lookup on the top table_bits of bitbuf, then down the tree on the
// bits below. Every node was made by the last lha_make_table with a larger
// index than its parent, so the walk ends at a symbol.
template <int NCHAR, int TABLE_BITS>
uint32_t decode_symbol(LhaState& s, const uint16_t* table, const uint8_t* lengths) {
    uint32_t c = table[s.bitbuf >> (16 - TABLE_BITS)];
    if (c >= uint32_t(NCHAR)) {
        uint32_t mask = 1u << (15 - TABLE_BITS);
        do {
            c = (s.bitbuf & mask) ? s.right[c] : s.left[c];
            mask >>= 1;
        } while (c >= uint32_t(NCHAR));
    }
    lha_fillbuf(s, lengths[c]);
    return c;
}

// Literal/length code lengths, themselves coded with the code-length code:
// symbols 0..2 are runs of zero lengths, s >= 3 is a length of s - 2.
void read_c_len(LhaState& s) {
    uint32_t n = read_length_count(s, LHA_CBIT, LHA_NC, s.c_table, LHA_C_TABLE_BITS, s.c_len);
    if (n == 0) return;
    uint32_t i = 0;
    while (i < n) {
        uint32_t c = decode_symbol<LHA_NT, LHA_PT_TABLE_BITS>(s, s.pt_table, s.pt_len);
        if (c <= 2) {
            uint32_t run = c == 0 ? 1 : c == 1 ? getbits(s, 4) + 3 : getbits(s, LHA_CBIT) + 20;
            for (; run > 0 && i < n; run--) s.c_len[i++] = 0;
        } else {
            s.c_len[i++] = uint8_t(c - 2);
        }
    }
    std::fill(s.c_len + i, s.c_len + LHA_NC, uint8_t(0));
    lha_make_table(LHA_NC, s.c_len, LHA_C_TABLE_BITS, s.c_table, s.left, s.right);
}

void read_block_header(LhaState& s) {
    s.blocksize = uint16_t(getbits(s, 16));
    lha_read_pt_len(s, LHA_NT, LHA_TBIT, 3);
    read_c_len(s);
    lha_read_pt_len(s, LHA_NP, LHA_PBIT, NO_SPECIAL);
}

// Position class p stands for distances 2^(p-1) .. 2^p - 1, the low bits sent plain.
uint32_t decode_distance(LhaState& s) {
    uint32_t p = decode_symbol<LHA_NP, LHA_PT_TABLE_BITS>(s, s.pt_table, s.pt_len);
    if (p == 0) return 0;
    return (1u << (p - 1)) + getbits(s, int(p - 1));
}

}  // namespace

void lha_fillbuf(LhaState& s, int n) {
    while (n > s.bitcount) {
        n -= s.bitcount;
        s.bitbuf = uint16_t(s.bitbuf << s.bitcount | s.subbitbuf >> (8 - s.bitcount));
        s.subbitbuf = s.in_pos < s.in_len ? s.in[s.in_pos++] : 0;
        s.bitcount = 8;
    }
    s.bitcount = uint8_t(s.bitcount - n);
    s.bitbuf = uint16_t(s.bitbuf << n | s.subbitbuf >> (8 - n));
    s.subbitbuf = uint8_t(s.subbitbuf << n);
}

void lha_read_pt_len(LhaState& s, int nn, int nbit, int special) {
    uint32_t n = read_length_count(s, nbit, nn, s.pt_table, LHA_PT_TABLE_BITS, s.pt_len);
    if (n == 0) return;
    uint32_t i = 0;
    while (i < n) {
        // 0..6 in three bits; 7 and up as 111 followed by a unary extension.
        uint32_t c = s.bitbuf >> 13;
        if (c == 7) {
            for (uint32_t mask = 1u << 12; mask & s.bitbuf; mask >>= 1) c++;
        }
        lha_fillbuf(s, c < 7 ? 3 : int(c - 3));
        s.pt_len[i++] = uint8_t(c);
        if (int(i) == special) {
            for (uint32_t run = getbits(s, 2); run > 0 && i < uint32_t(nn); run--) s.pt_len[i++] = 0;
        }
    }
    std::fill(s.pt_len + i, s.pt_len + nn, uint8_t(0));
    lha_make_table(nn, s.pt_len, LHA_PT_TABLE_BITS, s.pt_table, s.left, s.right);
}

void lha_make_table(int nchar, const uint8_t* lengths, int table_bits, uint16_t* table,
                    uint16_t* left, uint16_t* right) {
    uint32_t count[MAX_CODE_LEN + 1] = {};
    for (int i = 0; i < nchar; i++)
        if (lengths[i] <= MAX_CODE_LEN) count[lengths[i]]++;
    // Canonical order: shorter codes first, equal lengths by symbol number.
    uint32_t start[MAX_CODE_LEN + 1];
    uint32_t next = 0;
    for (int len = 1; len <= MAX_CODE_LEN; len++) {
        start[len] = next;
        next += count[len] << (MAX_CODE_LEN - len);
    }

    const int jut = MAX_CODE_LEN - table_bits;
    std::fill(table, table + (1 << table_bits), uint16_t(0));
    uint32_t avail = uint32_t(nchar);
    for (int ch = 0; ch < nchar; ch++) {
        int len = lengths[ch];
        if (len == 0 || len > MAX_CODE_LEN) continue;
        uint32_t code = start[len];
        uint32_t size = 1u << (MAX_CODE_LEN - len);
        start[len] += size;
        if (code + size > CODE_SPACE) continue;  // over-subscribed: no room left
        if (len <= table_bits) {
            std::fill(table + (code >> jut), table + ((code + size) >> jut), uint16_t(ch));
            continue;
        }
        uint16_t* p = &table[code >> jut];
        uint32_t mask = 1u << (15 - table_bits);
        bool placed = true;
        for (int i = len - table_bits; i > 0; i--, code <<= 1) {
            if (*p == 0) {
                if (avail >= uint32_t(LHA_TREE_SIZE)) {
                    placed = false;
                    break;
                }
                left[avail] = right[avail] = 0;
                *p = uint16_t(avail++);
            } else if (*p < nchar) {
                placed = false;  // runs into a shorter code: lengths were inconsistent
                break;
            }
            p = (code & mask) ? &right[*p] : &left[*p];
        }
        if (placed && *p == 0) *p = uint16_t(ch);
    }
}

int lha_decode(LhaState& s, const uint8_t* in, uint32_t in_len, uint8_t* out, uint32_t out_len) {
    s.in = in;
    s.in_len = in_len;
    s.in_pos = 0;
    s.bitbuf = 0;
    s.subbitbuf = 0;
    s.bitcount = 0;
    s.blocksize = 0;
    lha_fillbuf(s, 16);

    uint32_t pos = 0;
    while (pos < out_len) {
        // A count of 0 wraps round: the block holds 65536 symbols.
        if (s.blocksize == 0) read_block_header(s);
        s.blocksize--;
        uint32_t c = decode_symbol<LHA_NC, LHA_C_TABLE_BITS>(s, s.c_table, s.c_len);
        if (c < FIRST_LENGTH_SYMBOL) {
            out[pos++] = uint8_t(c);
            continue;
        }
        uint32_t len = c - FIRST_LENGTH_SYMBOL + MIN_MATCH;
        uint32_t back = decode_distance(s) + 1;
        if (back > pos) return 1;
        len = std::min(len, out_len - pos);
        // Byte by byte: an overlapping match repeats the last `back` bytes.
        for (const uint8_t* from = out + pos - back; len > 0; len--) out[pos++] = *from++;
    }
    return 0;
}
