// WAV writer: the canonical 44-byte RIFF/WAVE header and 16-bit samples,
// everything little-endian whatever the host.
#include "playback/wav.h"

#include <cmath>
#include <cstdio>

namespace {

constexpr uint32_t WAV_RATE = 48000;
constexpr uint16_t WAV_CHANNELS = 2;
constexpr uint16_t WAV_BITS = 16;
constexpr uint16_t WAV_BLOCK_ALIGN = WAV_CHANNELS * WAV_BITS / 8;
constexpr uint16_t WAVE_FORMAT_PCM = 1;
constexpr uint32_t FMT_CHUNK_SIZE = 16;
constexpr uint32_t HEADER_SIZE = 44;
constexpr size_t CHUNK_FRAMES = 4096;  // frames converted per fwrite

uint8_t* put16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    return p + 2;
}

uint8_t* put32(uint8_t* p, uint32_t v) {
    p = put16(p, uint16_t(v));
    return put16(p, uint16_t(v >> 16));
}

uint8_t* put_tag(uint8_t* p, const char* tag) {
    for (int i = 0; i < 4; i++) *p++ = uint8_t(tag[i]);
    return p;
}

}  // namespace

int16_t wav_sample_s16(float f) {
    if (f > 1.0f) return 32767;
    float g = f < -1.0f ? -1.0f : f;
    if (std::isnan(g)) return 0;
    return int16_t(int32_t(g * 32767.0f));
}

int wav_write_s16_le(const char* path, const float* samples, uint32_t frames) {
    FILE* f = std::fopen(path, "wb");
    if (!f) {
        std::fprintf(stderr, "wav_write_s16_le: cannot open %s\n", path);
        return 1;
    }
    // Sizes in 32-bit arithmetic: they wrap for renders above about 1 GiB.
    uint32_t data_size = frames * WAV_BLOCK_ALIGN;
    uint8_t header[HEADER_SIZE];
    uint8_t* p = put_tag(header, "RIFF");
    p = put32(p, data_size + HEADER_SIZE - 8);
    p = put_tag(p, "WAVE");
    p = put_tag(p, "fmt ");
    p = put32(p, FMT_CHUNK_SIZE);
    p = put16(p, WAVE_FORMAT_PCM);
    p = put16(p, WAV_CHANNELS);
    p = put32(p, WAV_RATE);
    p = put32(p, WAV_RATE * WAV_BLOCK_ALIGN);
    p = put16(p, WAV_BLOCK_ALIGN);
    p = put16(p, WAV_BITS);
    p = put_tag(p, "data");
    put32(p, data_size);
    std::fwrite(header, 1, sizeof header, f);

    uint8_t block[CHUNK_FRAMES * WAV_BLOCK_ALIGN];
    size_t count = size_t(frames) * WAV_CHANNELS;
    for (size_t done = 0; done < count;) {
        size_t n = count - done < CHUNK_FRAMES * WAV_CHANNELS ? count - done : CHUNK_FRAMES * WAV_CHANNELS;
        uint8_t* q = block;
        for (size_t i = 0; i < n; i++) q = put16(q, uint16_t(wav_sample_s16(samples[done + i])));
        std::fwrite(block, 1, size_t(q - block), f);
        done += n;
    }
    std::fclose(f);
    return 0;
}
