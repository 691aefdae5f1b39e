#include "lib/session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr size_t DATAGRAM_CAP = 2048; // more than the terminal ever sends

int timed_out()
{
    errno = ETIMEDOUT;
    return -1;
}

// A request of a bare header and the answer it must get. 0 or -1.
int exchange(swuc_session *s, swuc_channel ch, uint8_t request, uint8_t answer)
{
    if (swuc_send_header(s, ch, request) != 0)
        return -1;
    uint8_t buf[DATAGRAM_CAP];
    return swuc_await(s, ch, answer, buf, sizeof(buf), s->cfg.reply_timeout_ms) < 0 ? -1 : 0;
}

int malformed()
{
    errno = EPROTO;
    return -1;
}

} // namespace

swuc_session::~swuc_session()
{
    swuc_close(this);
}

int swuc_open(swuc_session *s, const swuc_config *cfg)
{
    swuc_close(s);
    s->cfg = *cfg;
    s->fd[SWUC_RX] = swuc_udp_open(cfg->local_addr, cfg->rx_port, &s->port[SWUC_RX]);
    if (s->fd[SWUC_RX] < 0)
        return -1;
    s->fd[SWUC_STREAM] = swuc_udp_open(cfg->local_addr, cfg->stream_port, &s->port[SWUC_STREAM]);
    if (s->fd[SWUC_STREAM] < 0) {
        int err = errno;
        swuc_close(s);
        errno = err;
        return -1;
    }
    s->last_status_ms = 0;
    s->status_sent_ms = 0;
    s->status_reports = 0;
    return 0;
}

void swuc_close(swuc_session *s)
{
    for (int &fd : s->fd) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

uint16_t swuc_next_seq(swuc_session *s)
{
    return ++s->seq;
}

int swuc_send(swuc_session *s, swuc_channel from, const uint8_t *buf, size_t len)
{
    iovec iov = {const_cast<uint8_t *>(buf), len};
    mmsghdr h = {};
    h.msg_hdr.msg_iov = &iov;
    h.msg_hdr.msg_iovlen = 1;
    return swuc_send_batch(s->fd[from], s->cfg.terminal, &h, 1);
}

int swuc_send_header(swuc_session *s, swuc_channel from, uint8_t opcode)
{
    msg_hdr_t hdr = {swuc_next_seq(s), opcode, 0};
    uint8_t buf[PROTO_HDR_SIZE];
    proto_encode_hdr(buf, sizeof(buf), &hdr);
    return swuc_send(s, from, buf, sizeof(buf));
}

int swuc_send_packet(swuc_session *s, uint64_t seg_number, uint64_t seg_count,
                     const uint8_t *payload, size_t payload_len)
{
    uint8_t buf[PROTO_PKT_HEAD_SIZE + PROTO_PAYLOAD_MAX];
    file_packet_transfer_t pkt = {};
    pkt.hdr = {swuc_next_seq(s), PCKT_TRNSFR, 0};
    pkt.seg_number = seg_number;
    pkt.seg_count = seg_count;
    pkt.payload = payload;
    pkt.payload_len = payload_len;
    int n = proto_encode_file_packet_transfer(buf, sizeof(buf), &pkt);
    if (n < 0) {
        errno = EMSGSIZE;
        return -1;
    }
    return swuc_send(s, SWUC_STREAM, buf, static_cast<size_t>(n));
}

bool swuc_accept(swuc_session *s, const sockaddr_in &from, const uint8_t *buf, size_t len)
{
    if (!swuc_from_terminal(from, s->cfg.terminal)) {
        s->foreign++;
        return false;
    }
    msg_hdr_t hdr;
    if (proto_decode_hdr(buf, len, &hdr) == 0) {
        s->heard = true;
        s->terminal_seq = hdr.seq_num;
    }
    return true;
}

ssize_t swuc_recv(swuc_session *s, swuc_channel ch, uint8_t *buf, size_t cap, int timeout_ms)
{
    const int64_t deadline = swuc_now_ms() + timeout_ms;
    for (;;) {
        const int64_t left = deadline - swuc_now_ms();
        int r = swuc_wait_readable(s->fd[ch], static_cast<int>(std::max<int64_t>(left, 0)));
        if (r <= 0)
            return r == 0 ? timed_out() : -1;
        sockaddr_in from = {};
        socklen_t from_len = sizeof(from);
        ssize_t n = recvfrom(s->fd[ch], buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from),
                             &from_len);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n < 0 || swuc_accept(s, from, buf, static_cast<size_t>(n)))
            return n;
    }
}

ssize_t swuc_await(swuc_session *s, swuc_channel ch, uint8_t opcode, uint8_t *buf, size_t cap,
                   int timeout_ms)
{
    int64_t deadline = swuc_now_ms() + timeout_ms;
    for (;;) {
        int64_t left = deadline - swuc_now_ms();
        if (left < 0)
            return timed_out();
        ssize_t n = swuc_recv(s, ch, buf, cap, static_cast<int>(left));
        if (n < 0)
            return -1;
        if (proto_get_opcode(buf, static_cast<size_t>(n)) == opcode)
            return n;
        swuc_take_status(s, buf, static_cast<size_t>(n));
    }
}

void swuc_take_status(swuc_session *s, const uint8_t *buf, size_t len)
{
    swuc_status st;
    if (swuc_decode_status(buf, len, &st) != 0)
        return;
    s->last_status = st;
    s->last_status_ms = swuc_now_ms();
    s->status_reports++;
}

void swuc_drain_status(swuc_session *s)
{
    uint8_t buf[DATAGRAM_CAP];
    for (;;) {
        sockaddr_in from = {};
        socklen_t from_len = sizeof(from);
        ssize_t n = recvfrom(s->fd[SWUC_RX], buf, sizeof(buf), MSG_DONTWAIT,
                             reinterpret_cast<sockaddr *>(&from), &from_len);
        if (n < 0)
            return;
        if (swuc_accept(s, from, buf, static_cast<size_t>(n)))
            swuc_take_status(s, buf, static_cast<size_t>(n));
    }
}

void swuc_keep_alive(swuc_session *s, int64_t now_ms)
{
    int64_t since = now_ms - std::max(s->status_sent_ms, s->last_status_ms);
    if (since >= s->cfg.keepalive_ms && swuc_send_header(s, SWUC_RX, STATUS_REQST) == 0)
        s->status_sent_ms = now_ms;
}

int swuc_connect(swuc_session *s, conection_response_t *rsp)
{
    conection_request_t req = {};
    req.hdr = {swuc_next_seq(s), CONNECTION_REQST, 0};
    req.app_id = s->cfg.app_id;
    req.uma_rx_port = s->port[SWUC_RX];
    req.uma_stream_port = s->port[SWUC_STREAM];
    memcpy(req.session_id, s->cfg.session_id, sizeof(req.session_id));
    req.umd_id_len = static_cast<uint16_t>(std::min<size_t>(s->cfg.umd_id.size(), 256));
    req.umd_id = reinterpret_cast<const uint8_t *>(s->cfg.umd_id.data());
    uint8_t buf[DATAGRAM_CAP];
    int n = proto_encode_connection_request(buf, sizeof(buf), &req);
    if (n < 0 || swuc_send(s, SWUC_RX, buf, static_cast<size_t>(n)) != 0)
        return -1;
    ssize_t got =
        swuc_await(s, SWUC_RX, CONNECTION_RSPNS, buf, sizeof(buf), s->cfg.reply_timeout_ms);
    if (got < 0 || proto_decode_connection_response(buf, static_cast<size_t>(got), rsp) != 0)
        return got < 0 ? -1 : malformed();
    // A confirmed connection restarts the terminal's session stopwatch.
    if (rsp->connection_status == SWU_CON_RES_CONNECTION_CONFIRMED)
        s->last_status_ms = swuc_now_ms();
    return 0;
}

int swuc_get_status(swuc_session *s, swuc_status *out)
{
    uint8_t buf[DATAGRAM_CAP];
    for (int attempt = 0; attempt < std::max(s->cfg.status_tries, 1); attempt++) {
        uint64_t before = s->status_reports;
        if (swuc_send_header(s, SWUC_RX, STATUS_REQST) != 0)
            return -1;
        s->status_sent_ms = swuc_now_ms();
        ssize_t n = swuc_await(s, SWUC_RX, STATUS_RSPNS, buf, sizeof(buf), s->cfg.reply_timeout_ms);
        if (n >= 0)
            swuc_take_status(s, buf, static_cast<size_t>(n));
        if (s->status_reports != before) {
            if (out != nullptr)
                *out = s->last_status;
            return 0;
        }
    }
    return timed_out();
}

int swuc_stream_request(swuc_session *s, const char *name, uint64_t size,
                        file_transfer_response_t *rsp)
{
    file_transfer_request_t req = {};
    req.hdr = {swuc_next_seq(s), STREAM_REQST, 0};
    req.fsize = size;
    req.fname_len = static_cast<uint16_t>(strlen(name));
    req.fname = name;
    uint8_t buf[DATAGRAM_CAP];
    int n = proto_encode_file_transfer_request(buf, sizeof(buf), &req);
    if (n < 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (swuc_send(s, SWUC_STREAM, buf, static_cast<size_t>(n)) != 0)
        return -1;
    ssize_t got =
        swuc_await(s, SWUC_STREAM, FILE_STREAM_RSPNS, buf, sizeof(buf), s->cfg.reply_timeout_ms);
    if (got < 0)
        return -1;
    if (proto_decode_file_transfer_response(buf, static_cast<size_t>(got), rsp) != 0)
        return malformed();
    return 0;
}

int swuc_stream_end(swuc_session *s)
{
    return exchange(s, SWUC_STREAM, FILE_STREAM_END, FILE_STREAM_END_RSPNS);
}

int swuc_follow_install(swuc_session *s, const swuc_follow_opts *opts,
                        const std::function<void(const swuc_status &)> &on_status,
                        swuc_status *last)
{
    const swuc_follow_opts o = opts != nullptr ? *opts : swuc_follow_opts{};
    const int poll_ms = std::min(std::max(o.poll_ms, 1), s->cfg.keepalive_ms);
    const int64_t deadline = swuc_now_ms() + o.timeout_ms;
    int64_t answered = swuc_now_ms();
    for (;;) {
        int64_t asked = swuc_now_ms();
        swuc_status st;
        if (swuc_get_status(s, &st) != 0) {
            if (errno != ETIMEDOUT || swuc_now_ms() - answered >= o.silence_ms)
                return -1;
            continue;
        }
        answered = swuc_now_ms();
        if (on_status)
            on_status(st);
        if (last != nullptr)
            *last = st;
        switch (st.stage_code) {
        case SM_STATE_FINISH:
            return 0;
        case SM_STATE_ERROR:
        case SM_STATE_IDLE: // the session was lost
            errno = EPROTO;
            return -1;
        default:
            break;
        }
        int64_t now = swuc_now_ms();
        if (now >= deadline)
            return timed_out();
        int64_t pause = asked + poll_ms - now;
        if (pause > 0)
            usleep(static_cast<useconds_t>(pause * 1000));
    }
}

int swuc_reboot(swuc_session *s)
{
    return exchange(s, SWUC_RX, TERMINAL_REBOOT_REQ, TERMINAL_REBOOT_RSPNS);
}

int swuc_ack_error(swuc_session *s)
{
    return exchange(s, SWUC_RX, ERROR_RECEIVED, RESTARTING_UPDATE_PROC);
}
