#include "pt_support.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

namespace pt_test {

namespace {

constexpr double E_CLOCK = 709379.0;                  // CIA ticks per second
constexpr uint32_t CIA_TIMER_PER_BPM = 1773447;       // E clock x 2.5 s
constexpr uint32_t CHIP_MODULE_ADDRESS = 0x10000;     // where orvel places modules

void put16(std::vector<uint8_t>& v, size_t at, uint16_t x) {
    v[at] = uint8_t(x >> 8);
    v[at + 1] = uint8_t(x);
}

}  // namespace

ModBuilder::ModBuilder() {
    samples.push_back({100, 0, 64, 0, 1});
    samples.push_back({200, 0, 32, 50, 150});
}

std::vector<uint8_t> ModBuilder::build() const {
    const size_t header = sample_count == 31 ? 1084 : 600;
    const size_t pattern_bytes = size_t(64) * 4 * channels;
    std::vector<uint8_t> m(header + patterns.size() * pattern_bytes, 0);
    std::memcpy(m.data(), "orvel test", 10);
    for (size_t i = 0; i < samples.size() && i < size_t(sample_count); i++) {
        size_t h = 20 + 30 * i;
        const SampleSpec& s = samples[i];
        m[h] = uint8_t('a' + i);
        put16(m, h + 22, s.length);
        m[h + 24] = s.finetune;
        m[h + 25] = s.volume;
        put16(m, h + 26, s.repeat_start);
        put16(m, h + 28, s.repeat_length);
    }
    size_t info = 20 + 30 * size_t(sample_count);
    m[info] = uint8_t(orders.size());
    m[info + 1] = restart;
    for (size_t i = 0; i < orders.size(); i++) m[info + 2 + i] = orders[i];
    if (sample_count == 31) std::memcpy(&m[1080], tag.data(), 4);
    for (size_t p = 0; p < patterns.size(); p++) {
        for (const Note& n : patterns[p]) {
            size_t at = header + p * pattern_bytes + size_t(n.row) * 4 * channels + 4 * n.channel;
            m[at] = uint8_t((n.sample & 0xF0) | (n.period >> 8));
            m[at + 1] = uint8_t(n.period);
            m[at + 2] = uint8_t((n.sample << 4) | (n.cmd & 0x0F));
            m[at + 3] = n.param;
        }
    }
    // Sample data: a recognisable ramp per sample.
    for (size_t i = 0; i < samples.size() && i < size_t(sample_count); i++)
        for (uint32_t k = 0; k < uint32_t(samples[i].length) * 2; k++)
            m.push_back(uint8_t(k * (i + 3)));
    return m;
}

void Recorder::attach(const PtState& s) {
    base = s.module;
    sample_starts.clear();
    for (int i = 0; i < s.sample_count; i++) sample_starts.push_back(s.samples[i].start);
    pt_hw_hooks.ctx = this;
    pt_hw_hooks.address = [](void* ctx, const void* p) -> uint32_t {
        auto* r = static_cast<Recorder*>(ctx);
        return CHIP_MODULE_ADDRESS + uint32_t(static_cast<const uint8_t*>(p) - r->base);
    };
    pt_hw_hooks.filter = [](void* ctx, int on) {
        auto* r = static_cast<Recorder*>(ctx);
        if (on == r->filter) return;
        r->filter = on;
        r->items.push_back(on ? "FILTER=on" : "FILTER=off");
    };
    pt_hw_hooks.write = [](void* ctx, uint16_t reg, uint16_t value) {
        auto* r = static_cast<Recorder*>(ctx);
        char buf[64];
        if (reg == PT_DMACON) {
            std::snprintf(buf, sizeof buf, "DMACON=%04x", value);
            r->items.push_back(buf);
            return;
        }
        if (reg < 0xA0 || reg >= 0xE0) {
            std::snprintf(buf, sizeof buf, "R%03x=%04x", reg, value);
            r->items.push_back(buf);
            return;
        }
        int ch = (reg - 0xA0) >> 4;
        switch (reg & 0x0F) {
        case 0x0: r->lc[ch] = (r->lc[ch] & 0xFFFF) | (uint32_t(value) << 16); return;
        case 0x2: {
            r->lc[ch] = (r->lc[ch] & 0xFFFF0000u) | value;
            const int8_t* p = reinterpret_cast<const int8_t*>(r->base) +
                              (r->lc[ch] - CHIP_MODULE_ADDRESS);
            // The last sample that starts at or before the location.
            int best = -1;
            for (size_t i = 0; i < r->sample_starts.size(); i++)
                if (r->sample_starts[i] && r->sample_starts[i] <= p &&
                    (best < 0 || r->sample_starts[i] >= r->sample_starts[best]))
                    best = int(i);
            if (best >= 0)
                std::snprintf(buf, sizeof buf, "AUD%dLC=s%d+%ld", ch, best + 1,
                              long(p - r->sample_starts[best]));
            else
                std::snprintf(buf, sizeof buf, "AUD%dLC=%06x", ch, r->lc[ch]);
            break;
        }
        case 0x4: std::snprintf(buf, sizeof buf, "AUD%dLEN=%u", ch, value); break;
        case 0x6:
            if (r->per[ch] == value) return;
            r->per[ch] = value;
            std::snprintf(buf, sizeof buf, "AUD%dPER=%u", ch, value);
            break;
        case 0x8:
            if (r->vol[ch] == value) return;
            r->vol[ch] = value;
            std::snprintf(buf, sizeof buf, "AUD%dVOL=%u", ch, value);
            break;
        default: std::snprintf(buf, sizeof buf, "R%03x=%04x", reg, value); break;
        }
        r->items.push_back(buf);
    };
}

std::string Recorder::take() {
    std::string line;
    for (const std::string& i : items) line += (line.empty() ? "" : " ") + i;
    items.clear();
    return line;
}

std::string trace(const std::vector<uint8_t>& module, int ticks, int variant) {
    auto s = std::make_unique<PtState>();
    Recorder rec;
    pt_hw_hooks = {};
    if (pt_init(s.get(), module.data(), uint32_t(module.size()), variant) != PT_OK)
        return "init failed";
    rec.attach(*s);
    std::string out;
    for (int t = 0; t < ticks; t++) {
        pt_tick(s.get());
        std::string line = rec.take();
        if (line.empty()) continue;
        out += 't';
        out += std::to_string(t);
        out += ": ";
        out += line;
        out += '\n';
    }
    pt_hw_hooks = {};
    return out;
}

// Seconds of one tick at the replay's present tempo.
static double tick_seconds(const PtState& s) {
    // Fxx tempos are whole BPM; Soundtracker's tempo byte sets the timer.
    if (pt_cia_timer(&s) == CIA_TIMER_PER_BPM / pt_bpm(&s)) return 2.5 / pt_bpm(&s);
    return pt_cia_timer(&s) / E_CLOCK;
}

SongEnd time_to_song_end(const std::vector<uint8_t>& module, int variant, double max_seconds) {
    struct Run {
        PtState s;
        bool ended;
    };
    auto run = std::make_unique<Run>();
    PtState* s = &run->s;
    SongEnd r;
    pt_hw_hooks = {};
    if (pt_init(s, module.data(), uint32_t(module.size()), variant) != PT_OK) return r;
    s->song_end = [](void* ctx) { static_cast<Run*>(ctx)->ended = true; };
    s->song_end_ctx = run.get();
    while (r.seconds < max_seconds) {
        pt_tick(s);
        if (run->ended) break;
        r.seconds += tick_seconds(*s);
        r.ticks++;
    }
    r.reached = run->ended;
    return r;
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

void write_file(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

bool have_openmpt() {
#ifdef _WIN32
    return false;
#else
    return std::system("openmpt123 --version >/dev/null 2>&1") == 0;
#endif
}

std::optional<double> openmpt_duration(const std::string& path) {
#ifdef _WIN32
    (void)path;
    return std::nullopt;
#else
    std::string cmd = "openmpt123 --info --subsong 0 '" + path + "' 2>&1";
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(cmd.c_str(), "r"), pclose);
    if (!p) return std::nullopt;
    char line[512];
    while (std::fgets(line, sizeof line, p.get())) {
        // "Duration...: 01:57.120" (hours are added in front when needed)
        if (std::strncmp(line, "Duration", 8) != 0) continue;
        const char* v = std::strchr(line, ':');
        if (!v) continue;
        double total = 0, part = 0;
        for (const char* q = v + 1; *q; q++) {
            if (*q == ' ') continue;
            char* end;
            part = std::strtod(q, &end);
            total = total * 60 + part;
            if (*end != ':') break;
            q = end;
        }
        return total;
    }
    return std::nullopt;
#endif
}

std::vector<float> render_openmpt(const std::string& path, double seconds, int separation) {
#ifdef _WIN32
    (void)path;
    (void)seconds;
    (void)separation;
    return {};
#else
    std::string cmd = "openmpt123 -q --render --force --output-type raw --subsong 0 "
                      "--end-time " + std::to_string(int(std::ceil(seconds))) +
                      " --stereo " + std::to_string(separation) +
                      " --ctl render.resampler.emulate_amiga=1"
                      " --ctl render.resampler.emulate_amiga_type=a500 '" +
                      path + "' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) return {};
    std::vector<uint8_t> raw = read_file(path + ".raw");
    std::remove((path + ".raw").c_str());
    // Whole stereo float frames, or the render went wrong.
    if (raw.empty() || raw.size() % (2 * sizeof(float)) != 0) return {};
    std::vector<float> out(raw.size() / sizeof(float));
    std::memcpy(out.data(), raw.data(), raw.size());
    return out;
#endif
}

std::vector<double> envelope(const std::vector<float>& pcm, size_t windows, int of) {
    std::vector<double> e(windows);
    for (size_t w = 0; w < windows; w++) {
        double sum = 0;
        for (size_t f = w * ENVELOPE_WINDOW; f < (w + 1) * ENVELOPE_WINDOW; f++) {
            double l = pcm[2 * f], r = pcm[2 * f + 1];
            switch (of) {
            case LEFT: sum += l * l; break;
            case RIGHT: sum += r * r; break;
            case MONO: sum += (l + r) * (l + r); break;
            default: sum += (l * l + r * r) / 2; break;
            }
        }
        e[w] = std::sqrt(sum / ENVELOPE_WINDOW);
    }
    return e;
}

double correlation(const std::vector<double>& a, const std::vector<double>& b) {
    double ma = 0, mb = 0;
    for (size_t i = 0; i < a.size(); i++) ma += a[i], mb += b[i];
    ma /= double(a.size());
    mb /= double(b.size());
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < a.size(); i++) {
        ab += (a[i] - ma) * (b[i] - mb);
        aa += (a[i] - ma) * (a[i] - ma);
        bb += (b[i] - mb) * (b[i] - mb);
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

}  // namespace pt_test
