// Command-line dispatch: argv -> which command, with converted operands.
#pragma once

#include <cstdint>

struct Machine;

enum class Command {
    Usage,
    Smoke,
    PaulaTest,
    CpuPaulaTest,
    PaulaWav,
    Load,
    EpInfo,
    Play,     // real-time play; player may be null (auto-select)
    PlayWav,  // render to WAV; player may be null
    Trace,    // PlayWav with the register-write trace, output "/dev/null"
    Dump,
    Disasm,
    Find,
    Callers,
    TracePc,
    DisasmChip,
};

struct ParsedCommand {
    Command command = Command::Usage;
    const char* player = nullptr;
    const char* module = nullptr;
    const char* out = nullptr;
    double seconds = 0.0;
    uint32_t address = 0;  // address, or the value searched by find
    uint32_t count = 0;    // words (dump) or instructions (disasm, disasm-chip)
    char** options = nullptr;  // trace-pc: argv[4] onward
    int option_count = 0;
};

extern const char usage_text[];
extern const unsigned usage_text_len;

// Pure: no side effects, no handler runs.
ParsedCommand parse_command(int argc, char** argv);

// Run the parsed command's handler; returns the exit status.
int run_command(Machine& m, const ParsedCommand& c);

// The process entry point: fill the opcode table, allocate the machine,
// dispatch. Returns the exit status.
int orvel_main(int argc, char** argv);
