// flow_model: the client's window control (swuc_flow) streaming through the
// relay's link model to a model terminal, on a simulated clock. One relay run
// on this machine takes seconds and strays by a tenth from the next seed's;
// the model runs hundreds of seeds in a second, so a change to the window
// control can be weighed before it is measured through the real relay.
//
// The terminal writes only the segment it expects, acknowledges what it
// wrote or already had and drops the rest without a word; a second segment 1
// restarts its count, and such a run is left out (the real client would
// start the stream over). The fixed costs below are per packet; the extra
// latency stands for the scheduling of the relay, the daemon and the client,
// and is set so that the model's rates match the relay's on this machine.
//
//   flow_model [--seeds 200] [--size-mib 8] [--window 64] [--extra-us 200]
// Prints, for no loss, 1 % and 5 %, the median rate and the packets resent
// per packet lost, then the ratios the transfer benchmark prints.
#include "lib/flow.h"
#include "lossy_relay/impaired_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace
{

constexpr int64_t SEND_US = 4;     // the client, per packet sent
constexpr int64_t WAKE_US = 20;    // the client, per wake-up
constexpr int64_t TERMINAL_US = 8; // the terminal, per packet taken
constexpr double PAYLOAD = 1428;

struct run_result {
    bool restarted = false; // or stuck: left out either way
    double mib_per_s = 0;
    uint64_t resent = 0, lost = 0;
};

run_result run(uint64_t count, uint32_t window, double drop, int64_t extra_us, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const impaired_line<uint64_t> link(drop, 0.01, 0.01, 1000 + extra_us, 500, &rng);
    impaired_line<uint64_t> up = link, down = link;
    swuc_flow_opts fo;
    fo.max_window = window;
    swuc_flow flow(count, fo);

    run_result r;
    int64_t now = 0, terminal_free = 0;
    uint64_t expected = 1;
    std::vector<uint64_t> acks;
    while (!flow.done() && !r.restarted && now < 600 * 1000000LL) {
        for (uint64_t seg; (seg = flow.next_to_send()) != 0; now += SEND_US) {
            flow.sent(seg, now);
            up.carry(seg, now);
        }
        // The network runs until an acknowledgement reaches the client or
        // its time-out is due.
        const int64_t deadline = flow.deadline_us();
        while (acks.empty()) {
            const int64_t t = std::min({up.next_due(), down.next_due(), deadline});
            if (t == INT64_MAX) { // nothing out and nothing to send: a fault of the flow
                r.restarted = true;
                break;
            }
            now = std::max(now, t);
            if (t == deadline && t < up.next_due() && t < down.next_due())
                break;
            up.pop_due(now, [&](uint64_t seg) {
                terminal_free = std::max(now, terminal_free) + TERMINAL_US;
                if (seg == 1 && expected > 1)
                    r.restarted = true;
                if (seg > expected)
                    return;
                if (seg == expected)
                    expected++;
                down.carry(seg, terminal_free);
            });
            down.pop_due(now, [&](uint64_t seg) { acks.push_back(seg); });
        }
        now += WAKE_US;
        for (uint64_t seg : acks)
            flow.acked(seg, now);
        acks.clear();
        if (!flow.done())
            flow.expire(now);
    }
    r.mib_per_s = static_cast<double>(count) * PAYLOAD / 1048576 / (static_cast<double>(now) / 1e6);
    r.resent = flow.resent();
    r.lost = up.dropped + down.dropped + up.reordered;
    return r;
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

} // namespace

int main(int argc, char **argv)
{
    unsigned seeds = 200;
    double size_mib = 8;
    uint32_t window = 64;
    int64_t extra_us = 200;
    CLI::App app{"The client's window control through a model of the lossy relay"};
    app.add_option("--seeds", seeds, "relay seeds per loss rate")->check(CLI::PositiveNumber);
    app.add_option("--size-mib", size_mib, "package size")->check(CLI::PositiveNumber);
    app.add_option("--window", window, "most packets in flight")->check(CLI::Range(1, 4096));
    app.add_option("--extra-us", extra_us, "one-way latency added to the link's 1 ms")
        ->check(CLI::NonNegativeNumber);
    CLI11_PARSE(app, argc, argv);

    const auto count = static_cast<uint64_t>(size_mib * 1048576 / PAYLOAD) + 1;
    const double drops[] = {0, 0.01, 0.05};
    double rate[3] = {}, resent_per_lost[3] = {};
    for (int d = 0; d < 3; d++) {
        std::vector<double> rates;
        uint64_t resent = 0, lost = 0;
        unsigned left_out = 0;
        for (uint64_t seed = 1; rates.size() < seeds && seed <= 2ULL * seeds; seed++) {
            const run_result r = run(count, window, drops[d], extra_us, seed);
            if (r.restarted) {
                left_out++;
                continue;
            }
            rates.push_back(r.mib_per_s);
            resent += r.resent;
            lost += r.lost;
        }
        rate[d] = median(rates);
        resent_per_lost[d] = lost ? static_cast<double>(resent) / static_cast<double>(lost) : 0;
        printf("  %4.0f %% loss  %6.2f MiB/s  %5.2f resent per packet lost  (%u runs left out)\n",
               drops[d] * 100, rate[d], resent_per_lost[d], left_out);
    }
    printf("lossy 1%% / clean = %.2f\n", rate[1] / rate[0]);
    printf("lossy 5%% / clean = %.2f\n", rate[2] / rate[0]);
    printf("resent per packet lost at 5%% = %.2f\n", resent_per_lost[2]);
    return 0;
}
