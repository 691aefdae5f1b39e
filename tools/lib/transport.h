// The client's UDP transport and clock: sockets bound where the caller says,
// sends that ride out a full socket buffer, and the one test of who sent an
// answer. Nothing here knows the protocol.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>

// Milliseconds and microseconds of the monotonic clock.
int64_t swuc_now_ms();
int64_t swuc_now_us();

// A UDP socket bound to `addr` (network order) and `port` (0: ephemeral),
// its bound port in *bound. The descriptor, or -1.
int swuc_udp_open(in_addr_t addr, uint16_t port, uint16_t *bound);

// Waits for `fd` to become readable; 1, 0 on time-out, -1 on error.
int swuc_wait_readable(int fd, int timeout_ms);

// Sends `n` prepared datagrams to `to` in order, in as few system calls as
// the socket allows. 0 or -1.
int swuc_send_batch(int fd, const sockaddr_in &to, mmsghdr *h, unsigned n);

// True when `from` is `terminal`: the same address and port. The terminal
// answers every request from its protocol socket, so an answer from anywhere
// else is not the terminal's.
bool swuc_from_terminal(const sockaddr_in &from, const sockaddr_in &terminal);
