#include "lib/udp_sock/udp_sock.h"

#include "lib/sys/swu_assert.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

udp_sock_t *udps_init(udp_sock_t *usock)
{
    SWU_ASSERT(usock != NULL);
    memset(usock, 0, sizeof(*usock));

    usock->sock_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (usock->sock_fd <= 0) {
        perror("socket creation failure");
        return NULL;
    }
    int reuse = 1;
    if (setsockopt(usock->sock_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) != 0) {
        perror("set reuse addr failure");
        close(usock->sock_fd);
        usock->sock_fd = -1;
        return NULL;
    }
    return usock;
}

int udps_bind_addr(udp_sock_t *usock, uint16_t port, in_addr_t addr)
{
    SWU_ASSERT(usock != NULL);
    usock->addr.sin_family = AF_INET;
    usock->addr.sin_port = htons(port);
    usock->addr.sin_addr.s_addr = addr;
    int ret = bind(usock->sock_fd, reinterpret_cast<struct sockaddr *>(&usock->addr),
                   sizeof(usock->addr));
    if (ret != 0)
        perror("bind failed");
    return ret;
}

int udps_bind(udp_sock_t *usock, uint16_t port)
{
    return udps_bind_addr(usock, port, INADDR_ANY);
}

int udps_bind_str_addr(udp_sock_t *usock, uint16_t port, const char *addr)
{
    SWU_ASSERT(addr != NULL);
    return udps_bind_addr(usock, port, inet_addr(addr));
}

int udps_join_multicast(udp_sock_t *usock, const char *group)
{
    SWU_ASSERT(usock != NULL);
    SWU_ASSERT(group != NULL);
    int reuse = 1;
    int ret = setsockopt(usock->sock_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    if (ret != 0) {
        perror("failed to set SO_REUSEADDR");
        return ret;
    }
    struct ip_mreq mreq;
    memset(&mreq, 0, sizeof(mreq));
    mreq.imr_multiaddr.s_addr = inet_addr(group);
    mreq.imr_interface.s_addr = htonl(INADDR_ANY);
    ret = setsockopt(usock->sock_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq));
    if (ret < 0)
        perror("failed to join multicast");
    return ret;
}

void udps_set_poll_list(udp_sock_t *usocks, struct pollfd *poll_list, size_t nsock,
                        short event_flags)
{
    SWU_ASSERT(usocks != NULL);
    SWU_ASSERT(poll_list != NULL);
    for (size_t i = 0; i < nsock; ++i) {
        poll_list[i].fd = usocks[i].sock_fd;
        poll_list[i].events = event_flags;
        poll_list[i].revents = 0;
        usocks[i].poll_fd = &poll_list[i];
    }
}

int udps_poll(struct pollfd *poll_list, size_t list_s, int timeout_msecs)
{
    return poll(poll_list, static_cast<nfds_t>(list_s), timeout_msecs);
}

int udps_test_sock_event(udp_sock_t *usock, short event_flag)
{
    SWU_ASSERT(usock != NULL);
    if (usock->poll_fd == NULL)
        return 0;
    return usock->poll_fd->revents & event_flag;
}

ssize_t udps_recvfrom_nonblk(udp_sock_t *usock, char *msg_buff, size_t buff_size,
                             struct sockaddr_in *sender_addr)
{
    SWU_ASSERT(usock != NULL);
    SWU_ASSERT(msg_buff != NULL);
    SWU_ASSERT(sender_addr != NULL);
    SWU_ASSERT(buff_size >= 1472);
    memset(msg_buff, 0, buff_size);
    socklen_t addr_len = sizeof(struct sockaddr_in);
    return recvfrom(usock->sock_fd, msg_buff, buff_size, MSG_DONTWAIT,
                    reinterpret_cast<struct sockaddr *>(sender_addr), &addr_len);
}

ssize_t udps_sendto_nonblk(udp_sock_t *sock, void *data, size_t size, struct sockaddr_in *snd_addr)
{
    SWU_ASSERT(sock != NULL);
    SWU_ASSERT(snd_addr != NULL);
    snd_addr->sin_family = AF_INET;
    ssize_t ret = sendto(sock->sock_fd, data, size, MSG_DONTWAIT,
                         reinterpret_cast<struct sockaddr *>(snd_addr), sizeof(*snd_addr));
    if (ret < 0)
        perror("[sendto failed]");
    return ret;
}

int udps_recv_batch_nonblk(udp_sock_t *usock, struct mmsghdr *msgs, unsigned n)
{
    SWU_ASSERT(usock != NULL);
    SWU_ASSERT(msgs != NULL);
    return recvmmsg(usock->sock_fd, msgs, n, MSG_DONTWAIT, nullptr);
}

int udps_send_batch_nonblk(udp_sock_t *usock, struct mmsghdr *msgs, unsigned n)
{
    SWU_ASSERT(usock != NULL);
    SWU_ASSERT(msgs != NULL);
    return sendmmsg(usock->sock_fd, msgs, n, MSG_DONTWAIT);
}

int udps_close(udp_sock_t *usock)
{
    SWU_ASSERT(usock != NULL);
    int ret = close(usock->sock_fd);
    if (ret < 0)
        perror("[usock close] : close failed");
    return ret;
}
