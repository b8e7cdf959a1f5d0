// The service as a function, so that the shipped entry (src/main.cpp) and
// the soak build run the same body with different timings.
#pragma once

#include "util/timing.h"

// Runs zor_service with the command line `argc`/`argv` and `timing` (set
// before anything starts; zor_timing{} is the product's). Returns 1 when the
// command line or the configuration is refused; otherwise the process ends
// inside, through the shutdown walk, with exit().
int zor_service_run(int argc, char** argv, const zor_timing& timing);
