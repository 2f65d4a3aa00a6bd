// All benchmarks share one executable, orvel_bench.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
