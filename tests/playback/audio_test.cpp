// The real-time output end to end: a callback producing a known signal, the
// device routed by $HOME/.asoundrc to ALSA's file plugin (natively, or under
// wine's WASAPI driver), and the recording checked frame by frame. These
// tests run as their own CTest entries with HOME set (tests.cmake); in the
// plain test run they skip.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "capture.h"
#include "playback/audio.h"
#include "playback/audio_thread.h"
#include "playback/wav.h"

namespace {

struct Producer {
    uint64_t produced = 0;   // frames handed out so far; frame k carries signal k
    uint64_t calls = 0;
    uint64_t dirty_calls = 0;  // calls whose buffer was not zeroed
    uint32_t largest = 0;
    uint32_t smallest = UINT32_MAX;
    std::thread::id thread;
    bool on_other_threads = false;
    bool denormals_kept = false;  // the thread computes with denormals
};

// A product far below the smallest normal float: zero when the thread flushes.
bool denormals_flushed() {
    volatile float tiny = 1e-30f;
    volatile float product = tiny * 1e-10f;
    return product == 0.0f;
}

void produce(void* context, float* out, uint32_t frames) {
    auto& p = *static_cast<Producer*>(context);
    if (p.calls == 0) p.thread = std::this_thread::get_id();
    else if (p.thread != std::this_thread::get_id()) p.on_other_threads = true;
    p.calls++;
    if (!denormals_flushed()) p.denormals_kept = true;
    for (uint32_t i = 0; i < 2 * frames; i++)
        if (out[i] != 0.0f) {
            p.dirty_calls++;
            break;
        }
    for (uint32_t i = 0; i < frames; i++) signal_frame(p.produced + i, out + 2 * i);
    p.produced += frames;
    if (frames > p.largest) p.largest = frames;
    if (frames < p.smallest) p.smallest = frames;
}

bool scenario(const char* name) {
    const char* s = std::getenv("ORVEL_TEST_AUDIO");
    return s && std::strcmp(s, name) == 0;
}

std::string capture_path() {
    const char* raw = std::getenv("ORVEL_CAPTURE_RAW");
    return raw ? raw : "";
}

// "... buffer N frames ... period M frames ..." from the open report.
bool reported(const std::string& text, const char* word, uint32_t& value) {
    size_t at = text.find(std::string(word) + " ");
    return at != std::string::npos && std::sscanf(text.c_str() + at + std::strlen(word), " %u frames", &value) == 1;
}

struct Played {
    Producer producer;
    std::string report;  // what the output printed
    uint32_t buffer_frames = 0;
    uint32_t period_frames = 0;
};

Played play_for(uint32_t latency_us, std::chrono::milliseconds time) {
    Played p;
    testing::internal::CaptureStderr();
    int rc = audio_open(latency_us, produce, &p.producer);
    if (rc == 0) std::this_thread::sleep_for(time);
    audio_close();
    p.report = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 0) << p.report;
    EXPECT_TRUE(reported(p.report, "buffer", p.buffer_frames)) << p.report;
    EXPECT_TRUE(reported(p.report, "period", p.period_frames)) << p.report;
    return p;
}

// Leading silence, then signal frames 0, 1, 2, ... with nothing missing,
// repeated or interleaved. Returns how many signal frames arrived.
uint64_t check_capture(const Played& p, uint64_t& leading_silence) {
    std::vector<float> s;
    std::string error;
    EXPECT_TRUE(read_raw_f32(capture_path(), s, error)) << error;
    size_t frames = s.size() / 2, at = 0;
    while (at < frames && s[2 * at] == 0.0f && s[2 * at + 1] == 0.0f) at++;
    leading_silence = at;
    uint64_t next = 0;
    for (; at < frames; at++, next++) {
        int64_t k = signal_index(&s[2 * at]);
        if (k != int64_t(next)) {
            ADD_FAILURE() << "capture frame " << at << " carries " << k << ", expected signal frame " << next
                          << " (" << p.producer.produced << " produced)\n"
                          << p.report;
            break;
        }
    }
    return next;
}

// Every line the output printed is one of its own forms, exactly one line of
// each numbered group, and the buffer's length in ms agrees with its frames.
void check_report(const Played& p) {
    struct Form {
        std::regex pattern;
        int group;  // -1: any number of such lines
    };
#ifdef _WIN32
    const Form forms[] = {
        {std::regex(R"(wasapi: device mix format .+ rate=\d+ ch=\d+ bits=\d+)"), 0},
        {std::regex(R"(wasapi: 48000 Hz f32 stereo, buffer \d+ frames \([\d.]+ ms\), device period \d+ frames )"
                    R"(\([\d.]+ ms\), SRC bypassed)"), 1},
        {std::regex(R"(wasapi: audio thread MMCSS task=\d+ \(Pro Audio\))"), 2},
        {std::regex(R"(wasapi_thread: underrun #\d+ \(endpoint drained before wake\))"), -1},
    };
#else
    const Form forms[] = {
        {std::regex(R"(alsa: 48000 Hz f32 stereo, buffer \d+ frames \([\d.]+ ms\), period \d+ frames )"
                    R"(\([\d.]+ ms\), pcm default \(FILE\))"), 0},
        {std::regex(R"(alsa: audio thread SCHED_FIFO priority \d+)"), 1},  // real-time priority granted
        {std::regex(R"(alsa: pthread_setschedparam\(SCHED_FIFO \d+\) failed: .+)"), 1},  // or refused
        {std::regex(R"(alsa_thread: underrun #\d+ \(device drained before wake\))"), -1},
    };
#endif
    int seen[3] = {};
    size_t start = 0;
    for (size_t end; (end = p.report.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = p.report.substr(start, end - start);
        const Form* form = std::find_if(std::begin(forms), std::end(forms),
                                        [&](const Form& f) { return std::regex_match(line, f.pattern); });
        if (form == std::end(forms)) {
            ADD_FAILURE() << "unexpected output: " << line;
            continue;
        }
        if (form->group >= 0) seen[form->group]++;
        unsigned frames = 0;
        char ms[32] = "", want[32];
        if (std::sscanf(line.c_str(), "%*[^,], buffer %u frames (%31[0-9.] ms)", &frames, ms) == 2) {
            std::snprintf(want, sizeof want, "%.2f", frames * 1000.0 / 48000);
            EXPECT_STREQ(ms, want) << line;
        }
    }
    EXPECT_EQ(start, p.report.size()) << "unterminated output: " << p.report.substr(start);
    int groups = 0;
    for (const Form& f : forms) groups = std::max(groups, f.group + 1);
    for (int g = 0; g < groups; g++) EXPECT_EQ(seen[g], 1) << "group " << g << " in\n" << p.report;
}

void check_callbacks(const Played& p) {
    const Producer& q = p.producer;
    EXPECT_GT(q.calls, 0u);
    EXPECT_EQ(q.dirty_calls, 0u) << "the callback must receive zeroed frames";
    EXPECT_LE(q.largest, p.buffer_frames);
    EXPECT_GE(q.smallest, 1u);
    EXPECT_NE(q.thread, std::this_thread::get_id()) << "the callback runs on the output's own thread";
    EXPECT_FALSE(q.on_other_threads);
    EXPECT_FALSE(q.denormals_kept) << "the output thread flushes denormals to zero";
}

constexpr auto PLAY_TIME = std::chrono::milliseconds(400);
constexpr uint64_t MIN_FRAMES = 4800;  // 100 ms: the thread ran and kept up at least this far

}  // namespace

TEST(AudioCapture, DeliversEveryFrameInOrder) {
    if (!scenario("capture")) GTEST_SKIP() << "runs as the playback_audio_capture CTest entry";
    Played p = play_for(10000, PLAY_TIME);
    check_report(p);
    check_callbacks(p);
    uint64_t silence = 0;
    uint64_t arrived = check_capture(p, silence);
    EXPECT_GE(arrived, MIN_FRAMES) << p.report;
#ifdef _WIN32
    // WASAPI's Stop and Reset discard what is still in the endpoint buffer, and
    // wine keeps up to a period of its own; all that is lost is the tail.
    EXPECT_GE(silence, p.buffer_frames) << p.report;
    EXPECT_LE(arrived, p.producer.produced);
    EXPECT_GE(arrived + p.buffer_frames + p.period_frames, p.producer.produced) << p.report;
#else
    // The file plugin records everything written: the prefill, then every frame.
    EXPECT_EQ(silence, p.buffer_frames) << p.report;
    EXPECT_EQ(arrived, p.producer.produced) << p.report;
#endif
    // Nothing runs after close.
    uint64_t calls = p.producer.calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(p.producer.calls, calls);
}

TEST(AudioCapture, ShortestLatencyStillGetsADevicePeriod) {
    if (!scenario("capture")) GTEST_SKIP() << "runs as the playback_audio_capture CTest entry";
    Played p = play_for(1000, PLAY_TIME);
    check_report(p);
    check_callbacks(p);
    EXPECT_GE(p.buffer_frames, p.period_frames) << p.report;
    EXPECT_GE(p.buffer_frames, 48u) << p.report;  // at least the 1 ms asked for
    uint64_t silence = 0;
    EXPECT_GE(check_capture(p, silence), MIN_FRAMES) << p.report;
}

TEST(AudioCapture, OneOutputAtATime) {
    if (!scenario("capture")) GTEST_SKIP() << "runs as the playback_audio_capture CTest entry";
    Producer a, b;
    testing::internal::CaptureStderr();
    int first = audio_open(10000, produce, &a);
    int second = audio_open(10000, produce, &b);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    audio_close();
    audio_close();  // closing twice is harmless
    std::string report = testing::internal::GetCapturedStderr();
    EXPECT_EQ(first, 0) << report;
    EXPECT_EQ(second, -1) << report;
    EXPECT_NE(report.find("_open: output already open\n"), std::string::npos) << report;
    EXPECT_GT(a.calls, 0u);
    EXPECT_EQ(b.calls, 0u);
}

TEST(AudioThread, FirstAndEveryHundredthUnderrunReported) {
    std::vector<uint32_t> reported;
    for (uint32_t n = 1; n <= 350; n++)
        if (audio_underrun_reported(n)) reported.push_back(n);
    EXPECT_EQ(reported, (std::vector<uint32_t>{1, 100, 200, 300}));
}

TEST(AudioNoDevice, OpenFailsWithOneLine) {
    if (!scenario("nodevice")) GTEST_SKIP() << "runs as the playback_audio_nodevice CTest entry";
    Producer p;
    for (int attempt = 0; attempt < 2; attempt++) {  // a failed open leaves nothing behind
        testing::internal::CaptureStderr();
        int rc = audio_open(10000, produce, &p);
        audio_close();
        std::string report = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, -1) << report;
#ifdef _WIN32
        EXPECT_EQ(report, "wasapi_open: GetDefaultAudioEndpoint hr=0x80070490\n");
#else
        EXPECT_EQ(report.rfind("alsa_open: snd_pcm_open(default) failed: ", 0), 0u) << report;
        EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 1) << report;
#endif
    }
    EXPECT_EQ(p.calls, 0u);
}
