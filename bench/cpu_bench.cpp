// Emulated instructions per second through step(). The mix is the kind of
// code player routines spend their time in (moves, arithmetic, a multiply,
// shifts, branches, a DBcc loop, MOVEM and a subroutine call); the other two
// isolate the cost of dispatch alone (NOPs) and of the bus (a copy loop).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <initializer_list>

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
constexpr std::initializer_list<uint16_t> MIX = {
    0x41F9, 0x0001, 0x0000, 0x3E3C, 0x003F, 0x2018, 0xD280, 0x3401, 0xC4FC, 0x0003, 0xE48A,
    0x0242, 0x7FFF, 0xB642, 0x6402, 0x3602, 0x2141, 0xFFFC, 0x48E7, 0xF000, 0x6112, 0x4CDF,
    0x000F, 0x5244, 0x4A04, 0x6602, 0xBB86, 0x51CF, 0xFFD2, 0x60C4, 0x4845, 0xDA44, 0x4E75,
};

// Seven NOPs and a branch back.
constexpr std::initializer_list<uint16_t> NOPS = {0x4E71, 0x4E71, 0x4E71, 0x4E71,
                                                  0x4E71, 0x4E71, 0x4E71, 0x60F0};

//   start: lea     $10000,a0
//          lea     $20000,a1
//          move.w  #255,d0
//   loop:  move.l  (a0)+,(a1)+
//          dbf     d0,loop
//          bra.s   start
constexpr std::initializer_list<uint16_t> COPY = {0x41F9, 0x0001, 0x0000, 0x43F9, 0x0002,
                                                  0x0000, 0x303C, 0x00FF, 0x22D8, 0x51C8,
                                                  0xFFFC, 0x60E8};

void run(benchmark::State& state, std::initializer_list<uint16_t> program) {
    op_table_fill();
    Machine* m = static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
    uint32_t a = PROGRAM;
    for (uint16_t w : program) {
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
    // The loops never leave their program; anywhere else means a fault.
    if (m->pc < PROGRAM || m->pc >= PROGRAM + 2 * program.size())
        state.SkipWithError("left the program");
    state.counters["insns_per_s"] = benchmark::Counter(double(executed), benchmark::Counter::kIsRate);
    std::free(m);
}

void cpu_mix(benchmark::State& state) { run(state, MIX); }
void cpu_dispatch_nops(benchmark::State& state) { run(state, NOPS); }
void cpu_memory_copy(benchmark::State& state) { run(state, COPY); }

}  // namespace

BENCHMARK(cpu_mix);
BENCHMARK(cpu_dispatch_nops);
BENCHMARK(cpu_memory_copy);
