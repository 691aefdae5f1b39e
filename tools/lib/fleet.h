// A fleet's rollout: which updates start, in which waves, how many at once.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// The first `canary` jobs go first, and the rest start only when all of them
// succeeded; no job starts once `max_failures` have failed (0: no limit); at
// most `parallel` run at once.
struct fleet_opts {
    int parallel = 4;
    int canary = 0;
    int max_failures = 0;
};
enum fleet_fate { FLEET_NOT_STARTED, FLEET_UPDATED, FLEET_FAILED };
// Runs update(i) (true when it succeeded) for jobs 0..n-1 as `o` allows. Each
// job's fate; a job not started gets its reason in (*why)[i].
std::vector<fleet_fate> swuc_run_fleet(size_t n, const fleet_opts &o,
                                       const std::function<bool(size_t)> &update,
                                       std::vector<std::string> *why);
