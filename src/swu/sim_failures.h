// The simulated failures that the command line switches on for testing a
// client (-S, -F, -L, -Z, -M): the one owner of those switches. Each fails
// the next request it applies to, once.
#pragma once

enum sim_failure {
    SIM_STREAM_FAILURE = 0,       // -S: the stream end reports packets missing
    SIM_INVALID_PKG_NAME = 1,     // -F: the stream request is refused as invalid
    SIM_INVALID_PKG_NAME_LEN = 2, // -L: likewise
    SIM_INVALID_PKG_SIZE = 3,     // -Z: likewise
    SIM_MALLOC_FAILURE = 4,       // -M: the stream request fails as out of memory
    SIM_FAILURE_COUNT = 5,
};

// Switches the failure on.
void sim_failure_arm(sim_failure failure);
// Whether the failure is switched on.
bool sim_failure_armed(sim_failure failure);
// True, once, when the failure is switched on: it is then switched off.
bool sim_failure_take(sim_failure failure);
// Switches every failure off.
void sim_failures_clear();
