// The executable's directory, the data directory orvel_data/ beside it, and
// the settings file orvel.conf.
#include "cli/config.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "machine.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

size_t exe_dir(char* buffer) {
    buffer[0] = '\0';
#ifdef _WIN32
    DWORD n = GetModuleFileNameA(nullptr, buffer, DWORD(EXE_DIR_MAX));
    if (n == 0 || n >= EXE_DIR_MAX) {
        buffer[0] = '\0';
        return 0;
    }
#else
    ssize_t n = readlink("/proc/self/exe", buffer, EXE_DIR_MAX - 1);
    if (n <= 0) {
        buffer[0] = '\0';
        return 0;
    }
#endif
    buffer[n] = '\0';
    char* slash = std::strrchr(buffer, '/');
    char* backslash = std::strrchr(buffer, '\\');
    char* cut = slash > backslash ? slash : backslash;
    if (!cut) {
        buffer[0] = '\0';
        return 0;
    }
    *cut = '\0';
    return size_t(cut - buffer);
}

void data_path(char* out, size_t out_size, const char* name) {
    char dir[EXE_DIR_MAX];
    size_t l = exe_dir(dir);
    size_t n = std::strlen(name);
    if (l > 0 && out_size >= l + n + 13) std::snprintf(out, out_size, "%s/orvel_data/%s", dir, name);
    else if (out_size >= n + 13) std::snprintf(out, out_size, "orvel_data/%s", name);
    else if (out_size > 0) out[0] = '\0';
}

namespace {

constexpr size_t CONFIG_PATH_MAX = EXE_DIR_MAX + 64;
constexpr int LINE_PIECE = 256;  // longer lines arrive in pieces, each parsed alone
constexpr long LATENCY_MS_MIN = 1;
constexpr long LATENCY_MS_MAX = 1000;

bool equals_nocase(const char* a, const char* b) {
    for (; *a && *b; a++, b++)
        if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b)))
            return false;
    return *a == *b;
}

float clamp_separation(double v) {
    if (std::isnan(v)) return 1.0f;  // full width, which the engine would make of it anyway
    if (v < 0.0) return 0.0f;
    if (v > 1.0) return 1.0f;
    return float(v);
}

void apply(Machine& m, const char* key, const char* value) {
    if (std::strcmp(key, "separation") == 0) {
        m.separation = clamp_separation(std::strtod(value, nullptr));  // leading number, 0 if none
    } else if (std::strcmp(key, "model") == 0) {
        m.model = equals_nocase(value, "a1200") ? 1 : 0;
    } else if (std::strcmp(key, "led_filter") == 0) {
        m.led_filter = equals_nocase(value, "on") ? 2 : equals_nocase(value, "off") ? 1 : 0;
    } else if (std::strcmp(key, "audio_latency_ms") == 0) {
        long ms = std::strtol(value, nullptr, 10);
        if (ms < LATENCY_MS_MIN) ms = LATENCY_MS_MIN;
        if (ms > LATENCY_MS_MAX) ms = LATENCY_MS_MAX;
        m.audio_latency = uint32_t(ms) * 1000;
    }
}

}  // namespace

void config_load(Machine& m) {
    char dir[EXE_DIR_MAX];
    char path[CONFIG_PATH_MAX];
    if (exe_dir(dir) > 0) std::snprintf(path, sizeof path, "%s/orvel.conf", dir);
    else std::snprintf(path, sizeof path, "orvel.conf");
    FILE* f = std::fopen(path, "rb");
    if (!f) return;

    char line[LINE_PIECE];
    char key[64];
    char value[160];
    while (std::fgets(line, sizeof line, f)) {
        // Key of 1-63 word characters, "=", value of 1-159 characters up to the line end.
        if (std::sscanf(line, " %63[a-zA-Z0-9_] = %159[^\r\n]", key, value) != 2) continue;
        size_t n = std::strlen(value);
        while (n > 0 && (value[n - 1] == ' ' || value[n - 1] == '\t')) value[--n] = '\0';
        apply(m, key, value);
    }
    std::fclose(f);

    m.paula.a1200_filter = m.model == 1 ? 1 : 0;
    paula_recalc(m.paula);
    if (m.led_filter == 1) m.paula.led_on = 0;
    else if (m.led_filter == 2) m.paula.led_on = 1;
}
