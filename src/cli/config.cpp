// The executable's directory and the data directory orvel_data/ beside it.
#include "cli/config.h"

#include <cstdio>
#include <cstring>

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
