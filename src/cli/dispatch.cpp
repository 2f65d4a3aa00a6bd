#include "cli/dispatch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "chipset/custom.h"
#include "cli/diag.h"
#include "cli/selftest.h"
#include "cpu/cpu.h"
#include "machine.h"
#include "playback/play.h"

const char usage_text[] =
    "usage:\n"
    "  orvel play [<player>] <module> [seconds]   play (auto-selects player; runs until Ctrl-C)\n"
    "  orvel play-wav <player> <module> <out.wav> [seconds]\n"
    "  orvel auto <module> [seconds]              alias for play <module>\n"
    "  orvel auto-wav <module> <out.wav> [seconds]\n"
    "  orvel load|ep-info|dump|disasm|find|callers <player> ...\n"
    "  orvel disasm-chip <player> <module> <addr> [ninsns]   disasm chip RAM after init "
    "(embedded-replay players)\n"
    "  orvel trace <player> <module> [seconds]   log AUDxVOL/PER/LEN/LC + DMACON writes\n"
    "  orvel trace-pc <player> <module> [break=HEX] [from=HEX] [to=HEX] [max=N]   single-step "
    "trace of init sequence\n"
    "  orvel                                       run smoke tests\n";
const unsigned usage_text_len = sizeof usage_text - 1;

namespace {

// Numeric operands are converted without validation: "0x" hex, leading 0
// octal, else decimal; text that is no number gives 0. The 64-bit conversion
// truncated to 32 bits behaves the same on hosts whose long is 32 bits.
uint32_t number(const char* s) { return uint32_t(std::strtoull(s, nullptr, 0)); }

bool is(const char* a, const char* b) { return std::strcmp(a, b) == 0; }

ParsedCommand make(Command c) {
    ParsedCommand p;
    p.command = c;
    return p;
}

ParsedCommand play_cmd(const char* player, const char* module, double seconds) {
    ParsedCommand p = make(Command::Play);
    p.player = player;
    p.module = module;
    p.seconds = seconds;
    return p;
}

ParsedCommand wav_cmd(Command c, const char* player, const char* module, const char* out,
                      double seconds) {
    ParsedCommand p = make(c);
    p.player = player;
    p.module = module;
    p.out = out;
    p.seconds = seconds;
    return p;
}

ParsedCommand player_cmd(Command c, const char* player, uint32_t address, uint32_t count) {
    ParsedCommand p = make(c);
    p.player = player;
    p.address = address;
    p.count = count;
    return p;
}

ParsedCommand trace_pc_cmd(int argc, char** argv) {
    ParsedCommand p = make(Command::TracePc);
    p.player = argv[2];
    p.module = argv[3];
    p.options = argv + 4;
    p.option_count = argc - 4;
    return p;
}

// `play a b`: b is a duration only if it is entirely a non-negative number.
ParsedCommand play_two_operands(char** argv) {
    char* end = nullptr;
    double v = std::strtod(argv[3], &end);
    if (end != argv[3] && *end == '\0' && v >= 0.0) return play_cmd(nullptr, argv[2], std::atof(argv[3]));
    return play_cmd(argv[2], argv[3], -1.0);
}

}  // namespace

ParsedCommand parse_command(int argc, char** argv) {
    if (argc <= 1) return make(Command::Smoke);
    const char* c = argv[1];
    if (is(c, "paula-test") || is(c, "cpu-paula-test")) {
        ParsedCommand p = make(is(c, "paula-test") ? Command::PaulaTest : Command::CpuPaulaTest);
        p.seconds = argc < 3 ? 3.0 : std::atof(argv[2]);
        return p;
    }
    if (argc == 2) return make(Command::Usage);

    if (is(c, "paula-wav")) {
        ParsedCommand p = make(Command::PaulaWav);
        p.out = argv[2];
        p.seconds = argc == 3 ? 3.0 : std::atof(argv[3]);
        return p;
    }
    if (is(c, "load")) return player_cmd(Command::Load, argv[2], 0, 0);
    if (is(c, "ep-info")) return player_cmd(Command::EpInfo, argv[2], 0, 0);

    if (argc == 3) {
        if (is(c, "play") || is(c, "auto")) return play_cmd(nullptr, argv[2], -1.0);
        return make(Command::Usage);
    }

    if (is(c, "dump"))
        return player_cmd(Command::Dump, argv[2], number(argv[3]), argc == 4 ? 64 : number(argv[4]));
    if (is(c, "disasm"))
        return player_cmd(Command::Disasm, argv[2], number(argv[3]), argc == 4 ? 32 : number(argv[4]));

    // From here on argc >= 4; the forms shared by argc 4 and 5+ differ only
    // in their optional last operand.
    const bool four = argc == 4;
    if (is(c, "trace"))
        return wav_cmd(Command::Trace, argv[2], argv[3], "/dev/null", four ? 3.0 : std::atof(argv[4]));
    if (is(c, "trace-pc")) return trace_pc_cmd(argc, argv);
    if (is(c, "find")) return player_cmd(Command::Find, argv[2], number(argv[3]), 0);
    if (is(c, "callers")) return player_cmd(Command::Callers, argv[2], number(argv[3]), 0);
    if (is(c, "play")) return four ? play_two_operands(argv) : play_cmd(argv[2], argv[3], std::atof(argv[4]));
    if (is(c, "auto")) return play_cmd(nullptr, argv[2], std::atof(argv[3]));
    if (is(c, "auto-wav"))
        return wav_cmd(Command::PlayWav, nullptr, argv[2], argv[3], four ? 10.0 : std::atof(argv[4]));
    if (four) return make(Command::Usage);

    if (is(c, "disasm-chip")) {
        ParsedCommand p = player_cmd(Command::DisasmChip, argv[2], number(argv[4]),
                                     argc == 5 ? 32 : number(argv[5]));
        p.module = argv[3];
        return p;
    }
    if (is(c, "play-wav"))
        return wav_cmd(Command::PlayWav, argv[2], argv[3], argv[4], argc == 5 ? 10.0 : std::atof(argv[5]));
    return make(Command::Usage);
}

int run_command(Machine& m, const ParsedCommand& c) {
    switch (c.command) {
    case Command::Usage: break;
    case Command::Smoke: return selftest_smoke(m);
    case Command::PaulaTest: return paula_test(m, c.seconds);
    case Command::CpuPaulaTest: return cpu_paula_test(m, c.seconds);
    case Command::PaulaWav: return paula_wav_test(m, c.out, c.seconds);
    case Command::Load: return diag_load(m, c.player);
    case Command::EpInfo: return diag_ep_info(m, c.player);
    case Command::Play: return play_mode(m, c.player, c.module, c.seconds);
    case Command::PlayWav: return play_wav_mode(m, c.player, c.module, c.out, c.seconds);
    case Command::Trace:
        custom_trace = 1;
        return play_wav_mode(m, c.player, c.module, c.out, c.seconds);
    case Command::Dump: return diag_dump(m, c.player, c.address, c.count);
    case Command::Disasm: return diag_disasm(m, c.player, c.address, c.count);
    case Command::Find: return diag_find(m, c.player, c.address);
    case Command::Callers: return diag_callers(m, c.player, c.address);
    case Command::TracePc: return diag_trace_pc(m, c.player, c.module, c.options, c.option_count);
    case Command::DisasmChip: return diag_disasm_chip(m, c.player, c.module, c.address, c.count);
    }
    std::fwrite(usage_text, 1, usage_text_len, stderr);
    return 1;
}

int orvel_main(int argc, char** argv) {
    op_table_fill();
    Machine* m = static_cast<Machine*>(std::calloc(1, sizeof(Machine)));
    if (!m) {
        std::fputs("orvel: out of memory\n", stderr);
        return 1;
    }
    int status = run_command(*m, parse_command(argc, argv));
    std::free(m);
    return status;
}
