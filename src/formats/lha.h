// The -lh5- decoder of LHA archives: blocks of static Huffman codes for
// literals/match lengths and for match positions over an 8 KiB window.
#pragma once

#include <cstdint>

constexpr int LHA_NC = 510;       // literal/length alphabet: 256 bytes + lengths 3..256
constexpr int LHA_NT = 19;        // code-length alphabet
constexpr int LHA_NP = 14;        // position classes of the 8 KiB window
constexpr int LHA_CBIT = 9;       // width of the literal/length count
constexpr int LHA_TBIT = 5;       // width of the code-length count
constexpr int LHA_PBIT = 4;       // width of the position count
constexpr int LHA_C_TABLE_BITS = 12;
constexpr int LHA_PT_TABLE_BITS = 8;
constexpr int LHA_TREE_SIZE = 2 * LHA_NC - 1;

// Zero-initialise before the first lha_decode.
struct LhaState {
    const uint8_t* in;
    uint32_t in_len;
    uint32_t in_pos;
    uint16_t bitbuf;     // the next 16 bits of the stream, first bit on top
    uint8_t subbitbuf;   // the byte being shifted in
    uint8_t bitcount;    // its unused bits
    uint16_t blocksize;  // literal/length symbols left in the block
    uint8_t c_len[LHA_NC];
    uint8_t pt_len[LHA_NT];
    uint16_t c_table[1 << LHA_C_TABLE_BITS];
    uint16_t pt_table[1 << LHA_PT_TABLE_BITS];
    uint16_t left[LHA_TREE_SIZE];
    uint16_t right[LHA_TREE_SIZE];
};

// Shift n more bits into bitbuf; past the end of the input zeros come in.
void lha_fillbuf(LhaState& s, int n);
// Code lengths of a small alphabet (nn symbols, count of nbit bits); after the
// symbol at index special a 2-bit run of zero lengths follows (-1: none).
void lha_read_pt_len(LhaState& s, int nn, int nbit, int special);
// Canonical Huffman lookup table of 2^table_bits entries; longer codes
// continue through left/right. Inconsistent lengths never write outside the
// arrays: codes that do not fit are dropped and their slots decode as 0.
void lha_make_table(int nchar, const uint8_t* lengths, int table_bits, uint16_t* table,
                    uint16_t* left, uint16_t* right);
// Decode one member into out (out_len bytes). 0 on success, 1 when a match
// reaches before the start of the output.
int lha_decode(LhaState& s, const uint8_t* in, uint32_t in_len, uint8_t* out, uint32_t out_len);
