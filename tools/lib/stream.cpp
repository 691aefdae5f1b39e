#include "lib/stream.h"

#include "lib/flow.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr int PROGRESS_INTERVAL_MS = 100;
constexpr int64_t SPIN_US = 100; // longest wait for an acknowledgement without sleeping

// The packets of one burst, encoded side by side and sent with one call.
struct packet_burst {
    static constexpr unsigned CAP = 64;
    uint8_t buf[CAP][PROTO_PKT_HEAD_SIZE + PROTO_PAYLOAD_MAX];
    iovec iov[CAP];
    mmsghdr hdr[CAP];
};

// Acknowledgements taken from the socket in one call, with their senders;
// anything longer than an acknowledgement is cut and skipped.
struct ack_batch {
    static constexpr unsigned CAP = 64;
    uint8_t buf[CAP][64];
    sockaddr_in from[CAP];
    iovec iov[CAP];
    mmsghdr hdr[CAP];

    // Whatever is queued now, up to CAP; -1 with nothing (errno set).
    int take(int fd)
    {
        for (unsigned i = 0; i < CAP; i++) {
            iov[i] = {buf[i], sizeof(buf[i])};
            hdr[i] = {};
            hdr[i].msg_hdr.msg_name = &from[i];
            hdr[i].msg_hdr.msg_namelen = sizeof(from[i]);
            hdr[i].msg_hdr.msg_iov = &iov[i];
            hdr[i].msg_hdr.msg_iovlen = 1;
        }
        return recvmmsg(fd, hdr, CAP, MSG_DONTWAIT, nullptr);
    }
};

// One stream under way.
struct streamer {
    swuc_session *s;
    const uint8_t *data;
    uint64_t size;
    swuc_stream_opts o;
    swuc_flow flow;
    swuc_progress p;
    int64_t last_progress_us;
    int64_t last_report_ms = 0;
    std::unique_ptr<packet_burst> burst = std::make_unique<packet_burst>();
    std::unique_ptr<ack_batch> acks = std::make_unique<ack_batch>();

    static swuc_flow_opts flow_opts(const swuc_stream_opts &o)
    {
        swuc_flow_opts fo;
        fo.max_window = std::max<uint32_t>(o.window, 1);
        fo.min_rto_us = static_cast<int64_t>(std::max(o.ack_timeout_ms, 0)) * 1000;
        fo.max_rto_us = std::max(fo.max_rto_us, fo.min_rto_us);
        fo.initial_rto_us = std::max(fo.initial_rto_us, fo.min_rto_us);
        return fo;
    }

    streamer(swuc_session *session, const uint8_t *bytes, uint64_t n, const swuc_stream_opts &opts)
        : s(session), data(bytes), size(n), o(opts),
          flow((n + PROTO_PAYLOAD_MAX - 1) / PROTO_PAYLOAD_MAX, flow_opts(opts)),
          last_progress_us(swuc_now_us())
    {
        p.total_bytes = size;
        p.total_packets = (size + PROTO_PAYLOAD_MAX - 1) / PROTO_PAYLOAD_MAX;
    }

    void report(const swuc_progress_fn &on_progress, bool force)
    {
        const int64_t now = swuc_now_ms();
        p.acked_packets = flow.base() - 1;
        p.acked_bytes = std::min<uint64_t>((flow.base() - 1) * PROTO_PAYLOAD_MAX, size);
        p.retransmitted = flow.resent();
        p.timeouts = flow.timeouts();
        if (on_progress && (force || now - last_report_ms >= PROGRESS_INTERVAL_MS)) {
            last_report_ms = now;
            on_progress(p);
        }
    }

    // Sends every packet the window allows now, a burst per system call.
    int send_due()
    {
        for (unsigned n = packet_burst::CAP; n == packet_burst::CAP;) {
            const int64_t now_us = swuc_now_us();
            n = 0;
            for (uint64_t seg; n < packet_burst::CAP && (seg = flow.next_to_send()) != 0; n++) {
                const uint64_t off = (seg - 1) * PROTO_PAYLOAD_MAX;
                file_packet_transfer_t pkt = {};
                pkt.hdr = {swuc_next_seq(s), PCKT_TRNSFR, 0};
                pkt.seg_number = seg;
                pkt.seg_count = p.total_packets;
                pkt.payload = data + off;
                pkt.payload_len =
                    static_cast<size_t>(std::min<uint64_t>(PROTO_PAYLOAD_MAX, size - off));
                const int len =
                    proto_encode_file_packet_transfer(burst->buf[n], sizeof(burst->buf[n]), &pkt);
                if (len < 0) {
                    errno = EMSGSIZE;
                    return -1;
                }
                burst->iov[n] = {burst->buf[n], static_cast<size_t>(len)};
                burst->hdr[n] = {};
                burst->hdr[n].msg_hdr.msg_iov = &burst->iov[n];
                burst->hdr[n].msg_hdr.msg_iovlen = 1;
                flow.sent(seg, now_us);
                p.sent_packets++;
            }
            if (n > 0 && swuc_send_batch(s->fd[SWUC_STREAM], s->cfg.terminal, burst->hdr, n) != 0)
                return -1;
        }
        return 0;
    }

    // Waits for an acknowledgement, a status report, the oldest packet's
    // deadline or the next keep-alive, whichever comes first. As poll().
    int wait(pollfd pfd[2])
    {
        const int64_t now = swuc_now_us();
        swuc_keep_alive(s, now / 1000);
        const int64_t keepalive_due =
            (std::max(s->status_sent_ms, s->last_status_ms) + s->cfg.keepalive_ms) * 1000;
        const int64_t wait_us =
            std::max<int64_t>(0, std::min(flow.deadline_us(), keepalive_due) - now);
        const timespec until = {static_cast<time_t>(wait_us / 1000000),
                                static_cast<long>(wait_us % 1000000) * 1000};
        pfd[0] = {s->fd[SWUC_STREAM], POLLIN, 0};
        pfd[1] = {s->fd[SWUC_RX], POLLIN, 0};
        // A terminal that answers within tens of microseconds (on this host,
        // or a wired LAN) is waited for awake: sleeping and being woken for
        // each acknowledgement would cost more than the wait.
        int r = 0;
        if (flow.rto().sampled && flow.rto().srtt_us < SPIN_US) {
            const timespec zero = {0, 0};
            const int64_t spin_end = now + std::min<int64_t>(SPIN_US, wait_us);
            while ((r = ppoll(pfd, 2, &zero, nullptr)) == 0 && swuc_now_us() < spin_end) {
            }
        }
        if (r == 0)
            r = ppoll(pfd, 2, &until, nullptr);
        return r;
    }

    // Takes every acknowledgement queued now; those of other senders are
    // dropped and counted.
    void take_acks()
    {
        for (int n = ack_batch::CAP; n == static_cast<int>(ack_batch::CAP);) {
            n = acks->take(s->fd[SWUC_STREAM]);
            const int64_t at_us = swuc_now_us();
            for (int i = 0; i < n; i++) {
                const uint8_t *a = acks->buf[i];
                const size_t len = acks->hdr[i].msg_len;
                file_packet_ack_t ack;
                if ((acks->hdr[i].msg_hdr.msg_flags & MSG_TRUNC) == 0 &&
                    swuc_accept(s, acks->from[i], a, len) &&
                    proto_get_opcode(a, len) == PCKT_TRNSFR_ACK &&
                    proto_decode_file_packet_ack(a, len, &ack) == 0 &&
                    flow.acked(ack.seg_number, at_us))
                    last_progress_us = at_us;
            }
        }
    }

    int run(const swuc_progress_fn &on_progress)
    {
        while (!flow.done()) {
            if (send_due() != 0)
                return -1;
            pollfd pfd[2];
            const int r = wait(pfd);
            if (r < 0 && errno != EINTR)
                return -1;
            if (r > 0 && (pfd[1].revents & POLLIN))
                swuc_drain_status(s);
            if (r > 0 && (pfd[0].revents & POLLIN))
                take_acks();
            if (flow.done())
                break;
            const int64_t now = swuc_now_us();
            if (flow.expire(now) &&
                now - last_progress_us >= static_cast<int64_t>(o.stall_ms) * 1000) {
                errno = ETIMEDOUT;
                return -1;
            }
            report(on_progress, false);
        }
        return 0;
    }
};

} // namespace

int swuc_stream_data(swuc_session *s, const uint8_t *data, uint64_t size,
                     const swuc_stream_opts *opts, const swuc_progress_fn &on_progress,
                     swuc_progress *progress)
{
    streamer st(s, data, size, opts != nullptr ? *opts : swuc_stream_opts{});
    const int result = st.run(on_progress);
    st.report(on_progress, true);
    if (progress != nullptr)
        *progress = st.p;
    return result;
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
