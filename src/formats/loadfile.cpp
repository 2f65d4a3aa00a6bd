// Reading a file whole and unpacking it: the first member of an LHA level-0
// archive packed with -lh5-, or an XPK stream. Anything that cannot be
// unpacked is handed on as it is: players recognise their own formats.
#include "formats/loadfile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "formats/lha.h"
#include "formats/xpk.h"
#include "host/deli.h"
#include "machine.h"

namespace {

// Level-0 LHA header: size byte (the data follow 2 bytes after it), header
// checksum, method, packed and unpacked sizes, time stamp, attribute, level.
constexpr uint32_t LHA_MIN_FILE = 22;
constexpr uint32_t LHA_METHOD = 2;
constexpr uint32_t LHA_PACKED = 7;
constexpr uint32_t LHA_UNPACKED = 11;
constexpr uint32_t LHA_LEVEL = 20;

constexpr uint32_t MODULE_WINDOW = MODULE_WINDOW_END - MODULE_ADDR;

uint32_t le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The first member, decoded; null when it is not (a message says why, if any).
uint8_t* lha_unpack(const uint8_t* data, uint32_t len, uint32_t& out_len) {
    if (data[LHA_LEVEL] != 0) {
        std::fprintf(stderr, "lha: unsupported header level %u\n", data[LHA_LEVEL]);
        return nullptr;
    }
    const uint32_t data_off = data[0] + 2u;
    const uint32_t packed = le32(data + LHA_PACKED);
    const uint32_t unpacked = le32(data + LHA_UNPACKED);
    if (data_off > len || packed > len - data_off) {
        std::fprintf(stderr, "lha: truncated archive (data_off=%u packed=%u len=%u)\n", data_off,
                     packed, len);
        return nullptr;
    }
    if (unpacked > LOAD_UNPACKED_MAX) return nullptr;
    uint8_t* out = static_cast<uint8_t*>(std::malloc(unpacked ? unpacked : 1));
    LhaState* state = static_cast<LhaState*>(std::calloc(1, sizeof(LhaState)));
    if (!out || !state) {
        std::free(out);
        std::free(state);
        return nullptr;
    }
    int error = lha_decode(*state, data + data_off, packed, out, unpacked);
    std::free(state);
    if (error) {
        std::fprintf(stderr, "lha: decode error\n");
        std::free(out);
        return nullptr;
    }
    out_len = unpacked;
    return out;
}

}  // namespace

uint8_t* load_file(const char* path, uint32_t& out_len) {
    FILE* f = std::fopen(path, "rb");
    if (!f) {
        std::fprintf(stderr, "load_file: cannot open %s\n", path);
        return nullptr;
    }
    long size = std::fseek(f, 0, SEEK_END) == 0 ? std::ftell(f) : -1;
    if (size == 0 || uint64_t(size) > UINT32_MAX) {
        std::fprintf(stderr, size == 0 ? "load_file: %s is empty\n" : "load_file: cannot read %s\n",
                     path);
        std::fclose(f);
        return nullptr;
    }
    uint8_t* data = static_cast<uint8_t*>(std::malloc(size_t(size)));
    bool ok = data && std::fseek(f, 0, SEEK_SET) == 0 &&
              std::fread(data, 1, size_t(size), f) == size_t(size);
    std::fclose(f);
    if (!ok) {
        std::fprintf(stderr, "load_file: cannot read %s\n", path);
        std::free(data);
        return nullptr;
    }
    return load_unpack(data, uint32_t(size), out_len);
}

uint8_t* load_unpack(uint8_t* data, uint32_t len, uint32_t& out_len) {
    out_len = len;
    if (len < LHA_MIN_FILE) return data;
    uint32_t unpacked_len = 0;
    uint8_t* unpacked = nullptr;
    if (std::memcmp(data + LHA_METHOD, "-lh5-", 5) == 0) {
        // An LHA member is never looked into again for XPK.
        unpacked = lha_unpack(data, len, unpacked_len);
    }
    if (!unpacked) unpacked = xpk_unpack(data, len, unpacked_len);
    if (!unpacked) return data;
    std::free(data);
    out_len = unpacked_len;
    return unpacked;
}

uint32_t mod_install(Machine& m, const uint8_t* data, uint32_t len) {
    if (len > MODULE_WINDOW) {
        std::fprintf(stderr, "mod_install: %u bytes exceeds chip-RAM window (%u)\n", len,
                     MODULE_WINDOW);
        return 0;
    }
    if (len > 0) std::memcpy(m.chip_ram + MODULE_ADDR, data, len);
    m.module_addr = MODULE_ADDR;
    m.module_len = len;
    return len;
}
