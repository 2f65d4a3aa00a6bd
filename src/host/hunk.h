// AmigaOS hunk executables: header parsing, contents, placement in chip RAM.
#pragma once

#include <cstdint>

struct Machine;

// 1 ok, 0 failure (message printed). Fills hunk_count and hunk_size[].
int hunk_parse_header(Machine& m, const uint8_t* data, uint32_t size, uint32_t& out_pos);
// Reads the hunk blocks from pos on into hunk_addr[] (which must be set).
int hunk_read_contents(Machine& m, const uint8_t* data, uint32_t size, uint32_t pos);
// All hunks back to back from load_addr; returns hunk 0's address or 0.
uint32_t hunk_load(Machine& m, const uint8_t* data, uint32_t size, uint32_t load_addr);
// LoadSeg placement: one AllocMem-slab block per hunk, linked into a segment
// list. Returns the BCPL pointer of the first segment, or 0.
uint32_t hunk_load_seglist(Machine& m, const uint8_t* data, uint32_t size);
