#include "cli/dispatch.h"

int main(int argc, char** argv) { return orvel_main(argc, argv); }
