// One direction of a link like a Wi-Fi hop: each datagram is delayed (with
// jitter, keeping their order as a radio link's queue does), and dropped,
// duplicated or let overtaken by the next one at the given rates. The relay
// carries real datagrams through it; the flow model carries segment numbers
// on a clock of its own.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <utility>

template <class T> struct impaired_line {
    static constexpr int64_t HOLD_US = 5000; // longest a reordered datagram waits for the next

    double drop = 0, dup = 0, reorder = 0;
    int64_t delay_us = 0, jitter_us = 0;
    std::mt19937_64 *rng = nullptr;
    std::deque<std::pair<int64_t, T>> line; // due time, in due order
    std::optional<T> held;                  // waits to go behind the next
    int64_t held_since = 0;
    unsigned long passed = 0, dropped = 0, duplicated = 0, reordered = 0;

    impaired_line(double drop_, double dup_, double reorder_, int64_t delay, int64_t jitter,
                  std::mt19937_64 *rng_)
        : drop(drop_), dup(dup_), reorder(reorder_), delay_us(delay), jitter_us(jitter), rng(rng_)
    {
    }

    double draw() { return std::uniform_real_distribution<double>(0.0, 1.0)(*rng); }

    // A datagram never overtakes the one before it: jitter stretches the
    // queue rather than shuffling it.
    void schedule(T d, int64_t now)
    {
        int64_t due = now + delay_us;
        if (jitter_us > 0)
            due += std::uniform_int_distribution<int64_t>(-jitter_us, jitter_us)(*rng);
        if (!line.empty())
            due = std::max(due, line.back().first);
        line.emplace_back(due, std::move(d));
    }

    void carry(T d, int64_t now)
    {
        if (draw() < drop) {
            dropped++;
            return;
        }
        passed++;
        const bool twice = draw() < dup;
        if (!held && draw() < reorder) {
            reordered++;
            held = std::move(d);
            held_since = now;
            return;
        }
        if (twice) {
            duplicated++;
            schedule(d, now);
        }
        schedule(std::move(d), now);
        release_held(now);
    }

    void release_held(int64_t now)
    {
        if (held) {
            schedule(std::move(*held), now);
            held.reset();
        }
    }

    // Hands every datagram due by `now` to `out`, in order.
    template <class F> void pop_due(int64_t now, F &&out)
    {
        if (held && now - held_since >= HOLD_US)
            release_held(now);
        while (!line.empty() && line.front().first <= now) {
            out(line.front().second);
            line.pop_front();
        }
    }

    // When the next datagram is due or a held one goes (INT64_MAX: never).
    int64_t next_due() const
    {
        int64_t next = line.empty() ? INT64_MAX : line.front().first;
        if (held)
            next = std::min(next, held_since + HOLD_US);
        return next;
    }
};
