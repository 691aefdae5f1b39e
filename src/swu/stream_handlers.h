// Package stream reception: the stream request (checked in the connect
// state), the stream state's handler, the packets and the stream end. The
// package file itself belongs to pkg_file.
#pragma once

#include "lib/sys/ilist_queue.h"
#include "proto/package.h"
#include "proto/protocol.h"
#include "swu/swu.h"

#include <cstdint>
#include <sys/types.h>

enum sizes {
    _1K = 1024,
    _1M = 1048576,
};

inline constexpr uint64_t MAX_UPDATE_PKG_SIZE = PKG_MAX_SIZE;

// Packets the package needs, packets written, and the segment number the
// next in-order packet carries. Changed only here.
extern uint32_t g_expected_n_pkts;
extern uint64_t g_pkt_counter;
extern uint64_t seg_sequential_counter;

// SM_EVNT_EXT_STREAM_REQ after answering an acceptable request, else
// SM_EVNT_INT_ERROR with the status code saying why.
uint8_t do_stream_request(ilq_desc_t *q, msg_t *request);
// 0 when the request is acceptable and its file is created and reserved; -1
// with the status code set otherwise. `buf_size` is the datagram's length.
int do_stream_request_validation(file_transfer_request_t *ftr, ssize_t buf_size);
// 1 when all `len` characters may stand in a package name.
int is_string(char *str, uint32_t len);
uint32_t calc_num_pckts(uint32_t pkg_size);
uint8_t do_transfer(ilq_desc_t *q, msg_t *request, uint64_t *pkt_counter, char **pkg_file);
uint8_t do_stream_end(ilq_desc_t *q, uint64_t *pkt_counter, char **pkg_file);

// Ends an unfinished stream: its package file goes (release_pkg_file) and
// nothing more is expected of it.
void stream_release(char **pkg_file);
