// play-wav end to end: the real executable renders the tests' quartet player
// (four channels looping short waveforms, every period and volume moved 50
// times a second, one channel through PokePer) to a WAV file. Counters:
// x_realtime, audio seconds per wall-clock second of the whole process
// (start-up, player and module load, render, WAV write), and peak_rss_MiB,
// the process's largest resident set (the render is held in memory whole:
// 8 bytes a frame beside the 16 MiB of chip RAM).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

extern char** environ;

namespace {

constexpr const char SONG[] =
    "4VOX The benchmark's quartet: four voices, a melody read from this text, six ticks a row, "
    "vibrato and decay on every tick of every channel.";

void BM_PlayWavQuartet(benchmark::State& state) {
#if defined(ORVEL_EXE) && defined(ORVEL_AMIGA_TEST_QUARTET)
    const std::string player = ORVEL_AMIGA_TEST_QUARTET;
    if (player.empty()) {
        state.SkipWithError("quartet not built (no m68k cross tools)");
        return;
    }
    const auto dir = std::filesystem::temp_directory_path();
    const std::string song = (dir / "orvel_bench_song.4vox").string();
    const std::string wav = (dir / "orvel_bench_quartet.wav").string();
    if (FILE* f = std::fopen(song.c_str(), "wb")) {
        std::fwrite(SONG, 1, sizeof SONG - 1, f);
        std::fclose(f);
    }
    const std::string seconds = std::to_string(state.range(0));
    const char* argv[] = {ORVEL_EXE, "play-wav", player.c_str(), song.c_str(), wav.c_str(), seconds.c_str(), nullptr};
    posix_spawn_file_actions_t quiet;  // the report goes to stderr
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);

    long peak_kib = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        pid_t pid = 0;
        int status = 0;
        struct rusage usage = {};
        if (posix_spawn(&pid, ORVEL_EXE, &quiet, nullptr, const_cast<char**>(argv), environ) != 0 ||
            wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("orvel play-wav failed");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        peak_kib = std::max(peak_kib, usage.ru_maxrss);
    }
    posix_spawn_file_actions_destroy(&quiet);
    std::remove(wav.c_str());
    std::remove(song.c_str());
    state.counters["x_realtime"] =
        benchmark::Counter(double(state.range(0)), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak_rss_MiB"] = double(peak_kib) / 1024.0;
#else
    state.SkipWithError("built without the orvel executable or the quartet player");
#endif
}
BENCHMARK(BM_PlayWavQuartet)->Arg(10)->Arg(60)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
