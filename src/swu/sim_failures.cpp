#include "swu/sim_failures.h"

#include "lib/sys/swu_assert.h"

namespace
{

// Main thread only: set while parsing the command line, used by the handlers.
bool g_armed[SIM_FAILURE_COUNT] = {};

} // namespace

void sim_failure_arm(sim_failure failure)
{
    SWU_ASSERT(failure >= 0 && failure < SIM_FAILURE_COUNT);
    g_armed[failure] = true;
}

bool sim_failure_armed(sim_failure failure)
{
    SWU_ASSERT(failure >= 0 && failure < SIM_FAILURE_COUNT);
    return g_armed[failure];
}

bool sim_failure_take(sim_failure failure)
{
    SWU_ASSERT(failure >= 0 && failure < SIM_FAILURE_COUNT);
    const bool armed = g_armed[failure];
    g_armed[failure] = false;
    return armed;
}

void sim_failures_clear()
{
    for (bool &armed : g_armed)
        armed = false;
}
