// Commands whose handlers have not landed yet. Each refuses honestly instead
// of pretending to work; entries disappear as the real handlers arrive.
#include <cstdio>

#include "cli/diag.h"
#include "cli/selftest.h"
#include "playback/play.h"

namespace {
int not_built(const char* what) {
    std::fprintf(stderr, "orvel: %s is not available in this build\n", what);
    return 1;
}
}  // namespace

int paula_test(Machine&, double) { return not_built("paula-test"); }
int cpu_paula_test(Machine&, double) { return not_built("cpu-paula-test"); }
int paula_wav_test(Machine&, const char*, double) { return not_built("paula-wav"); }
int diag_load(Machine&, const char*) { return not_built("load"); }
int diag_ep_info(Machine&, const char*) { return not_built("ep-info"); }
int diag_dump(Machine&, const char*, uint32_t, uint32_t) { return not_built("dump"); }
int diag_disasm(Machine&, const char*, uint32_t, uint32_t) { return not_built("disasm"); }
int diag_find(Machine&, const char*, uint32_t) { return not_built("find"); }
int diag_callers(Machine&, const char*, uint32_t) { return not_built("callers"); }
int diag_disasm_chip(Machine&, const char*, const char*, uint32_t, uint32_t) {
    return not_built("disasm-chip");
}
int diag_trace_pc(Machine&, const char*, const char*, char**, int) { return not_built("trace-pc"); }
int play_mode(Machine&, const char*, const char*, double) { return not_built("play"); }
int play_wav_mode(Machine&, const char*, const char*, const char*, double) {
    return not_built("play-wav");
}
