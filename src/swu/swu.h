// The update service's runtime: its context, the queued datagram record, the
// command line, and the receive and transmit threads between the protocol
// socket and the queues.
//
// The state handlers (conn_handlers.h, stream_handlers.h,
// install_handlers.h) run on the main thread inside the state machine engine
// and see the network only through the context's two queues: each call takes
// at most one received msg_t (and frees it), puts any answer on the transmit
// queue, and returns an event. Everything process-wide below belongs to the
// main thread unless it is an atomic.
#pragma once

#include "lib/sys/ilist_queue.h"
#include "lib/sys/timer.h"
#include "lib/udp_sock/udp_sock.h"
#include "proto/protocol.h"
#include "swu/fsm.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>

// --- Context and threads -------------------------------------------------------

enum sock_io {
    MC_SOCK = 0,   // advertisement, never bound
    TXRX_SOCK = 1, // the whole update protocol, bound to PROTO_SWU_PORT
    SOCK_COUNT = 2,
};

enum msg_q_id {
    RX_MSG_Q = 0,
    TX_MSG_Q = 1,
    MSG_Q_COUNT = 2,
};

enum swu_ret_values {
    SWU_SUCESSS = 0,
    SWU_FAILURE = 1,
    Q_EMPY = 2,
    DEQ_TIMEOUT = 3,
    INVL_MAGIC = 4,
};

// Package bytes per transfer packet, announced to the client as payload_max.
inline constexpr uint32_t PAYLOAD_SIZE = PROTO_PAYLOAD_MAX;

inline constexpr size_t SWU_DATAGRAM_BUFF_SIZE = PROTO_DATAGRAM_MAX;
inline constexpr int SWU_RCVBUF_SIZE = 2097152;
inline constexpr int SWU_POLL_TIMEOUT_MS = 500;
// Received datagrams waiting for the state machine beyond which more are dropped.
inline constexpr int SWU_RX_QUEUE_MAX = 8192;
// Most datagrams one system call of the receive or transmit thread moves.
inline constexpr unsigned SWU_RX_BATCH = 32;
inline constexpr unsigned SWU_TX_BATCH = 32;
inline constexpr struct timespec SWU_QUEUE_WAIT = {1, 0};
inline constexpr time_t SWU_SESSION_TIMEOUT_S = 5;
inline constexpr time_t SWU_ERROR_TIMEOUT_S = 10;
inline constexpr uint64_t SWU_FINISH_TIMEOUT_S = 30;

// One datagram in a queue: one heap block of sizeof(msg_t) + buffer_size,
// released with one free() by whoever holds it last.
struct msg {
    ilist_node_t node;              // first: a queue node is the record
    struct sockaddr_in client_addr; // sender, or destination (network order)
    uint32_t buffer_size;
    char buffer[];
};
using msg_t = msg;

// The argument of each service thread, which returns it as its result.
struct thread_desc {
    pthread_t thread_id; // 0 while the thread is not running
    udp_sock_t *sock;
    ilq_desc_t *msg_q;
};
using thread_desc_t = thread_desc;

// The service context, one per process, reached by the handlers through
// fsm_get_data.
struct swu_data {
    udp_sock_t sock[SOCK_COUNT];
    ilq_desc_t msg_q[MSG_Q_COUNT];
    pthread_t instatll_thrd_fd; // 0 until a package check is started
    pthread_attr_t thrd_attr;   // joinable except around the installation thread's creation
    stopwatch_t timer;          // client inactivity
    void *curr_state_data;      // unused, null
    char *pkg_file;             // mapping of the package being received, or null
    fsm_t sm;
};
using swu_data_t = swu_data;

// Set once the state machine has ended; every service thread then leaves.
extern std::atomic<int> g_to_exit;
// Update-mode reason bits (1 update requested, 2 error boot, 4 keep the
// microcontroller's firmware).
extern std::atomic<long> g_swu_reson;
// Parses the command line ("R:SFLZM"). Unknown options and a missing -R value
// print the usage text and end the process with status 1. A reason given with
// -R replaces the one swu_init reads from the registers.
void swu_parse_options(int argc, char **argv);

// Builds the context: reason bits, sockets (the protocol socket bound to
// PROTO_SWU_PORT), thread attributes, queues, state machine in idle,
// stopwatch. A failure ends the process with errno as status.
void swu_init(swu_data_t *swu_data);

// The part of swu_init that needs no socket: thread attributes (pthread's
// result is returned), both queues with `q_wait`, the state machine in idle
// and the 5-second stopwatch. Lets tests build a context without the network.
int swu_init_context(swu_data_t *swu_data, const struct timespec *q_wait);

// Frees what is still queued, destroys the queues, shuts down and closes both
// sockets, destroys the thread attributes. Returns 0.
int swu_cleanup(swu_data_t *swu_data);

// Puts the calling thread back on every core the service started with. The
// packet threads share one core; the installation thread's unpacking, copying
// and checking (and the tools it runs) hand nothing to them and use any core.
void swu_release_core();

// Creates the advertisement, receive and transmit threads in that order.
// 0; or, when one cannot be created, the error number after the threads
// already started have been stopped again.
int swu_start_threads(swu_data_t *swu_data, thread_desc_t *adv, thread_desc_t *rx,
                      thread_desc_t *tx);

// Waits up to a second for the transmit thread to send everything queued (the
// last answer to the client must leave), sets g_to_exit, releases both queues
// and joins the receive, transmit and advertisement threads that are running.
void swu_stop_threads(swu_data_t *swu_data, thread_desc_t *adv, thread_desc_t *rx,
                      thread_desc_t *tx);

// The threads; `arg` is a thread_desc_t *, which each returns.
void *rx_thrd_proc(void *arg);
void *tx_thrd_proc(void *arg);

void buff_to_msg(msg_t *msg, char *buff, uint32_t size, struct sockaddr_in *client_addr);
void msg_to_buff(msg_t *msg, char *buff, uint32_t size, struct sockaddr_in *client_addr);

// A message with room for `buffer_size` bytes and a zero address, or null.
msg_t *msg_alloc(uint32_t buffer_size);
// The next received message of `q` (waiting up to the queue's wait), or null.
msg_t *msg_dequeue(ilq_desc_t *q);
// Hands `msg` to the transmit queue `q`.
void msg_send(ilq_desc_t *q, msg_t *msg);
// Dequeues and frees everything queued on `q`.
void msg_q_drain(ilq_desc_t *q);
// The datagram's opcode, or -1 when it is shorter than a header.
int msg_opcode(const msg_t *msg);

// The next value of the terminal's one 16-bit sequence counter: 1 for the
// first message after start, 0 after 65535. Safe from any thread: two calls
// never return the same value unless 65536 calls lie between them.
uint16_t get_seq_num();

// Writes "[HEADER] seq num: %d\topcode: 0x%X\n" for `hdr`. Asserts `hdr`.
void debug_print_hdr(msg_hdr_t *hdr);

// The service context of a state machine's handler. Asserts both.
swu_data_t *swu_context(fsm_t *sm);
