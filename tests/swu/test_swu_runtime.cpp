// The service's command line, its receive and transmit threads, and the
// sequence counter they share.
#include "handler_test.h"

#include <gmock/gmock.h>

#include <chrono>
#include <set>
#include <sys/socket.h>
#include <thread>

namespace
{

// Taken before main(), so before any test, whichever tests run.
const uint16_t g_first_seq_num = get_seq_num();

void parse(std::vector<std::string> args)
{
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    optind = 0; // a full rescan, as in a fresh process
    swu_parse_options(int(args.size()), argv.data());
}

TEST(SwuOptions, SwitchesAndReason)
{
    swu_harness::reset_globals();
    testing::internal::CaptureStdout();
    parse({"swu", "-S", "-F", "-L", "-Z", "-M", "-R", "0x3", "extra"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "swu reson: 0x3\n");
    EXPECT_EQ(g_swu_reson, 3);
    for (int f = 0; f < SIM_FAILURE_COUNT; f++)
        EXPECT_TRUE(sim_failure_armed(static_cast<sim_failure>(f))) << f;
    swu_harness::reset_globals();
}

TEST(SwuOptions, UnknownOptionOrMissingValuePrintsTheUsage)
{
    const char *usage =
        "Usage: swu [-S] [-w num of iterations]\n\tS:\tsimulate stream failure\n\tF:\tsimulate "
        "invalid file name\n\tL:\tsimulate invalid file name length\n\tZ:\tsimulate invalid pkg "
        "size\n\tM:\tsimulate memory failure\n\tR:\tsimulate SWU reson (0x0, 0x1, 0x2, 0x3)\n";
    fflush(stdout);
    for (std::vector<std::string> args :
         {std::vector<std::string>{"swu", "-w", "3"}, {"swu", "-R"}})
        EXPECT_EXIT((dup2(STDERR_FILENO, STDOUT_FILENO), parse(args)), testing::ExitedWithCode(1),
                    testing::HasSubstr(usage));
}

struct loop_sock {
    loop_sock()
    {
        udps_init(&sock);
        udps_bind_str_addr(&sock, 0, "127.0.0.1");
        socklen_t len = sizeof(addr);
        getsockname(sock.sock_fd, reinterpret_cast<sockaddr *>(&addr), &len);
    }
    ~loop_sock() { udps_close(&sock); }
    udp_sock_t sock;
    sockaddr_in addr = {};
};

TEST(SwuThreads, DatagramsTravelWholeAndInOrderAndTheLastAnswerLeavesBeforeTheStop)
{
    swu_harness h({0, 200000000});
    loop_sock service, client;
    thread_desc_t rx = {0, &service.sock, &h.ctx.msg_q[RX_MSG_Q]};
    thread_desc_t tx = {0, &service.sock, &h.ctx.msg_q[TX_MSG_Q]};
    thread_desc_t adv = {0, nullptr, nullptr}; // not running
    ASSERT_EQ(pthread_create(&rx.thread_id, nullptr, rx_thrd_proc, &rx), 0);
    ASSERT_EQ(pthread_create(&tx.thread_id, nullptr, tx_thrd_proc, &tx), 0);

    for (size_t n : {1, 1500, 0, 4}) {
        std::string data(n, 'x');
        sendto(client.sock.sock_fd, data.data(), n, 0,
               reinterpret_cast<const sockaddr *>(&service.addr), sizeof(service.addr));
    }
    std::vector<uint32_t> got;
    for (int i = 0; i < 20 && got.size() < 3; i++) {
        if (msg_t *m = msg_dequeue(&h.ctx.msg_q[RX_MSG_Q])) {
            got.push_back(m->buffer_size);
            EXPECT_EQ(m->client_addr.sin_port, client.addr.sin_port);
            free(m);
        }
    }
    EXPECT_EQ(got, (std::vector<uint32_t>{1, 1480, 4})) << "cut to 1480, an empty one dropped";

    msg_t *last = msg_alloc(4); // queued just before the stop, as the reboot response is
    memcpy(last->buffer, "\x01\x00\x77\x00", 4);
    last->client_addr = client.addr;
    msg_send(&h.ctx.msg_q[TX_MSG_Q], last);
    auto t0 = std::chrono::steady_clock::now();
    swu_stop_threads(&h.ctx, &adv, &rx, &tx);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1500));
    char buf[16];
    EXPECT_EQ(recv(client.sock.sock_fd, buf, sizeof(buf), MSG_DONTWAIT), 4);
    g_to_exit = 0;
}

TEST(SequenceCounter, StartsAtOneWrapsToZeroAndNeverRepeatsAcrossThreads)
{
    EXPECT_EQ(g_first_seq_num, 1);
    uint16_t last = get_seq_num();
    for (int i = 0; i < 65536; ++i) {
        uint16_t n = get_seq_num();
        ASSERT_EQ(n, static_cast<uint16_t>(last + 1));
        last = n;
    }
    std::vector<uint16_t> a(30000), b(30000);
    auto take = [](std::vector<uint16_t> &v) {
        for (auto &n : v)
            n = get_seq_num();
    };
    std::thread ta(take, std::ref(a)), tb(take, std::ref(b));
    ta.join();
    tb.join();
    std::set<uint16_t> all(a.begin(), a.end());
    all.insert(b.begin(), b.end());
    EXPECT_EQ(all.size(), a.size() + b.size());
}

} // namespace
