// The routine runner. Player code never runs freely: each routine is
// called like a subroutine whose return address is a sentinel, and the CPU
// is stepped one instruction at a time until the program counter reaches it.
// A program counter outside the places where code can live, a bus fault or a
// spent instruction budget ends the call instead.
#include "host/runner.h"

#include <array>
#include <algorithm>
#include <cstdio>

#include "cpu/cpu.h"
#include "disasm/disasm.h"
#include "host/deli.h"
#include "machine.h"

uint32_t trace_break_pc = 0;
bool trace_break_hit = false;
bool trace_log = false;
uint32_t trace_lo = 0, trace_hi = 0;
uint64_t trace_log_max = 0;
uint64_t trace_logged = 0;

namespace {

constexpr uint16_t SR_SUPERVISOR_IPL0 = 0x2000;
constexpr uint32_t RING_SIZE = 256;
constexpr uint32_t RING_PER_LINE = 8;
// exec Interrupt structure: is_Data and is_Code.
constexpr uint32_t IS_DATA = 14;
constexpr uint32_t IS_CODE = 18;

// Where code may run: the module window (companion code), the player image,
// the AllocMem slab, and the library, base and stub area. All four start and
// end on 4 KiB boundaries, so one flag per 4 KiB page decides.
constexpr uint32_t PAGE_SHIFT = 12;
struct CodeRegion {
    uint32_t first, last;
};
constexpr CodeRegion CODE_REGIONS[] = {
    {MODULE_ADDR, MODULE_WINDOW_END - 1},
    {PLAYER_LOAD_ADDR, 0x2FFFFF},
    {SLAB_START, SLAB_END - 1},
    {0xF7F000, 0xF9FFFF},
};
constexpr auto CODE_PAGES = [] {
    std::array<bool, (CHIP_RAM_SIZE >> PAGE_SHIFT)> pages{};
    for (const CodeRegion& r : CODE_REGIONS)
        for (uint32_t p = r.first >> PAGE_SHIFT; p <= r.last >> PAGE_SHIFT; p++) pages[p] = true;
    return pages;
}();

bool pc_in_code(uint32_t pc) { return pc < CHIP_RAM_SIZE && CODE_PAGES[pc >> PAGE_SHIFT]; }

void report_out_of_range(const Machine& m, uint32_t routine, uint32_t count,
                         const uint32_t* ring) {
    std::fprintf(stderr, "deli_call: PC=%08x out of range (routine=%08x i=%u)\n", m.pc, routine,
                 count);
    std::fprintf(stderr, "  recent PCs:");
    uint32_t printed = 0;
    for (uint32_t k = 0; k < RING_SIZE; k++) {
        uint32_t pc = ring[(count + k) % RING_SIZE];
        if (pc == 0) continue;
        if (printed++ % RING_PER_LINE == 0) std::fprintf(stderr, "\n    ");
        std::fprintf(stderr, " %08x", pc);
    }
    std::fprintf(stderr, "\n");
    std::fprintf(stderr, "  D0..D7: %08x %08x %08x %08x %08x %08x %08x %08x\n", m.d[0], m.d[1],
                 m.d[2], m.d[3], m.d[4], m.d[5], m.d[6], m.d[7]);
    std::fprintf(stderr, "  A0..A7: %08x %08x %08x %08x %08x %08x %08x %08x SR=%04x\n", m.a[0],
                 m.a[1], m.a[2], m.a[3], m.a[4], m.a[5], m.a[6], m.a[7], m.sr);
}

bool trace_window_open(uint32_t pc) {
    return (trace_hi == 0 || (trace_lo <= pc && pc < trace_hi)) &&
           (trace_log_max == 0 || trace_logged < trace_log_max);
}

uint32_t run_loop(Machine& m, uint32_t routine) {
    uint32_t ring[RING_SIZE] = {};
    uint32_t count = 0;
    for (;;) {
        uint32_t pc = m.pc;
        if (pc == RUNNER_SENTINEL) return m.d[0];
        if (trace_break_pc != 0 && pc == trace_break_pc) {
            trace_break_hit = true;
            std::fprintf(stderr, "trace-pc: break at %08x (routine=%08x i=%u)\n", pc, routine,
                         count);
            trace_print_step(m);
            return m.d[0];
        }
        if (trace_log && trace_window_open(pc)) {
            trace_print_step(m);
            trace_logged++;
        }
        if (!pc_in_code(pc)) {
            report_out_of_range(m, routine, count, ring);
            return RUN_OUT_OF_RANGE;
        }
        ring[count % RING_SIZE] = pc;
        step(m);
        if (m.fault != 0) {
            std::fprintf(stderr, "deli_call: fault %u at PC=%08x (routine=%08x)\n",
                         unsigned(m.fault), m.pc, routine);
            return RUN_FAILED;
        }
        count += 1 + std::min(m.host_cost, RUNNER_BUDGET);
        m.host_cost = 0;
        if (count >= RUNNER_BUDGET) {
            std::fprintf(stderr, "deli_call: cycle budget exhausted (routine=%08x last PC=%08x)\n",
                         routine, m.pc);
            return RUN_FAILED;
        }
    }
}

}  // namespace

uint32_t deli_call(Machine& m, uint32_t routine) {
    m.a[5] = DELI_BASE;
    m.a[6] = EXEC_BASE;
    m.a[7] = RUNNER_STACK_TOP;
    write32(m, RUNNER_STACK_TOP, RUNNER_SENTINEL);
    m.sr = SR_SUPERVISOR_IPL0;
    m.pc = routine;
    m.fault = 0;
    return run_loop(m, routine);
}

uint32_t deli_run_handler(Machine& m, uint32_t node) {
    uint32_t code = read32(m, node + IS_CODE);
    if (code == 0) return 0;
    m.a[0] = CUSTOM_BASE;
    m.a[1] = read32(m, node + IS_DATA);
    return deli_call(m, code);
}

void cia_run_pending(Machine& m) {
    constexpr uint32_t capacity = sizeof m.cia_pending / sizeof m.cia_pending[0];
    uint32_t n = m.cia_pending_count < capacity ? m.cia_pending_count : capacity;
    for (uint32_t k = 0; k < n; k++) deli_run_handler(m, m.cia_pending[k]);
    m.cia_pending_count = 0;
}
