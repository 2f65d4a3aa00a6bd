// Shared helpers for tests: a zero-filled Machine like the one the entry
// point allocates, and paths to test data.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "machine.h"

struct MachineFree {
    void operator()(Machine* m) const { std::free(m); }
};
using MachinePtr = std::unique_ptr<Machine, MachineFree>;

inline MachinePtr make_machine() {
    return MachinePtr(static_cast<Machine*>(std::calloc(1, sizeof(Machine))));
}

inline std::string testdata_path(const std::string& rel) {
    return std::string(ORVEL_TESTDATA_DIR) + "/" + rel;
}
