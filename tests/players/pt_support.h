// Shared pieces of the replay tests: a builder for tiny modules, a recorder
// of Paula register writes per tick, a song-end timer and the openmpt123
// oracle.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pt_hw.h"
#include "ptreplay.h"

namespace pt_test {

// One cell of a pattern.
struct Note {
    int row;
    int channel;
    uint16_t period;
    uint8_t sample;
    uint8_t cmd;
    uint8_t param;
};

struct SampleSpec {
    uint16_t length = 0;  // words
    uint8_t finetune = 0;
    uint8_t volume = 64;
    uint16_t repeat_start = 0;  // words
    uint16_t repeat_length = 1;
};

// Builds a module image: 31-instrument with a tag, or 15-instrument.
struct ModBuilder {
    std::string tag = "M.K.";
    int channels = 4;
    int sample_count = 31;
    uint8_t restart = 127;
    std::vector<uint8_t> orders = {0};
    std::vector<std::vector<Note>> patterns = {{}};
    std::vector<SampleSpec> samples;  // from sample 1; the rest are empty

    // Two samples by default: a 100-word one-shot and a looped one.
    ModBuilder();
    std::vector<uint8_t> build() const;
};

// Records what the replay writes to Paula, one text line per tick:
// "DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 ...".
// Locations are shown relative to the sample they point into; period and
// volume writes that do not change the register are left out.
struct Recorder {
    const uint8_t* base = nullptr;
    std::vector<const int8_t*> sample_starts;
    std::vector<std::string> items;  // of the tick being recorded
    uint32_t lc[4] = {};
    int per[4] = {-1, -1, -1, -1};
    int vol[4] = {-1, -1, -1, -1};
    int filter = -1;

    void attach(const PtState& s);  // installs the hooks
    std::string take();             // the tick's line, cleared
};

// Runs a module and returns one line per tick ("t<n>: ..."), ticks without
// writes left out.
std::string trace(const std::vector<uint8_t>& module, int ticks, int variant = PT_AUTO);

struct SongEnd {
    bool reached = false;
    double seconds = 0;  // time at the start of the tick that called the hook
    long ticks = 0;
};

// Plays until the first song-end call (or max_seconds of music).
SongEnd time_to_song_end(const std::vector<uint8_t>& module, int variant = PT_AUTO,
                         double max_seconds = 3600);

std::vector<uint8_t> read_file(const std::string& path);
void write_file(const std::string& path, const std::vector<uint8_t>& data);

// openmpt123 --info duration of the first subsong, or nothing when the
// player is not installed (or this is the Windows build).
bool have_openmpt();
std::optional<double> openmpt_duration(const std::string& path);

// openmpt123's A500 render of the first `seconds` (rounded up), interleaved
// float stereo at 48 kHz; empty when it fails. It writes <path>.raw, so
// `path` should be a copy of the module in a scratch directory. Stereo
// separation in percent: at its default of 100 openmpt123 pans MOD channels
// about 75/25; 200 puts them hard left and right, as Paula does.
std::vector<float> render_openmpt(const std::string& path, double seconds, int separation);

// Loudness envelope: RMS of each 20 ms window over `windows` windows, of
// the left or right side, their sum (mono), or both sides' power together.
constexpr int ENVELOPE_WINDOW = 960;  // frames at 48 kHz
enum EnvelopeOf { LEFT = 0, RIGHT = 1, MONO = 2, STEREO = 3 };
std::vector<double> envelope(const std::vector<float>& pcm, size_t windows, int of);

// Pearson correlation of two series of equal length (0 when one is flat).
double correlation(const std::vector<double>& a, const std::vector<double>& b);

}  // namespace pt_test
