// Host calls: every $Axxx opcode a player executes lands here. The library
// slots and DeliTracker stubs installed in chip RAM are an A-line opcode
// followed by RTS, so a call runs the function on the host side, sets D0 and
// the condition codes, and the RTS returns to the player. The opcode's
// second nibble selects the table, its low byte the function.
#include <cstdio>
#include <cstring>

#include "chipset/cia.h"
#include "chipset/custom.h"
#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/dos.h"

namespace {

constexpr uint32_t DMACON_ADDR = 0xDFF096;
constexpr uint32_t AUD0LC_ADDR = 0xDFF0A0;  // channel x at +16x
constexpr uint32_t DELI_PATH_PTR = DELI_BASE + 0x20;
constexpr uint32_t DELI_DIR_PTR = DELI_BASE + 0x18;
constexpr uint32_t DELI_FILE_PTR = DELI_BASE + 0x1C;
constexpr uint32_t DELI_TIMER = DELI_BASE + 0x36;
constexpr uint32_t NEG_SLOT_PC_LOW = 0xF8F403;  // PC range of the 512 negative slots
constexpr uint32_t NEG_SLOT_PC_HIGH = DELI_BASE + 2;
constexpr uint32_t MAX_OPTIONS = 1024;  // entries read from an option block
constexpr uint32_t OPTION_NAME_MAX = 56;

// The player sees a result as if it had done TST.L D0; X is kept.
void flags_from_d0(Machine& m) {
    uint16_t cc = (m.d[0] & 0x80000000u) ? SR_N : (m.d[0] == 0 ? SR_Z : 0);
    m.sr = uint16_t((m.sr & ~(SR_N | SR_Z | SR_V | SR_C)) | cc);
}

void set_d0(Machine& m, uint32_t v) {
    m.d[0] = v;
    flags_from_d0(m);
}

// First characters of a NUL-terminated name in chip RAM.
bool name_starts(Machine& m, uint32_t address, const char* text) {
    for (uint32_t i = 0; text[i]; i++)
        if (read8(m, address + i) != uint8_t(text[i])) return false;
    return true;
}

// ---- exec.library ----

void exec_allocate(Machine& m) {
    uint64_t size = (uint64_t(m.d[0]) + 3) & ~uint64_t(3);
    if (m.alloc_slab == 0 || m.alloc_slab + size > SLAB_END) {
        set_d0(m, 0);
        return;
    }
    uint32_t block = m.alloc_slab;
    m.alloc_slab += uint32_t(size);
    std::memset(m.chip_ram + block, 0, size_t(size));  // the slab is plain RAM
    set_d0(m, block);
}

uint32_t open_library(Machine& m, uint32_t name) {
    static const struct {
        const char* prefix;
        uint32_t base;
    } libraries[] = {{"ex", EXEC_BASE}, {"do", DOS_BASE}, {"in", LIB3_BASE},
                     {"gr", LIB4_BASE}, {"ua", LIB5_BASE}};
    for (const auto& l : libraries)
        if (name_starts(m, name, l.prefix)) return l.base;
    return 0;
}

uint32_t type_of_mem(uint32_t address) {
    uint32_t a = address & ADDR_MASK;
    if (a < PLAYER_LOAD_ADDR) return 3;  // MEMF_PUBLIC | MEMF_CHIP
    if (a < EXEC_BASE) return 5;         // MEMF_PUBLIC | MEMF_FAST
    return 0;
}

void exec_call(Machine& m, unsigned fn) {
    uint32_t& a1 = m.a[1];
    switch (fn) {
    case 0: exec_allocate(m); return;  // AllocMem (-198)
    case 1: set_d0(m, 0); return;      // FreeMem (-210): nothing is ever given back
    case 2: set_d0(m, open_library(m, a1)); return;  // OpenLibrary (-552), OldOpenLibrary (-408)
    case 3: set_d0(m, 0); return;                    // CloseLibrary (-414)
    case 4: set_d0(m, type_of_mem(a1)); return;      // TypeOfMem (-534)
    case 5:                                          // OpenResource (-498)
        set_d0(m, name_starts(m, a1, "ciaa") ? CIAA_RES_BASE
                  : name_starts(m, a1, "ciab") ? CIAB_RES_BASE
                                               : 0);
        return;
    case 6:  // AddIntServer (-168)
        m.int_vectors[m.d[0] & 15] = a1;
        set_d0(m, 0);
        return;
    case 7: {  // SetIntVector (-162)
        uint32_t& slot = m.int_vectors[m.d[0] & 15];
        uint32_t old = slot;
        slot = a1;
        set_d0(m, old);
        return;
    }
    case 8: {  // Cause (-180): the soft interrupt's code runs at once and
               // returns straight to the caller of Cause
        uint32_t code = read32(m, a1 + 18);
        if (code) {
            a1 = read32(m, a1 + 14);
            m.pc = code;
        }
        set_d0(m, 0);
        return;
    }
    default:
        std::fprintf(stderr, "libs_exec_dispatch: unimplemented exec fn %u (D0=%08x A0=%08x A1=%08x)\n",
                     fn, m.d[0], m.a[0], m.a[1]);
        set_d0(m, 0);
    }
}

// ---- DeliTracker functions ----

void get_list_data(Machine& m) {
    if (m.d[0] < m.file_list_count && m.d[0] < 16) {
        m.a[0] = m.file_list_addr[m.d[0]];
        set_d0(m, m.file_list_len[m.d[0]]);
    } else {
        m.a[0] = 0;
        set_d0(m, 0);
    }
}

void set_timer(Machine& m) {
    uint16_t timer = read16(m, DELI_TIMER);
    if (timer == 0) return;
    double frames = (double(timer) + 1.0) * m.output_rate / CIA_ECLOCK_PAL;
    if (frames < 1.0) frames = 1.0;
    m.interrupt_period = int32_t(frames + 0.5);
}

void song_end(Machine& m) {
    if (m.song_end_count++ == 0) m.song_end_frame = m.frames_rendered;
}

bool ends_with_nocase(const char* s, size_t len, const char* suffix) {
    size_t n = std::strlen(suffix);
    if (len < n) return false;
    for (size_t i = 0; i < n; i++) {
        char c = s[len - n + i];
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
        if (c != suffix[i]) return false;
    }
    return true;
}

// Cut a packer suffix from the path buffer, so that the player can look
// for companion files by the module's own name. CopyString appends without
// a limit, so the path is followed to its end wherever that lies.
void cut_suffix(Machine& m) {
    uint32_t path = read32(m, DELI_PATH_PTR);
    uint32_t len = 0;
    while (len < CHIP_RAM_SIZE && read8(m, path + len) != 0) len++;
    m.host_cost += len;
    if (len == CHIP_RAM_SIZE) return;  // a string without an end has no suffix
    char tail[4];
    uint32_t n = len < 4 ? len : 4;
    for (uint32_t i = 0; i < n; i++) tail[i] = char(read8(m, path + len - n + i));
    uint32_t cut = 0;
    if (len > 3 && ends_with_nocase(tail, n, ".xpk")) cut = 4;
    else if (len >= 3 && ends_with_nocase(tail, n, ".pp")) cut = 3;
    if (cut) write8(m, path + len - cut, 0);
}

// The pattern-scanning DMAMask entry: only its parameter checks are served.
void dma_mask_scan(Machine& m) {
    uint8_t status = 0;
    if (read32(m, DELI_BASE + 0x122) != 5) status = 0x27;
    else if (read32(m, DELI_BASE + 0x132) & ~0xFFu) status = 0x28;
    if (status) {
        write8(m, DELI_BASE + 0x129, status);
        for (uint32_t a = DELI_BASE + 0x126; a <= DELI_BASE + 0x128; a++) write8(m, a, 0);
        flags_from_d0(m);
        return;
    }
    set_d0(m, 0);
}

void deli_fptr_call(Machine& m, unsigned fn) {
    switch (fn) {
    case 0: get_list_data(m); return;  // GetListData
    case 1:                            // LoadFile
        deli_load_companion(m);
        flags_from_d0(m);
        return;
    case 2: case 3: case 4: {  // CopyDir, CopyFile, CopyString: append to the path buffer
        uint32_t source = fn == 2 ? read32(m, DELI_DIR_PTR) : fn == 3 ? read32(m, DELI_FILE_PTR) : m.a[0];
        deli_str_append(m, read32(m, DELI_PATH_PTR), source);
        flags_from_d0(m);
        return;
    }
    case 5: case 6: set_d0(m, 0); return;  // AllocAudio, FreeAudio
    case 9: song_end(m); flags_from_d0(m); return;  // SongEnd
    case 7: case 8:                                 // StartInterrupt, StopInterrupt
    case 12: case 13: case 14: case 15:             // WaitAudioDMA, SaveMem, FileReq, TextRequest
        flags_from_d0(m);
        return;
    case 10: cut_suffix(m); flags_from_d0(m); return;  // CutSuffix
    case 11: set_timer(m); flags_from_d0(m); return;   // SetTimer
    case 30: dma_mask_scan(m); return;                 // DMAMask
    default:
        if (fn <= 32) {
            set_d0(m, 0);
            return;
        }
        std::fprintf(stderr, "deli_dispatch: unknown fn %u\n", fn);
        flags_from_d0(m);
    }
}

void poke(Machine& m, uint32_t reg_offset, uint16_t value) {
    custom_write_word(m, AUD0LC_ADDR + 16 * (m.d[1] & 3) + reg_offset, value);
}

// The negative table is told apart by the PC, which points two bytes into
// the six-byte slot that trapped.
void deli_neg_call(Machine& m) {
    uint32_t pc = m.pc & ADDR_MASK;
    if (pc >= NEG_SLOT_PC_LOW && pc <= NEG_SLOT_PC_HIGH) m.deli_neg_calls[(NEG_SLOT_PC_HIGH - pc) / 6]++;
    int32_t offset = int32_t(pc - NEG_SLOT_PC_HIGH);
    switch (offset) {
    case -66: get_list_data(m); return;  // GetListData
    case -96:                            // AllocAudio: the audio DMA master on
        custom_write_word(m, DMACON_ADDR, 0x8200);
        set_d0(m, 0);
        return;
    case -102:  // FreeAudio
        custom_write_word(m, DMACON_ADDR, 0x0200);
        set_d0(m, 0);
        return;
    case -120:  // SongEnd
        song_end(m);
        set_d0(m, 0);
        return;
    case -132:  // SetTimer
        set_timer(m);
        set_d0(m, 0);
        return;
    case -246:  // DMAMask
        custom_write_word(m, DMACON_ADDR, uint16_t((m.d[0] & 0x8000) | (m.d[1] & 0x000F)));
        flags_from_d0(m);
        return;
    case -252:  // PokeAdr: AUDxLCH, AUDxLCL
        poke(m, 0, uint16_t(m.d[0] >> 16));
        poke(m, 2, uint16_t(m.d[0]));
        flags_from_d0(m);
        return;
    case -258: poke(m, 4, uint16_t(m.d[0])); flags_from_d0(m); return;  // PokeLen: AUDxLEN
    case -264: poke(m, 6, uint16_t(m.d[0])); flags_from_d0(m); return;  // PokePer: AUDxPER
    case -270: poke(m, 8, uint16_t(m.d[0])); flags_from_d0(m); return;  // PokeVol: AUDxVOL
    default: set_d0(m, 0);
    }
}

// ---- ciaa.resource / ciab.resource ----
// The resource keeps its own enable mask and handler nodes; for the two
// timer bits it also wires the handler and mask into the CIA itself, which
// queues the handler at each underflow.

void cia_resource_call(Machine& m, int which, unsigned fn) {
    Cia& cia = m.cia[which];
    uint8_t& enable = m.ciares_enable[which];
    switch (fn) {
    case 1: {  // AddICRVector
        uint32_t bit = m.d[0] & 7;
        if (bit < 5) {
            m.ciares_handler[which][bit] = m.a[1];
            enable |= uint8_t(1 << bit);
            if (bit < 2) {
                cia.handler[bit] = m.a[1];
                cia.icr_mask |= uint8_t(1 << bit);
            }
        }
        set_d0(m, 0);
        return;
    }
    case 2: {  // RemICRVector
        uint32_t bit = m.d[0] & 7;
        if (bit < 5) {
            m.ciares_handler[which][bit] = 0;
            enable &= uint8_t(~(1 << bit));
            if (bit < 2) {
                cia.handler[bit] = 0;
                cia.icr_mask &= uint8_t(~(1 << bit));
            }
            flags_from_d0(m);
        } else {
            m.sr = uint16_t((m.sr & ~(SR_N | SR_Z | SR_V | SR_C)) | ((m.d[0] & 0x80000000u) ? SR_N : 0));
        }
        return;
    }
    case 3: {  // AbleICR: bit 7 says set or clear
        uint8_t old = enable;
        uint8_t bits = uint8_t(m.d[0] & 0x1F);
        if (m.d[0] & 0x80) {
            enable |= bits;
            cia.icr_mask |= bits;
        } else {
            enable &= uint8_t(~bits);
            cia.icr_mask &= uint8_t(~bits);
        }
        set_d0(m, old);
        return;
    }
    case 4: {  // SetICR: report and acknowledge pending bits
        uint8_t hit = uint8_t(m.ciares_pending[which] & m.d[0]);
        m.ciares_pending[which] &= uint8_t(~hit);
        set_d0(m, hit);
        return;
    }
    default: set_d0(m, 0);
    }
}

// ---- the fifth library: the player's options ----
// A0 points at a count and that many (name, flag byte, value buffer)
// triples; an option the chosen option string names ("name:value") gets
// its value and flag 1, the others flag 0.

void options_call(Machine& m, unsigned fn) {
    if (fn != 0) {
        set_d0(m, 0);
        return;
    }
    uint32_t block = m.a[0];
    uint32_t count = read32(m, block);
    if (count > MAX_OPTIONS) count = MAX_OPTIONS;
    for (uint32_t i = 0; i < count; i++) {
        uint32_t entry = block + 4 + 12 * i;
        uint32_t name_addr = read32(m, entry), flag_addr = read32(m, entry + 4),
                 value_addr = read32(m, entry + 8);
        char name[OPTION_NAME_MAX + 1];
        uint32_t n = 0;
        while (n < OPTION_NAME_MAX && (name[n] = char(read8(m, name_addr + n))) != 0) n++;
        name[n] = '\0';
        bool hit = n > 0 && std::strncmp(m.epopt, name, n) == 0 && m.epopt[n] == ':';
        if (hit) {
            const char* value = m.epopt + n + 1;
            uint32_t k = 0;
            do write8(m, value_addr + k, uint8_t(value[k]));
            while (value[k++] != '\0');
        }
        write8(m, flag_addr, hit ? 1 : 0);
    }
    set_d0(m, 0);
}

}  // namespace

void op_line_a(Machine& m, uint16_t opcode) {
    unsigned fn = opcode & 0xFF;
    switch ((opcode >> 8) & 0xF) {
    case 0x1:  // dos.library
        if (fn == 6) dos_load_seg(m);
        else if (fn == 7) m.d[0] = 0;
        else dos_dispatch(m, int(fn));
        flags_from_d0(m);
        return;
    case 0x4: deli_fptr_call(m, fn); return;
    case 0x5: deli_neg_call(m); return;
    case 0x6: cia_resource_call(m, 0, fn); return;
    case 0x7: cia_resource_call(m, 1, fn); return;
    case 0x8: options_call(m, fn); return;
    default: exec_call(m, fn); return;  // 0, and every nibble without a table of its own
    }
}
