#include "lib/fleet.h"

#include <algorithm>
#include <atomic>
#include <thread>

std::vector<fleet_fate> swuc_run_fleet(size_t n, const fleet_opts &o,
                                       const std::function<bool(size_t)> &update,
                                       std::vector<std::string> *why)
{
    std::vector<fleet_fate> fate(n, FLEET_NOT_STARTED);
    why->assign(n, "");
    std::atomic<int> failures{0};
    auto wave = [&](size_t begin, size_t end) {
        std::atomic<size_t> next{begin};
        auto worker = [&] {
            for (size_t i = next++; i < end; i = next++) {
                if (o.max_failures > 0 && failures >= o.max_failures) {
                    (*why)[i] = std::to_string(o.max_failures) + " failures, the budget is spent";
                    continue;
                }
                fate[i] = update(i) ? FLEET_UPDATED : FLEET_FAILED;
                if (fate[i] == FLEET_FAILED)
                    failures++;
            }
        };
        std::vector<std::thread> threads;
        const size_t count =
            std::min<size_t>(static_cast<size_t>(std::max(o.parallel, 1)), end - begin);
        for (size_t t = 0; t < count; t++)
            threads.emplace_back(worker);
        for (std::thread &t : threads)
            t.join();
    };
    const size_t canary = std::min<size_t>(static_cast<size_t>(std::max(o.canary, 0)), n);
    wave(0, canary);
    if (std::any_of(fate.begin(), fate.begin() + static_cast<std::ptrdiff_t>(canary),
                    [](fleet_fate f) { return f != FLEET_UPDATED; })) {
        for (size_t i = canary; i < n; i++)
            (*why)[i] = "the canary wave failed";
        return fate;
    }
    wave(canary, n);
    return fate;
}
