// Sorting 31-instrument tracker modules by the tracker that wrote them.
#pragma once

#include <cstdint>

// Module layout shared by Soundtracker (15 instruments, patterns at 600) and
// its 31-instrument successors (tag at 1080, patterns at 1084).
constexpr uint32_t MOD_SAMPLE_HEADERS = 20;
constexpr uint32_t MOD_SAMPLE_HEADER_SIZE = 30;
constexpr uint32_t MOD_PATTERN_SIZE = 1024;  // 64 rows of 4 channels of 4-byte notes
constexpr uint32_t MOD31_SONG_LENGTH = 950;
constexpr uint32_t MOD31_RESTART = 951;
constexpr uint32_t MOD31_ORDERS = 952;
constexpr uint32_t MOD31_TAG = 1080;
constexpr uint32_t MOD31_PATTERNS = 1084;
constexpr uint32_t MOD_ORDER_ENTRIES = 128;

// Sample header s (1-based): 22-byte name, then big-endian words.
struct ModSample {
    const uint8_t* name;
    uint32_t length;         // in words
    uint32_t finetune, volume;
    uint32_t repeat_start;   // in words (bytes in 15-instrument files)
    uint32_t repeat_length;  // in words
};
ModSample mod_sample(const uint8_t* module, int s);

// How often the patterns use each effect.
struct ModEffects {
    uint32_t count[16];      // per effect; 0 counts arpeggios (non-zero parameter) only
    uint32_t extended[16];   // E0..EF
    uint32_t speed, tempo;   // F below 32 / from 32 on
    uint8_t max_param[16];   // largest parameter seen per counted effect
};

// Scan patterns 0..count-1 from offset first, stopping before the first one
// that does not lie wholly inside the module.
void mod_scan_patterns(const uint8_t* module, uint32_t len, uint32_t first, uint32_t count,
                       ModEffects& fx);
// Highest pattern number in a 128-entry order table.
uint32_t mod_highest_pattern(const uint8_t* orders);

int mod_tag_is_31(const uint8_t* module);
int mod31_classify(const uint8_t* module, uint32_t len);
// Player option string of a class of mod31_classify.
const char* mod_class_option(int cls);
