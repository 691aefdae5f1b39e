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
class UdpSock : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(udps_init(&rx), &rx);
        ASSERT_EQ(udps_init(&tx), &tx);
        ASSERT_EQ(udps_bind_str_addr(&rx, 0, "127.0.0.1"), 0);
        socklen_t len = sizeof(rx_addr);
        ASSERT_EQ(getsockname(rx.sock_fd, reinterpret_cast<sockaddr *>(&rx_addr), &len), 0);
    }
    void TearDown() override
    {
        udps_close(&rx);
        udps_close(&tx);
    }
    // The destination as a caller fills it; the send sets the family.
    sockaddr_in dest_of_rx()
    {
        sockaddr_in d;
        memset(&d, 0, sizeof(d));
        d.sin_port = rx_addr.sin_port;
        d.sin_addr = rx_addr.sin_addr;
        return d;
    }
    udp_sock_t rx, tx;
    sockaddr_in rx_addr;
};

TEST_F(UdpSock, InitZeroesTheRecordAndKeepsAnOldDescriptorOpen)
{
    udp_sock_t s;
    ASSERT_EQ(udps_init(&s), &s);
    int old_fd = s.sock_fd;
    s.poll_fd = reinterpret_cast<pollfd *>(&s);
    s.addr.sin_port = 7;
    ASSERT_EQ(udps_init(&s), &s);
    EXPECT_NE(s.sock_fd, old_fd);
    EXPECT_EQ(s.poll_fd, nullptr);
    EXPECT_EQ(s.addr.sin_port, 0);
    int reuse = 0;
    socklen_t len = sizeof(reuse);
    ASSERT_EQ(getsockopt(s.sock_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &len), 0);
    EXPECT_EQ(reuse, 1);
    EXPECT_EQ(close(old_fd), 0); // was still open
    EXPECT_EQ(udps_close(&s), 0);
}

TEST_F(UdpSock, BindKeepsTheRequestedAddressInNetworkOrder)
{
    EXPECT_EQ(rx.addr.sin_family, AF_INET);
    EXPECT_EQ(rx.addr.sin_addr.s_addr, inet_addr("127.0.0.1"));
    ASSERT_EQ(udps_bind(&tx, 0), 0);
    EXPECT_EQ(tx.addr.sin_addr.s_addr, INADDR_ANY);

    // A second bind fails; the record still shows what was asked.
    uint16_t port = ntohs(rx_addr.sin_port);
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_bind_addr(&tx, port, htonl(INADDR_LOOPBACK)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "bind failed: Invalid argument\n");
    EXPECT_EQ(tx.addr.sin_port, htons(port));
    EXPECT_EQ(tx.addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(UdpSock, DatagramTravelsWithItsSenderAndIsCutToTheBuffer)
{
    std::vector<char> buf(1480, 'x');
    sockaddr_in sender;
    errno = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(buf, std::vector<char>(1480, 0));

    char hello[] = "status?";
    std::vector<char> big(3000, 'L');
    sockaddr_in dest = dest_of_rx();
    EXPECT_EQ(udps_sendto_nonblk(&tx, hello, sizeof(hello), &dest), 8);
    EXPECT_EQ(dest.sin_family, AF_INET);
    EXPECT_EQ(udps_sendto_nonblk(&tx, big.data(), big.size(), &dest), 3000);
    sockaddr_in tx_addr; // the unbound sender got an ephemeral port
    socklen_t len = sizeof(tx_addr);
    ASSERT_EQ(getsockname(tx.sock_fd, reinterpret_cast<sockaddr *>(&tx_addr), &len), 0);

    pollfd p;
    udps_set_poll_list(&rx, &p, 1, POLLIN);
    ASSERT_EQ(udps_poll(&p, 1, 2000), 1);
    std::fill(buf.begin(), buf.end(), 'x');
    ASSERT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), 8);
    EXPECT_EQ(std::string(buf.data()), "status?");
    EXPECT_EQ(buf, [] {
        std::vector<char> v(1480, 0);
        memcpy(v.data(), "status?", 8);
        return v;
    }());
    EXPECT_EQ(sender.sin_port, tx_addr.sin_port);
    EXPECT_EQ(sender.sin_addr.s_addr, inet_addr("127.0.0.1"));

    ASSERT_EQ(udps_poll(&p, 1, 2000), 1);
    buf.resize(1472);
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), 1472);
    EXPECT_EQ(buf, std::vector<char>(1472, 'L'));
    EXPECT_EQ(udps_recvfrom_nonblk(&rx, buf.data(), buf.size(), &sender), -1); // rest dropped
}

TEST_F(UdpSock, PollEventsAreReportedPerSocketAsTheFlagBits)
{
    udp_sock_t socks[2] = {rx, tx};
    pollfd list[2];
    udps_set_poll_list(socks, list, 2, POLLIN);
    EXPECT_EQ(list[1].fd, tx.sock_fd);
    EXPECT_EQ(list[1].events, POLLIN);
    EXPECT_EQ(socks[1].poll_fd, &list[1]);
    EXPECT_EQ(udps_poll(list, 2, 0), 0);
    EXPECT_EQ(udps_test_sock_event(&socks[0], POLLIN), 0);

    char byte = 'b';
    sockaddr_in dest = dest_of_rx();
    ASSERT_EQ(udps_sendto_nonblk(&tx, &byte, 1, &dest), 1);
    udps_set_poll_list(socks, list, 2, POLLIN | POLLOUT);
    EXPECT_EQ(list[0].revents, 0);
    EXPECT_EQ(udps_poll(list, 2, 2000), 2);
    EXPECT_EQ(udps_test_sock_event(&socks[0], POLLIN | POLLERR), POLLIN);
    EXPECT_EQ(udps_test_sock_event(&socks[1], POLLIN), 0);
    EXPECT_EQ(udps_test_sock_event(&socks[1], POLLOUT), POLLOUT);
}

TEST_F(UdpSock, FailuresAreReportedWithTheirMessages)
{
    std::vector<char> huge(70000); // more than a UDP datagram holds
    sockaddr_in dest = dest_of_rx();
    testing::internal::CaptureStderr();
    EXPECT_EQ(udps_sendto_nonblk(&tx, huge.data(), huge.size(), &dest), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[sendto failed]: Message too long\n");

    testing::internal::CaptureStderr();
    EXPECT_LT(udps_join_multicast(&tx, "10.1.2.3"), 0); // not a group
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "failed to join multicast: Invalid argument\n");

    // A record whose creation failed (a closed descriptor could be reused by
    // the capture itself).
    udp_sock_t none;
    memset(&none, 0, sizeof(none));
    none.sock_fd = -1;
    testing::internal::CaptureStderr();
    EXPECT_NE(udps_join_multicast(&none, "227.0.0.0"), 0);
    EXPECT_EQ(udps_close(&none), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "failed to set SO_REUSEADDR: Bad file descriptor\n"
              "[usock close] : close failed: Bad file descriptor\n");
}

// Runs in a child: with no descriptor left, creation fails and keeps -1.
void init_without_descriptors()
{
    struct rlimit lim;
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &lim);
    udp_sock_t s;
    udp_sock_t *r = udps_init(&s);
    _exit(r == nullptr && s.sock_fd == -1 ? 0 : 1);
}

TEST(UdpSockDeathTest, CreationFailureAndAssertions)
{
    EXPECT_EXIT(init_without_descriptors(), ::testing::ExitedWithCode(0),
                "^socket creation failure: Too many open files\n$");
    EXPECT_DEATH(udps_init(nullptr), "Assertion `usock != NULL' failed");

    udp_sock_t s;
    ASSERT_EQ(udps_init(&s), &s);
    std::vector<char> buf(1472);
    sockaddr_in sender;
    EXPECT_DEATH(udps_recvfrom_nonblk(&s, buf.data(), 1471, &sender),
                 "Assertion `buff_size >= 1472' failed");
    EXPECT_EQ(udps_recvfrom_nonblk(&s, buf.data(), 1472, &sender), -1);
    udps_close(&s);
}

} // namespace
