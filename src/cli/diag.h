// Diagnostic commands: look into a player binary without playing it.
#pragma once

#include <cstdint>

struct Machine;

int diag_load(Machine& m, const char* player);
int diag_ep_info(Machine& m, const char* player);
int diag_dump(Machine& m, const char* player, uint32_t address, uint32_t nwords);
int diag_disasm(Machine& m, const char* player, uint32_t address, uint32_t ninsns);
int diag_find(Machine& m, const char* player, uint32_t value);
int diag_callers(Machine& m, const char* player, uint32_t target);
int diag_disasm_chip(Machine& m, const char* player, const char* module, uint32_t address,
                     uint32_t ninsns);
int diag_trace_pc(Machine& m, const char* player, const char* module, char** options,
                  int option_count);
