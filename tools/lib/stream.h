// The package stream: packets out as the window allows, acknowledgements in,
// going back to the oldest unacknowledged packet when its acknowledgement is
// overdue (the window control is lib/flow.h).
#pragma once

#include "lib/session.h"
#include "lib/sys/unique_fd.h"

#include <cstdint>
#include <functional>
#include <string>

struct swuc_stream_opts {
    uint32_t window = SWUC_DEFAULT_WINDOW; // most packets in flight; 1 is stop-and-wait
    // Floor of the acknowledgement time-out, which otherwise follows the
    // measured round trip.
    int ack_timeout_ms = SWUC_DEFAULT_ACK_TIMEOUT_MS;
    int stall_ms = 5000; // without an acknowledgement that moves on: give up
};

struct swuc_progress {
    uint64_t total_bytes = 0;
    uint64_t acked_bytes = 0;
    uint64_t total_packets = 0;
    uint64_t acked_packets = 0;
    uint64_t sent_packets = 0; // retransmissions included
    uint64_t retransmitted = 0;
    uint32_t timeouts = 0;
};
using swuc_progress_fn = std::function<void(const swuc_progress &)>;

// Streams `size` bytes as packets of PROTO_PAYLOAD_MAX, segment 1 first,
// with a window that adapts to the link (swuc_flow), asking for status on
// the way. `on_progress` (may be empty) is called as acknowledgements
// arrive, at most every 100 ms and once at the end. 0 when every packet was
// acknowledged, or -1 (*progress tells how far it got).
int swuc_stream_data(swuc_session *s, const uint8_t *data, uint64_t size,
                     const swuc_stream_opts *opts, const swuc_progress_fn &on_progress,
                     swuc_progress *progress);

// Maps the file at `path` read-only into *map (nothing for an empty file):
// 0, or -1 with the reason in *err (errno kept).
int swuc_map_file(const char *path, unique_map *map, std::string *err);

// Stream request, data and stream end for the file at `path`, announced as
// `name`. 0 or -1; *progress (may be null) receives the transfer's figures.
int swuc_send_file(swuc_session *s, const char *path, const char *name,
                   const swuc_stream_opts *opts, const swuc_progress_fn &on_progress,
                   swuc_progress *progress);
