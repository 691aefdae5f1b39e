// lossy_relay: a bad network between a client and a terminal, for the
// transfer measurements and the road tests. The client talks to the relay's
// port as if it were the terminal; the relay forwards its datagrams to the
// terminal and the terminal's answers back, like a Wi-Fi hop: each direction
// delays every datagram (with jitter, keeping their order as a radio link's
// queue does), and drops, duplicates and reorders datagrams at the given
// rates (a seeded generator, so a run can be repeated).
//
// The terminal answers to the ports a connection request announces, not to
// the request's source, so the relay rewrites those two ports to two sockets
// of its own and forwards what arrives there to the client's own ports.
//
//   lossy_relay --to 127.0.0.1:12226 [--listen PORT] [--drop 0.05] [--dup 0.01]
//               [--reorder 0.01] [--delay MS] [--jitter MS] [--seed N]
// --delay is one way (a 2 ms round trip is --delay 1); --jitter spreads each
// datagram's delay evenly over delay ± jitter. Prints
// "lossy_relay: listening on PORT" when ready and its counters when it ends
// (SIGTERM or SIGINT).
#include "impaired_line.h"
#include "proto/protocol.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <random>
#include <string>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace
{

volatile sig_atomic_t g_stop = 0;

struct datagram {
    std::vector<uint8_t> bytes;
    sockaddr_in to;
};

int64_t now_us()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int udp_socket(in_addr_t addr, uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr;
    sa.sin_port = htons(port);
    int big = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0) {
        perror("lossy_relay: bind");
        exit(1);
    }
    return fd;
}

uint16_t bound_port(int fd)
{
    sockaddr_in sa = {};
    socklen_t len = sizeof(sa);
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
    return ntohs(sa.sin_port);
}

// One direction of the link: its impairments, and the socket it sends from.
struct direction {
    const char *name;
    int fd;
    impaired_line<datagram> link;

    // Sends what is due; returns microseconds until the next datagram is.
    int64_t send_due(int64_t now)
    {
        link.pop_due(now, [this](const datagram &d) {
            sendto(fd, d.bytes.data(), d.bytes.size(), 0, reinterpret_cast<const sockaddr *>(&d.to),
                   sizeof(d.to));
        });
        const int64_t next = link.next_due();
        return next == INT64_MAX ? next : next - now;
    }

    void print() const
    {
        fprintf(stderr, "lossy_relay: %s: %lu passed, %lu dropped, %lu duplicated, %lu reordered\n",
                name, link.passed, link.dropped, link.duplicated, link.reordered);
    }
};

} // namespace

int main(int argc, char **argv)
{
    std::string to;
    uint16_t listen_port = 0;
    double drop = 0, dup = 0, reorder = 0, delay_ms = 0, jitter_ms = 0;
    unsigned long long seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        const char *v = argv[i + 1];
        if (opt == "--to")
            to = v;
        else if (opt == "--listen")
            listen_port = static_cast<uint16_t>(atoi(v));
        else if (opt == "--drop")
            drop = atof(v);
        else if (opt == "--dup")
            dup = atof(v);
        else if (opt == "--reorder")
            reorder = atof(v);
        else if (opt == "--delay")
            delay_ms = atof(v);
        else if (opt == "--jitter")
            jitter_ms = atof(v);
        else if (opt == "--seed")
            seed = strtoull(v, nullptr, 10);
        else {
            fprintf(stderr, "lossy_relay: unknown option %s\n", opt.c_str());
            return 2;
        }
    }
    size_t colon = to.rfind(':');
    sockaddr_in terminal = {};
    terminal.sin_family = AF_INET;
    if (colon == std::string::npos ||
        inet_pton(AF_INET, to.substr(0, colon).c_str(), &terminal.sin_addr) != 1) {
        fprintf(stderr, "usage: lossy_relay --to ADDR:PORT [--listen PORT] [--drop P] [--dup P] "
                        "[--reorder P] [--delay MS] [--jitter MS] [--seed N]\n");
        return 2;
    }
    terminal.sin_port = htons(static_cast<uint16_t>(atoi(to.c_str() + colon + 1)));

    struct sigaction sa = {};
    sa.sa_handler = [](int) { g_stop = 1; };
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    // front: the client's side; rx and stream: where the terminal answers.
    int front = udp_socket(terminal.sin_addr.s_addr, listen_port);
    int rx = udp_socket(terminal.sin_addr.s_addr, 0);
    int stream = udp_socket(terminal.sin_addr.s_addr, 0);
    const uint16_t rx_port = bound_port(rx);
    const uint16_t stream_port = bound_port(stream);

    std::mt19937_64 rng(seed);
    const auto delay_us = static_cast<int64_t>(delay_ms * 1000);
    const auto jitter_us = std::min(static_cast<int64_t>(jitter_ms * 1000), delay_us);
    const impaired_line<datagram> link(drop, dup, reorder, delay_us, jitter_us, &rng);
    direction up{"to terminal", rx, link};
    direction down{"to client", front, link};
    sockaddr_in client = {};
    uint16_t client_rx = 0, client_stream = 0;

    printf("lossy_relay: listening on %u\n", bound_port(front));
    fflush(stdout);

    std::vector<uint8_t> buf(65536);
    int wait_ms = 200;
    while (!g_stop) {
        pollfd p[3] = {{front, POLLIN, 0}, {rx, POLLIN, 0}, {stream, POLLIN, 0}};
        const timespec wait = {wait_ms / 1000, (wait_ms % 1000) * 1000000L};
        const int64_t soonest = std::min(up.send_due(now_us()), down.send_due(now_us()));
        const timespec due = {static_cast<time_t>(soonest / 1000000), (soonest % 1000000) * 1000};
        int n = ppoll(p, 3, soonest == INT64_MAX ? &wait : &due, nullptr);
        if (n < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 3 && n > 0; i++) {
            if (!(p[i].revents & POLLIN))
                continue;
            // Everything pending on this socket, so a burst keeps its order.
            for (;;) {
                sockaddr_in from = {};
                socklen_t from_len = sizeof(from);
                ssize_t len = recvfrom(p[i].fd, buf.data(), buf.size(), MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr *>(&from), &from_len);
                if (len < 0)
                    break;
                datagram d{std::vector<uint8_t>(buf.begin(), buf.begin() + len), {}};
                const int64_t now = now_us();
                if (i == 0) {
                    client.sin_family = AF_INET;
                    client.sin_addr = from.sin_addr;
                    conection_request_t req;
                    if (proto_get_opcode(d.bytes.data(), d.bytes.size()) == CONNECTION_REQST &&
                        proto_decode_connection_request(d.bytes.data(), d.bytes.size(), &req) ==
                            0 &&
                        req.umd_id != nullptr) {
                        client_rx = req.uma_rx_port;
                        client_stream = req.uma_stream_port;
                        req.uma_rx_port = rx_port;
                        req.uma_stream_port = stream_port;
                        // The identifier is rewritten onto itself.
                        proto_encode_connection_request(d.bytes.data(), d.bytes.size(), &req);
                    }
                    d.to = terminal;
                    up.link.carry(std::move(d), now);
                } else if (client_rx != 0) {
                    d.to = client;
                    d.to.sin_port = htons(i == 1 ? client_rx : client_stream);
                    down.link.carry(std::move(d), now);
                }
            }
        }
    }
    up.print();
    down.print();
    return 0;
}
