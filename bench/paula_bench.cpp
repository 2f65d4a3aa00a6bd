// The Paula mixer with all four channels playing: how many seconds of audio
// one second of one core mixes ("x_real_time", from CPU time).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "chipset/custom.h"
#include "cpu/bus.h"
#include "machine.h"

namespace {

constexpr int FRAMES_PER_CALL = 960;  // one PAL frame at 48 kHz, as the engine mixes it

struct Voice {
    uint32_t address;
    uint16_t words, period, volume;
};

// Four voices of a typical module: different notes, volumes and loop sizes.
constexpr Voice VOICES[4] = {
    {0x20000, 1200, 428, 64},  // C-2
    {0x30000, 800, 214, 40},   // C-3
    {0x40000, 64, 320, 50},    // F-2, a short loop
    {0x50000, 3000, 254, 30},
};

enum class Material {
    Music,   // noise at half scale, mixed volumes
    Square,  // full-scale squares at full volume: the clipper works on about half the ticks
};

Machine* setup(int channels, Material material) {
    Machine* m = static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
    custom_paula_init(*m);
    uint32_t seed = 1;
    for (int c = 0; c < 4; c++) {
        const Voice& v = VOICES[c];
        for (uint32_t i = 0; i < 2u * v.words; i++) {
            seed = seed * 1103515245 + 12345;
            int8_t s = material == Material::Music ? int8_t(int8_t(seed >> 16) / 2)
                                                   : ((i & 32) ? 127 : -127);
            m->chip_ram[v.address + i] = uint8_t(s);
        }
        uint32_t base = 0xDFF0A0 + 16 * c;
        write32(*m, base, v.address);  // AUDxLC
        write16(*m, base + 4, v.words);
        write16(*m, base + 6, v.period);
        write16(*m, base + 8, material == Material::Music ? v.volume : 64);
    }
    write16(*m, 0xDFF096, uint16_t(0x8200 | ((1 << channels) - 1)));  // DMAEN and the channels
    return m;
}

void mix(benchmark::State& state, PaulaKernel kernel, int channels, Material material) {
    if (!paula_kernel_available(kernel)) {
        state.SkipWithError("this CPU lacks the instructions of this kernel");
        return;
    }
    Machine* m = setup(channels, material);
    std::vector<float> out(2 * FRAMES_PER_CALL);
    for (auto _ : state) {
        std::fill(out.begin(), out.end(), 0.0f);
        paula_mix_frames_with(kernel, m->paula, out.data(), FRAMES_PER_CALL);
        benchmark::DoNotOptimize(out.data());
    }
    double audio_seconds = double(state.iterations()) * FRAMES_PER_CALL / OUTPUT_RATE;
    state.counters["x_real_time"] = benchmark::Counter(audio_seconds, benchmark::Counter::kIsRate);
    std::free(m);
}

void BM_PaulaMix4Avx2Fma(benchmark::State& s) { mix(s, PaulaKernel::Avx2Fma, 4, Material::Music); }
void BM_PaulaMix4Portable(benchmark::State& s) { mix(s, PaulaKernel::Portable, 4, Material::Music); }
void BM_PaulaMix4ClippingAvx2Fma(benchmark::State& s) {
    mix(s, PaulaKernel::Avx2Fma, 4, Material::Square);
}
// The filter chain alone: the floor under any number of channels.
void BM_PaulaMix0Avx2Fma(benchmark::State& s) { mix(s, PaulaKernel::Avx2Fma, 0, Material::Music); }

}  // namespace

BENCHMARK(BM_PaulaMix4Avx2Fma)->MinTime(1.0);
BENCHMARK(BM_PaulaMix4Portable)->MinTime(1.0);
BENCHMARK(BM_PaulaMix4ClippingAvx2Fma)->MinTime(1.0);
BENCHMARK(BM_PaulaMix0Avx2Fma)->MinTime(1.0);
