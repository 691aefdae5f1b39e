// Throughput of the package CRC and the cost of one queue hand-over between
// two threads.
#include "lib/sys/crc.h"
#include "lib/sys/ilist_queue.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace
{

constexpr size_t CRC_BUFFER = 64u << 20;

const std::vector<uint8_t> &crc_input()
{
    static const std::vector<uint8_t> buf = [] {
        std::vector<uint8_t> b(CRC_BUFFER);
        std::mt19937 rng(1);
        for (auto &x : b)
            x = static_cast<uint8_t>(rng());
        return b;
    }();
    return buf;
}

void BM_crc32(benchmark::State &state)
{
    const auto &buf = crc_input();
    state.SetLabel(crc32_is_accelerated() ? "zlib" : "table");
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(buf.data(), buf.size(), 0));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(buf.size()));
}
BENCHMARK(BM_crc32)->Unit(benchmark::kMillisecond);

void BM_crc32_bytewise(benchmark::State &state)
{
    const auto &buf = crc_input();
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32_bytewise(buf.data(), buf.size(), 0));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(buf.size()));
}
BENCHMARK(BM_crc32_bytewise)->Unit(benchmark::kMillisecond);

// One node bounces between two threads through two queues: every iteration
// is two hand-overs (enqueue on one thread, dequeue on the other).
void BM_queue_handover(benchmark::State &state)
{
    timespec wait = {5, 0};
    ilq_desc_t ping;
    ilq_desc_t pong;
    ilq_init(&ping, &wait);
    ilq_init(&pong, &wait);
    ilist_node_t ball = {nullptr, nullptr};

    std::thread echo([&] {
        ilist_node_t *n;
        while ((n = ilq_dequeue(&ping)) != nullptr)
            ilq_enqueue(&pong, n);
    });
    for (auto _ : state) {
        ilq_enqueue(&ping, &ball);
        benchmark::DoNotOptimize(ilq_dequeue(&pong));
    }
    ilq_release(&ping);
    echo.join();
    ilq_destroy(&ping);
    ilq_destroy(&pong);

    state.counters["per_handover"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * 2,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_queue_handover)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
