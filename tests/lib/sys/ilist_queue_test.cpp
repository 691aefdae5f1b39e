#include "lib/sys/ilist_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <pthread.h>
#include <thread>
#include <vector>

namespace
{

struct item {
    ilist_node_t node; // first: node pointer == record pointer
    int producer;
    int seq;
};

// Milliseconds one call of `f` takes on the monotonic clock.
template <typename F> double elapsed_ms(F &&f)
{
    auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

class Queue : public ::testing::Test
{
  protected:
    void init(long wait_ms)
    {
        timespec w = {wait_ms / 1000, (wait_ms % 1000) * 1000000L};
        ilq_init(&q, &w);
    }
    void TearDown() override { ilq_destroy(&q); }
    // Dequeues once; the result goes to *got, the time taken is returned.
    double timed_dequeue(ilist_node_t **got)
    {
        return elapsed_ms([&] { *got = ilq_dequeue(&q); });
    }
    ilq_desc_t q;
    item it[4] = {{{}, 0, 0}, {{}, 0, 1}, {{}, 0, 2}, {{}, 0, 3}};
};

TEST_F(Queue, PushedNodeComesBeforeOlderEnqueuedNodes)
{
    init(1000);
    ilq_enqueue(&q, &it[0].node);
    ilq_enqueue(&q, &it[1].node);
    ilq_push(&q, &it[2].node);
    EXPECT_FALSE(ilq_is_empty(&q));
    EXPECT_EQ(ilq_dequeue(&q), &it[2].node);
    EXPECT_EQ(ilq_dequeue(&q), &it[0].node);
    EXPECT_EQ(ilq_dequeue(&q), &it[1].node);
    EXPECT_TRUE(ilq_is_empty(&q));
}

void no_op_handler(int) {}

TEST_F(Queue, EmptyDequeueWaitsTheFullTimeDespiteSignals)
{
    init(600);
    struct sigaction sa = {}, old_sa;
    sa.sa_handler = no_op_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: the wait sees EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old_sa), 0);

    std::atomic<bool> done{false};
    ilist_node_t *got = &it[0].node;
    double waited = 0;
    std::thread consumer([&] {
        waited = timed_dequeue(&got);
        done = true;
    });
    int signals = 0;
    while (!done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!done && pthread_kill(consumer.native_handle(), SIGUSR1) == 0)
            ++signals;
    }
    consumer.join();
    sigaction(SIGUSR1, &old_sa, nullptr);

    EXPECT_EQ(got, nullptr);
    EXPECT_GT(signals, 5);
    EXPECT_GE(waited, 599.0);
    EXPECT_LT(waited, 1500.0);
}

TEST_F(Queue, ReleaseReturnsNullAtOnceOnlyWhenTheListIsEmpty)
{
    init(10000);
    ilist_node_t *got = &it[0].node;
    std::thread consumer([&] { timed_dequeue(&got); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ilq_release(&q); // wakes the blocked consumer with nothing
    consumer.join();
    EXPECT_EQ(got, nullptr);

    ilq_release(&q); // counts for a later dequeue too
    EXPECT_LT(timed_dequeue(&got), 1000.0);
    EXPECT_EQ(got, nullptr);

    // On a non-empty list the head comes first, and the extra unit stays
    // for the emptied list.
    ilq_enqueue(&q, &it[0].node);
    ilq_release(&q);
    EXPECT_EQ(ilq_dequeue(&q), &it[0].node);
    got = &it[1].node;
    EXPECT_LT(timed_dequeue(&got), 1000.0);
    EXPECT_EQ(got, nullptr);
}

std::vector<int> g_flushed;
void record_flushed(ilist_node_t *n)
{
    g_flushed.push_back(reinterpret_cast<item *>(n)->seq);
}

TEST_F(Queue, FlushHandsOverHeadToTailAndDiscardsPendingPosts)
{
    init(300);
    g_flushed.clear();
    ilq_enqueue(&q, &it[1].node);
    ilq_enqueue(&q, &it[2].node);
    ilq_push(&q, &it[0].node);
    ilq_release(&q);
    ilq_flush(&q, record_flushed);
    EXPECT_EQ(g_flushed, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(ilq_is_empty(&q));

    ilist_node_t *got = &it[3].node;
    EXPECT_GE(timed_dequeue(&got), 299.0);
    EXPECT_EQ(got, nullptr);
    ilq_enqueue(&q, &it[3].node);
    EXPECT_EQ(ilq_dequeue(&q), &it[3].node);
}

TEST_F(Queue, DeadlineNanosecondsCarryIntoSeconds)
{
    init(500);
    // Start when the wall clock's nanoseconds make the sum pass one second.
    timespec now;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        clock_gettime(CLOCK_REALTIME, &now);
    } while (now.tv_nsec < 600000000L || now.tv_nsec > 850000000L);
    ilist_node_t *got = &it[0].node;
    double waited = timed_dequeue(&got);
    EXPECT_EQ(got, nullptr);
    EXPECT_GE(waited, 499.0);
    EXPECT_LT(waited, 1400.0);
}

// Blocked consumers take nodes as producers add them; every node arrives
// exactly once and each consumer sees a subsequence of the FIFO order.
TEST_F(Queue, SeveralProducersAndConsumersHandOverEveryNodeOnce)
{
    constexpr int producers = 4, per_producer = 2000, consumers = 3;
    init(10000);
    std::vector<item> pool(producers * per_producer);
    std::vector<std::vector<item *>> received(consumers);
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&, c] {
            ilist_node_t *n;
            while ((n = ilq_dequeue(&q)) != nullptr)
                received[c].push_back(reinterpret_cast<item *>(n));
        });
    std::vector<std::thread> senders;
    for (int p = 0; p < producers; ++p)
        senders.emplace_back([&, p] {
            for (int s = 0; s < per_producer; ++s) {
                item *i = &pool[p * per_producer + s];
                *i = item{{}, p, s};
                ilq_enqueue(&q, &i->node);
            }
        });
    for (auto &t : senders)
        t.join();
    for (int c = 0; c < consumers; ++c)
        ilq_release(&q);
    for (auto &t : threads)
        t.join();

    std::vector<int> seen(pool.size(), 0);
    for (auto &got : received) {
        std::vector<int> last(producers, -1);
        for (item *i : got) {
            ++seen[i->producer * per_producer + i->seq];
            EXPECT_GT(i->seq, last[i->producer]);
            last[i->producer] = i->seq;
        }
    }
    EXPECT_EQ(seen, std::vector<int>(pool.size(), 1));
    EXPECT_TRUE(ilq_is_empty(&q));
}

} // namespace
