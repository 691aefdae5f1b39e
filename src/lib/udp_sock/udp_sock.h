// Thin layer over IPv4 UDP sockets.
//
// Creation with address reuse, binding, poll entries, and receive and send
// that never wait: only udps_poll blocks. The caller owns the socket records
// and the pollfd array; a record only points into the array, which must
// outlive every udps_test_sock_event call. Failures are reported through
// perror, so the system's error text follows the message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

// Smallest receive buffer udps_recvfrom_nonblk takes.
inline constexpr size_t UDPS_MIN_RECV_BUFF = 1472;

struct udp_sock {
    struct sockaddr_in addr; // address of the last bind, network order; zero until bound
    struct pollfd *poll_fd;  // entry watching this socket, set by udps_set_poll_list
    int sock_fd;             // -1 after a creation that failed while setting options
};
using udp_sock_t = udp_sock;

// Zeroes the record (an old descriptor in it is not closed), creates the
// socket and sets SO_REUSEADDR. Returns `usock`, or null on failure.
udp_sock_t *udps_init(udp_sock_t *usock);

// Binds to `port` (host order) and `addr` (network order), keeping both in
// usock->addr. bind's result: 0 or -1.
int udps_bind_addr(udp_sock_t *usock, uint16_t port, in_addr_t addr);

// udps_bind_addr on every local address.
int udps_bind(udp_sock_t *usock, uint16_t port);

// udps_bind_addr on the dotted-quad address `addr`.
int udps_bind_str_addr(udp_sock_t *usock, uint16_t port, const char *addr);

// Sets SO_REUSEADDR again and joins the multicast group `group` (dotted quad)
// on the default interface. 0, or the failing setsockopt's result.
int udps_join_multicast(udp_sock_t *usock, const char *group);

// Entry i of `poll_list` watches socket i for `event_flags` (revents cleared)
// and socket i's poll_fd points at it.
void udps_set_poll_list(udp_sock_t *usocks, struct pollfd *poll_list, size_t nsock,
                        short event_flags);

// poll() on the list; its result unchanged.
int udps_poll(struct pollfd *poll_list, size_t list_s, int timeout_msecs);

// The bits of `event_flag` that poll reported in the socket's entry (0 when
// the socket has no entry).
int udps_test_sock_event(udp_sock_t *usock, short event_flag);

// Zeroes the whole buffer, then takes one waiting datagram (cut to buff_size)
// and its sender. Bytes received, or -1 with errno EAGAIN/EWOULDBLOCK when
// nothing waits; prints nothing. buff_size must be at least 1472.
ssize_t udps_recvfrom_nonblk(udp_sock_t *usock, char *msg_buff, size_t buff_size,
                             struct sockaddr_in *sender_addr);

// Sends `size` bytes as one datagram to *snd_addr, whose family it sets to
// AF_INET. sendto's result; a full send buffer is a failure, not retried.
ssize_t udps_sendto_nonblk(udp_sock_t *sock, void *data, size_t size, struct sockaddr_in *snd_addr);

// Batched forms for the service's receive and transmit threads: one system
// call moves up to `n` datagrams. The caller fills each message's iovec and
// name; a received datagram longer than its buffer is cut to it (msg_len is
// what was kept).
// Takes the datagrams waiting now: how many, or -1 with errno (EAGAIN when
// none waits).
int udps_recv_batch_nonblk(udp_sock_t *usock, struct mmsghdr *msgs, unsigned n);
// Sends from the first message on, without waiting: how many left, or -1
// with errno for the first (EAGAIN when the send buffer is full).
int udps_send_batch_nonblk(udp_sock_t *usock, struct mmsghdr *msgs, unsigned n);

// Closes the descriptor; close's result.
int udps_close(udp_sock_t *usock);
