// Emulated instructions per second through step(): a loop of the kinds of
// instructions player code spends its time in (moves, arithmetic, a
// multiply, shifts, branches, a DBcc loop, MOVEM and a subroutine call).
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "cpu/cpu.h"
#include "machine.h"

namespace {

constexpr uint32_t PROGRAM = 0x1000, DATA = 0x10000, STACK = 0x8000;

// Assembled from:
//   start: lea     $10000,a0
//          move.w  #63,d7
//   loop:  move.l  (a0)+,d0
//          add.l   d0,d1
//          move.w  d1,d2
//          mulu.w  #3,d2
//          lsr.l   #2,d2
//          and.w   #$7fff,d2
//          cmp.w   d2,d3
//          bcc.s   1f
//          move.w  d2,d3
//   1:     move.l  d1,-4(a0)
//          movem.l d0-d3,-(sp)
//          bsr.s   sub
//          movem.l (sp)+,d0-d3
//          addq.w  #1,d4
//          tst.b   d4
//          bne.s   2f
//          eor.l   d5,d6
//   2:     dbf     d7,loop
//          bra.s   start
//   sub:   swap    d5
//          add.w   d4,d5
//          rts
const uint16_t MIX[] = {
    0x41F9, 0x0001, 0x0000, 0x3E3C, 0x003F, 0x2018, 0xD280, 0x3401, 0xC4FC, 0x0003,
    0xE48A, 0x0242, 0x7FFF, 0xB642, 0x6402, 0x3602, 0x2141, 0xFFFC, 0x48E7, 0xF000,
    0x6112, 0x4CDF, 0x000F, 0x5244, 0x4A04, 0x6602, 0xBB86, 0x51CF, 0xFFD2, 0x60C4,
    0x4845, 0xDA44, 0x4E75,
};

void cpu_mix(benchmark::State& state) {
    op_table_fill();
    Machine* m = static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
    uint32_t a = PROGRAM;
    for (uint16_t w : MIX) {
        m->chip_ram[a++] = uint8_t(w >> 8);
        m->chip_ram[a++] = uint8_t(w);
    }
    for (uint32_t i = 0; i < 0x400; i++) m->chip_ram[DATA + i] = uint8_t(i * 37);
    m->pc = PROGRAM;
    m->a[7] = STACK;
    m->sr = 0x2700;

    constexpr int BATCH = 10000;
    int64_t executed = 0;
    for (auto _ : state) {
        for (int i = 0; i < BATCH; i++) step(*m);
        executed += BATCH;
    }
    // The loop never leaves the program; anywhere else means a fault.
    if (m->pc < PROGRAM || m->pc >= PROGRAM + sizeof MIX) state.SkipWithError("left the program");
    state.counters["insns_per_s"] = benchmark::Counter(double(executed), benchmark::Counter::kIsRate);
    benchmark::DoNotOptimize(m->d[1]);
    std::free(m);
}

}  // namespace

BENCHMARK(cpu_mix);
BENCHMARK_MAIN();
