// Diagnostic commands: look into a player binary without playing it.
//
// Choices made here:
// - disasm-chip and trace-pc run the whole start sequence (Check2 through
//   EP_Voices), not only InitPlayer: many players unpack or install their
//   replay code in InitSound. A failed start is reported, but the command
//   goes on: what the routines left in chip RAM is worth seeing all the same.
// - trace-pc without from=/to= logs every executed instruction (no window),
//   up to max= lines; from= alone opens the window up to the top of the
//   address space, rather than being ignored for want of an end.
// - ep-info prints at most 60 characters of a text a tag points at, stopping
//   at the first byte that is not printable, and marks a cut text with "...".
#include "cli/diag.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/config.h"
#include "cpu/bus.h"
#include "disasm/disasm.h"
#include "formats/epconf.h"
#include "formats/loadfile.h"
#include "host/deli.h"
#include "host/hunk.h"
#include "host/runner.h"
#include "machine.h"
#include "playback/engine.h"

namespace {

constexpr uint32_t INFO_LOAD_ADDR = 0x100000;  // load, ep-info
constexpr uint32_t SCAN_END = 0x280000;        // find, callers: 512 KiB of image
constexpr uint32_t TAG_DTP_FIRST = 0x80004456, TAG_DTP_LAST = 0x80004470;
constexpr uint32_t TAG_EP_FIRST = 0x80004550, TAG_EP_LAST = 0x8000457F;
constexpr int MAX_TAG_PAIRS = 256;
constexpr int TEXT_PREVIEW = 60;

const char* const dtp_names[] = {
    "RequestDTVersion", "RequestV37", "PlayerVersion", "PlayerName", "Creator", "Check1", "Check2",
    "ExtLoad", "Interrupt", "Stop", "Config", "UserConfig", "SubSongRange", "InitPlayer",
    "EndPlayer", "InitSound", "EndSound", "StartInt", "StopInt", "Volume", "Balance", "Faster",
    "Slower", "NextPatt", "PrevPatt", "NextSong", "PrevSong"};
const char* const ep_names[] = {
    "EP_Get_ModuleInfo", "EP_Free_ModuleInfo", "EP_Voices", "EP_SampleInit", "EP_SampleEnd",
    "EP_Save", "EP_ModuleChange", "EP_ModuleRestore", "EP_StructInit", "EP_StructEnd",
    "EP_LoadPlConfig", "EP_SavePlConfig", "EP_GetPositionNr", "EP_SetSpeed", "EP_Flags",
    "EP_KickVersion", "EP_PlayerVersion", "EP_CheckModule", "EP_EjectPlayer", "EP_Date",
    "EP_Check3", "EP_SaveAsPT", "EP_NewModuleInfo", "EP_FreeExtLoad", "EP_PlaySample",
    "EP_PatternInit", "EP_PatternEnd", "EP_Check4", "EP_Check5", "EP_Check6", "EP_CreatorLNr",
    "EP_PlayerNameLNr", "EP_PlayerInfo", "EP_PlaySampleInit", "EP_PlaySampleEnd",
    "EP_InitAmplifier", "EP_CheckSegment", "EP_Show", "EP_Hide", "EP_LocaleTable",
    "EP_Helpnodename", "EP_AttnFlags", "EP_EagleBase", "EP_Check7", "EP_Check8",
    "EP_SetPlayFrequency", "EP_SamplePlayer", "EP_SetPosition"};
static_assert(sizeof dtp_names / sizeof *dtp_names == TAG_DTP_LAST - TAG_DTP_FIRST + 1);
static_assert(sizeof ep_names / sizeof *ep_names == TAG_EP_LAST - TAG_EP_FIRST + 1);

const char* tag_name(uint32_t id) {
    if (id >= TAG_DTP_FIRST && id <= TAG_DTP_LAST) return dtp_names[id - TAG_DTP_FIRST];
    if (id >= TAG_EP_FIRST && id <= TAG_EP_LAST) return ep_names[id - TAG_EP_FIRST];
    return "";
}

// The two letters a tag's range is known by: 'D''U' for DeliTracker's
// (TAG_USER + "DU" + n), 'E''P' for EaglePlayer's; for any other ID the
// bytes themselves, printable or '.'.
void tag_letters(uint32_t id, char out[2]) {
    if (id >= TAG_DTP_FIRST && id <= TAG_DTP_LAST) {
        out[0] = 'D', out[1] = 'U';
    } else if (id >= TAG_EP_FIRST && id <= TAG_EP_LAST) {
        out[0] = 'E', out[1] = 'P';
    } else {
        for (int i = 0; i < 2; i++) {
            char c = char(id >> (8 * (1 - i) + 8));
            out[i] = (c >= 32 && c <= 126) ? c : '.';
        }
    }
}

void clear_and_init(Machine& m) {
    std::memset(m.chip_ram, 0, sizeof m.chip_ram);
    libs_init(m);
}

// Read and relocate a player; 0 on failure (the loaders have said why).
uint32_t load_player(Machine& m, const char* path, uint32_t address) {
    uint32_t len = 0;
    uint8_t* data = load_file(path, len);
    if (!data) return 0;
    uint32_t entry = hunk_load(m, data, len, address);
    std::free(data);
    return entry;
}

uint32_t load_for_scan(Machine& m, const char* path) {
    clear_and_init(m);
    return load_player(m, path, PLAYER_LOAD_ADDR);
}

// The play path up to the start: reset, settings, player with its tags,
// module. The player options are resolved before the player is installed,
// as the play commands do, since its Config routine may ask for them.
// Returns the player's entry, or 0 (the loaders have said why).
uint32_t prepare_player(Machine& m, const char* player, const char* module) {
    orvel_reset(m);
    config_load(m);
    uint32_t player_len = 0, module_len = 0;
    uint8_t* image = load_file(player, player_len);
    if (!image) return 0;
    uint8_t* data = load_file(module, module_len);
    uint32_t entry = 0;
    if (data) {
        epconf_resolve_epopt(m, player, module, data, module_len);
        entry = orvel_load_player_mem(m, image, player_len);
        if (entry && orvel_load_module_mem(m, data, module_len, player, module) != 0) entry = 0;
    }
    std::free(image);
    std::free(data);
    return entry;
}

void start_player(Machine& m, const char* command) {
    if (orvel_start_playback(m) != 0)
        std::fprintf(stderr, "%s: module not recognised and init failed\n", command);
}

void print_text_at(Machine& m, uint32_t address) {
    int n = 0;
    for (;; n++) {
        uint8_t c = read8(m, address + uint32_t(n));
        if (c < 32 || c > 126) return;
        if (n == TEXT_PREVIEW) {
            std::fputs("...", stdout);
            return;
        }
        std::putchar(c);
    }
}

bool parse_option(const char* arg, const char* key, uint64_t& value) {
    size_t n = std::strlen(key);
    if (std::strncmp(arg, key, n) != 0) return false;
    value = std::strtoull(arg + n, nullptr, 0);
    return true;
}

}  // namespace

int diag_load(Machine& m, const char* player) {
    clear_and_init(m);
    uint32_t entry = load_player(m, player, INFO_LOAD_ADDR);
    if (!entry) {
        std::fputs("hunk_load failed\n", stderr);
        return 1;
    }
    std::printf("loaded %s: entry=%08x, %u hunks\n", player, entry, m.hunk_count);
    for (uint32_t i = 0; i < m.hunk_count; i++)
        std::printf("  hunk %u: base=%08x size=%u\n", i, m.hunk_addr[i], m.hunk_size[i]);
    std::fputs("first 16 words at entry:\n  ", stdout);
    for (uint32_t i = 0; i < 16; i++) std::printf("%04x ", read16(m, entry + 2 * i));
    std::putchar('\n');
    return 0;
}

int diag_ep_info(Machine& m, const char* player) {
    clear_and_init(m);
    uint32_t entry = load_player(m, player, INFO_LOAD_ADDR);
    if (!entry) {
        std::fputs("hunk_load failed\n", stderr);
        return 1;
    }
    char signature[9] = {};
    for (int i = 0; i < 8; i++) signature[i] = char(read8(m, entry + 4 + uint32_t(i)));
    std::printf("signature: %s\n", signature);
    uint32_t tags = read32(m, entry + 12);
    std::printf("tag list address (post-reloc): %08x\n", tags);
    std::printf("entry probe disasm: %04x %04x ('moveq #-1,d0' + 'rts')\n", read16(m, entry),
                read16(m, entry + 2));
    for (int i = 0; i < MAX_TAG_PAIRS; i++) {
        uint32_t id = read32(m, tags + 8 * uint32_t(i));
        if (id == 0) break;
        uint32_t value = read32(m, tags + 8 * uint32_t(i) + 4);
        char letters[2];
        tag_letters(id, letters);
        std::printf("  %08x ['%c%c'] %-20s %08x", id, letters[0], letters[1], tag_name(id), value);
        if (value - INFO_LOAD_ADDR <= 0xFFFFF) {
            std::fputs("  -> ", stdout);
            print_text_at(m, value);
        }
        std::putchar('\n');
    }
    std::puts("  end");
    return 0;
}

int diag_dump(Machine& m, const char* player, uint32_t address, uint32_t nwords) {
    uint32_t entry = load_for_scan(m, player);
    if (!entry) return 1;
    std::printf("entry=%08x  dumping %u words from %08x\n", entry, nwords, address);
    for (uint32_t i = 0; i < nwords; i++) {
        uint32_t a = address + 2 * i;
        if (i % 8 == 0) std::printf("\n%08x:", a);
        std::printf(" %04x", read16(m, a));
    }
    std::putchar('\n');
    return 0;
}

int diag_disasm(Machine& m, const char* player, uint32_t address, uint32_t ninsns) {
    uint32_t entry = load_for_scan(m, player);
    if (!entry) return 1;
    std::printf("entry=%08x  disassembling %u instructions from %08x\n", entry, ninsns, address);
    disasm_print(m, address, ninsns);
    return 0;
}

int diag_find(Machine& m, const char* player, uint32_t value) {
    if (!load_for_scan(m, player)) return 1;
    uint32_t hits = 0;
    for (uint32_t a = PLAYER_LOAD_ADDR; a < SCAN_END; a += 2)
        if (chip_peek32(m, a) == value) {
            std::printf("  %08x: %08x\n", a, value);
            hits++;
        }
    std::printf("%u hits for %08x\n", hits, value);
    return 0;
}

int diag_callers(Machine& m, const char* player, uint32_t target) {
    if (!load_for_scan(m, player)) return 1;
    uint32_t sites = 0;
    auto report = [&](uint32_t a, const char* form, uint32_t destination) {
        if (destination != target) return;
        std::printf("  %08x: %s to %08x\n", a, form, destination);
        sites++;
    };
    for (uint32_t a = PLAYER_LOAD_ADDR; a < SCAN_END; a += 2) {
        uint16_t w = chip_peek16(m, a);
        uint32_t word_disp = a + 2 + uint32_t(int32_t(int16_t(chip_peek16(m, a + 2))));
        uint32_t long_value = chip_peek32(m, a + 2);
        if (w == 0x6100) report(a, "bsr.w", word_disp);
        else if (w == 0x61FF) report(a, "bsr.l", a + 2 + long_value);
        else if (w == 0x6000) report(a, "bra.w", word_disp);
        else if (w == 0x4EB9) report(a, "jsr abs.l", long_value);
        else if (w == 0x4EF9) report(a, "jmp abs.l", long_value);
        // Low bytes $00 and $FF select the word and long forms; $FE would
        // branch into the branch itself and is no call site.
        else if ((w >> 8) == 0x61 && (w & 0xFF) >= 0x01 && (w & 0xFF) <= 0xFD)
            report(a, "bsr.s", a + 2 + uint32_t(int32_t(int8_t(w & 0xFF))));
    }
    std::printf("%u call sites for %08x\n", sites, target);
    return 0;
}

int diag_disasm_chip(Machine& m, const char* player, const char* module, uint32_t address,
                     uint32_t ninsns) {
    uint32_t entry = prepare_player(m, player, module);
    if (!entry) return 1;
    start_player(m, "disasm-chip");
    std::printf("player entry=%08x  module @%08x (%u bytes)  disassembling %u instructions from %08x\n",
                entry, m.module_addr, m.module_len, ninsns, address);
    disasm_print(m, address, ninsns);
    return 0;
}

int diag_trace_pc(Machine& m, const char* player, const char* module, char** options,
                  int option_count) {
    constexpr uint64_t NO_END = ~uint64_t(0);
    uint64_t brk = 0, from = 0, to = NO_END, max = 2000000;
    for (int i = 0; i < option_count; i++) {
        const char* o = options[i];
        if (!parse_option(o, "break=", brk) && !parse_option(o, "from=", from) &&
            !parse_option(o, "to=", to) && !parse_option(o, "max=", max)) {
            std::fprintf(stderr, "trace-pc: unknown option '%s'\n", o);
            return 1;
        }
    }
    if (to == NO_END) to = from ? 0xFFFFFFFF : 0;
    uint32_t entry = prepare_player(m, player, module);
    if (!entry) return 1;
    std::printf("trace-pc: player entry=%08x  module @%08x (%u bytes)\n", entry, m.module_addr,
                m.module_len);
    std::printf("trace-pc: break=%08x window=[%08x,%08x) max=%llu\n", uint32_t(brk), uint32_t(from),
                uint32_t(to), (unsigned long long)max);
    std::fflush(stdout);
    trace_break_pc = uint32_t(brk);
    trace_lo = uint32_t(from);
    trace_hi = uint32_t(to);
    trace_log_max = max;
    trace_log = true;
    trace_logged = 0;
    trace_break_hit = false;
    start_player(m, "trace-pc");
    trace_log = false;
    trace_break_pc = 0;
    std::printf("trace-pc: %llu instructions logged%s\n", (unsigned long long)trace_logged,
                trace_break_hit ? " (break hit)" : "");
    return 0;
}
