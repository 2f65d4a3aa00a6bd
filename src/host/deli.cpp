// The AmigaOS a DeliTracker/EaglePlayer player sees: library bases with
// jump tables below them, the DeliTracker global base with its function
// pointers, the module path buffers, and the player's tag list.
//
// Every function served by the host is two words of 68000 code, an A-line
// opcode and RTS: the opcode traps into the host-call dispatcher, and the RTS
// returns to the player. The second nibble of the opcode names the table,
// the low byte the function.
#include "host/deli.h"

#include <cstdio>
#include <cstring>

#include "chipset/custom.h"
#include "cpu/bus.h"
#include "host/hunk.h"
#include "host/runner.h"
#include "machine.h"

namespace {

constexpr uint16_t OP_MOVEQ_0_D0 = 0x7000;
constexpr uint16_t OP_RTS = 0x4E75;
// A library vector is a six-byte JMP slot; function n sits at base - 6n.
constexpr uint32_t LVO_STEP = 6;

// A-line tables (second nibble of the opcode).
constexpr uint16_t ALINE_EXEC = 0xA000;
constexpr uint16_t ALINE_DOS = 0xA100;
constexpr uint16_t ALINE_DELI_FPTR = 0xA400;
constexpr uint16_t ALINE_DELI_NEG = 0xA500;
constexpr uint16_t ALINE_CIAA = 0xA600;
constexpr uint16_t ALINE_CIAB = 0xA700;
constexpr uint16_t ALINE_LIB5 = 0xA800;

// Jump-table sizes: room for every LVO players were seen to use.
struct LibTable {
    uint32_t base;
    int slots;
};
constexpr LibTable LIB_TABLES[] = {
    {EXEC_BASE, 200}, {DOS_BASE, 80},      {LIB3_BASE, 120},    {LIB4_BASE, 120},
    {LIB5_BASE, 40},  {CIAA_RES_BASE, 4}, {CIAB_RES_BASE, 4},
};

struct LibEntry {
    uint32_t base;
    uint32_t lvo;  // positive: the slot is at base - lvo
    uint16_t opcode;
};
constexpr LibEntry LIB_ENTRIES[] = {
    {EXEC_BASE, 198, ALINE_EXEC | 0},      // AllocMem
    {EXEC_BASE, 210, ALINE_EXEC | 1},      // FreeMem
    {EXEC_BASE, 552, ALINE_EXEC | 2},      // OpenLibrary
    {EXEC_BASE, 408, ALINE_EXEC | 2},      // OldOpenLibrary
    {EXEC_BASE, 414, ALINE_EXEC | 3},      // CloseLibrary
    {EXEC_BASE, 534, ALINE_EXEC | 4},      // TypeOfMem
    {EXEC_BASE, 498, ALINE_EXEC | 5},      // OpenResource
    {EXEC_BASE, 168, ALINE_EXEC | 6},      // AddIntServer
    {EXEC_BASE, 162, ALINE_EXEC | 7},      // SetIntVector
    {EXEC_BASE, 180, ALINE_EXEC | 8},      // Cause
    {DOS_BASE, 30, ALINE_DOS | 0},         // Open
    {DOS_BASE, 36, ALINE_DOS | 1},         // Close
    {DOS_BASE, 42, ALINE_DOS | 2},         // Read
    {DOS_BASE, 66, ALINE_DOS | 3},         // Seek
    {DOS_BASE, 84, ALINE_DOS | 4},         // Lock
    {DOS_BASE, 90, ALINE_DOS | 5},         // UnLock
    {DOS_BASE, 150, ALINE_DOS | 6},        // LoadSeg
    {DOS_BASE, 156, ALINE_DOS | 7},        // UnLoadSeg
    {LIB5_BASE, 24, ALINE_LIB5 | 0},       // option hand-over
    {CIAA_RES_BASE, 6, ALINE_CIAA | 1},    // AddICRVector
    {CIAA_RES_BASE, 12, ALINE_CIAA | 2},   // RemICRVector
    {CIAA_RES_BASE, 18, ALINE_CIAA | 3},   // AbleICR
    {CIAA_RES_BASE, 24, ALINE_CIAA | 4},   // SetICR
    {CIAB_RES_BASE, 6, ALINE_CIAB | 1},
    {CIAB_RES_BASE, 12, ALINE_CIAB | 2},
    {CIAB_RES_BASE, 18, ALINE_CIAB | 3},
    {CIAB_RES_BASE, 24, ALINE_CIAB | 4},
};

// exec's VBlankFrequency and PowerSupplyFrequency: a PAL machine.
constexpr uint32_t EXEC_VBLANK_FREQ = EXEC_BASE + 0x212;
constexpr uint32_t EXEC_POWER_FREQ = EXEC_BASE + 0x213;
constexpr uint8_t PAL_HZ = 50;
constexpr uint32_t EXEC_BASE_POINTER = 4;  // AbsExecBase

// DeliTracker global base: fields the host fills in.
constexpr uint32_t DB_DOS_BASE = 0x04;
constexpr uint32_t DB_LIB3_BASE = 0x08;
constexpr uint32_t DB_LIB4_BASE = 0x0C;
constexpr uint32_t DB_DIR_ARRAY = 0x18;
constexpr uint32_t DB_FILE_ARRAY = 0x1C;
constexpr uint32_t DB_PATH_ARRAY = 0x20;
constexpr uint32_t DB_MODULE = 0x24;
constexpr uint32_t DB_MODULE_LEN = 0x28;
constexpr uint32_t DB_VOLUME = 0x2E;
constexpr uint32_t DB_LEFT_BALANCE = 0x30;
constexpr uint32_t DB_RIGHT_BALANCE = 0x32;
constexpr uint32_t DB_TIMER = 0x36;
constexpr uint32_t DB_FUNCTIONS = 0x38;
constexpr uint32_t DB_VOICES = 0x146;
constexpr uint32_t DB_VOICE_VOLUMES = 0x148;
constexpr uint32_t DB_CLEARED_BYTES = 0x8C;  // the data fields and pointer table
constexpr uint16_t FULL_VOLUME = 64;
constexpr uint16_t ALL_VOICES = 0x000F;
// CIA ticks per player interrupt: 709379 Hz / 14188 = 50 Hz.
constexpr uint16_t DEFAULT_TIMER = 14188;

constexpr int DELI_FUNCTIONS = 33;
constexpr int DELI_NEG_SLOTS = 500;
constexpr uint32_t STUB_SIZE = 4;

constexpr uint32_t PATH_MAX_CHARS = 1023;
// The directory and file-name buffers are 512 bytes apart; longer parts are
// cut so that neither runs into its neighbour.
constexpr uint32_t PART_MAX_CHARS = FILE_BUFFER - DIR_BUFFER - 1;

// DMACON: SET | DMAEN.
constexpr uint32_t DMACON = 0xDFF096;
constexpr uint16_t DMA_SET_MASTER = 0x8200;

// Tag-list entry of the player header, after moveq #-1,d0 / rts and the
// eight signature bytes.
constexpr uint32_t PLAYER_TAGS_PTR = 12;
constexpr int MAX_TAG_PAIRS = 256;

// DeliTracker tags are TAG_USER + 0x4455 + n, EaglePlayer tags 0x80004550 + n.
constexpr uint32_t DTP_TAGBASE = 0x80000000 + 0x4455;
constexpr uint32_t EP_TAGBASE = 0x80004550;
constexpr uint32_t DTP_RequestDTVersion = DTP_TAGBASE + 0x01;
constexpr uint32_t DTP_PlayerVersion = DTP_TAGBASE + 0x03;
// Asks for the base address to be stored in the player's variable.
constexpr uint32_t DTP_StoreBase = DTP_TAGBASE + 0x1E;
constexpr uint32_t EP_EagleBase = EP_TAGBASE + 0x2A;

struct TagField {
    uint32_t tag;
    uint32_t DeliPlayer::*field;
};
constexpr TagField TAG_FIELDS[] = {
    {DTP_TAGBASE + 0x04, &DeliPlayer::player_name},    // PlayerName
    {DTP_TAGBASE + 0x05, &DeliPlayer::creator},        // Creator
    {DTP_TAGBASE + 0x06, &DeliPlayer::check1},         // Check1
    {DTP_TAGBASE + 0x07, &DeliPlayer::check2},         // Check2
    {DTP_TAGBASE + 0x08, &DeliPlayer::ext_load},       // ExtLoad
    {DTP_TAGBASE + 0x09, &DeliPlayer::interrupt},      // Interrupt
    {DTP_TAGBASE + 0x0B, &DeliPlayer::config},         // Config
    {DTP_TAGBASE + 0x0D, &DeliPlayer::subsong_range},  // SubSongRange
    {DTP_TAGBASE + 0x0E, &DeliPlayer::init_player},    // InitPlayer
    {DTP_TAGBASE + 0x0F, &DeliPlayer::end_player},     // EndPlayer
    {DTP_TAGBASE + 0x10, &DeliPlayer::init_sound},     // InitSound
    {DTP_TAGBASE + 0x11, &DeliPlayer::end_sound},      // EndSound
    {DTP_TAGBASE + 0x12, &DeliPlayer::start_int},      // StartInt
    {DTP_TAGBASE + 0x13, &DeliPlayer::stop_int},       // StopInt
    {DTP_TAGBASE + 0x14, &DeliPlayer::volume},         // Volume
    {DTP_TAGBASE + 0x15, &DeliPlayer::balance},        // Balance
    {EP_TAGBASE + 0x02, &DeliPlayer::ep_voices},       // EP_Voices
    {EP_TAGBASE + 0x0E, &DeliPlayer::ep_flags},        // EP_Flags
    {EP_TAGBASE + 0x23, &DeliPlayer::ep_init_amplifier},  // EP_InitAmplifier
};

// Names of the negative table, slot k at base - 6k, k = 1..65. Slots 11 to
// 43 are also reached through the function pointers, in the same order.
constexpr const char* NEG_NAMES[] = {
    "AllocSampleStruct", "NewLoadFile2", "MakeDirCorrect", "TestAufHide",
    "ClearCache", "CopyMemQuick", "GetPassword", "StringCopy2",
    "ScreenToFront", "WindowToFront", "GetListData", "LoadFile",
    "CopyDir", "CopyFile", "CopyString", "AllocAudio",
    "FreeAudio", "StartInterrupt", "StopInterrupt", "SongEnd",
    "CutSuffix", "SetTimer", "WaitAudioDMA", "SaveMem",
    "FileReq", "TextRequest", "LoadExecutable", "NewLoadFile",
    "ScrollText", "LoadPlConfig", "SavePlConfig", "FindTag",
    "FindAuthor", "Hexdez", "TypeText", "ModuleChange",
    "ModuleRestore", "StringCopy", "CalcStringSize", "StringCMP",
    "DMAMask", "PokeAdr", "PokeLen", "PokePer",
    "PokeVol", "PokeCommand", "Amplifier", "TestAbortGadget",
    "GetEPNrfromMessage", "InitDisplay", "FillDisplay", "RemoveDisplay",
    "GetLocaleString", "SetWaitPointer", "ClearWaitPointer", "OpenCatalog",
    "CloseCatalog", "AllocAmigaAudio", "FreeAmigaAudio", "RawToFormat",
    "FindAmplifier", "UserCallup5", "GetLoadListData", "SetListData",
    "GetHardwareType",
};
constexpr int NEG_NAMED = int(sizeof NEG_NAMES / sizeof NEG_NAMES[0]);
static_assert(NEG_NAMED == 65);

void write_entry(Machine& m, uint32_t slot, uint16_t opcode) {
    write16(m, slot, opcode);
    write16(m, slot + 2, OP_RTS);
}

// Copies up to max_chars bytes of s to address and terminates them.
void put_string(Machine& m, uint32_t address, const char* s, size_t len, size_t max_chars) {
    if (len > max_chars) len = max_chars;
    for (size_t k = 0; k < len; k++) write8(m, address + uint32_t(k), uint8_t(s[k]));
    write8(m, address + uint32_t(len), 0);
}

}  // namespace

void lib_install_fallback(Machine& m, uint32_t base, int count) {
    for (int n = 1; n <= count; n++) write_entry(m, base - LVO_STEP * uint32_t(n), OP_MOVEQ_0_D0);
}

void libs_init(Machine& m) {
    for (const LibTable& t : LIB_TABLES) lib_install_fallback(m, t.base, t.slots);
    for (const LibEntry& e : LIB_ENTRIES) write_entry(m, e.base - e.lvo, e.opcode);
    write32(m, EXEC_BASE_POINTER, EXEC_BASE);
    write8(m, EXEC_VBLANK_FREQ, PAL_HZ);
    write8(m, EXEC_POWER_FREQ, PAL_HZ);
    std::memset(m.int_vectors, 0, sizeof m.int_vectors);
    std::memset(m.ciares_enable, 0, sizeof m.ciares_enable);
    std::memset(m.ciares_pending, 0, sizeof m.ciares_pending);
    std::memset(m.ciares_handler, 0, sizeof m.ciares_handler);
    m.alloc_slab = SLAB_START;
}

void deli_install_fptr_stub(Machine& m, uint32_t offset, int index) {
    uint32_t stub = DELI_STUBS + STUB_SIZE * uint32_t(index);
    write_entry(m, stub, uint16_t(ALINE_DELI_FPTR | index));
    write32(m, DELI_BASE + offset, stub);
}

void deli_init(Machine& m) {
    for (uint32_t k = 0; k < DB_CLEARED_BYTES; k++) write8(m, DELI_BASE + k, 0);
    std::memset(m.deli_neg_calls, 0, sizeof m.deli_neg_calls);
    for (int k = 1; k <= DELI_NEG_SLOTS; k++)
        write_entry(m, DELI_BASE - LVO_STEP * uint32_t(k), ALINE_DELI_NEG);

    write32(m, DELI_BASE + DB_DOS_BASE, DOS_BASE);
    write32(m, DELI_BASE + DB_LIB3_BASE, LIB3_BASE);
    write32(m, DELI_BASE + DB_LIB4_BASE, LIB4_BASE);
    write16(m, DELI_BASE + DB_VOLUME, FULL_VOLUME);
    write16(m, DELI_BASE + DB_LEFT_BALANCE, FULL_VOLUME);
    write16(m, DELI_BASE + DB_RIGHT_BALANCE, FULL_VOLUME);
    write16(m, DELI_BASE + DB_TIMER, DEFAULT_TIMER);
    for (int i = 0; i < DELI_FUNCTIONS; i++)
        deli_install_fptr_stub(m, DB_FUNCTIONS + STUB_SIZE * uint32_t(i), i);
    write16(m, DELI_BASE + DB_VOICES, ALL_VOICES);
    for (uint32_t v = 0; v < 4; v++) write16(m, DELI_BASE + DB_VOICE_VOLUMES + 2 * v, FULL_VOLUME);

    m.player = DeliPlayer{};
    m.module_addr = m.module_len = 0;
    std::memset(m.file_list_addr, 0, sizeof m.file_list_addr);
    std::memset(m.file_list_len, 0, sizeof m.file_list_len);
    m.file_list_count = 0;
    m.file_list_top = MODULE_ADDR;
    m.alloc_slab = SLAB_START;
    custom_write_word(m, DMACON, DMA_SET_MASTER);
}

void deli_set_module_path(Machine& m, const char* path) {
    size_t len = std::strlen(path);
    if (len > PATH_MAX_CHARS) len = PATH_MAX_CHARS;
    const char* slash = nullptr;
    for (size_t k = 0; k < len; k++)
        if (path[k] == '/') slash = path + k;
    size_t dir_len = slash ? size_t(slash - path) + 1 : 0;
    put_string(m, PATH_BUFFER, path, len, PATH_MAX_CHARS);
    put_string(m, DIR_BUFFER, path, dir_len, PART_MAX_CHARS);
    put_string(m, FILE_BUFFER, path + dir_len, len - dir_len, PART_MAX_CHARS);
    write32(m, DELI_BASE + DB_DIR_ARRAY, DIR_BUFFER);
    write32(m, DELI_BASE + DB_FILE_ARRAY, FILE_BUFFER);
    write32(m, DELI_BASE + DB_PATH_ARRAY, PATH_BUFFER);
}

void deli_set_module(Machine& m, uint32_t address, uint32_t size) {
    write32(m, DELI_BASE + DB_MODULE, address);
    write32(m, DELI_BASE + DB_MODULE_LEN, size);
    m.module_addr = address;
    m.module_len = size;
    m.file_list_addr[0] = address;
    m.file_list_len[0] = size;
    m.file_list_count = 1;
    m.file_list_top = (address + size + 1) & ~1u;
}

int deli_scan_tags(Machine& m, uint32_t entry) {
    uint32_t tags = read32(m, entry + PLAYER_TAGS_PTR);
    if (tags == 0) {
        std::fprintf(stderr, "deli_scan_tags: empty tag list at entry %08x\n", entry);
        return 1;
    }
    DeliPlayer& p = m.player;
    for (int n = 0; n < MAX_TAG_PAIRS; n++) {
        uint32_t tag = read32(m, tags + 8 * uint32_t(n));
        uint32_t data = read32(m, tags + 8 * uint32_t(n) + 4);
        if (tag == 0) break;
        if (tag == DTP_RequestDTVersion) p.dt_version = uint16_t(data);
        else if (tag == DTP_PlayerVersion) p.player_version = uint16_t(data >> 16);
        else if (tag == DTP_StoreBase || tag == EP_EagleBase) {
            if (data != 0) write32(m, data, DELI_BASE);
        } else {
            for (const TagField& f : TAG_FIELDS)
                if (f.tag == tag) p.*f.field = data;
        }
    }
    if (p.interrupt == 0 && p.init_player == 0) {
        std::fprintf(stderr, "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n");
        return 1;
    }
    return 0;
}

uint32_t orvel_load_player_mem(Machine& m, const uint8_t* data, uint32_t size) {
    uint32_t entry = hunk_load(m, data, size, PLAYER_LOAD_ADDR);
    if (entry == 0) return 0;
    if (deli_scan_tags(m, entry) != 0) return 0;
    if (m.player.config) deli_call(m, m.player.config);
    return entry;
}

void deli_str_append(Machine& m, uint32_t destination, uint32_t source) {
    // Memory wraps at 16 MiB, so neither walk needs more steps than that; the
    // bound only matters for strings that never end or that feed themselves.
    uint32_t d = destination, k = 0;
    for (uint32_t n = 0; n < CHIP_RAM_SIZE && read8(m, d) != 0; n++) d++;
    for (; k < CHIP_RAM_SIZE; k++) {
        uint8_t c = read8(m, source + k);
        write8(m, d + k, c);
        if (c == 0) break;
    }
    m.host_cost += (d - destination) + k;
}

const char* deli_neg_name(int offset) {
    if (offset >= 0 || offset < -int(LVO_STEP) * NEG_NAMED || offset % int(LVO_STEP) != 0)
        return "";
    return NEG_NAMES[-offset / int(LVO_STEP) - 1];
}
