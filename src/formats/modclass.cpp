// The 31-instrument MOD family. The tag names most trackers outright; "M.K."
// was written by ProTracker, NoiseTracker and many others, and is told apart
// by what each tracker leaves behind: finetunes, loop conventions of empty
// samples, the restart byte and the effects in use.
#include "formats/modclass.h"

#include <algorithm>
#include <cstring>

namespace {

enum ModClass {
    PROTRACKER = 0,
    SOUNDTRACKER_24 = 1,  // repeat start in bytes: loops reach past the sample
    STARTREKKER = 2,
    AUDIO_SCULPTURE = 3,  // Startrekker's tag, but empty samples keep a volume
    HMN = 4,
    NOISETRACKER_2 = 5,
    NOISETRACKER_1 = 6,
    MULTICHANNEL = 7,
};

constexpr const char* CLASS_OPTIONS[8] = {
    "type:pt30", "type:st24", "type:flt4", "type:pt30",
    "type:m&k.", "type:nt20", "type:nt10", "type:comp",
};

constexpr uint32_t MAX_VOLUME = 64;
constexpr uint32_t MAX_FINETUNE = 15;
constexpr uint32_t MAX_M_K_PATTERN = 100;  // more than any 4-channel tracker of the M.K. era kept
constexpr uint8_t RESTART_PROTRACKER = 127;
constexpr uint8_t RESTART_FASTTRACKER = 0x78;
constexpr int EFFECT_EXTENDED = 14;
constexpr int EFFECT_SPEED = 15;
constexpr uint32_t FIRST_TEMPO = 32;  // F parameters from here on are BPM

constexpr const char* TAGS_31[] = {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "FLT8", "FA04",
                                   "FA08", "EXO4", "EXO8", "CD81", "OCTA", "OKTA"};
constexpr const char* TAGS_PROTRACKER[] = {"FLT8", "EXO8", "M!K!", "FA04",
                                           "FA08", "CD81", "OCTA", "OKTA"};

uint32_t be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }

template <size_t N>
bool tag_in(const uint8_t* tag, const char* const (&tags)[N]) {
    return std::any_of(tags, tags + N, [tag](const char* t) { return std::memcmp(tag, t, 4) == 0; });
}

// "6CHN", "8CHN", "16CH", "32CH": FastTracker and friends.
bool tag_is_channels(const uint8_t* tag) {
    return std::memcmp(tag + 1, "CHN", 3) == 0 || std::memcmp(tag + 2, "CH", 2) == 0;
}

// Startrekker leaves empty samples silent; AudioSculpture keeps their volume.
int classify_flt4(const uint8_t* module) {
    for (int s = 1; s <= 30; s++) {  // the 31st is left out on purpose
        ModSample smp = mod_sample(module, s);
        if (smp.length == 0 && smp.volume != 0) return AUDIO_SCULPTURE;
    }
    return STARTREKKER;
}

int classify_m_k(const uint8_t* module, uint32_t len) {
    uint32_t finetuned = 0;
    uint32_t loop_one = 0;     // used samples with the one-word "no loop" of later trackers
    uint32_t loop_zero = 0;    // used samples with the zero "no loop" of earlier ones
    uint32_t empty_loop = 0;   // empty samples with a repeat length
    uint32_t empty_plain = 0;  // empty samples with none
    for (int s = 1; s <= 31; s++) {
        ModSample smp = mod_sample(module, s);
        if (smp.volume > MAX_VOLUME || smp.finetune > MAX_FINETUNE) return PROTRACKER;
        if (smp.length != 0 && smp.repeat_start + smp.repeat_length > smp.length)
            return SOUNDTRACKER_24;
        if (smp.finetune != 0) finetuned++;
        if (smp.repeat_start != 0) continue;
        if (smp.length != 0) {
            if (smp.repeat_length == 1) loop_one++;
            if (smp.repeat_length == 0) loop_zero++;
        } else {
            if (smp.repeat_length != 0) empty_loop++;
            else empty_plain++;
        }
    }

    uint32_t highest = mod_highest_pattern(module + MOD31_ORDERS);
    if (highest > MAX_M_K_PATTERN) return PROTRACKER;
    ModEffects fx;
    mod_scan_patterns(module, len, MOD31_PATTERNS, highest, fx);

    const uint8_t restart = module[MOD31_RESTART];
    const uint8_t song_length = module[MOD31_SONG_LENGTH];
    uint32_t extended_used = 0;
    for (int e = 1; e < 16; e++) extended_used += fx.extended[e];
    // Finetune and E commands came with ProTracker; restart 127 is its
    // mark, anything else one of the trackers that copied the format.
    if (finetuned != 0 || extended_used != 0)
        return restart == RESTART_PROTRACKER || restart == RESTART_FASTTRACKER ? PROTRACKER
                                                                               : MULTICHANNEL;

    const bool later_loops = loop_one >= loop_zero;
    const bool loops_5679 = fx.count[5] || fx.count[6] || fx.count[7] || fx.count[9];
    bool check_nt1 = true;
    if (restart == RESTART_PROTRACKER && later_loops) {
        if (empty_loop >= empty_plain) return PROTRACKER;
    } else if (restart > RESTART_PROTRACKER) {
        return MULTICHANNEL;
    } else if (restart == 0 && !later_loops && empty_loop < empty_plain) {
        if (fx.extended[0] == 0 || loops_5679) return MULTICHANNEL;
        check_nt1 = false;
    }
    if (check_nt1) {
        if (loops_5679) return MULTICHANNEL;
        if (restart != 0 && song_length >= restart && empty_plain == 1 && later_loops &&
            empty_loop != 0)
            return NOISETRACKER_1;
    }
    if (empty_loop >= empty_plain && later_loops) return NOISETRACKER_2;
    if (fx.tempo != 0) return MULTICHANNEL;
    return later_loops ? NOISETRACKER_1 : MULTICHANNEL;
}

}  // namespace

ModSample mod_sample(const uint8_t* module, int s) {
    const uint8_t* h = module + MOD_SAMPLE_HEADERS + MOD_SAMPLE_HEADER_SIZE * uint32_t(s - 1);
    return {h, be16(h + 22), h[24], h[25], be16(h + 26), be16(h + 28)};
}

uint32_t mod_highest_pattern(const uint8_t* orders) {
    return *std::max_element(orders, orders + MOD_ORDER_ENTRIES);
}

void mod_scan_patterns(const uint8_t* module, uint32_t len, uint32_t first, uint32_t count,
                       ModEffects& fx) {
    fx = {};
    for (uint32_t p = 0; p < count; p++) {
        uint64_t start = first + uint64_t(p) * MOD_PATTERN_SIZE;
        if (start + MOD_PATTERN_SIZE > len) break;
        const uint8_t* note = module + start;
        for (const uint8_t* end = note + MOD_PATTERN_SIZE; note < end; note += 4) {
            int e = note[2] & 15;
            uint8_t v = note[3];
            if (e == 0 && v == 0) continue;
            if (e == EFFECT_EXTENDED) fx.extended[v >> 4]++;
            if (e == EFFECT_SPEED) (v < FIRST_TEMPO ? fx.speed : fx.tempo)++;
            fx.count[e]++;
            fx.max_param[e] = std::max(fx.max_param[e], v);
        }
    }
}

int mod_tag_is_31(const uint8_t* module) {
    const uint8_t* tag = module + MOD31_TAG;
    return tag_in(tag, TAGS_31) || tag_is_channels(tag);
}

int mod31_classify(const uint8_t* module, uint32_t len) {
    const uint8_t* tag = module + MOD31_TAG;
    if (std::memcmp(tag, "M&K!", 4) == 0) return HMN;
    if (std::memcmp(tag, "N.T.", 4) == 0) return NOISETRACKER_2;
    if (tag_is_channels(tag)) return MULTICHANNEL;
    if (std::memcmp(tag, "FLT4", 4) == 0 || std::memcmp(tag, "EXO4", 4) == 0)
        return classify_flt4(module);
    if (tag_in(tag, TAGS_PROTRACKER)) return PROTRACKER;
    return classify_m_k(module, len);
}

const char* mod_class_option(int cls) {
    return cls >= 0 && cls < 8 ? CLASS_OPTIONS[cls] : CLASS_OPTIONS[PROTRACKER];
}
