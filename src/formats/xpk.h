// XPK packed streams: the "XPKF" container of chunks and the decoders of
// the sub-formats that modules are found packed with.
#pragma once

#include <cstdint>

// Chunk decoders. Each turns one type-1 chunk (src_len packed bytes) into
// exactly dst_len bytes at dst, reading nothing outside src and writing
// nothing outside dst. 0 on success, 1 on any inconsistency.
int xpk_nuke(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len, int variant);
int xpk_sqsh(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len);
int xpk_fast(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len);
int xpk_rlen(const uint8_t* src, uint32_t src_len, uint8_t* dst, uint32_t dst_len);

// Unpack a whole XPKF stream. Returns a malloc'ed buffer of out_len bytes, or
// null (after the message, if any) when data is not an XPK stream or cannot
// be unpacked; data itself is never changed.
uint8_t* xpk_unpack(const uint8_t* data, uint32_t len, uint32_t& out_len);
