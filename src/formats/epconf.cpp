// Choosing a player for a module. eagleplayer.conf maps file-name prefixes
// (the Amiga habit: mod.title) and extensions (title.mod) to player files;
// the module's contents then correct what names cannot tell apart:
// Soundtracker's 15-instrument files, AudioSculpture and the TFMX family.
#include "formats/epconf.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "cli/config.h"
#include "formats/modclass.h"
#include "machine.h"

namespace {

constexpr size_t LINE_MAX_CHARS = 4095;
constexpr size_t PLAYER_NAME_MAX = 254;
constexpr size_t KEY_MAX = 62;        // keys of 63 characters or more are skipped
constexpr size_t MODULE_NAME_MAX = 511;
constexpr size_t EXTENSION_MAX = 63;
constexpr size_t EPOPT_MAX = sizeof(Machine::epopt) - 1;
constexpr int PREFIX_SCORE = 1000;    // any prefix match beats any extension match
constexpr size_t PATH_MAX_CHARS = EXE_DIR_MAX + 512;

constexpr const char* SEPARATORS = " \t\r\n";

// ---- the table ----

struct Span {
    const char* text = nullptr;
    size_t len = 0;
};

// One usable line of eagleplayer.conf, pointing into the line buffer.
struct ConfLine {
    Span player;
    Span first_prefixes, last_prefixes;
    Span last_epopt;
    bool has_epopt = false;
};

// The value of a "name=value" token, when the token has that name.
bool token_value(const char* token, size_t len, const char* name, Span& value) {
    size_t n = std::strlen(name);
    if (len < n || std::memcmp(token, name, n) != 0) return false;
    value = {token + n, len - n};
    return true;
}

bool parse_line(const char* line, ConfLine& out) {
    out = {};
    if (line[0] == '#') return false;
    const char* p = line;
    bool first = true;
    for (;;) {
        p += std::strspn(p, SEPARATORS);
        if (*p == '\0') break;
        size_t n = std::strcspn(p, SEPARATORS);
        if (first) {
            if (n > PLAYER_NAME_MAX) return false;
            out.player = {p, n};
            first = false;
        } else if (token_value(p, n, "prefixes=", out.last_prefixes)) {
            if (!out.first_prefixes.text) out.first_prefixes = out.last_prefixes;
        } else if (token_value(p, n, "epopt=", out.last_epopt)) {
            out.has_epopt = true;
        }
        p += n;
    }
    return !first;
}

// Calls f(key, length) for each usable key of a comma-separated list, lowered.
template <class F>
void for_each_key(Span list, F f) {
    const char* p = list.text;
    const char* end = list.text + list.len;
    while (p < end) {
        const char* comma = std::find(p, end, ',');
        size_t n = size_t(comma - p);
        if (n > 0 && n <= KEY_MAX) {
            char key[KEY_MAX + 1];
            for (size_t i = 0; i < n; i++) key[i] = char(std::tolower(uint8_t(p[i])));
            key[n] = '\0';
            f(key, n);
        }
        p = comma + 1;
    }
}

// Reads the table line by line; the tail of an overlong line is dropped
// rather than taken for a line of its own.
template <class F>
bool for_each_line(F f) {
    char path[PATH_MAX_CHARS];
    data_path(path, sizeof path, "eagleplayer.conf");
    FILE* file = path[0] ? std::fopen(path, "rb") : nullptr;
    if (!file) return false;
    char line[LINE_MAX_CHARS + 1];
    bool stop = false;
    while (!stop && std::fgets(line, sizeof line, file)) {
        size_t n = std::strlen(line);
        if (n == LINE_MAX_CHARS && line[n - 1] != '\n') {
            int c;
            while ((c = std::fgetc(file)) != EOF && c != '\n') {
            }
        }
        ConfLine cl;
        if (parse_line(line, cl)) stop = f(cl);
    }
    std::fclose(file);
    return true;
}

// ---- names and players ----

// The part after the last separator; Windows paths use either kind.
const char* base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p; p++)
        if (*p == '/' || *p == '\\') base = p + 1;
    return base;
}

void player_path(char* out, size_t out_size, const char* name) {
    char rel[PLAYER_NAME_MAX + 16];
    std::snprintf(rel, sizeof rel, "players/%s", name);
    data_path(out, out_size, rel);
}

bool player_exists(const char* name) {
    char path[PATH_MAX_CHARS];
    player_path(path, sizeof path, name);
    FILE* f = path[0] ? std::fopen(path, "rb") : nullptr;
    if (!f) return false;
    std::fclose(f);
    return true;
}

int name_score(const char* name, size_t name_len, Span prefixes) {
    int score = -1;
    for_each_key(prefixes, [&](const char* key, size_t n) {
        if (n + 1 >= name_len) return;
        if (std::memcmp(name, key, n) == 0 && name[n] == '.')
            score = std::max(score, PREFIX_SCORE + int(n));
        if (std::memcmp(name + name_len - n, key, n) == 0 && name[name_len - n - 1] == '.')
            score = std::max(score, int(n));
    });
    return score;
}

uint32_t be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }

// ---- 15-instrument Soundtracker modules ----

// Layout without the tag: 15 sample headers, song length at 470, the old
// tempo byte at 471, orders at 472, patterns at 600.
constexpr uint32_t ST15_SAMPLES = 15;
constexpr uint32_t ST15_SONG_LENGTH = 470;
constexpr uint32_t ST15_TEMPO = 471;
constexpr uint32_t ST15_ORDERS = 472;
constexpr uint32_t ST15_PATTERNS = 600;
constexpr uint32_t ST15_CHECK_BYTE = 499;   // order entry 27
constexpr uint32_t ST15_MIN_CHECKED = 2652;  // header, two patterns and a little sample data
constexpr uint32_t MOD31_MIN = 1084;
constexpr uint32_t ST15_MAX_SONG = 128;
constexpr uint32_t ST15_MAX_PATTERN = 63;
constexpr uint8_t ST15_DEFAULT_TEMPO = 120;
constexpr uint32_t MAX_VOLUME = 64;
constexpr uint32_t ST15_LONG_SAMPLE = 10000;  // words
constexpr uint32_t SAMPLE_SPACE = 0x10000;    // bytes a 15-instrument sample may span

enum class St15 {
    TOO_SHORT,        // nothing to look at: on to TFMX
    NOT_ST15,         // on to the AudioSculpture test
    TABLE,            // the table's choice stands
    SOUNDTRACKER_IV,  // effects the first Soundtracker did not know
    ULTIMATE,         // the original Ultimate Soundtracker
};

// "ST-01:name": samples taken from a Soundtracker sample disk.
bool disk_name(const uint8_t* name) {
    return (name[0] == 'S' || name[0] == 's') && (name[1] == 'T' || name[1] == 't') &&
           name[2] == '-' && name[5] == ':';
}

St15 soundtracker15(const uint8_t* data, uint32_t len) {
    if (len < ST15_MIN_CHECKED) return len >= MOD31_MIN ? St15::NOT_ST15 : St15::TOO_SHORT;
    const uint8_t song_length = data[ST15_SONG_LENGTH];
    if (mod_tag_is_31(data) || song_length == 0 || song_length > ST15_MAX_SONG ||
        data[ST15_CHECK_BYTE] == 1)
        return St15::NOT_ST15;
    uint32_t highest = std::max(mod_highest_pattern(data + ST15_ORDERS), 1u);
    if (highest > ST15_MAX_PATTERN) return St15::NOT_ST15;

    uint64_t expect = ST15_PATTERNS + uint64_t(highest + 1) * MOD_PATTERN_SIZE;
    for (int s = 1; s <= int(ST15_SAMPLES); s++) expect += 2 * mod_sample(data, s).length;
    if (expect != len) return St15::NOT_ST15;

    uint32_t loops_past_end = 0;
    uint32_t loops_past_space = 0;
    bool disk_names = false;
    for (int s = 1; s <= int(ST15_SAMPLES); s++) {
        ModSample smp = mod_sample(data, s);
        if (smp.finetune != 0 && smp.volume > MAX_VOLUME) return St15::NOT_ST15;
        uint32_t loop_end = smp.repeat_start + 2 * smp.repeat_length;  // start counted in bytes
        if (smp.length != 0 && loop_end > 2 * smp.length) loops_past_end++;
        if (smp.length < ST15_LONG_SAMPLE && loop_end >= SAMPLE_SPACE) loops_past_space++;
        if (disk_name(smp.name)) disk_names = true;
    }

    ModEffects fx;
    mod_scan_patterns(data, len, ST15_PATTERNS, highest, fx);
    if (fx.count[5] || fx.count[6] || fx.count[7] || fx.count[8] || fx.count[9])
        return St15::SOUNDTRACKER_IV;
    if (fx.count[0xC] || fx.count[0xD] || fx.extended[0])
        return fx.count[0xD] && fx.max_param[0xD] ? St15::SOUNDTRACKER_IV : St15::TABLE;
    auto slide = [&](int e) { return fx.count[e] && fx.max_param[e] >= 1 && fx.max_param[e] <= 30; };
    if (slide(1) || slide(2) || fx.count[0] > 2) return St15::TABLE;
    bool loops = loops_past_end || loops_past_space;
    if (!fx.count[1] && !fx.count[2]) {
        if (loops || (disk_names && data[ST15_TEMPO] == ST15_DEFAULT_TEMPO)) return St15::TABLE;
    }
    return St15::ULTIMATE;
}

bool audio_sculpture(const uint8_t* data, uint32_t len) {
    return len >= MOD31_MIN && mod_tag_is_31(data) && mod31_classify(data, len) == 3;
}

// ---- TFMX ----

constexpr uint32_t TFMX_MIN = 520;
constexpr uint32_t TFMX_SONG_DATA = 464;  // trackstep
constexpr uint32_t TFMX_PATTERNS = 468;
constexpr uint32_t TFMX_MACROS = 472;
constexpr uint32_t TFMX_OLD_PATTERNS = 0x400;
constexpr uint32_t TFMX_OLD_MACROS = 0x600;
constexpr uint32_t TFMX_OLD_SONG_DATA = 0x800;
constexpr uint32_t TFMX_TRACKSTEP = 16;     // bytes per trackstep line
constexpr uint32_t TRACKSTEP_COMMAND = 0xEFFE;
constexpr uint32_t COMMAND_SEVEN_VOICES = 3;

uint32_t swap32(uint32_t v) {
    return v >> 24 | (v >> 8 & 0xFF00) | (v << 8 & 0xFF0000) | v << 24;
}

bool same_text(const uint8_t* p, const char* text) {
    return std::memcmp(p, text, std::strlen(text)) == 0;
}
bool same_text_nocase(const uint8_t* p, const char* text) {
    for (; *text; p++, text++)
        if (std::tolower(*p) != std::tolower(uint8_t(*text))) return false;
    return true;
}

bool tfmx_song_header(const uint8_t* d) {
    const uint8_t* rest = d + 4;
    return same_text_nocase(d, "TFMX") && (same_text(rest, "-SONG") || same_text(rest, "_SONG ") ||
                                           same_text_nocase(rest, "SONG") || rest[0] == ' ');
}

// Trackstep lines are 16 bytes; a line starting with the command word EFFE
// and argument 3 switches the replay to seven voices.
bool seven_voices(const uint8_t* d, uint32_t len, uint32_t song, uint32_t patterns,
                  uint32_t macros) {
    uint32_t end = macros;
    if (end <= song) {
        // Old layout: the pointer tables lie before the trackstep, which
        // runs on up to the first pattern.
        end = len;
        if (patterns <= len - 4) {
            uint32_t first = tfmx_be32(d, patterns);
            if (first >= len) first = swap32(first);
            if (first > song) end = first;
        }
    }
    end = std::min(end, len);
    for (uint64_t pos = song; pos < end && pos + 4 <= len; pos += TFMX_TRACKSTEP)
        if (be16(d + pos) == TRACKSTEP_COMMAND && be16(d + pos + 2) == COMMAND_SEVEN_VOICES)
            return true;
    return false;
}

// TFMX Pro files: recognised by the text block that its editor writes, or
// by the size and contents of known old-layout songs.
bool tfmx_pro(const uint8_t* d, uint32_t len, uint32_t raw_song) {
    bool text16;
    if (d[16] == ' ') text16 = d[17] != ' ';
    else if (d[16] == '(') text16 = !same_text(d + 17, "Empty)");
    else text16 = !same_text(d + 16, "0=");
    if (!same_text(d + 10, "by") && d[4] != ' ' && text16) return true;
    if (raw_song != 0) return true;
    switch (be16(d + 14)) {
        case 0x0860: return len >= 4646 && be16(d + 4644) == 0x090C;
        case 0x0B20: return len > 5121 && be16(d + 5120) == 0x8C26;
        case 0x0E60: return true;
        case 0x0920: return len > 3977 && be16(d + 3876) == 0x9305;
        default: return false;
    }
}

const char* tfmx_variant(const uint8_t* d, uint32_t len) {
    if (len < TFMX_MIN) return nullptr;
    if (same_text(d, "TFHD")) {
        switch (d[8]) {
            case 1: return "TFMX-TFHD";
            case 2: return "TFMX-Pro-TFHD";
            case 3: return "TFMX-7V-TFHD";
            default: return nullptr;
        }
    }
    if (!tfmx_song_header(d)) return nullptr;
    const uint32_t raw_song = tfmx_be32(d, TFMX_SONG_DATA);
    uint32_t song = raw_song;
    uint32_t patterns = tfmx_be32(d, TFMX_PATTERNS);
    uint32_t macros = tfmx_be32(d, TFMX_MACROS);
    if (song == 0 && patterns == 0 && macros == 0) {
        song = TFMX_OLD_SONG_DATA;
        patterns = TFMX_OLD_PATTERNS;
        macros = TFMX_OLD_MACROS;
    } else {
        // Some rippers stored the offsets little-endian.
        for (uint32_t* v : {&song, &patterns, &macros})
            if (*v >= len) *v = swap32(*v);
    }
    if (seven_voices(d, len, song, patterns, macros)) return "TFMX-7V";
    if (tfmx_pro(d, len, raw_song)) return "TFMX-Pro";
    return "TFMX";
}

void copy_name(char* out, size_t out_size, const char* name, size_t n) {
    n = std::min(n, out_size - 1);
    std::memcpy(out, name, n);
    out[n] = '\0';
}

void lower_copy(char* out, size_t out_size, const char* text) {
    size_t n = 0;
    for (; text[n] && n + 1 < out_size; n++) out[n] = char(std::tolower(uint8_t(text[n])));
    out[n] = '\0';
}

constexpr struct {
    const char* option;
    const char* name;
} FORMAT_NAMES[] = {
    {"type:pt30", "ProTracker (31-instrument M.K.)"},
    {"type:st24", "DOC Soundtracker 2.4 (byte-offset srep)"},
    {"type:flt4", "Startrekker 4ch (FLT4)"},
    {"type:m&k.", "His Master's Noise (M&K!)"},
    {"type:nt20", "NoiseTracker 2.x"},
    {"type:nt10", "NoiseTracker 1.x"},
    {"type:comp", "Fasttracker / multichannel"},
    {"type:st20", "Soundtracker (15-instrument)"},
};

}  // namespace

int epconf_identify(const char* module_path, const uint8_t* data, uint32_t len, char* out_path,
                    size_t out_size) {
    if (out_size > 0) out_path[0] = '\0';
    char name[MODULE_NAME_MAX + 1];
    lower_copy(name, sizeof name, base_name(module_path));
    const size_t name_len = std::strlen(name);

    char chosen[PLAYER_NAME_MAX + 1] = "";
    int best = -1;
    bool opened = for_each_line([&](const ConfLine& cl) {
        if (!cl.first_prefixes.text) return false;
        int score = name_score(name, name_len, cl.first_prefixes);
        if (score <= best) return false;  // ties keep the earlier line
        char player[PLAYER_NAME_MAX + 1];
        copy_name(player, sizeof player, cl.player.text, cl.player.len);
        if (!player_exists(player)) return false;
        best = score;
        std::strcpy(chosen, player);
        return false;
    });
    if (!opened || best < 0) return 0;

    if (data && name_len >= 5 && std::strcmp(name + name_len - 4, ".mod") == 0) {
        const char* fix = nullptr;
        switch (soundtracker15(data, len)) {
            case St15::NOT_ST15:
                if (audio_sculpture(data, len)) fix = "AudioSculpture";
                break;
            case St15::SOUNDTRACKER_IV: fix = "Soundtracker-IV"; break;
            case St15::ULTIMATE: fix = "UltimateSoundtracker"; break;
            case St15::TOO_SHORT:
            case St15::TABLE: break;
        }
        if (fix && player_exists(fix)) std::strcpy(chosen, fix);
    }
    if (data && std::strncmp(chosen, "TFMX", 4) == 0) {
        const char* variant = tfmx_variant(data, len);
        if (variant && std::strcmp(variant, chosen) != 0 && player_exists(variant))
            std::strcpy(chosen, variant);
    }
    player_path(out_path, out_size, chosen);
    return out_size > 0 && out_path[0] ? 1 : 0;
}

void epconf_resolve_epopt(Machine& m, const char* player_path, const char* module_path,
                          const uint8_t* data, uint32_t len) {
    m.epopt[0] = '\0';
    if (!player_path || !module_path) return;
    const char* key = base_name(player_path);
    const size_t key_len = std::strlen(key);
    const char* dot = std::strrchr(base_name(module_path), '.');
    if (!dot || !dot[1]) return;
    char ext[EXTENSION_MAX + 1];
    lower_copy(ext, sizeof ext, dot + 1);

    for_each_line([&](const ConfLine& cl) {
        if (cl.player.len != key_len || std::memcmp(cl.player.text, key, key_len) != 0) return false;
        if (cl.last_prefixes.len == 0 || !cl.has_epopt) return false;
        bool listed = false;
        for_each_key(cl.last_prefixes, [&](const char* k, size_t) {
            listed = listed || std::strcmp(k, ext) == 0;
        });
        if (!listed) return false;
        copy_name(m.epopt, EPOPT_MAX + 1, cl.last_epopt.text, cl.last_epopt.len);
        return true;
    });

    // One player serves the whole MOD family; tell it which tracker this is.
    if (std::strcmp(m.epopt, "type:pt30") == 0) {
        const char* option = data && len >= MOD31_MIN && mod_tag_is_31(data)
                                 ? mod_class_option(mod31_classify(data, len))
                                 : "type:st20";
        std::strcpy(m.epopt, option);
    }
}

const char* epopt_format_name(const char* option) {
    for (const auto& f : FORMAT_NAMES)
        if (option && std::strcmp(option, f.option) == 0) return f.name;
    return "";
}

uint32_t tfmx_be32(const uint8_t* data, uint32_t offset) {
    return be16(data + offset) << 16 | be16(data + offset + 2);
}
