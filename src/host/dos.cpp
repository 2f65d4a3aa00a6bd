// dos.library over the host file system, read-only: Open/Close/Read/Seek/
// Lock on eight file slots, LoadSeg, and DeliTracker's companion-file
// loading. Amiga names are mapped to host paths: ENV: and ENVARC: go to the
// data directory, and a name that does not open is looked up again with its
// last component compared without regard to case (Amiga file systems are
// case-insensitive, most host ones are not).
#include "host/dos.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "cli/config.h"
#include "cpu/bus.h"
#include "host/deli.h"
#include "host/hunk.h"
#include "machine.h"

namespace {

constexpr uint32_t SHORT_NAME_MAX = 511;  // Open, Lock, LoadSeg
constexpr uint32_t LONG_NAME_MAX = 1023;  // companion files
constexpr size_t HOST_PATH_MAX = 1024;
constexpr uint32_t DELI_PATH_PTR = DELI_BASE + 0x20;
constexpr uint32_t DOS_FAIL = 0xFFFFFFFF;

void read_name(Machine& m, uint32_t address, char* out, uint32_t max) {
    uint32_t n = 0;
    while (n < max && (out[n] = char(read8(m, address + n))) != 0) n++;
    out[n] = '\0';
}

char lower(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

bool equal_nocase(const std::string& a, const char* b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; i++)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

// The first entry of the directory whose name equals `file` with ASCII
// letters folded. The file system's own spelling of a name may not convert
// to a narrow string (on Windows it is UTF-16, where the conversion can
// throw); the search then ends without a match rather than the program.
bool find_nocase(const std::string& dir, const std::string& file, std::string& entry) {
    try {
        std::error_code ec;
        for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
            entry = it->path().filename().string();
            if (equal_nocase(entry, file.c_str())) return true;
        }
    } catch (const std::exception&) {
        return false;
    }
    return false;
}

// A directory is no file to a player; POSIX fopen would take one anyway
// (and Windows would not).
FILE* open_file(const char* path) {
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return nullptr;
    return std::fopen(path, "rb");
}

FILE* open_resolved(const char* amiga_name) {
    char path[HOST_PATH_MAX];
    host_resolve_path(amiga_name, path);
    return open_file(path);
}

// The open file behind a player's handle 1..8, or null.
FILE** slot(Machine& m, uint32_t handle) {
    return (handle >= 1 && handle <= 8 && m.dos_files[handle - 1]) ? &m.dos_files[handle - 1] : nullptr;
}

void dos_open(Machine& m) {
    char name[SHORT_NAME_MAX + 1];
    read_name(m, m.d[1], name, SHORT_NAME_MAX);
    int free_slot = -1;
    for (int k = 0; k < 8 && free_slot < 0; k++)
        if (!m.dos_files[k]) free_slot = k;
    if (free_slot < 0) {
        m.d[0] = 0;
        return;
    }
    FILE* f = open_resolved(name);
    m.dos_files[free_slot] = f;
    m.d[0] = f ? uint32_t(free_slot + 1) : 0;
}

void dos_read(Machine& m, FILE* f) {
    uint32_t want = m.d[3], got = 0;
    while (got < want) {
        int c = std::fgetc(f);
        if (c == EOF) break;
        write8(m, m.d[2] + got, uint8_t(c));
        got++;
    }
    m.host_cost += got;
    m.d[0] = got;
}

void dos_seek(Machine& m, FILE* f) {
    long before = std::ftell(f);
    int32_t mode = int32_t(m.d[3]);
    int whence = mode < 0 ? SEEK_SET : mode == 0 ? SEEK_CUR : SEEK_END;
    std::fseek(f, long(int32_t(m.d[2])), whence);
    m.d[0] = uint32_t(before);
}

// Whole host file into a malloc'ed buffer; null for an empty or unreadable one.
uint8_t* read_whole(FILE* f, uint32_t& len) {
    len = 0;
    if (std::fseek(f, 0, SEEK_END) != 0) return nullptr;
    long size = std::ftell(f);
    if (size <= 0 || size > 0x7FFFFFFF) return nullptr;
    std::rewind(f);
    uint8_t* data = static_cast<uint8_t*>(std::malloc(size_t(size)));
    if (!data) return nullptr;
    if (std::fread(data, 1, size_t(size), f) != size_t(size)) {
        std::free(data);
        return nullptr;
    }
    len = uint32_t(size);
    return data;
}

}  // namespace

const char* host_match_prefix(const char* s, const char* prefix) {
    for (; *prefix; s++, prefix++)
        if (lower(*s) != lower(*prefix)) return nullptr;
    return s;
}

void host_resolve_path(const char* amiga_path, char* out) {
    const char* rest = host_match_prefix(amiga_path, "ENV:");
    if (!rest) rest = host_match_prefix(amiga_path, "ENVARC:");
    if (rest) {
        std::string name = std::string("players/ENV/") + rest;
        data_path(out, HOST_PATH_MAX, name.c_str());
    } else {
        std::snprintf(out, HOST_PATH_MAX, "%s", amiga_path);
    }
    if (FILE* f = open_file(out)) {
        std::fclose(f);
        return;
    }

    std::string full = out;
    size_t slash = full.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : full.substr(0, slash);
    std::string file = slash == std::string::npos ? full : full.substr(slash + 1);
    std::string entry;
    if (!find_nocase(dir, file, entry)) return;
    if (slash == std::string::npos) std::snprintf(out, HOST_PATH_MAX, "%s", entry.c_str());
    else std::snprintf(out, HOST_PATH_MAX, "%.*s/%s", int(slash), full.c_str(), entry.c_str());
}

void dos_dispatch(Machine& m, int op) {
    switch (op) {
    case 0: dos_open(m); return;  // Open (-30)
    case 1:  // Close (-36): -1 whether or not there was a file
        if (FILE** f = slot(m, m.d[1])) {
            std::fclose(*f);
            *f = nullptr;
        }
        m.d[0] = DOS_FAIL;
        return;
    case 2:  // Read (-42)
        if (FILE** f = slot(m, m.d[1])) {
            if (m.d[3] == 0) m.d[0] = 0;
            else dos_read(m, *f);
        } else {
            m.d[0] = DOS_FAIL;
        }
        return;
    case 3:  // Seek (-66)
        if (FILE** f = slot(m, m.d[1])) dos_seek(m, *f);
        else m.d[0] = DOS_FAIL;
        return;
    case 4: {  // Lock (-84): no lock object, only whether the file opens
        char name[SHORT_NAME_MAX + 1];
        read_name(m, m.d[1], name, SHORT_NAME_MAX);
        FILE* f = open_resolved(name);
        if (f) std::fclose(f);
        m.d[0] = f ? 1 : 0;
        return;
    }
    default: m.d[0] = 0;
    }
}

void dos_load_seg(Machine& m) {
    char name[SHORT_NAME_MAX + 1];
    read_name(m, m.d[1], name, SHORT_NAME_MAX);
    m.d[0] = 0;
    FILE* f = open_file(name);
    if (!f) return;
    uint32_t len = 0;
    uint8_t* data = read_whole(f, len);
    std::fclose(f);
    if (!data) return;
    m.d[0] = hunk_load_seglist(m, data, len);
    std::free(data);
}

void deli_load_companion(Machine& m) {
    char name[LONG_NAME_MAX + 1];
    read_name(m, read32(m, DELI_PATH_PTR), name, LONG_NAME_MAX);
    m.d[0] = 1;
    if (m.file_list_count > 15) {
        std::fprintf(stderr, "deli_load_companion: list full (%u entries)\n", m.file_list_count);
        return;
    }
    FILE* f = open_resolved(name);
    if (!f) {
        std::fprintf(stderr, "deli_load_companion: cannot open '%s'\n", name);
        return;
    }
    long length = 0;
    if (std::fseek(f, 0, SEEK_END) == 0) length = std::ftell(f);
    std::rewind(f);
    uint32_t address = (m.file_list_top + 1) & ~1u;
    if (length <= 0) {
        std::fclose(f);
        return;
    }
    if (uint64_t(address) + uint64_t(length) > MODULE_WINDOW_END) {
        std::fprintf(stderr, "deli_load_companion: '%s' (%ld bytes) overflows chip RAM\n", name, length);
        std::fclose(f);
        return;
    }
    size_t got = std::fread(m.chip_ram + address, 1, size_t(length), f);
    std::fclose(f);
    if (got != size_t(length)) return;
    uint32_t k = m.file_list_count++;
    m.file_list_addr[k] = address;
    m.file_list_len[k] = uint32_t(length);
    m.file_list_top = address + uint32_t(length);
    m.d[0] = 0;
}

void dos_close_all(Machine& m) {
    for (FILE*& f : m.dos_files)
        if (f) {
            std::fclose(f);
            f = nullptr;
        }
}
