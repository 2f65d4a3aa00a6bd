// Writes orvel's demo module: a short ProTracker tune in A minor composed for
// orvel, with every sample synthesised here. It shows off the replay:
// arpeggio chords, portamento, vibrato, volume slides, a tempo and speed
// change, a pattern loop and a pattern break.
//
//   mkdemo out.mod
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr double PI = 3.14159265358979323846;
constexpr int ROWS = 64;
constexpr int CHANNELS = 4;
constexpr int SAMPLE_SLOTS = 31;
// Playback rate of a drum hit: C-3 (period 214) at the PAL colour clock.
constexpr double DRUM_RATE = 3546895.0 / 214;

// ProTracker's note periods, C-1 to B-3.
constexpr std::array<uint16_t, 36> PERIODS = {
    856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453, 428, 404, 381, 360, 339, 320,
    302, 285, 269, 254, 240, 226, 214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113,
};

// "C-2", "F#1", ... to a period.
uint16_t period(const char* note) {
    static const char* names[] = {"C-", "C#", "D-", "D#", "E-", "F-",
                                  "F#", "G-", "G#", "A-", "A#", "B-"};
    for (int n = 0; n < 12; n++)
        if (std::strncmp(note, names[n], 2) == 0) return PERIODS[size_t((note[2] - '1') * 12 + n)];
    std::fprintf(stderr, "mkdemo: bad note %s\n", note);
    return 0;
}

// ---- samples ----

struct Sample {
    const char* name;
    std::vector<int8_t> data;
    uint8_t volume;
    bool looped;  // the whole sample is one loop (a waveform cycle)
};

int8_t to8(double v) {
    double x = std::round(v * 127);
    return int8_t(x > 127 ? 127 : x < -128 ? -128 : x);
}

// One cycle of a waveform given by its harmonic amplitudes.
std::vector<int8_t> cycle(int bytes, const std::vector<double>& harmonics) {
    std::vector<double> v(size_t(bytes), 0.0);
    double peak = 0;
    for (int i = 0; i < bytes; i++) {
        for (size_t k = 0; k < harmonics.size(); k++)
            v[size_t(i)] += harmonics[k] * std::sin(2 * PI * double(k + 1) * i / bytes);
        peak = std::max(peak, std::fabs(v[size_t(i)]));
    }
    std::vector<int8_t> out;
    for (double x : v) out.push_back(to8(0.9 * x / peak));
    return out;
}

// A drum hit: its value at time t seconds, for `seconds`. The first word is
// silent, because Paula repeats it after a one-shot sample ends.
template <typename F>
std::vector<int8_t> hit(double seconds, F f) {
    std::vector<int8_t> out = {0, 0};
    for (int i = 0; i < int(seconds * DRUM_RATE); i++) out.push_back(to8(f(i / DRUM_RATE)));
    if (out.size() % 2) out.push_back(0);
    return out;
}

struct Noise {
    uint32_t state = 0x1234567;
    double next() {
        state = state * 1664525 + 1013904223;
        return double(int32_t(state)) / 2147483648.0;
    }
};

std::vector<Sample> synthesise() {
    Noise snare_noise, hat_noise;
    double last = 0;
    return {
        // A 64-byte cycle: A-1 plays at 109 Hz. A softened sawtooth.
        {"orvel bass", cycle(64, {1, 0.5, 0.33, 0.2, 0.12, 0.06}), 64, true},
        // A 32-byte cycle: A-2 plays at 436 Hz. Odd harmonics, a hollow square.
        {"orvel lead", cycle(32, {1, 0.1, 0.33, 0.05, 0.18, 0, 0.1}), 48, true},
        {"orvel kick", hit(0.16, [](double t) {
             double f = 45 + 110 * std::exp(-t * 30);
             return std::sin(2 * PI * f * t - 6 * std::exp(-t * 30)) * std::exp(-t * 18);
         }), 64, false},
        {"orvel snare", hit(0.18, [&](double t) {
             double tone = std::sin(2 * PI * 185 * t) * std::exp(-t * 40);
             return 0.55 * snare_noise.next() * std::exp(-t * 22) + 0.5 * tone;
         }), 56, false},
        {"orvel hat", hit(0.05, [&](double t) {
             double n = hat_noise.next();
             double high = n - last;  // a first difference keeps the hiss
             last = n;
             return 0.6 * high * std::exp(-t * 70);
         }), 40, false},
        // A 32-byte cycle, soft: a triangle-like pad for the chords.
        {"orvel pad", cycle(32, {1, 0, 0.11, 0.25, 0.04}), 36, true},
    };
}

enum : uint8_t { BASS = 1, LEAD, KICK, SNARE, HAT, PAD };
enum : int { CH_BASS = 0, CH_DRUMS = 1, CH_LEAD = 2, CH_PAD = 3 };

// ---- patterns ----

struct Cell {
    uint16_t period = 0;
    uint8_t sample = 0, cmd = 0, param = 0;
};

struct Pattern {
    std::array<std::array<Cell, CHANNELS>, ROWS> rows{};
    void note(int row, int ch, const char* n, uint8_t sample, uint8_t cmd = 0, uint8_t param = 0) {
        rows[size_t(row)][size_t(ch)] = {period(n), sample, cmd, param};
    }
    void fx(int row, int ch, uint8_t cmd, uint8_t param) {
        Cell& c = rows[size_t(row)][size_t(ch)];
        c.cmd = cmd;
        c.param = param;
    }
};

// Four bars of 16 rows: Am, F, C, G.
const char* const ROOTS[4] = {"A-1", "F-1", "C-2", "G-1"};
const char* const OCTAVES[4] = {"A-2", "F-2", "C-3", "G-2"};
const char* const PAD_ROOTS[4] = {"A-2", "F-2", "C-2", "G-2"};
const uint8_t CHORDS[4] = {0x37, 0x47, 0x47, 0x47};  // minor, major, major, major

// Eighth-note bass with an octave jump and a slide into the next bar.
void bass(Pattern& p, bool slide) {
    for (int bar = 0; bar < 4; bar++) {
        int r = bar * 16;
        for (int k = 0; k < 8; k++)
            p.note(r + 2 * k, CH_BASS, (k == 3 || k == 6) ? OCTAVES[bar] : ROOTS[bar], BASS);
        if (slide) p.note(r + 14, CH_BASS, ROOTS[(bar + 1) % 4], 0, 0x3, 0x18);
    }
}

void drums(Pattern& p, int last_row = ROWS) {
    for (int r = 0; r < last_row; r += 2) {
        int beat = r % 16;
        if (beat == 0 || beat == 8 || beat == 10)
            p.note(r, CH_DRUMS, "C-3", KICK);
        else if (beat == 4 || beat == 12)
            p.note(r, CH_DRUMS, "C-3", SNARE);
        else
            p.note(r, CH_DRUMS, "C-3", HAT);
    }
}

// Held chords: the arpeggio runs on every row of the bar.
void chords(Pattern& p, uint8_t volume) {
    for (int bar = 0; bar < 4; bar++)
        for (int r = bar * 16; r < bar * 16 + 16; r++) {
            if (r % 16 == 0)
                p.note(r, CH_PAD, PAD_ROOTS[bar], PAD, 0x0, CHORDS[bar]);
            else
                p.fx(r, CH_PAD, 0x0, CHORDS[bar]);
        }
    p.fx(0, CH_PAD, 0xC, volume);
}

struct Step {
    int row;
    const char* note;  // nullptr: effect only
    uint8_t cmd, param;
};

void melody(Pattern& p, const std::vector<Step>& steps) {
    for (const Step& s : steps) {
        if (s.note)
            p.note(s.row, CH_LEAD, s.note, LEAD, s.cmd, s.param);
        else
            p.fx(s.row, CH_LEAD, s.cmd, s.param);
    }
}

// Vibrato on a held note from `from` to `to`, with a fade in its last rows.
void hold(Pattern& p, int from, int to, uint8_t vibrato) {
    for (int r = from; r < to; r++) p.fx(r, CH_LEAD, 0x4, vibrato);
    p.fx(to - 2, CH_LEAD, 0x6, 0x03);
    p.fx(to - 1, CH_LEAD, 0x6, 0x04);
}

// Bass, drums up to a row, chords, and the section's speed and tempo.
void backing(Pattern& p, bool slide, int drum_rows, uint8_t pad_volume, uint8_t speed,
             uint8_t tempo) {
    bass(p, slide);
    drums(p, drum_rows);
    chords(p, pad_volume);
    p.fx(0, CH_DRUMS, 0xF, speed);
    p.fx(0, CH_BASS, 0xF, tempo);
}

std::vector<Pattern> compose() {
    std::vector<Pattern> song(4);

    // 0: intro, drums, bass and chords. Tempo 125, speed 6.
    backing(song[0], false, ROWS, 0x18, 6, 125);

    // 1: the tune, with vibrato on the long notes.
    Pattern& tune = song[1];
    backing(tune, true, ROWS, 0x14, 6, 125);
    melody(tune, {{0, "E-3", 0, 0}, {4, "D-3", 0, 0}, {6, "C-3", 0, 0}, {8, "B-2", 0, 0},
                  {10, "C-3", 0, 0}, {12, "A-2", 0, 0}, {16, "A-2", 0, 0}, {20, "C-3", 0, 0},
                  {24, "F-3", 0, 0}, {32, "E-3", 0, 0}, {36, "G-3", 0, 0}, {40, "E-3", 0, 0},
                  {42, "D-3", 0, 0}, {44, "C-3", 0, 0}, {48, "D-3", 0, 0}, {52, "B-2", 0, 0},
                  {56, "G-2", 0, 0}});
    hold(tune, 13, 16, 0x34);
    hold(tune, 25, 32, 0x46);
    hold(tune, 57, 64, 0x46);

    // 2: faster (tempo 140, speed 5), the lead sliding between notes, a
    // drum fill looped twice, then a break into the outro.
    Pattern& bridge = song[2];
    backing(bridge, true, 56, 0x12, 5, 140);
    melody(bridge, {{0, "A-2", 0, 0}, {2, nullptr, 0x1, 0x04}, {3, nullptr, 0x1, 0x04},
                    {4, "C-3", 0, 0}, {8, "G-3", 0x3, 0x0C}, {9, nullptr, 0x3, 0x00},
                    {10, nullptr, 0x3, 0x00}, {11, nullptr, 0x3, 0x00}, {16, "F-3", 0, 0},
                    {20, nullptr, 0x2, 0x03}, {21, nullptr, 0x2, 0x03}, {24, "A-3", 0, 0},
                    {28, "G-3", 0, 0}, {32, "E-3", 0, 0}, {36, "C-3", 0, 0}, {40, "E-3", 0, 0},
                    {44, "G-3", 0, 0}, {48, "B-2", 0, 0}, {52, "D-3", 0, 0}});
    hold(bridge, 49, 52, 0x34);
    // The fill: snare, snare, snare, kick; played twice.
    bridge.note(56, CH_DRUMS, "C-3", SNARE, 0xE, 0x60);
    bridge.note(57, CH_DRUMS, "D-3", SNARE);
    bridge.note(58, CH_DRUMS, "E-3", SNARE);
    bridge.note(59, CH_DRUMS, "C-3", KICK, 0xE, 0x61);
    bridge.note(60, CH_LEAD, "A-3", LEAD, 0xA, 0x02);
    bridge.fx(61, CH_LEAD, 0xA, 0x02);
    bridge.fx(61, CH_DRUMS, 0xD, 0x00);

    // 3: outro, back to tempo 125 and speed 6; the lead fades on a long
    // vibrato, the bass falls away.
    Pattern& outro = song[3];
    backing(outro, false, 48, 0x14, 6, 125);
    melody(outro, {{0, "E-3", 0, 0}, {4, "C-3", 0, 0}, {8, "A-2", 0, 0}, {16, "A-2", 0, 0},
                   {18, "C-3", 0, 0}, {20, "F-3", 0, 0}, {32, "E-3", 0, 0}, {36, "D-3", 0, 0},
                   {40, "B-2", 0, 0}, {48, "A-2", 0, 0}});
    hold(outro, 9, 16, 0x35);
    hold(outro, 21, 32, 0x46);
    for (int r = 49; r < 64; r++) outro.fx(r, CH_LEAD, 0x6, 0x02);
    outro.note(48, CH_DRUMS, "C-3", KICK);
    outro.fx(50, CH_BASS, 0x2, 0x06);
    for (int r = 52; r < 64; r++) outro.fx(r, CH_PAD, 0xA, 0x01);
    return song;
}

// ---- the file ----

void put16(std::vector<uint8_t>& m, size_t at, size_t v) {
    m[at] = uint8_t(v >> 8);
    m[at + 1] = uint8_t(v);
}

std::vector<uint8_t> build(const std::vector<Sample>& samples, const std::vector<Pattern>& song,
                           const std::vector<uint8_t>& orders) {
    std::vector<uint8_t> m(1084, 0);
    std::memcpy(m.data(), "orvel demo", 10);
    for (size_t i = 0; i < samples.size(); i++) {
        size_t h = 20 + 30 * i;
        const Sample& s = samples[i];
        std::memcpy(&m[h], s.name, std::strlen(s.name));
        put16(m, h + 22, s.data.size() / 2);
        m[h + 25] = s.volume;
        put16(m, h + 26, 0);
        put16(m, h + 28, s.looped ? s.data.size() / 2 : 1);
    }
    for (size_t i = samples.size(); i < SAMPLE_SLOTS; i++) put16(m, 20 + 30 * i + 28, 1);
    m[950] = uint8_t(orders.size());
    m[951] = 127;
    for (size_t i = 0; i < orders.size(); i++) m[952 + i] = orders[i];
    std::memcpy(&m[1080], "M.K.", 4);
    for (const Pattern& p : song)
        for (const auto& row : p.rows)
            for (const Cell& c : row) {
                m.push_back(uint8_t((c.sample & 0xF0) | (c.period >> 8)));
                m.push_back(uint8_t(c.period));
                m.push_back(uint8_t((c.sample << 4) | c.cmd));
                m.push_back(c.param);
            }
    for (const Sample& s : samples)
        for (int8_t b : s.data) m.push_back(uint8_t(b));
    return m;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: mkdemo out.mod\n");
        return 1;
    }
    std::vector<uint8_t> m = build(synthesise(), compose(), {0, 1, 2, 1, 3});
    FILE* f = std::fopen(argv[1], "wb");
    if (!f) {
        std::fprintf(stderr, "mkdemo: cannot write %s\n", argv[1]);
        return 1;
    }
    bool ok = std::fwrite(m.data(), 1, m.size(), f) == m.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok) {
        std::fprintf(stderr, "mkdemo: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
