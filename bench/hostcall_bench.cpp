// The costliest host calls a player can make with hostile arguments. Each
// counts as one instruction against the routine runner's budget, so each
// must stay bounded: an option block that claims 0xFFFFFFFF entries,
// CutSuffix and CopyString on a path that runs through all of memory, and
// a Read of 0xFFFFFFFF bytes from a 64 KiB file.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "cpu/bus.h"
#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/dos.h"
#include "machine.h"
#include "playback/engine.h"

namespace {

constexpr uint32_t BLOCK = 0x300000, NAME = 0x400000, FLAG = 0x3F0000, VALUE = 0x3F0100;
constexpr uint32_t PATH_PTR = DELI_BASE + 0x20;

Machine* reset_machine() {
    op_table_fill();
    Machine* m = static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
    orvel_reset(*m);
    return m;
}

// Every entry names the option the option string starts with, so each one
// copies a 150-character value.
void BM_OptionBlockOfAllOnes(benchmark::State& state) {
    Machine* m = reset_machine();
    const std::string name(56, 'n');
    std::snprintf(m->epopt, sizeof m->epopt, "%s:%s", name.c_str(), std::string(150, 'v').c_str());
    for (size_t k = 0; k < name.size(); k++) write8(*m, NAME + uint32_t(k), uint8_t(name[k]));
    write32(*m, BLOCK, 0xFFFFFFFF);
    for (uint32_t e = 0; e < 4096; e++) {
        write32(*m, BLOCK + 4 + 12 * e, NAME);
        write32(*m, BLOCK + 8 + 12 * e, FLAG);
        write32(*m, BLOCK + 12 + 12 * e, VALUE);
    }
    for (auto _ : state) {
        m->a[0] = BLOCK;
        op_line_a(*m, 0xA800);
    }
    std::free(m);
}

// Memory without a zero byte from the path on, up to the base's own
// pointer to it.
Machine* endless_path() {
    Machine* m = reset_machine();
    std::memset(m->chip_ram, 'p', CHIP_RAM_SIZE);
    write32(*m, PATH_PTR, 0x100);
    return m;
}

void BM_CutSuffixWithoutEnd(benchmark::State& state) {
    Machine* m = endless_path();
    for (auto _ : state) op_line_a(*m, 0xA40A);
    std::free(m);
}

void BM_CopyStringWithoutEnd(benchmark::State& state) {
    Machine* m = endless_path();
    for (auto _ : state) {
        write32(*m, PATH_PTR, 0x100);
        m->a[0] = 0x200;
        op_line_a(*m, 0xA404);
    }
    std::free(m);
}

void BM_ReadOfAllOnesLength(benchmark::State& state) {
    Machine* m = reset_machine();
    const std::filesystem::path file = std::filesystem::temp_directory_path() / "orvel-bench-read.bin";
    if (FILE* f = std::fopen(file.string().c_str(), "wb")) {
        std::string bytes(65536, 'r');
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    const std::string name = file.generic_string();
    for (size_t k = 0; k <= name.size(); k++) write8(*m, NAME + uint32_t(k), uint8_t(name.c_str()[k]));
    m->d[1] = NAME;
    op_line_a(*m, 0xA100);  // Open
    const uint32_t handle = m->d[0];
    if (handle == 0) state.SkipWithError("cannot open the temporary file");
    for (auto _ : state) {
        if (handle == 0) break;
        m->d[1] = handle;
        m->d[2] = 0;
        m->d[3] = 0xFFFFFFFF;
        op_line_a(*m, 0xA103);  // Seek to the start
        m->d[1] = handle;
        m->d[2] = BLOCK;
        m->d[3] = 0xFFFFFFFF;
        op_line_a(*m, 0xA102);  // Read
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 65536);
    dos_close_all(*m);
    std::error_code ec;
    std::filesystem::remove(file, ec);
    std::free(m);
}

}  // namespace

BENCHMARK(BM_OptionBlockOfAllOnes);
BENCHMARK(BM_CutSuffixWithoutEnd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyStringWithoutEnd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadOfAllOnesLength);
