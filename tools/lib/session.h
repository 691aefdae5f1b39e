// A session with one terminal: its two sockets, the requests of the protocol
// and the answers to them.
//
// A client connects to the terminal's protocol port from two UDP sockets of
// its own and announces both ports in the connection request: the terminal
// answers connection, status, restart and reboot requests to the rx socket,
// and the stream request, the packet acknowledgements and the stream end to
// the stream socket. The session stays alive only while the terminal answers
// a status request at least every 5 seconds; every long operation here asks
// for status on its own at least every `keepalive_ms`.
//
// Every answer is taken only from the terminal's address and protocol port;
// anything else that reaches the sockets is dropped and counted.
//
// Results follow the system's convention: 0 on success, -1 on failure (errno
// ETIMEDOUT when the terminal did not answer in time). Nothing here prints.
#pragma once

#include "lib/status.h"
#include "lib/transport.h"
#include "proto/codes.h"
#include "proto/protocol.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>

// The defaults of every user of this library, swu-client among them.
inline constexpr uint32_t SWUC_DEFAULT_WINDOW = 64;        // most packets in flight
inline constexpr int SWUC_DEFAULT_ACK_TIMEOUT_MS = 2;      // floor of the adaptive time-out
inline constexpr int SWUC_DEFAULT_REPLY_TIMEOUT_MS = 1000; // wait for one answer
// The terminal keeps a silent session for 5 s; status is asked every second.
inline constexpr int SWUC_DEFAULT_KEEPALIVE_MS = 1000;

struct swuc_config {
    sockaddr_in terminal = {};         // address and protocol port of the terminal
    in_addr_t local_addr = INADDR_ANY; // local address of both sockets (network order)
    uint16_t rx_port = 0;              // 0: an ephemeral port
    uint16_t stream_port = 0;          // 0: an ephemeral port
    uint8_t app_id = 1;                // the terminal refuses 0
    uint8_t session_id[8] = {};
    std::string umd_id; // the client's identifier, only logged by the terminal
    int reply_timeout_ms = SWUC_DEFAULT_REPLY_TIMEOUT_MS; // wait for one answer
    int status_tries = 3;                                 // status requests sent before giving up
    int keepalive_ms = SWUC_DEFAULT_KEEPALIVE_MS;
};

enum swuc_channel {
    SWUC_RX = 0,     // connection, status, restart and reboot responses
    SWUC_STREAM = 1, // stream response, acknowledgements, stream end response
};

struct swuc_session {
    swuc_config cfg;
    int fd[2] = {-1, -1};       // indexed by swuc_channel
    uint16_t port[2] = {};      // bound ports, host order
    uint16_t seq = 0;           // the client's own sequence counter
    int64_t last_status_ms = 0; // when the terminal last answered a status request
    int64_t status_sent_ms = 0; // when the last status request went out
    swuc_status last_status;    // the latest report received
    uint64_t status_reports = 0;
    uint64_t foreign = 0;      // datagrams dropped: not from the terminal's address and port
    bool heard = false;        // something came from the terminal
    uint16_t terminal_seq = 0; // the sequence number of its latest datagram

    swuc_session() = default;
    ~swuc_session();
    swuc_session(const swuc_session &) = delete;
    swuc_session &operator=(const swuc_session &) = delete;
};

// Opens and binds the two sockets. 0 or -1 (nothing left open).
int swuc_open(swuc_session *s, const swuc_config *cfg);
void swuc_close(swuc_session *s);

// Sends one connection request and waits for the response. 0 with *rsp
// filled, whatever its status (confirmed, already connected, battery too
// low); -1 when none came. Never retried: a second request during a session
// is answered "already connected".
int swuc_connect(swuc_session *s, conection_response_t *rsp);

// Asks for status until the terminal answers (cfg.status_tries requests).
// 0 with *out filled (also kept in s->last_status), or -1.
int swuc_get_status(swuc_session *s, swuc_status *out);

// Asks to stream a package of `size` bytes under `name`. 0 with *rsp filled;
// -1 when the terminal did not answer, which is how it refuses: the status
// report then says why.
int swuc_stream_request(swuc_session *s, const char *name, uint64_t size,
                        file_transfer_response_t *rsp);

// Closes the stream. 0 when the terminal confirmed it complete; -1 when it
// did not answer (an incomplete stream: the status report says why).
int swuc_stream_end(swuc_session *s);

struct swuc_follow_opts {
    int poll_ms = 500;       // status interval while waiting
    int timeout_ms = 600000; // longest wait for the installation's end
    // Longest time without an answer before the terminal counts as gone. A
    // slow terminal's installation (unpacking, syncing the card) can hold its
    // only core for seconds; a terminal that lost the session meanwhile says
    // so when it answers again.
    int silence_ms = 10000;
};

// Follows verification and installation through status reports until the
// terminal reaches its finish stage (0) or reports an error or a lost session
// (-1). `on_status` (may be empty) sees every report; *last (may be null)
// receives the final one.
int swuc_follow_install(swuc_session *s, const swuc_follow_opts *opts,
                        const std::function<void(const swuc_status &)> &on_status,
                        swuc_status *last);

// Asks the finished terminal to reboot. 0 when it confirmed, or -1.
int swuc_reboot(swuc_session *s);
// Acknowledges the terminal's error. 0 when it confirmed the restart of the
// update procedure, or -1.
int swuc_ack_error(swuc_session *s);

// --------------------------------------------------------------- raw access

// The next value of the client's sequence counter.
uint16_t swuc_next_seq(swuc_session *s);
// Sends `len` bytes to the terminal from the socket of `from`. 0 or -1.
int swuc_send(swuc_session *s, swuc_channel from, const uint8_t *buf, size_t len);
// A header-only request (status, stream end, error acknowledgement, reboot).
int swuc_send_header(swuc_session *s, swuc_channel from, uint8_t opcode);
// One packet transfer from the stream socket.
int swuc_send_packet(swuc_session *s, uint64_t seg_number, uint64_t seg_count,
                     const uint8_t *payload, size_t payload_len);
// Receives one datagram of the terminal on `ch`, waiting at most
// `timeout_ms`; datagrams of other senders are dropped and counted. Its
// length, or -1 (errno ETIMEDOUT when nothing came).
ssize_t swuc_recv(swuc_session *s, swuc_channel ch, uint8_t *buf, size_t cap, int timeout_ms);
// Takes one datagram that arrived from `from`: false (and counted) when it
// is not the terminal's; otherwise notes its sequence number.
bool swuc_accept(swuc_session *s, const sockaddr_in &from, const uint8_t *buf, size_t len);
// Receives on `ch` until a datagram with `opcode` arrives, for at most
// `timeout_ms`; others are dropped, except status reports, which are kept as
// s->last_status. Its length, or -1.
ssize_t swuc_await(swuc_session *s, swuc_channel ch, uint8_t opcode, uint8_t *buf, size_t cap,
                   int timeout_ms);
// Keeps a status report that arrived while waiting for something else.
void swuc_take_status(swuc_session *s, const uint8_t *buf, size_t len);
// Takes whatever waits on the rx socket now, keeping status reports.
void swuc_drain_status(swuc_session *s);
// Sends a status request when one is due, without waiting for the answer.
void swuc_keep_alive(swuc_session *s, int64_t now_ms);
