#include "lib/discovery.h"

#include "lib/sys/unique_fd.h"
#include "lib/transport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <unistd.h>

namespace
{

constexpr size_t DATAGRAM_CAP = 2048;

} // namespace

int swuc_listen_open(swuc_listener *listener, in_addr_t interface_addr)
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(PROTO_ADV_PORT);
    ip_mreq mreq = {};
    mreq.imr_multiaddr.s_addr = inet_addr(PROTO_ADV_GROUP);
    mreq.imr_interface.s_addr = interface_addr;
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0 ||
        setsockopt(fd.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) != 0)
        return -1;
    listener->fd = fd.release();
    return 0;
}

int swuc_listen_next(swuc_listener *listener, swuc_advert *out, int timeout_ms)
{
    int64_t deadline = swuc_now_ms() + timeout_ms;
    uint8_t buf[DATAGRAM_CAP];
    for (;;) {
        int64_t left = deadline - swuc_now_ms();
        if (left < 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        int r = swuc_wait_readable(listener->fd, static_cast<int>(left));
        if (r <= 0) {
            if (r == 0)
                errno = ETIMEDOUT;
            return -1;
        }
        sockaddr_in from = {};
        socklen_t from_len = sizeof(from);
        ssize_t n = recvfrom(listener->fd, buf, sizeof(buf), MSG_DONTWAIT,
                             reinterpret_cast<sockaddr *>(&from), &from_len);
        if (n < static_cast<ssize_t>(PROTO_SELF_ADV_SIZE) ||
            proto_get_opcode(buf, static_cast<size_t>(n)) != SWU_SELF_ADVERTISE_OPCD)
            continue;
        if (proto_decode_self_adv(buf, static_cast<size_t>(n), &out->adv) != 0)
            continue;
        out->sender = from;
        return 0;
    }
}

void swuc_listen_close(swuc_listener *listener)
{
    if (listener->fd >= 0)
        close(listener->fd);
    listener->fd = -1;
}

std::string swuc_advert_id(const self_adv_t &adv)
{
    size_t len = std::min<size_t>(adv.orvanID_len, PROTO_ORVAN_ID_SIZE);
    return std::string(adv.orvanID, len);
}

sockaddr_in swuc_advert_terminal(const swuc_advert &advert)
{
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr = advert.sender.sin_addr;
    sa.sin_port = htons(advert.adv.rx_port);
    return sa;
}
