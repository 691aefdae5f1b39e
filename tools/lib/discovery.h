// Discovery: the terminals' multicast advertisements, heard on the group.
// An advertisement is a claim of whoever sent it; the caller decides whom to
// believe (see the update policy).
#pragma once

#include "proto/protocol.h"

#include <netinet/in.h>
#include <string>

struct swuc_advert {
    self_adv_t adv;
    sockaddr_in sender; // where the advertisement came from
};

// Listens for advertisements on the multicast group.
struct swuc_listener {
    int fd = -1;
};

// Joins the advertisement group on the interface of `interface_addr`
// (network order; INADDR_ANY lets the system choose). 0 or -1.
int swuc_listen_open(swuc_listener *listener, in_addr_t interface_addr);
// Waits at most `timeout_ms` for the next well-formed advertisement. 0 with
// *out filled, or -1 (errno ETIMEDOUT when none came).
int swuc_listen_next(swuc_listener *listener, swuc_advert *out, int timeout_ms);
void swuc_listen_close(swuc_listener *listener);

// The terminal's identity text of an advertisement (at most 32 bytes, the
// advertised length bounded by the field).
std::string swuc_advert_id(const self_adv_t &adv);
// Where to send requests: the advertisement's sender address at its rx_port.
sockaddr_in swuc_advert_terminal(const swuc_advert &advert);
