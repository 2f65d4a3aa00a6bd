#include <cstdio>

#include "disasm/disasm.h"
#include "machine.h"

void dump_state(const Machine& m, const char* label) {
    std::printf("%s PC=%08x SR=%04x A7=%08x USP=%08x SSP=%08x\n", label, m.pc, m.sr, m.a[7], m.usp,
                m.ssp);
}
