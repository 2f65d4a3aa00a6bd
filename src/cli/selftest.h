// Built-in self-tests: the CPU smoke tests and the Paula mixer tests.
#pragma once

struct Machine;

// The four smoke-test phases; prints PASS lines or the first FAIL line.
// Returns the exit status (0 all passed, 1 a check failed).
int selftest_smoke(Machine& m);
int paula_test(Machine& m, double seconds);
int cpu_paula_test(Machine& m, double seconds);
int paula_wav_test(Machine& m, const char* out_path, double seconds);
