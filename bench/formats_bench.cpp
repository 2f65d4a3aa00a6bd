// Unpacking throughput on the shared test files, counted in bytes of
// unpacked output (shown as bytes_per_second).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "formats/lha.h"
#include "formats/xpk.h"

namespace {

std::vector<uint8_t> read_testdata(const std::string& rel) {
    std::vector<uint8_t> data;
    FILE* f = std::fopen((std::string(ORVEL_TESTDATA_DIR) + "/" + rel).c_str(), "rb");
    if (!f) return data;
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.insert(data.end(), buf, buf + n);
    std::fclose(f);
    return data;
}

uint32_t le32(const uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24;
}

// The first member's packed data, decoded straight into a buffer of its size
// (the level-1 archive has no extended headers, so its data follow the base header).
void lha(benchmark::State& state, const char* rel) {
    std::vector<uint8_t> file = read_testdata(rel);
    if (file.size() < 22) {
        state.SkipWithError("test data not found");
        return;
    }
    uint32_t data_off = file[0] + 2u;
    uint32_t packed = le32(&file[7]);
    uint32_t unpacked = le32(&file[11]);
    std::vector<uint8_t> out(unpacked);
    auto s = std::make_unique<LhaState>();
    for (auto _ : state) {
        *s = {};
        int error = lha_decode(*s, &file[data_off], packed, out.data(), unpacked);
        benchmark::DoNotOptimize(error);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * unpacked);
}

void xpk(benchmark::State& state, const char* rel) {
    std::vector<uint8_t> file = read_testdata(rel);
    if (file.empty()) {
        state.SkipWithError("test data not found");
        return;
    }
    uint32_t unpacked = 0;
    for (auto _ : state) {
        uint8_t* out = xpk_unpack(file.data(), uint32_t(file.size()), unpacked);
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * unpacked);
}

}  // namespace

BENCHMARK_CAPTURE(lha, lh5_gpl2_18k, "lha/archives/lha_amiga_122/lh5.lzh");
BENCHMARK_CAPTURE(lha, lh5_long_1m2, "lha/archives/lha213/lh5_long.lzh");
BENCHMARK_CAPTURE(xpk, nuke, "xpk/test_C1_nuke.xpkf");
BENCHMARK_CAPTURE(xpk, duke, "xpk/test_C1_duke.xpkf");
BENCHMARK_CAPTURE(xpk, sqsh, "xpk/test_C1_sqsh.xpkf");
BENCHMARK_CAPTURE(xpk, fast, "xpk/test_C1_fast.xpkf");
BENCHMARK_CAPTURE(xpk, rlen, "xpk/test_C1_rlen.xpkf");
BENCHMARK_CAPTURE(xpk, none, "xpk/test_C1_none.xpkf");

