// The capture checker itself: it must find the reference behind any amount
// of leading silence and reject every way a stream can go wrong.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "capture.h"
#include "playback/wav.h"

namespace {

std::vector<int16_t> reference_signal(size_t silence, size_t frames) {
    std::vector<int16_t> r(2 * (silence + frames), 0);
    for (size_t k = 0; k < frames; k++) {
        float f[2];
        signal_frame(k, f);
        r[2 * (silence + k)] = wav_sample_s16(f[0]);
        r[2 * (silence + k) + 1] = wav_sample_s16(f[1]);
    }
    return r;
}

std::vector<float> captured_signal(size_t prefill, size_t frames) {
    std::vector<float> c(2 * (prefill + frames), 0.0f);
    for (size_t k = 0; k < frames; k++) signal_frame(k, &c[2 * (prefill + k)]);
    return c;
}

}  // namespace

TEST(CaptureMatch, FindsOrRejects) {
    struct Case {
        const char* name;
        std::vector<float> capture;
        std::vector<int16_t> reference;
        uint32_t min_frames;
        bool ok;
        uint32_t offset, compared;
    };
    std::vector<Case> cases = {
        {"after the prefill", captured_signal(480, 3000), reference_signal(0, 5000), 2000, true, 480, 3000},
        {"reference with its own silence", captured_signal(580, 3000), reference_signal(100, 5000), 2000, true, 480,
         3100},
        {"too short an overlap", captured_signal(480, 1000), reference_signal(0, 5000), 2000, false, 480, 0},
        {"capture sounds too early", captured_signal(50, 3000), reference_signal(100, 5000), 10, false, 0, 0},
        {"silent reference", captured_signal(480, 3000), std::vector<int16_t>(2000, 0), 10, false, 0, 0},
        {"silent capture", std::vector<float>(4000, 0.0f), reference_signal(0, 5000), 10, false, 0, 0},
    };
    // A dropped frame, a repeated frame and a gap of silence in mid-stream.
    Case dropped{"dropped frame", captured_signal(480, 3000), reference_signal(0, 5000), 100, false, 480, 1000};
    dropped.capture.erase(dropped.capture.begin() + 2 * 1480, dropped.capture.begin() + 2 * 1481);
    cases.push_back(dropped);
    Case repeated{"repeated frame", captured_signal(480, 3000), reference_signal(0, 5000), 100, false, 480, 1001};
    repeated.capture.insert(repeated.capture.begin() + 2 * 1480, {repeated.capture[2 * 1480], repeated.capture[2 * 1480 + 1]});
    cases.push_back(repeated);
    Case gap{"gap of silence", captured_signal(480, 3000), reference_signal(0, 5000), 100, false, 480, 2000};
    gap.capture.insert(gap.capture.begin() + 2 * 2480, 96, 0.0f);
    cases.push_back(gap);
    Case off{"one step off", captured_signal(480, 3000), reference_signal(0, 5000), 100, false, 480, 700};
    off.reference[2 * 700 + 1] += 1;
    cases.push_back(off);

    for (const Case& c : cases) {
        CaptureMatch m = capture_match(c.capture, c.reference, c.min_frames);
        EXPECT_EQ(m.ok, c.ok) << c.name << ": " << m.message;
        EXPECT_EQ(m.offset, c.offset) << c.name << ": " << m.message;
        EXPECT_EQ(m.compared, c.compared) << c.name << ": " << m.message;
    }
}

// The last step of orvel_audio_capture_test: a capture recorded by one test
// process against a WAV written by another, named by the environment.
TEST(CaptureCompare, Files) {
    const char* raw = std::getenv("ORVEL_CAPTURE_RAW");
    const char* wav = std::getenv("ORVEL_CAPTURE_WAV");
    const char* min = std::getenv("ORVEL_CAPTURE_MIN_FRAMES");
    if (!raw || !wav) GTEST_SKIP() << "runs as the _compare step of orvel_audio_capture_test";
    std::vector<float> capture;
    std::vector<int16_t> reference;
    std::string error;
    ASSERT_TRUE(read_raw_f32(raw, capture, error)) << error;
    ASSERT_TRUE(read_wav_s16(wav, reference, error)) << error;
    CaptureMatch m = capture_match(capture, reference, min ? uint32_t(std::atol(min)) : 4800);
    EXPECT_TRUE(m.ok) << m.message;
    std::printf("capture: %s\n", m.message.c_str());
}
