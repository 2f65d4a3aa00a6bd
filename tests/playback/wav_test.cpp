// The WAV writer at the byte level: header fields, the float-to-16-bit rule
// at and beyond full scale, sample order, and the one failure it reports.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "playback/wav.h"

namespace {

std::string out_path(const char* name) { return std::string(ORVEL_TEST_BINARY_DIR) + "/wav_test_" + name + ".wav"; }

std::vector<uint8_t> write_and_read(const char* name, const std::vector<float>& samples) {
    std::string path = out_path(name);
    EXPECT_EQ(wav_write_s16_le(path.c_str(), samples.data(), uint32_t(samples.size() / 2)), 0);
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    in.close();
    std::remove(path.c_str());
    return bytes;
}

std::vector<uint8_t> header(uint32_t frames) {
    auto le = [](std::vector<uint8_t>& v, uint32_t x, int n) {
        for (int i = 0; i < n; i++) v.push_back(uint8_t(x >> (8 * i)));
    };
    std::vector<uint8_t> h;
    for (char c : std::string("RIFF")) h.push_back(uint8_t(c));
    le(h, frames * 4 + 36, 4);
    for (char c : std::string("WAVEfmt ")) h.push_back(uint8_t(c));
    le(h, 16, 4);
    le(h, 1, 2);
    le(h, 2, 2);
    le(h, 48000, 4);
    le(h, 192000, 4);
    le(h, 4, 2);
    le(h, 16, 2);
    for (char c : std::string("data")) h.push_back(uint8_t(c));
    le(h, frames * 4, 4);
    return h;
}

int16_t sample_at(const std::vector<uint8_t>& file, size_t i) { return int16_t(file[44 + 2 * i] | file[45 + 2 * i] << 8); }

}  // namespace

TEST(Wav, WholeFiles) {
    EXPECT_EQ(write_and_read("empty", {}), header(0)) << "44 bytes, sizes 36 and 0";
    std::vector<uint8_t> want = header(1);
    want.insert(want.end(), {0xFF, 0x1F, 0x01, 0xE0});
    EXPECT_EQ(write_and_read("quarter", {0.25f, -0.25f}), want);
}

TEST(Wav, FloatToSixteenBits) {
    const float inf = std::numeric_limits<float>::infinity();
    const struct {
        float in;
        int16_t out;
    } cases[] = {
        {1.5f, 32767},     {1.0f, 32767},      {-1.0f, -32767},   {-1.5f, -32767},     {0.99999f, 32766},
        {0.5f, 16383},     {-0.5f, -16383},    {0.0f, 0},         {-0.0f, 0},          {std::nanf(""), 0},
        {-std::nanf(""), 0}, {inf, 32767},     {-inf, -32767},    {1.0f / 32768, 0},   {-1.0f / 32768, 0},
        {1.0f / 32767, 1}, {1.0000001f, 32767}, {-0.99999f, -32766}, {1e30f, 32767},   {-1e30f, -32767},
    };
    std::vector<float> in;
    for (const auto& c : cases) in.push_back(c.in);
    if (in.size() % 2) in.push_back(0.0f);
    std::vector<uint8_t> file = write_and_read("clamp", in);
    ASSERT_EQ(file.size(), 44 + 2 * in.size());
    for (size_t i = 0; i < std::size(cases); i++) EXPECT_EQ(sample_at(file, i), cases[i].out) << "input " << cases[i].in;
}

// Long enough to span several of the writer's internal blocks: every sample
// lands at its own place, left then right.
TEST(Wav, EverySampleInOrder) {
    constexpr uint32_t FRAMES = 10007;
    std::vector<float> in(2 * FRAMES);
    for (uint32_t k = 0; k < FRAMES; k++) {
        in[2 * k] = float(int(k % 60000) - 30000) / 32767.0f;
        in[2 * k + 1] = -in[2 * k] * 0.5f;
    }
    std::vector<uint8_t> file = write_and_read("order", in);
    ASSERT_EQ(file.size(), 44 + 4 * size_t(FRAMES));
    EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 44), header(FRAMES));
    for (uint32_t i = 0; i < 2 * FRAMES; i++) {
        int16_t want = int16_t(int32_t(in[i] * 32767.0f));
        ASSERT_EQ(sample_at(file, i), want) << "sample " << i;
    }
}

TEST(Wav, UnwritablePath) {
    std::string path = std::string(ORVEL_TEST_BINARY_DIR) + "/no_such_directory/out.wav";
    const float frame[2] = {0.1f, 0.2f};
    testing::internal::CaptureStderr();
    int rc = wav_write_s16_le(path.c_str(), frame, 1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(err, "wav_write_s16_le: cannot open " + path + "\n");
    EXPECT_EQ(std::fopen(path.c_str(), "rb"), nullptr);
}
