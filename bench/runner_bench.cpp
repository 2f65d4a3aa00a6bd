// The routine runner's cost per emulated instruction (guards, ring, trace
// checks and dispatch together), and the hunk loader on a player-sized file.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/hunk.h"
#include "host/runner.h"
#include "machine.h"

namespace {

Machine* new_machine() {
    op_table_fill();
    return static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
}

// moveq #0,d0; 1: addq.l #1,d0; cmpi.l #N,d0; bne.s 1b; rts
// Three instructions per round, plus two.
constexpr uint32_t ROUNDS = 1000000;
constexpr uint16_t COUNT_LOOP[] = {0x7000, 0x5280, 0x0C80, uint16_t(ROUNDS >> 16),
                                   uint16_t(ROUNDS & 0xFFFF), 0x66F6, 0x4E75};

void BM_RunnerLoop(benchmark::State& state) {
    Machine* m = new_machine();
    for (uint32_t k = 0; k < std::size(COUNT_LOOP); k++)
        write16(*m, PLAYER_LOAD_ADDR + 2 * k, COUNT_LOOP[k]);
    for (auto _ : state) {
        uint32_t r = deli_call(*m, PLAYER_LOAD_ADDR);
        if (r != ROUNDS) {
            state.SkipWithError("the count loop did not run: is the 68000 core built?");
            break;
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * (3 * ROUNDS + 2));
    std::free(m);
}
BENCHMARK(BM_RunnerLoop)->Unit(benchmark::kMillisecond);

// 64 KiB of code with a relocation every 16 bytes, in the usual blocks.
std::vector<uint8_t> big_player() {
    constexpr uint32_t longs = 0x4000;
    std::vector<uint32_t> v = {0x3F3, 0, 1, 0, 0, longs, 0x3E9, longs};
    for (uint32_t k = 0; k < longs; k++) v.push_back(k);
    v.push_back(0x3EC);
    v.push_back(longs / 4);
    v.push_back(0);
    for (uint32_t k = 0; k < longs / 4; k++) v.push_back(16 * k);
    v.push_back(0);
    v.push_back(0x3F2);
    std::vector<uint8_t> bytes;
    for (uint32_t x : v)
        for (int s = 24; s >= 0; s -= 8) bytes.push_back(uint8_t(x >> s));
    return bytes;
}

void BM_HunkLoad(benchmark::State& state) {
    Machine* m = new_machine();
    std::vector<uint8_t> file = big_player();
    for (auto _ : state) {
        uint32_t entry = hunk_load(*m, file.data(), uint32_t(file.size()), PLAYER_LOAD_ADDR);
        benchmark::DoNotOptimize(entry);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(file.size()));
    std::free(m);
}
BENCHMARK(BM_HunkLoad)->Unit(benchmark::kMicrosecond);

}  // namespace
