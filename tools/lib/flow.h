// The sender's side of the package stream, without any I/O: which segment
// goes next, when an acknowledgement is overdue, how many packets may be in
// flight. Times are microseconds of a monotonic clock given by the caller, so
// the tests drive it with a clock of their own.
//
// The terminal writes only the segment it expects and acknowledges only what
// it wrote or already had, so an acknowledgement covers every segment before
// it, and a packet lost takes every later one in flight with it: the sender
// goes back to the oldest unacknowledged segment. The loss is seen by silence
// alone, so the time-out follows the measured round trip (a smoothed mean and
// deviation, samples only from packets sent once) and runs from the oldest
// packet's own departure, and the window shrinks on
// each loss and grows back slowly, so a lossy link is not flooded with
// packets that will be thrown away.
//
// A slow terminal (a Cortex-A9 writing its card) can stall for longer than the
// time-out without losing anything; it then acknowledges again a packet sent
// twice. That acknowledgement shows the time-out was a delay: the window gets
// back what the time-out took and the rest of it is not sent again. While
// most time-outs turn out delays, the time-out's floor rises to the time that
// packet took, so a terminal that stalls is waited for instead of flooded; a
// time-out never shown to be a delay was a loss and halves it again.
#pragma once

#include <cstdint>
#include <vector>

// Retransmission time-out from round-trip samples: the mean and the mean
// deviation, smoothed by 1/8 and 1/4, and a time-out of the mean plus four
// deviations between a floor and a ceiling; the flow doubles it from the
// second time-out in a row.
struct swuc_rto {
    int64_t base_floor_us;
    int64_t floor_us; // raised by late time-outs, lowered by losses
    int64_t ceil_us;
    int64_t srtt_us = 0;
    int64_t rttvar_us = 0;
    int64_t rto_us;
    bool sampled = false;

    swuc_rto(int64_t initial_us, int64_t floor, int64_t ceil)
        : base_floor_us(floor), floor_us(floor), ceil_us(ceil), rto_us(initial_us)
    {
    }
    void sample(int64_t rtt_us);
    void back_off();
    // A floor of at least `us`, never above a quarter of the ceiling.
    void raise_floor(int64_t us);
    // Halfway back to the floor it started with.
    void lower_floor();
};

struct swuc_flow_opts {
    uint32_t max_window = 64;    // most packets in flight
    uint32_t initial_window = 4; // after segment 1
    // With packets in flight and a window of 8 or more, new ones wait until
    // this many (at most half the window) can go together: the terminal then
    // wakes once for a burst rather than once for each packet.
    uint32_t burst = 16;
    int64_t initial_rto_us = 100000;
    int64_t min_rto_us = 2000; // a LAN's floor: below it a busy terminal looks lossy
    int64_t max_rto_us = 1000000;
    // Unanswered probes with segment 2 before segment 1 is sent again.
    int first_probes = 3;
};

class swuc_flow
{
  public:
    swuc_flow(uint64_t count, const swuc_flow_opts &opts);

    // The segment to send now, or 0 when the window is full or all is out.
    uint64_t next_to_send();
    void sent(uint64_t seg, int64_t now_us);
    // Takes an acknowledgement; true when it moved the window on. Old,
    // repeated and never-sent segments change nothing.
    bool acked(uint64_t seg, int64_t now_us);
    // When the oldest packet in flight is overdue (INT64_MAX with none out).
    int64_t deadline_us() const;
    // At or after the deadline: goes back (or probes while segment 1 is
    // unconfirmed) and shrinks the window. True when it did.
    bool expire(int64_t now_us);

    bool done() const { return base_ > count_; }
    uint64_t base() const { return base_; }
    uint64_t next() const { return next_; }
    double window() const { return cwnd_; }
    const swuc_rto &rto() const { return rto_; }
    uint64_t resent() const { return resent_; }
    uint32_t timeouts() const { return timeouts_; }
    // Time-outs that the terminal showed to be delays, not losses.
    uint32_t late_timeouts() const { return late_timeouts_; }
    // Time-outs since the window last moved.
    int consecutive_timeouts() const { return consecutive_; }

  private:
    struct slot {
        int64_t sent_us = 0;
        bool again = false;   // sent more than once: no round-trip sample
        int64_t first_us = 0; // its first departure
    };
    slot &at(uint64_t seg) { return slots_[seg & (slots_.size() - 1)]; }
    const slot &at(uint64_t seg) const { return slots_[seg & (slots_.size() - 1)]; }

    uint64_t count_;
    swuc_flow_opts o_;
    swuc_rto rto_;
    uint64_t base_ = 1;    // oldest unacknowledged
    uint64_t next_ = 1;    // next new send
    uint64_t highest_ = 0; // highest segment ever sent
    double cwnd_;          // packets allowed in flight
    double ssthresh_;      // slow start below it
    int64_t timer_from_us_ = 0;
    uint64_t recover_ = 0; // the window shrinks once per loss: not again before this is acked
    int probes_ = 0;       // segment-2 probes while segment 1 is unconfirmed
    bool probe_due_ = false;
    uint32_t burst_left_ = 0; // of the burst under way
    // The window before the latest time-out cut it.
    double undo_cwnd_ = 0;
    double undo_ssthresh_ = 0;
    uint64_t undo_recover_ = 0;
    uint32_t late_timeouts_ = 0;
    uint32_t late_seen_at_ = 0; // time-outs counted when the last delay showed
    uint64_t resent_ = 0;
    uint32_t timeouts_ = 0;
    int consecutive_ = 0;
    std::vector<slot> slots_;
};
