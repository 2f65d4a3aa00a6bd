// The emulated AmigaOS environment a DeliTracker/EaglePlayer player expects:
// library bases with jump tables, the DeliTracker global base with its
// function pointers and stubs, module path buffers, and the player's tags.
#pragma once

#include <cstdint>

struct Machine;

// Guest address map of the player host.
constexpr uint32_t EXEC_BASE = 0xF80000;
constexpr uint32_t DOS_BASE = 0xF81000;
constexpr uint32_t LIB3_BASE = 0xF82000;  // intuition
constexpr uint32_t LIB4_BASE = 0xF83000;  // graphics
constexpr uint32_t LIB5_BASE = 0xF84000;  // the options library ("ua")
constexpr uint32_t CIAA_RES_BASE = 0xF86000;
constexpr uint32_t CIAB_RES_BASE = 0xF87000;
constexpr uint32_t DELI_BASE = 0xF90000;
constexpr uint32_t DELI_STUBS = 0xF95000;
constexpr uint32_t PATH_BUFFER = 0xF81400;
constexpr uint32_t DIR_BUFFER = 0xF81800;
constexpr uint32_t FILE_BUFFER = 0xF81A00;
constexpr uint32_t PLAYER_LOAD_ADDR = 0x200000;
constexpr uint32_t SLAB_START = 0x400000;
constexpr uint32_t SLAB_END = 0x800000;
constexpr uint32_t MODULE_ADDR = 0x10000;
constexpr uint32_t MODULE_WINDOW_END = 0x100000;

void libs_init(Machine& m);
void lib_install_fallback(Machine& m, uint32_t base, int count);
void deli_init(Machine& m);
void deli_install_fptr_stub(Machine& m, uint32_t offset, int index);
void deli_set_module_path(Machine& m, const char* path);
void deli_set_module(Machine& m, uint32_t address, uint32_t size);
int deli_scan_tags(Machine& m, uint32_t entry);  // 0 ok, 1 failure
uint32_t orvel_load_player_mem(Machine& m, const uint8_t* data, uint32_t size);
void deli_str_append(Machine& m, uint32_t destination, uint32_t source);
const char* deli_neg_name(int offset);
