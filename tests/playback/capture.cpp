#include "capture.h"

#include <bit>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "playback/wav.h"

namespace {

// Each channel carries one base-64000 digit of the index as n/32768, with n
// in -32001..-2 or 2..32001: exact in float, and after the WAV writer's
// scaling by 32767 and truncation still distinct and never zero.
constexpr uint64_t DIGIT = 64000;
constexpr int32_t HALF = 32000;
constexpr float STEP = 1.0f / 32768.0f;

bool read_all(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }

bool silent(const int16_t* frame) { return frame[0] == 0 && frame[1] == 0; }

}  // namespace

void signal_frame(uint64_t index, float* frame) {
    for (int c = 0; c < 2; c++, index /= DIGIT) {
        int32_t d = int32_t(index % DIGIT);
        frame[c] = float(d < HALF ? d - HALF - 1 : d - HALF + 2) * STEP;
    }
}

int64_t signal_index(const float* frame) {
    int64_t index = 0;
    for (int c = 1; c >= 0; c--) {
        float n = frame[c] * 32768.0f;
        if (!(n >= -HALF - 1 && n <= HALF + 1) || n != float(int32_t(n)) || (n > -2 && n < 2)) return -1;
        int32_t d = n < 0 ? int32_t(n) + HALF + 1 : int32_t(n) + HALF - 2;
        index = index * int64_t(DIGIT) + d;
    }
    return index;
}

bool read_raw_f32(const std::string& path, std::vector<float>& samples, std::string& error) {
    std::vector<uint8_t> bytes;
    if (!read_all(path, bytes, error)) return false;
    if (bytes.size() % 8) {
        error = path + ": " + std::to_string(bytes.size()) + " bytes is not whole float stereo frames";
        return false;
    }
    samples.resize(bytes.size() / 4);
    for (size_t i = 0; i < samples.size(); i++) samples[i] = std::bit_cast<float>(le32(&bytes[i * 4]));
    return true;
}

bool read_wav_s16(const std::string& path, std::vector<int16_t>& samples, std::string& error) {
    std::vector<uint8_t> b;
    if (!read_all(path, b, error)) return false;
    if (b.size() < 12 || le32(&b[0]) != le32((const uint8_t*)"RIFF") || le32(&b[8]) != le32((const uint8_t*)"WAVE")) {
        error = path + ": not a RIFF/WAVE file";
        return false;
    }
    bool format_ok = false;
    for (size_t at = 12; at + 8 <= b.size();) {
        uint32_t id = le32(&b[at]);
        size_t size = le32(&b[at + 4]);
        const uint8_t* body = &b[at + 8];
        size_t room = b.size() - at - 8;
        if (id == le32((const uint8_t*)"fmt ") && size >= 16 && room >= 16) {
            format_ok = le16(body) == 1 && le16(body + 2) == 2 && le32(body + 4) == 48000 && le16(body + 14) == 16;
        } else if (id == le32((const uint8_t*)"data")) {
            if (!format_ok) break;
            size_t n = (size < room ? size : room) / 4 * 2;
            samples.resize(n);
            for (size_t i = 0; i < n; i++) samples[i] = int16_t(le16(body + 2 * i));
            return true;
        }
        at += 8 + size + (size & 1);
    }
    error = path + ": no 16-bit stereo 48000 Hz PCM data";
    return false;
}

CaptureMatch capture_match(const std::vector<float>& capture, const std::vector<int16_t>& reference,
                           uint32_t min_frames) {
    size_t cap_frames = capture.size() / 2, ref_frames = reference.size() / 2;
    std::vector<int16_t> cap(capture.size());
    for (size_t i = 0; i < capture.size(); i++) cap[i] = wav_sample_s16(capture[i]);

    size_t r0 = 0, c0 = 0;
    while (r0 < ref_frames && silent(&reference[2 * r0])) r0++;
    while (c0 < cap_frames && silent(&cap[2 * c0])) c0++;
    char text[200];
    if (r0 == ref_frames) return {false, "the reference is silent", 0, 0};
    if (c0 == cap_frames) return {false, "the capture is silent", 0, 0};
    if (c0 < r0) {
        std::snprintf(text, sizeof text, "the capture sounds at frame %zu, before the reference's first sound at %zu",
                      c0, r0);
        return {false, text, 0, 0};
    }
    size_t offset = c0 - r0;
    size_t n = cap_frames - offset < ref_frames ? cap_frames - offset : ref_frames;
    if (n - r0 < min_frames) {
        std::snprintf(text, sizeof text, "only %zu frames of sound overlap after offset %zu, %u wanted", n - r0, offset,
                      min_frames);
        return {false, text, uint32_t(offset), 0};
    }
    for (size_t i = 0; i < n; i++) {
        const int16_t* c = &cap[2 * (offset + i)];
        const int16_t* r = &reference[2 * i];
        if (c[0] != r[0] || c[1] != r[1]) {
            std::snprintf(text, sizeof text, "reference frame %zu (capture frame %zu): capture (%d,%d), reference (%d,%d)",
                          i, offset + i, c[0], c[1], r[0], r[1]);
            return {false, text, uint32_t(offset), uint32_t(i)};
        }
    }
    std::snprintf(text, sizeof text, "%zu frames match after %zu frames of leading silence", n, offset);
    return {true, text, uint32_t(offset), uint32_t(n)};
}
