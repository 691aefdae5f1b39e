#include "lib/udp_sock/udp_sock.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

// A receiver bound to an ephemeral loopback port, so parallel runs never meet.
struct UdpSock : ::testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(udps_init(&rx), &rx);
        ASSERT_EQ(udps_init(&tx), &tx);
        ASSERT_EQ(udps_bind_str_addr(&rx, 0, "127.0.0.1"), 0);
        socklen_t len = sizeof(dest);
        ASSERT_EQ(getsockname(rx.sock_fd, reinterpret_cast<sockaddr *>(&dest), &len), 0);
        dest.sin_family = 0; // as a caller fills it: the send sets the family
    }
    void TearDown() override
    {
        udps_close(&rx);
        udps_close(&tx);
    }
    udp_sock_t rx, tx;
    sockaddr_in dest;
};

TEST_F(UdpSock, InitSetsAddressReuseAndBindKeepsTheAddressAsked)
{
    int reuse = 0;
    socklen_t len = sizeof(reuse);
    ASSERT_EQ(getsockopt(tx.sock_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &len), 0);
    EXPECT_EQ(reuse, 1);
    EXPECT_EQ(rx.addr.sin_addr.s_addr, inet_addr("127.0.0.1"));

    // A second bind fails; the record still shows what was asked.
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_bind_addr(&rx, 7, htonl(INADDR_LOOPBACK)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind failed: Invalid argument\n");
    EXPECT_EQ(rx.addr.sin_port, htons(7));
}

TEST_F(UdpSock, DatagramTravelsWithItsSenderAndIsCutToTheBuffer)
{
    std::vector<char> buf(1480, 'x');
    sockaddr_in sender;
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    char hello[] = "status?";
    std::vector<char> big(3000, 'L');
    EXPECT_EQ(udps_sendto_nonblk(&tx, hello, sizeof(hello), &dest), 8);
    EXPECT_EQ(dest.sin_family, AF_INET);
    EXPECT_EQ(udps_sendto_nonblk(&tx, big.data(), big.size(), &dest), 3000);
    sockaddr_in tx_addr; // the unbound sender got an ephemeral port
    socklen_t len = sizeof(tx_addr);
    ASSERT_EQ(getsockname(tx.sock_fd, reinterpret_cast<sockaddr *>(&tx_addr), &len), 0);

    // Both sockets watched: only the receiver reports input.
    udp_sock_t socks[2] = {rx, tx};
    pollfd list[2];
    udps_set_poll_list(socks, list, 2, POLLIN);
    ASSERT_EQ(udps_poll(list, 2, 2000), 1);
    EXPECT_EQ(udps_test_sock_event(&socks[0], POLLIN | POLLERR), POLLIN);
    EXPECT_EQ(udps_test_sock_event(&socks[1], POLLIN), 0);
    ASSERT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), 8);
    std::vector<char> want(1480, 0); // the rest of the buffer zeroed
    memcpy(want.data(), "status?", 8);
    EXPECT_EQ(buf, want);
    EXPECT_EQ(sender.sin_port, tx_addr.sin_port);
    EXPECT_EQ(sender.sin_addr.s_addr, inet_addr("127.0.0.1"));

    buf.resize(1472);
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), 1472);
    EXPECT_EQ(buf, std::vector<char>(1472, 'L'));
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), -1); // rest dropped
}

TEST_F(UdpSock, FailuresAreReportedWithTheirMessages)
{
    std::vector<char> huge(70000); // more than a UDP datagram holds
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_sendto_nonblk(&tx, huge.data(), huge.size(), &dest), -1);
    EXPECT_LT(udps_join_multicast(&tx, "10.1.2.3"), 0); // not a group
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[sendto failed]: Message too long\nfailed to join multicast: Invalid argument\n");

    // A record whose creation failed (a closed descriptor could be reused by
    // the capture itself).
    udp_sock_t none = {};
    none.sock_fd = -1;
    testing::internal::CaptureStderr();
    EXPECT_NE(udps_join_multicast(&none, "227.0.0.0"), 0);
    EXPECT_EQ(udps_close(&none), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "failed to set SO_REUSEADDR: Bad file descriptor\n"
              "[usock close] : close failed: Bad file descriptor\n");

    // With no descriptor left, creation fails and says why.
    EXPECT_EXIT(
        {
            rlimit lim = rlimit();
            setrlimit(RLIMIT_NOFILE, &lim);
            udp_sock_t s;
            _exit(udps_init(&s) == nullptr && s.sock_fd == -1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "^socket creation failure: Too many open files\n$");
}

} // namespace
