#include "lib/flow.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

void swuc_rto::sample(int64_t rtt_us)
{
    rtt_us = std::max<int64_t>(rtt_us, 0);
    if (!sampled) {
        srtt_us = rtt_us;
        rttvar_us = rtt_us / 2;
        sampled = true;
    } else {
        rttvar_us = (3 * rttvar_us + std::llabs(srtt_us - rtt_us)) / 4;
        srtt_us = (7 * srtt_us + rtt_us) / 8;
    }
    rto_us = std::clamp(srtt_us + 4 * rttvar_us, floor_us, ceil_us);
}

void swuc_rto::back_off()
{
    rto_us = std::min(rto_us * 2, ceil_us);
}

void swuc_rto::lower_floor()
{
    floor_us = std::max(base_floor_us, floor_us / 2);
    rto_us = std::clamp(rto_us, floor_us, ceil_us);
}

void swuc_rto::raise_floor(int64_t us)
{
    floor_us = std::clamp(us, floor_us, std::max(floor_us, ceil_us / 4));
    rto_us = std::clamp(rto_us, floor_us, ceil_us);
}

namespace
{

// Below this window a burst is not waited for: the link, not the terminal's
// wake-ups, is what holds the stream back.
constexpr double BURST_FROM_WINDOW = 8;

// A loss takes 30 % off the window, and the window grows back by ALPHA
// packets per round trip: the pair keeps the mean rate of halving and growing
// by one, with a window that swings less, so a random loss costs less.
constexpr double BETA = 0.7;
constexpr double ALPHA = 3 * (1 - BETA) / (1 + BETA);

size_t ring_size(uint32_t window)
{
    size_t n = 8;
    while (n < 2 * static_cast<size_t>(window) + 2)
        n *= 2;
    return n;
}

} // namespace

swuc_flow::swuc_flow(uint64_t count, const swuc_flow_opts &opts)
    : count_(count), o_(opts), rto_(opts.initial_rto_us, opts.min_rto_us, opts.max_rto_us),
      cwnd_(std::clamp<double>(opts.initial_window, 1, std::max<uint32_t>(opts.max_window, 1))),
      ssthresh_(std::max<uint32_t>(opts.max_window, 1)), slots_(ring_size(opts.max_window))
{
    o_.max_window = std::max<uint32_t>(o_.max_window, 1);
}

uint64_t swuc_flow::next_to_send()
{
    if (done())
        return 0;
    // The terminal counts a second segment 1 as a restart of the stream, so
    // it goes alone and is sent again only when probes with segment 2 (which
    // the terminal acknowledges only after segment 1) stay unanswered.
    if (base_ == 1) {
        if (next_ == 1)
            return 1;
        return probe_due_ && count_ >= 2 ? 2 : 0;
    }
    const auto in_flight = static_cast<double>(next_ - base_);
    if (next_ > count_ || in_flight >= cwnd_)
        return 0;
    if (burst_left_ == 0) {
        const double room = std::floor(cwnd_ - in_flight);
        const double burst = cwnd_ < BURST_FROM_WINDOW
                                 ? 1.0
                                 : std::max(1.0, std::min<double>(o_.burst, std::floor(cwnd_ / 2)));
        if (in_flight > 0 && room < burst)
            return 0;
        burst_left_ = static_cast<uint32_t>(std::max(room, 1.0));
    }
    return next_;
}

void swuc_flow::sent(uint64_t seg, int64_t now_us)
{
    slot &s = at(seg);
    s.again = seg <= highest_;
    s.sent_us = now_us;
    if (!s.again)
        s.first_us = now_us;
    if (s.again)
        resent_++;
    highest_ = std::max(highest_, seg);
    if (seg == next_) {
        next_++;
        if (burst_left_ > 0)
            burst_left_--;
    }
    if (base_ == 1 && seg == 2) {
        probe_due_ = false;
        probes_++;
    }
    if (seg == base_ || (base_ == 1 && seg == 2))
        timer_from_us_ = now_us;
}

bool swuc_flow::acked(uint64_t seg, int64_t now_us)
{
    if (seg < base_ && highest_ - seg < slots_.size() && at(seg).again &&
        timeouts_ > late_seen_at_) {
        // The terminal had a packet sent again since the latest time-out.
        late_seen_at_ = timeouts_;
        late_timeouts_++;
        cwnd_ = std::max(cwnd_, undo_cwnd_);
        ssthresh_ = std::max(ssthresh_, undo_ssthresh_);
        recover_ = undo_recover_;
        next_ = std::max(next_, highest_ + 1);
        burst_left_ = 0;
        // Only a terminal whose time-outs are mostly delays is waited for
        // longer: on a lossy link the wait would cost each real loss.
        if (2 * late_timeouts_ > timeouts_)
            rto_.raise_floor(now_us - at(seg).first_us);
        return false;
    }
    if (seg < base_ || seg > highest_)
        return false;
    if (!at(seg).again)
        rto_.sample(now_us - at(seg).sent_us);
    else if (rto_.sampled) // progress ends the back-off
        rto_.rto_us = std::clamp(rto_.srtt_us + 4 * rto_.rttvar_us, rto_.floor_us, rto_.ceil_us);
    const uint64_t newly = seg + 1 - base_;
    for (uint64_t i = 0; i < newly && cwnd_ < o_.max_window; i++)
        cwnd_ += cwnd_ < ssthresh_ ? 1.0 : ALPHA / cwnd_;
    cwnd_ = std::min<double>(cwnd_, o_.max_window);
    if (base_ == 1)
        cwnd_ = std::min<double>(o_.initial_window, o_.max_window);
    base_ = seg + 1;
    next_ = std::max(next_, base_);
    consecutive_ = 0;
    probes_ = 0;
    probe_due_ = false;
    // The new oldest packet is overdue one time-out after it left, not after
    // this acknowledgement: a loss in a burst is seen a round trip sooner.
    timer_from_us_ = next_ > base_ ? at(base_).sent_us : now_us;
    return true;
}

int64_t swuc_flow::deadline_us() const
{
    const bool in_flight = highest_ >= base_ && !done();
    return in_flight ? timer_from_us_ + rto_.rto_us : INT64_MAX;
}

bool swuc_flow::expire(int64_t now_us)
{
    if (now_us < deadline_us())
        return false;
    if (timeouts_ > late_seen_at_)
        rto_.lower_floor(); // the previous time-out was never shown to be a delay
    timeouts_++;
    consecutive_++;
    if (consecutive_ > 1)
        rto_.back_off();
    timer_from_us_ = now_us;
    burst_left_ = 0;
    if (base_ == 1) {
        if (count_ >= 2 && probes_ < o_.first_probes) {
            probe_due_ = true;
        } else {
            next_ = 1;
            probes_ = 0;
        }
        return true;
    }
    undo_cwnd_ = cwnd_;
    undo_ssthresh_ = ssthresh_;
    undo_recover_ = recover_;
    if (consecutive_ == 1 && base_ > recover_) {
        // One loss, one halving: the packets lost with it are the same loss.
        ssthresh_ = std::max(cwnd_ * BETA, 2.0);
        cwnd_ = std::min(ssthresh_, cwnd_);
        recover_ = highest_;
    } else if (consecutive_ > 1) {
        cwnd_ = 1; // nothing gets through: feel the way again
    }
    next_ = base_;
    return true;
}
