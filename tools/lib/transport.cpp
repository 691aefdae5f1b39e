#include "lib/transport.h"

#include "lib/sys/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <unistd.h>

int64_t swuc_now_us()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t swuc_now_ms()
{
    return swuc_now_us() / 1000;
}

int swuc_udp_open(in_addr_t addr, uint16_t port, uint16_t *bound)
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr;
    sa.sin_port = htons(port);
    socklen_t len = sizeof(sa);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&sa), &len) != 0)
        return -1;
    *bound = ntohs(sa.sin_port);
    return fd.release();
}

int swuc_wait_readable(int fd, int timeout_ms)
{
    pollfd p = {fd, POLLIN, 0};
    for (;;) {
        int n = poll(&p, 1, std::max(timeout_ms, 0));
        if (n < 0 && errno == EINTR)
            continue;
        return n < 0 ? -1 : (n > 0 ? 1 : 0);
    }
}

// A full send buffer clears within moments; it is given up to a second.
int swuc_send_batch(int fd, const sockaddr_in &to, mmsghdr *h, unsigned n)
{
    for (unsigned i = 0; i < n; i++) {
        h[i].msg_hdr.msg_name = const_cast<sockaddr_in *>(&to);
        h[i].msg_hdr.msg_namelen = sizeof(to);
    }
    unsigned sent = 0;
    for (int full = 0; sent < n && full < 10000;) {
        int r = sendmmsg(fd, h + sent, n - sent, 0);
        if (r > 0)
            sent += static_cast<unsigned>(r);
        else if (r < 0 && errno == EINTR)
            continue;
        else if (r < 0 && (errno == ENOBUFS || errno == EAGAIN)) {
            usleep(100);
            full++;
        } else
            return -1;
    }
    return sent == n ? 0 : -1;
}

bool swuc_from_terminal(const sockaddr_in &from, const sockaddr_in &terminal)
{
    return from.sin_family == AF_INET && from.sin_addr.s_addr == terminal.sin_addr.s_addr &&
           from.sin_port == terminal.sin_port;
}
