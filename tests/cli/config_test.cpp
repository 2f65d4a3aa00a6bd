// orvel.conf parsing and clamping, through the real file next to the test
// executable; and data_path's size rule.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/config.h"
#include "machine.h"
#include "test_machine.h"

namespace {

std::string conf_path() {
    char dir[EXE_DIR_MAX];
    EXPECT_GT(exe_dir(dir), 0u);
    return std::string(dir) + "/orvel.conf";
}

// Writes orvel.conf for one test and removes it again.
struct ConfFile {
    std::string path = conf_path();
    explicit ConfFile(const std::string& text) {
        FILE* f = std::fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr) << path;
        if (!f) return;
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }
    ~ConfFile() { std::remove(path.c_str()); }
};

// The settings as orvel_reset leaves them, with the LED state chosen per case.
MachinePtr reset_machine(uint32_t led_on) {
    MachinePtr m = make_machine();
    m->separation = 1.0f;
    m->audio_latency = 10000;
    m->paula.mix_rate = OUTPUT_RATE;
    m->paula.paula_clock = PAULA_CLOCK_PAL;
    m->paula.led_on = led_on;
    return m;
}

struct Expect {
    float separation = 1.0f;
    uint32_t model = 0, led_filter = 0, latency = 10000, led_on = 1;
};

Expect sep(float s) { Expect e; e.separation = s; return e; }
Expect latency(uint32_t us) { Expect e; e.latency = us; return e; }
Expect model(uint32_t v) { Expect e; e.model = v; return e; }
Expect led(uint32_t filter, uint32_t on) { Expect e; e.led_filter = filter; e.led_on = on; return e; }

}  // namespace

TEST(Config, ParsingAndClamping) {
    const std::string x254(254, 'x'), pad(300, ' ');
    Expect example;
    example.separation = 0.6f;
    example.model = 1;
    example.led_filter = 1;
    example.led_on = 0;
    example.latency = 20000;
    Expect piecewise = model(1);
    piecewise.separation = 0.75f;
    Expect crlf = model(1);
    crlf.led_filter = 2;
    const struct {
        std::string text;
        uint32_t led_on_before;
        Expect want;
    } cases[] = {
        {"separation = 0.6\nmodel = A1200\nled_filter = off\naudio_latency_ms = 20\n", 1, example},
        {"separation = -3\n", 1, sep(0.0f)},
        {"separation = 7\n", 1, sep(1.0f)},
        {"separation = abc\n", 1, sep(0.0f)},
        {"separation=0.25", 1, sep(0.25f)},  // no blanks, no final newline
        {" \t separation \t=\t 0.5 \t \n", 1, sep(0.5f)},
        {"separation = 1e-1x\n", 1, sep(0.1f)},
        {"separation = -inf\n", 1, sep(0.0f)},
        {"separation = nan\n", 1, sep(1.0f)},
        {"separation = 0.2\nseparation = 0.3\n", 1, sep(0.3f)},  // the later line wins
        {"audio_latency_ms = 0\n", 1, latency(1000)},
        {"audio_latency_ms = 5000\n", 1, latency(1000000)},
        {"audio_latency_ms = 15ms\n", 1, latency(15000)},
        {"audio_latency_ms = -20\n", 1, latency(1000)},
        {"audio_latency_ms = 99999999999999999999\n", 1, latency(1000000)},
        {"audio_latency_ms = 1\n", 1, latency(1000)},
        {"model = a1200\n", 1, model(1)},
        {"model = A1200 \t\n", 1, model(1)},
        {"Model = a1200\n", 1, model(0)},  // keys are case-sensitive
        {"model = a1200x\n", 1, model(0)},
        {"model = a1200\nmodel = a500\n", 1, model(0)},
        {"model = a1200" + std::string(200, ' ') + "\n", 1, model(1)},  // value cut at 159, then stripped
        {"led_filter = on  \t \n", 0, led(2, 1)},
        {"led_filter = OFF\n", 1, led(1, 0)},
        {"led_filter = maybe\n", 0, led(0, 0)},  // follows CIA-A: the LED keeps its state
        {"led_filter = maybe\n", 1, led(0, 1)},
        {"model = a1200\r\nled_filter = On\r\n", 1, crlf},
        // Not settings: comments, blank lines, no value, no key, unknown keys.
        {"# separation = 0.5\n\nseparation\nseparation =\nseparation =  \t\n = 0.5\nseperation = 0.5\n", 1, Expect{}},
        {std::string(63, 'k') + " = 1\n" + std::string(64, 'k') + " = 1\nseparation = 0.5\n", 1, sep(0.5f)},
        // Lines of 256 bytes or more are read in 255-byte pieces, each a line of its own.
        {"#" + x254 + "separation = 0.25\n", 1, sep(0.25f)},
        {"separation = 0.75" + pad + "model = a1200\n", 1, piecewise},
    };
    for (const auto& c : cases) {
        ConfFile file(c.text);
        MachinePtr m = reset_machine(c.led_on_before);
        config_load(*m);
        const Expect& w = c.want;
        SCOPED_TRACE("orvel.conf: " + c.text);
        EXPECT_EQ(m->separation, w.separation);
        EXPECT_EQ(m->model, w.model);
        EXPECT_EQ(m->led_filter, w.led_filter);
        EXPECT_EQ(m->audio_latency, w.latency);
        EXPECT_EQ(m->paula.a1200_filter, w.model);
        EXPECT_EQ(m->paula.led_on, w.led_on);
    }
}

// The output filter follows the model: coefficients are recomputed after the
// file, the A1200's higher cut-off giving the larger RC coefficient.
TEST(Config, RecomputesFilterForModel) {
    double coef[2];
    for (uint32_t a1200 = 0; a1200 < 2; a1200++) {
        ConfFile file(a1200 ? "model = a1200\n" : "separation = 1\n");
        MachinePtr m = reset_machine(1);
        config_load(*m);
        coef[a1200] = m->paula.rc_coef;
        EXPECT_GT(m->paula.clocks_per_frame, 0u);
    }
    EXPECT_GT(coef[0], 0.0);
    EXPECT_GT(coef[1], coef[0]);
}

TEST(Config, MissingFileChangesNothing) {
    std::remove(conf_path().c_str());
    MachinePtr m = reset_machine(1);
    m->paula.rc_coef = 0.125;  // not recomputed either
    config_load(*m);
    EXPECT_EQ(m->separation, 1.0f);
    EXPECT_EQ(m->audio_latency, 10000u);
    EXPECT_EQ(m->paula.rc_coef, 0.125);
    EXPECT_EQ(m->paula.clocks_per_frame, 0u);
}

TEST(DataPath, SizeRule) {
    char dir[EXE_DIR_MAX];
    size_t l = exe_dir(dir);
    ASSERT_GT(l, 0u);
    const char* name = "eagleplayer.conf";
    size_t n = std::strlen(name);
    const std::string full = std::string(dir) + "/orvel_data/" + name;
    const std::string relative = std::string("orvel_data/") + name;
    const struct {
        size_t size;
        std::string want;
    } cases[] = {
        {l + n + 13, full},       // exactly the directory, slash, orvel_data/, name and NUL
        {l + n + 200, full},
        {l + n + 12, relative},   // one byte short: the relative form
        {n + 13, relative},       // which keeps a spare byte
        {n + 12, ""},
        {1, ""},
    };
    for (const auto& c : cases) {
        std::string out(c.size + 8, '#');
        data_path(out.data(), c.size, name);
        EXPECT_STREQ(out.c_str(), c.want.c_str()) << "size " << c.size;
        EXPECT_EQ(out[c.size], '#') << "wrote past size " << c.size;
    }
    char untouched = '#';
    data_path(&untouched, 0, name);
    EXPECT_EQ(untouched, '#');
}
