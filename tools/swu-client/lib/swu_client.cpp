#include "swu-client/lib/swu_client.h"

#include "swu-client/lib/flow.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace
{

constexpr size_t DATAGRAM_CAP = 2048; // more than the terminal ever sends
constexpr int PROGRESS_INTERVAL_MS = 100;
constexpr int64_t SPIN_US = 100; // longest wait for an acknowledgement without sleeping

int open_udp(in_addr_t addr, uint16_t port, uint16_t *bound)
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = addr;
    sa.sin_port = htons(port);
    socklen_t len = sizeof(sa);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(&sa), &len) != 0)
        return -1;
    *bound = ntohs(sa.sin_port);
    return fd.release();
}

// Waits for `fd` to become readable; 1, 0 on time-out, -1 on error.
int wait_readable(int fd, int timeout_ms)
{
    pollfd p = {fd, POLLIN, 0};
    for (;;) {
        int n = poll(&p, 1, std::max(timeout_ms, 0));
        if (n < 0 && errno == EINTR)
            continue;
        return n < 0 ? -1 : (n > 0 ? 1 : 0);
    }
}

// Sends `n` datagrams to the terminal in order, as few system calls as the
// socket allows. A full send buffer clears within moments; it is given up to
// a second.
int send_all(swuc_session *s, swuc_channel from, mmsghdr *h, unsigned n)
{
    for (unsigned i = 0; i < n; i++) {
        h[i].msg_hdr.msg_name = &s->cfg.terminal;
        h[i].msg_hdr.msg_namelen = sizeof(s->cfg.terminal);
    }
    unsigned sent = 0;
    for (int full = 0; sent < n && full < 10000;) {
        int r = sendmmsg(s->fd[from], h + sent, n - sent, 0);
        if (r > 0)
            sent += static_cast<unsigned>(r);
        else if (r < 0 && errno == EINTR)
            continue;
        else if (r < 0 && (errno == ENOBUFS || errno == EAGAIN)) {
            usleep(100);
            full++;
        } else
            return -1;
    }
    return sent == n ? 0 : -1;
}

// The packets of one burst, encoded side by side and sent with one call.
struct packet_burst {
    static constexpr unsigned CAP = 64;
    uint8_t buf[CAP][PROTO_PKT_HEAD_SIZE + PROTO_PAYLOAD_MAX];
    iovec iov[CAP];
    mmsghdr hdr[CAP];
};

// Acknowledgements taken from the socket in one call; anything longer than
// an acknowledgement is cut and skipped.
struct ack_batch {
    static constexpr unsigned CAP = 64;
    uint8_t buf[CAP][64];
    iovec iov[CAP];
    mmsghdr hdr[CAP];

    // Whatever is queued now, up to CAP; -1 with nothing (errno set).
    int take(int fd)
    {
        for (unsigned i = 0; i < CAP; i++) {
            iov[i] = {buf[i], sizeof(buf[i])};
            hdr[i] = {};
            hdr[i].msg_hdr.msg_iov = &iov[i];
            hdr[i].msg_hdr.msg_iovlen = 1;
        }
        return recvmmsg(fd, hdr, CAP, MSG_DONTWAIT, nullptr);
    }
};

// Keeps a status report that arrived while waiting for something else.
void take_status(swuc_session *s, const uint8_t *buf, size_t len)
{
    status_response_t rsp;
    if (proto_get_opcode(buf, len) != STATUS_RSPNS || proto_decode_status_response(buf, len, &rsp))
        return;
    swuc_status st;
    if (swuc_parse_status(rsp.buffer, rsp.buffer_len, &st) != 0)
        return;
    s->last_status = st;
    s->last_status_ms = swuc_now_ms();
    s->status_reports++;
}

void drain_status(swuc_session *s)
{
    uint8_t buf[DATAGRAM_CAP];
    for (;;) {
        ssize_t n = recv(s->fd[SWUC_RX], buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0)
            return;
        take_status(s, buf, static_cast<size_t>(n));
    }
}

// Sends a status request when one is due, without waiting for the answer.
void keep_alive(swuc_session *s, int64_t now)
{
    int64_t since = now - std::max(s->status_sent_ms, s->last_status_ms);
    if (since >= s->cfg.keepalive_ms && swuc_send_header(s, SWUC_RX, STATUS_REQST) == 0)
        s->status_sent_ms = now;
}

int timed_out()
{
    errno = ETIMEDOUT;
    return -1;
}

int malformed()
{
    errno = EPROTO;
    return -1;
}

template <typename T> bool get_field(const nlohmann::json &j, const char *key, T *out)
{
    auto it = j.find(key);
    if (it == j.end())
        return false;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string())
            return false;
    } else {
        if (!it->is_number_unsigned())
            return false;
    }
    *out = it->get<T>();
    return true;
}

} // namespace

int64_t swuc_now_us()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t swuc_now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// ---------------------------------------------------------------- discovery

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
        if (left < 0)
            return timed_out();
        int r = wait_readable(listener->fd, static_cast<int>(left));
        if (r < 0)
            return -1;
        if (r == 0)
            return timed_out();
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

// ------------------------------------------------------------------ status

int swuc_parse_status(const char *text, size_t len, swuc_status *out)
{
    nlohmann::json j = nlohmann::json::parse(text, text + len, nullptr, false);
    if (j.is_discarded() || !j.is_object())
        return -1;
    swuc_status st;
    if (!get_field(j, "battery_status", &st.battery_status) ||
        !get_field(j, "status_code", &st.status_code) ||
        !get_field(j, "status_message", &st.status_message) ||
        !get_field(j, "stage_code", &st.stage_code) ||
        !get_field(j, "stage_description", &st.stage_description) ||
        !get_field(j, "stage_progress", &st.stage_progress) ||
        !get_field(j, "stage_complete", &st.stage_complete))
        return -1;
    st.text.assign(text, len);
    *out = std::move(st);
    return 0;
}

// ----------------------------------------------------------------- session

swuc_session::~swuc_session()
{
    swuc_close(this);
}

int swuc_open(swuc_session *s, const swuc_config *cfg)
{
    swuc_close(s);
    s->cfg = *cfg;
    s->fd[SWUC_RX] = open_udp(cfg->local_addr, cfg->rx_port, &s->port[SWUC_RX]);
    if (s->fd[SWUC_RX] < 0)
        return -1;
    s->fd[SWUC_STREAM] = open_udp(cfg->local_addr, cfg->stream_port, &s->port[SWUC_STREAM]);
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
    return send_all(s, from, &h, 1);
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

ssize_t swuc_recv(swuc_session *s, swuc_channel ch, uint8_t *buf, size_t cap, int timeout_ms,
                  sockaddr_in *from)
{
    int r = wait_readable(s->fd[ch], timeout_ms);
    if (r <= 0)
        return r == 0 ? timed_out() : -1;
    sockaddr_in sa = {};
    socklen_t sa_len = sizeof(sa);
    ssize_t n =
        recvfrom(s->fd[ch], buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&sa), &sa_len);
    if (n >= 0 && from != nullptr)
        *from = sa;
    return n;
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
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            return -1;
        }
        if (proto_get_opcode(buf, static_cast<size_t>(n)) == opcode)
            return n;
        take_status(s, buf, static_cast<size_t>(n));
    }
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
            take_status(s, buf, static_cast<size_t>(n));
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

int swuc_stream_data(swuc_session *s, const uint8_t *data, uint64_t size,
                     const swuc_stream_opts *opts, const swuc_progress_fn &on_progress,
                     swuc_progress *progress)
{
    const swuc_stream_opts o = opts != nullptr ? *opts : swuc_stream_opts{};
    swuc_progress p;
    p.total_bytes = size;
    p.total_packets = (size + PROTO_PAYLOAD_MAX - 1) / PROTO_PAYLOAD_MAX;
    const uint64_t count = p.total_packets;
    swuc_flow_opts fo;
    fo.max_window = std::max<uint32_t>(o.window, 1);
    fo.min_rto_us = static_cast<int64_t>(std::max(o.ack_timeout_ms, 0)) * 1000;
    fo.max_rto_us = std::max(fo.max_rto_us, fo.min_rto_us);
    fo.initial_rto_us = std::max(fo.initial_rto_us, fo.min_rto_us);
    swuc_flow flow(count, fo);

    int64_t last_progress = swuc_now_us();
    int64_t last_report = 0;
    int result = 0;

    auto report = [&](bool force) {
        int64_t now = swuc_now_ms();
        p.acked_packets = flow.base() - 1;
        p.acked_bytes = std::min<uint64_t>((flow.base() - 1) * PROTO_PAYLOAD_MAX, size);
        p.retransmitted = flow.resent();
        p.timeouts = flow.timeouts();
        if (on_progress && (force || now - last_report >= PROGRESS_INTERVAL_MS)) {
            last_report = now;
            on_progress(p);
        }
    };

    const auto burst = std::make_unique<packet_burst>();
    const auto acks = std::make_unique<ack_batch>();
    while (!flow.done()) {
        for (unsigned n = packet_burst::CAP; n == packet_burst::CAP && result == 0;) {
            const int64_t now_us = swuc_now_us();
            n = 0;
            for (uint64_t seg; n < packet_burst::CAP && (seg = flow.next_to_send()) != 0; n++) {
                const uint64_t off = (seg - 1) * PROTO_PAYLOAD_MAX;
                file_packet_transfer_t pkt = {};
                pkt.hdr = {swuc_next_seq(s), PCKT_TRNSFR, 0};
                pkt.seg_number = seg;
                pkt.seg_count = count;
                pkt.payload = data + off;
                pkt.payload_len =
                    static_cast<size_t>(std::min<uint64_t>(PROTO_PAYLOAD_MAX, size - off));
                const int len =
                    proto_encode_file_packet_transfer(burst->buf[n], sizeof(burst->buf[n]), &pkt);
                if (len < 0) {
                    errno = EMSGSIZE;
                    result = -1;
                    break;
                }
                burst->iov[n] = {burst->buf[n], static_cast<size_t>(len)};
                burst->hdr[n] = {};
                burst->hdr[n].msg_hdr.msg_iov = &burst->iov[n];
                burst->hdr[n].msg_hdr.msg_iovlen = 1;
                flow.sent(seg, now_us);
                p.sent_packets++;
            }
            if (n > 0 && send_all(s, SWUC_STREAM, burst->hdr, n) != 0)
                result = -1;
        }
        if (result != 0)
            break;

        int64_t now = swuc_now_us();
        keep_alive(s, now / 1000);
        const int64_t keepalive_due =
            (std::max(s->status_sent_ms, s->last_status_ms) + s->cfg.keepalive_ms) * 1000;
        const int64_t wait_us =
            std::max<int64_t>(0, std::min(flow.deadline_us(), keepalive_due) - now);
        const timespec wait = {static_cast<time_t>(wait_us / 1000000),
                               static_cast<long>(wait_us % 1000000) * 1000};
        pollfd pfd[2] = {{s->fd[SWUC_STREAM], POLLIN, 0}, {s->fd[SWUC_RX], POLLIN, 0}};
        // A terminal that answers within tens of microseconds (on this host,
        // or a wired LAN) is waited for awake: sleeping and being woken for
        // each acknowledgement would cost more than the wait.
        int r = 0;
        if (flow.rto().sampled && flow.rto().srtt_us < SPIN_US) {
            const timespec zero = {0, 0};
            const int64_t until = now + std::min<int64_t>(SPIN_US, wait_us);
            while ((r = ppoll(pfd, 2, &zero, nullptr)) == 0 && swuc_now_us() < until) {
            }
        }
        if (r == 0)
            r = ppoll(pfd, 2, &wait, nullptr);
        if (r < 0 && errno != EINTR) {
            result = -1;
            break;
        }
        if (r > 0 && (pfd[1].revents & POLLIN))
            drain_status(s);
        if (r > 0 && (pfd[0].revents & POLLIN)) {
            for (int n = ack_batch::CAP; n == static_cast<int>(ack_batch::CAP);) {
                n = acks->take(s->fd[SWUC_STREAM]);
                const int64_t at_us = swuc_now_us();
                for (int i = 0; i < n; i++) {
                    const uint8_t *a = acks->buf[i];
                    const size_t len = acks->hdr[i].msg_len;
                    file_packet_ack_t ack;
                    if ((acks->hdr[i].msg_hdr.msg_flags & MSG_TRUNC) == 0 &&
                        proto_get_opcode(a, len) == PCKT_TRNSFR_ACK &&
                        proto_decode_file_packet_ack(a, len, &ack) == 0 &&
                        flow.acked(ack.seg_number, at_us))
                        last_progress = at_us;
                }
            }
        }
        if (flow.done())
            break;
        now = swuc_now_us();
        if (flow.expire(now) && now - last_progress >= static_cast<int64_t>(o.stall_ms) * 1000) {
            errno = ETIMEDOUT;
            result = -1;
            break;
        }
        report(false);
    }
    report(true);
    if (progress != nullptr)
        *progress = p;
    return result;
}

int swuc_stream_end(swuc_session *s)
{
    if (swuc_send_header(s, SWUC_STREAM, FILE_STREAM_END) != 0)
        return -1;
    uint8_t buf[DATAGRAM_CAP];
    return swuc_await(s, SWUC_STREAM, FILE_STREAM_END_RSPNS, buf, sizeof(buf),
                      s->cfg.reply_timeout_ms) < 0
               ? -1
               : 0;
}

int swuc_map_file(const char *path, unique_map *map, std::string *err)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        *err = std::string(path) + ": " + strerror(errno);
        return -1;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        *err = std::string(path) + ": not a regular file";
        return -1;
    }
    const auto size = static_cast<size_t>(st.st_size);
    if (size > 0) {
        *map = unique_map(mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0), size);
        if (map->get() == nullptr) {
            *err = std::string(path) + ": " + strerror(errno);
            return -1;
        }
        madvise(map->get(), size, MADV_SEQUENTIAL);
    }
    return 0;
}

int swuc_send_file(swuc_session *s, const char *path, const char *name,
                   const swuc_stream_opts *opts, const swuc_progress_fn &on_progress,
                   swuc_progress *progress)
{
    unique_map map;
    std::string err;
    if (swuc_map_file(path, &map, &err) != 0)
        return -1;
    if (name == nullptr) {
        name = strrchr(path, '/');
        name = name != nullptr ? name + 1 : path;
    }
    file_transfer_response_t rsp;
    int result = swuc_stream_request(s, name, map.size(), &rsp);
    if (result == 0)
        result = swuc_stream_data(s, static_cast<const uint8_t *>(map.get()), map.size(), opts,
                                  on_progress, progress);
    map.reset();
    if (result == 0)
        result = swuc_stream_end(s);
    return result;
}

int swuc_follow_install(swuc_session *s, const swuc_follow_opts *opts,
                        const std::function<void(const swuc_status &)> &on_status,
                        swuc_status *last)
{
    const swuc_follow_opts o = opts != nullptr ? *opts : swuc_follow_opts{};
    const int poll_ms = std::min(std::max(o.poll_ms, 1), s->cfg.keepalive_ms);
    const int64_t deadline = swuc_now_ms() + o.timeout_ms;
    for (;;) {
        int64_t asked = swuc_now_ms();
        swuc_status st;
        if (swuc_get_status(s, &st) != 0)
            return -1;
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
    if (swuc_send_header(s, SWUC_RX, TERMINAL_REBOOT_REQ) != 0)
        return -1;
    uint8_t buf[DATAGRAM_CAP];
    return swuc_await(s, SWUC_RX, TERMINAL_REBOOT_RSPNS, buf, sizeof(buf),
                      s->cfg.reply_timeout_ms) < 0
               ? -1
               : 0;
}

int swuc_ack_error(swuc_session *s)
{
    if (swuc_send_header(s, SWUC_RX, ERROR_RECEIVED) != 0)
        return -1;
    uint8_t buf[DATAGRAM_CAP];
    return swuc_await(s, SWUC_RX, RESTARTING_UPDATE_PROC, buf, sizeof(buf),
                      s->cfg.reply_timeout_ms) < 0
               ? -1
               : 0;
}
