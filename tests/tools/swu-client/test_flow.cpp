// The stream's time-out estimator and window control, driven by a clock of
// the test's own: loss bursts, delay spikes, repeated and stray
// acknowledgements, and the care segment 1 needs.
#include "lib/flow.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace
{

constexpr int64_t MS = 1000;

// Sends everything the flow allows at `now`; returns the segments sent.
std::vector<uint64_t> send_all(swuc_flow &f, int64_t now)
{
    std::vector<uint64_t> out;
    for (uint64_t seg; (seg = f.next_to_send()) != 0;) {
        f.sent(seg, now);
        out.push_back(seg);
    }
    return out;
}

// Segment 1 out and acknowledged after `rtt`, so the window is open.
swuc_flow started(uint64_t count, const swuc_flow_opts &o, int64_t rtt = 2 * MS)
{
    swuc_flow f(count, o);
    send_all(f, 0);
    EXPECT_TRUE(f.acked(1, rtt));
    return f;
}

// Sends and has every flight acknowledged 2 ms later until the window
// reaches `cap` (20 round trips at most); a full window is then in flight.
void open_up(swuc_flow &f, double cap, int64_t *t)
{
    send_all(f, *t);
    for (int round = 0; round < 20 && f.window() < cap; round++) {
        *t += 2 * MS;
        EXPECT_TRUE(f.acked(f.next() - 1, *t));
        send_all(f, *t);
    }
}

} // namespace

TEST(Rto, FollowsTheRoundTripBetweenItsFloorAndCeilingAndBacksOff)
{
    swuc_rto r(100 * MS, 2 * MS, 1000 * MS);
    EXPECT_EQ(r.rto_us, 100 * MS) << "before any sample";
    r.sample(4 * MS); // first: mean 4, deviation 2
    EXPECT_EQ(r.srtt_us, 4 * MS);
    EXPECT_EQ(r.rttvar_us, 2 * MS);
    EXPECT_EQ(r.rto_us, 12 * MS);
    for (int i = 0; i < 50; i++)
        r.sample(100); // a steady fast link
    EXPECT_EQ(r.rto_us, 2 * MS) << "the floor holds";
    r.sample(40 * MS); // a delay spike
    EXPECT_GT(r.rto_us, 40 * MS) << "one spike widens the margin at once";
    const int64_t widened = r.rto_us;
    for (int i = 0; i < 10; i++)
        r.sample(100);
    EXPECT_LT(r.rto_us, widened / 2) << "and it fades";
    r.back_off();
    const int64_t once = r.rto_us;
    r.back_off();
    EXPECT_EQ(r.rto_us, 2 * once);
    for (int i = 0; i < 20; i++)
        r.back_off();
    EXPECT_EQ(r.rto_us, 1000 * MS) << "the ceiling holds";
    r.raise_floor(30 * MS);
    r.raise_floor(10 * MS);
    EXPECT_EQ(r.floor_us, 30 * MS) << "it only rises";
    r.raise_floor(900 * MS);
    EXPECT_EQ(r.floor_us, 250 * MS) << "to a quarter of the ceiling at most";
    r.lower_floor();
    EXPECT_EQ(r.floor_us, 125 * MS) << "and halfway back down";
}

TEST(Flow, SegmentOneIsProbedWithSegmentTwoAndSentAgainOnlyWhenProbesGoUnanswered)
{
    swuc_flow_opts o;
    o.first_probes = 2;
    swuc_flow f(100, o);
    EXPECT_EQ(send_all(f, 0), std::vector<uint64_t>{1}) << "segment 1 travels alone";
    EXPECT_FALSE(f.expire(f.deadline_us() - 1));
    int64_t t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    EXPECT_EQ(send_all(f, t), std::vector<uint64_t>{2}) << "a probe, not a second segment 1";
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    EXPECT_EQ(send_all(f, t), std::vector<uint64_t>{2});
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    EXPECT_EQ(send_all(f, t), std::vector<uint64_t>{1}) << "two probes unanswered";

    // An answered probe proves segment 1 arrived.
    swuc_flow g(100, o);
    send_all(g, 0);
    ASSERT_TRUE(g.expire(g.deadline_us()));
    send_all(g, 0);
    EXPECT_TRUE(g.acked(2, 5 * MS));
    EXPECT_EQ(g.base(), 3u);
    EXPECT_EQ(send_all(g, 5 * MS).front(), 3u);

    // A one-packet package has nothing to probe with.
    swuc_flow one(1, o);
    send_all(one, 0);
    ASSERT_TRUE(one.expire(one.deadline_us()));
    EXPECT_EQ(send_all(one, 0), std::vector<uint64_t>{1});
}

TEST(Flow, WindowOpensUpToItsCapAndALossCutsItOnceThenShutsIt)
{
    swuc_flow_opts o;
    o.max_window = 16;
    o.initial_window = 4;
    swuc_flow f = started(10000, o);
    int64_t t = 2 * MS;
    EXPECT_EQ(send_all(f, t).size(), 4u);
    // Loss-free round trips: the window doubles, then stops at the cap.
    open_up(f, o.max_window, &t);
    EXPECT_EQ(f.window(), 16.0);
    EXPECT_EQ(f.next() - f.base(), 16u);
    // A full window refills in bursts of half of it, not packet by packet.
    t += MS;
    ASSERT_TRUE(f.acked(f.base(), t));
    EXPECT_TRUE(send_all(f, t).empty());
    ASSERT_TRUE(f.acked(f.base() + 6, t));
    EXPECT_EQ(f.deadline_us(), t - MS + f.rto().rto_us)
        << "the oldest is overdue a time-out after it left, not after the last acknowledgement";
    EXPECT_EQ(send_all(f, t).size(), 8u);

    // A burst takes the oldest packets in flight: nothing more is
    // acknowledged, so at the deadline the flow goes back to the first lost.
    const uint64_t lost = f.base();
    const int64_t rto = f.rto().rto_us;
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    EXPECT_DOUBLE_EQ(f.window(), 16 * 0.7) << "one loss, one cut";
    EXPECT_EQ(f.rto().rto_us, rto) << "a lone loss says nothing about the round trip";
    std::vector<uint64_t> again = send_all(f, t);
    ASSERT_EQ(again.size(), 11u);
    EXPECT_EQ(again.front(), lost);
    // Lost again: the link is shut, so one packet feels the way.
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    EXPECT_EQ(f.window(), 1.0);
    EXPECT_EQ(f.rto().rto_us, 2 * rto);
    EXPECT_EQ(send_all(f, t), std::vector<uint64_t>{lost});
    EXPECT_EQ(f.consecutive_timeouts(), 2);
    // It gets through; the back-off ends with the progress.
    ASSERT_TRUE(f.acked(lost, t + 2 * MS));
    EXPECT_EQ(f.consecutive_timeouts(), 0);
    EXPECT_LT(f.rto().rto_us, 2 * rto);
    EXPECT_EQ(f.resent(), 12u);
    // A time-out of a packet sent before the cut is the same loss: no second
    // cut. One after the lost flight is a new loss.
    for (int i = 0; i < 3; i++) {
        send_all(f, t += 2 * MS);
        ASSERT_TRUE(f.acked(f.base(), t + MS));
    }
    ASSERT_LE(f.base(), lost + 10);
    const double before = f.window();
    ASSERT_TRUE(f.expire(f.deadline_us()));
    EXPECT_EQ(f.window(), before) << "one loss cut twice";
    for (t = f.deadline_us(); f.base() <= lost + 18; t += 2 * MS) {
        send_all(f, t);
        ASSERT_TRUE(f.acked(f.next() - 1, t + 2 * MS));
    }
    send_all(f, t);
    const double grown = f.window();
    ASSERT_TRUE(f.expire(f.deadline_us()));
    EXPECT_DOUBLE_EQ(f.window(), grown * 0.7) << "a new loss";
}

TEST(Flow, AfterALossTheWindowGrowsBackByHalfAPacketPerRoundTripWithoutWaitingForBursts)
{
    swuc_flow_opts o;
    o.max_window = 8;
    swuc_flow f = started(10000, o);
    int64_t t = 2 * MS;
    open_up(f, o.max_window, &t);
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    const double cut = f.window();
    ASSERT_DOUBLE_EQ(cut, 8 * 0.7);
    // A small window sends each freed slot at once: with the round trip of a
    // radio link, waiting for a burst would idle it.
    ASSERT_EQ(send_all(f, t).size(), 5u);
    t += 2 * MS;
    ASSERT_TRUE(f.acked(f.base(), t));
    EXPECT_EQ(send_all(f, t).size(), 1u);
    // A window's worth of acknowledgements is one round trip.
    for (int i = 0; i < 5; i++)
        ASSERT_TRUE(f.acked(f.base(), t));
    EXPECT_NEAR(f.window() - cut, 0.53, 0.05);
}

TEST(Flow, RepeatedStrayAndLateAcknowledgementsAreHarmless)
{
    swuc_flow_opts o;
    swuc_flow f = started(1000, o);
    send_all(f, 2 * MS);
    ASSERT_TRUE(f.acked(3, 4 * MS));
    const double w = f.window();
    EXPECT_FALSE(f.acked(3, 4 * MS)) << "a duplicate";
    EXPECT_FALSE(f.acked(2, 4 * MS)) << "an old one, reordered";
    EXPECT_FALSE(f.acked(f.next() + 5, 4 * MS)) << "a packet never sent";
    EXPECT_FALSE(f.acked(0, 4 * MS));
    EXPECT_EQ(f.base(), 4u);
    EXPECT_EQ(f.window(), w);

    // After going back, an acknowledgement of a packet sent before still
    // counts (it was a delay, not a loss) and is no round-trip sample.
    const uint64_t top = f.next() - 1;
    ASSERT_TRUE(f.expire(f.deadline_us()));
    EXPECT_EQ(f.next(), f.base());
    const int64_t srtt = f.rto().srtt_us;
    f.sent(f.next_to_send(), 60 * MS); // the oldest, sent again
    EXPECT_TRUE(f.acked(top, 500 * MS));
    EXPECT_EQ(f.base(), top + 1);
    EXPECT_EQ(f.next(), top + 1);
    EXPECT_NE(f.rto().srtt_us, srtt) << "the untouched newest one still measures";
}

TEST(Flow, ATimeOutTheTerminalShowsToBeADelayGivesTheWindowBackAndRaisesTheFloor)
{
    swuc_flow_opts o;
    o.max_window = 16;
    swuc_flow f = started(10000, o);
    int64_t t = 2 * MS;
    open_up(f, o.max_window, &t);
    const uint64_t first = f.base(), top = f.next() - 1;
    // The terminal stalls past the time-out; the flow goes back and sends
    // part of the window again.
    t = f.deadline_us();
    ASSERT_TRUE(f.expire(t));
    ASSERT_EQ(send_all(f, t).size(), 11u);
    // It wakes up and answers the first packets, then the copies of them.
    const int64_t first_left = t - f.rto().rto_us;
    ASSERT_TRUE(f.acked(first + 3, t + MS));
    EXPECT_FALSE(f.acked(first, t + 2 * MS));
    EXPECT_EQ(f.late_timeouts(), 1u);
    EXPECT_EQ(f.window(), 16.0) << "the cut is given back";
    EXPECT_EQ(f.next(), top + 1) << "the rest of the window is not sent a third time";
    const int64_t raised = f.rto().floor_us;
    EXPECT_EQ(raised, t + 2 * MS - first_left) << "as long as the first packet took";
    EXPECT_FALSE(f.acked(first + 1, t + 9 * MS));
    EXPECT_EQ(f.late_timeouts(), 1u) << "one time-out, one lesson";
    // Time-outs that nothing shows late were losses: each brings it down.
    ASSERT_TRUE(f.expire(f.deadline_us()));
    EXPECT_EQ(f.rto().floor_us, raised);
    ASSERT_TRUE(f.expire(f.deadline_us()));
    EXPECT_EQ(f.rto().floor_us, raised / 2);
}

TEST(Flow, AnAcknowledgementOfAPacketSentTwiceIsNoRoundTripSample)
{
    swuc_flow_opts o;
    o.max_window = 1;
    swuc_flow f = started(10, o, 2 * MS);
    const int64_t srtt = f.rto().srtt_us;
    f.sent(f.next_to_send(), 10 * MS);
    ASSERT_TRUE(f.expire(f.deadline_us()));
    f.sent(f.next_to_send(), 400 * MS);
    ASSERT_TRUE(f.acked(2, 401 * MS)); // for which send? Karn: neither
    EXPECT_EQ(f.rto().srtt_us, srtt);
    EXPECT_EQ(f.deadline_us(), INT64_MAX) << "nothing in flight";
    EXPECT_EQ(send_all(f, 401 * MS), std::vector<uint64_t>{3}) << "stop-and-wait";
}
