/* The runtime check as a 68000 program: results and buffer in BSS. */
#include "arith.h"

arith_u32 arith_results[ARITH_RESULTS];
unsigned char arith_buffer[MEM_BUFFER];

void arith_run(void) { arith_compute(arith_results, arith_buffer); }
const unsigned arith_sizes[2] = {sizeof arith_results, sizeof arith_buffer};
