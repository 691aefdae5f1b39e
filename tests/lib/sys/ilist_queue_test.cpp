#include "lib/sys/ilist_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    int seq;
};

// A queue whose dequeues wait 300 ms.
struct Queue : ::testing::Test {
    void SetUp() override
    {
        timespec wait = {0, 300000000L};
        ilq_init(&q, &wait);
    }
    void TearDown() override { ilq_destroy(&q); }
    // Dequeues once into `got`; the milliseconds it took.
    double timed_dequeue()
    {
        auto start = std::chrono::steady_clock::now();
        got = ilq_dequeue(&q);
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count();
    }
    ilq_desc_t q;
    item it[4] = {{{}, 0}, {{}, 1}, {{}, 2}, {{}, 3}};
    ilist_node_t *got = &it[3].node;
};

// Started when the wall clock's nanoseconds make the deadline's sum pass a
// second, so the carry into tv_sec is exercised too.
TEST_F(Queue, EmptyDequeueWaitsTheFullTimeDespiteSignalsAndASecondsCarry)
{
    struct sigaction sa = {}, old_sa;
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask); // no SA_RESTART: the wait sees EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old_sa), 0);
    timespec now;
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        clock_gettime(CLOCK_REALTIME, &now);
    } while (now.tv_nsec < 750000000L || now.tv_nsec > 900000000L);

    std::atomic<bool> done{false};
    double waited = 0;
    std::thread consumer([&] {
        waited = timed_dequeue();
        done = true;
    });
    int signals = 0;
    for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(20)))
        signals += !done && pthread_kill(consumer.native_handle(), SIGUSR1) == 0;
    consumer.join();
    sigaction(SIGUSR1, &old_sa, nullptr);
    EXPECT_EQ(got, nullptr);
    EXPECT_GT(signals, 2);
    EXPECT_GE(waited, 299.0);
    EXPECT_LT(waited, 1000.0);
}

std::vector<int> g_flushed;

TEST_F(Queue, ReleaseWakesOneDequeueAndFlushDiscardsWhatIsPending)
{
    std::thread consumer([&] { EXPECT_LT(timed_dequeue(), 250.0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ilq_release(&q); // wakes the blocked consumer with nothing
    consumer.join();
    EXPECT_EQ(got, nullptr);

    // On a non-empty list the head comes first, and the extra unit stays
    // for the emptied list.
    ilq_enqueue(&q, &it[0].node);
    ilq_release(&q);
    EXPECT_EQ(ilq_dequeue(&q), &it[0].node);
    EXPECT_EQ(ilq_length(&q), 1);
    EXPECT_EQ(ilq_dequeue(&q), nullptr);

    ilq_enqueue(&q, &it[1].node);
    ilq_enqueue(&q, &it[2].node);
    ilq_push(&q, &it[0].node);
    ilq_release(&q);
    EXPECT_EQ(ilq_length(&q), 4); // three nodes and a release
    ilq_flush(&q, [](ilist_node_t *n) { g_flushed.push_back(reinterpret_cast<item *>(n)->seq); });
    EXPECT_EQ(g_flushed, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(ilq_is_empty(&q));
    EXPECT_EQ(ilq_length(&q), 0);
    EXPECT_GE(timed_dequeue(), 299.0);
}

// A node queued while its consumer sleeps wakes it at once: two threads pass
// one node back and forth through two queues, and a missed wake-up would hold
// a hand-over for the whole 2 s wait.
TEST_F(Queue, ASleepingConsumerIsWokenByEveryHandOver)
{
    const timespec wait = {2, 0};
    q.time_to_wait = wait;
    ilq_desc_t back;
    ilq_init(&back, &wait);
    std::thread echo([&] {
        for (ilist_node_t *n; (n = ilq_dequeue(&q)) != nullptr;)
            ilq_enqueue(&back, n);
    });
    int round = 0;
    for (; round < 20000; ++round) {
        ilq_enqueue(&q, &it[0].node);
        const auto start = std::chrono::steady_clock::now();
        if (ilq_dequeue(&back) != &it[0].node ||
            std::chrono::steady_clock::now() - start > std::chrono::seconds(1))
            break;
    }
    ilq_release(&q);
    echo.join();
    ilq_destroy(&back);
    EXPECT_EQ(round, 20000);
}

// Blocked consumers take nodes as producers add them; every node arrives
// exactly once.
TEST_F(Queue, SeveralProducersAndConsumersHandOverEveryNodeOnce)
{
    constexpr int producers = 4, consumers = 3;
    q.time_to_wait.tv_sec = 10;
    std::vector<item> pool(8000);
    std::vector<std::atomic<int>> seen(pool.size());
    std::vector<std::thread> threads, senders;
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&] {
            for (ilist_node_t *n; (n = ilq_dequeue(&q)) != nullptr;)
                seen[static_cast<size_t>(reinterpret_cast<item *>(n) - pool.data())]++;
        });
    for (int p = 0; p < producers; ++p)
        senders.emplace_back([&, p] {
            for (size_t k = static_cast<size_t>(p); k < pool.size(); k += producers)
                ilq_enqueue(&q, &pool[k].node);
        });
    for (auto &t : senders)
        t.join();
    for (int c = 0; c < consumers; ++c)
        ilq_release(&q);
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(pool.size()));
    EXPECT_TRUE(ilq_is_empty(&q));
}

} // namespace
