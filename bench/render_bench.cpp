// orvel auto-wav against openmpt123's A500 render of the same module, each
// timed as a whole process from start to exit: seconds of music per second
// of wall time (x_realtime) and the process's peak memory (max_rss_MiB).
//   orvel_bench --benchmark_filter=Render
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr int SECONDS = 60;
constexpr double BYTES_PER_SECOND_WAV = 48000.0 * 4;   // 16-bit stereo
constexpr double BYTES_PER_SECOND_RAW = 48000.0 * 8;   // float stereo

struct Run {
    bool ok = false;
    double wall = 0;      // seconds
    double max_rss = 0;   // MiB
};

// Runs argv with its output thrown away; wall time and peak RSS of the child.
Run run(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execvp(args[0], args.data());
        _exit(127);
    }
    Run r;
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return r;
    r.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.max_rss = double(usage.ru_maxrss) / 1024.0;  // KiB on Linux
    r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return r;
}

// The module copied into a scratch directory (openmpt123 writes beside it).
std::string scratch_copy(const std::string& module) {
    fs::path dir = fs::temp_directory_path() / ("orvel_bench_" + std::to_string(getpid()));
    fs::create_directories(dir);
    fs::path copy = dir / fs::path(module).filename();
    fs::copy_file(module, copy, fs::copy_options::overwrite_existing);
    return copy.string();
}

enum class Tool { ORVEL, OPENMPT };

void BM_Render(benchmark::State& state, Tool tool, std::string module) {
    if (!fs::exists(module)) {
        state.SkipWithError(("no module at " + module).c_str());
        return;
    }
    std::string copy = scratch_copy(module);
    std::string out = tool == Tool::ORVEL ? copy + ".wav" : copy + ".raw";
    std::vector<std::string> argv;
    if (tool == Tool::ORVEL)
        argv = {ORVEL_EXE, "auto-wav", copy, out, std::to_string(SECONDS)};
    else
        argv = {"openmpt123", "-q", "--render", "--force", "--output-type", "raw",
                "--repeat", "-1", "--end-time", std::to_string(SECONDS),
                "--ctl", "render.resampler.emulate_amiga=1",
                "--ctl", "render.resampler.emulate_amiga_type=a500", copy};
    double music = 0, wall = 0, rss = 0;
    for (auto _ : state) {
        Run r = run(argv);
        std::error_code ec;
        double bytes = double(fs::file_size(out, ec));
        if (!r.ok || ec) {
            state.SkipWithError("the render failed (is openmpt123 installed?)");
            break;
        }
        double seconds = bytes / (tool == Tool::ORVEL ? BYTES_PER_SECOND_WAV : BYTES_PER_SECOND_RAW);
        state.SetIterationTime(r.wall);
        music += seconds;
        wall += r.wall;
        rss = std::max(rss, r.max_rss);
    }
    if (wall > 0) {
        state.counters["x_realtime"] = music / wall;
        state.counters["max_rss_MiB"] = rss;
    }
    std::error_code ec;
    fs::remove_all(fs::path(copy).parent_path(), ec);
}

const std::string CV_BOSS = std::string(ORVEL_TESTDATA_DIR) + "/mods/CV_BOSS.MOD";

BENCHMARK_CAPTURE(BM_Render, orvel_demo, Tool::ORVEL, std::string(ORVEL_DEMO_MOD))
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Render, openmpt_demo, Tool::OPENMPT, std::string(ORVEL_DEMO_MOD))
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Render, orvel_cv_boss, Tool::ORVEL, CV_BOSS)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_Render, openmpt_cv_boss, Tool::OPENMPT, CV_BOSS)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
