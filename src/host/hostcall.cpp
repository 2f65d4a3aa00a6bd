// Host calls: every $Axxx opcode a player executes lands here.
// The dispatcher is not built yet: until it is, an A-line opcode takes the
// 68000's own line-A exception (vector 10), as it would without a host.
#include "cpu/cpu.h"

void op_line_a(Machine& m, uint16_t) { exception(m, 10); }
