#pragma once

// The clock every deadline and time-out of both peers is measured on: CLOCK_MONOTONIC, which
// setting the time of day does not move.

#include <cstdint>

int64_t LDMonotonicNanoseconds();
