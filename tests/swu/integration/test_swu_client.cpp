// The client library's transfer against a lossy stand-in for the terminal on
// loopback, and its reading of status reports.
#include "status_texts.h"
#include "swu-client/lib/swu_client.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

// Receives packets as the terminal does (in-order segments written and
// acknowledged, repeats acknowledged, segments ahead ignored, segment 1
// restarting the count) and answers status requests; loses a share of the
// packets and of the acknowledgements.
class LossyTerminal
{
  public:
    LossyTerminal(size_t size, double loss, int first_ack_delay_ms = 0)
        : data_(size), loss_(loss), first_ack_delay_ms_(first_ack_delay_ms)
    {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sa);
        bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof(sa));
        getsockname(fd_, reinterpret_cast<sockaddr *>(&sa), &len);
        addr_ = sa;
        timeval tv = {0, 50000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        thread_ = std::thread([this] { run(); });
    }
    ~LossyTerminal()
    {
        stop_ = true;
        thread_.join();
        close(fd_);
    }

    sockaddr_in addr() const { return addr_; }
    const std::vector<uint8_t> &data() const { return data_; }
    uint64_t written() const { return written_; }
    unsigned first_segments() const { return first_segments_; }

  private:
    void run()
    {
        std::mt19937 gen(42);
        std::uniform_real_distribution<double> dice(0.0, 1.0);
        uint64_t expected = 0;
        uint8_t buf[2048];
        while (!stop_) {
            sockaddr_in from = {};
            socklen_t from_len = sizeof(from);
            ssize_t n =
                recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
            if (n <= 0)
                continue;
            int opcode = proto_get_opcode(buf, static_cast<size_t>(n));
            if (opcode == STATUS_REQST) {
                uint8_t out[400];
                status_response_t rsp = {
                    {1, STATUS_RSPNS, 0}, 400, STT_STREAMING.data(), STT_STREAMING.size()};
                int len = proto_encode_status_response(out, sizeof(out), &rsp);
                sendto(fd_, out, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr *>(&from),
                       from_len);
                continue;
            }
            file_packet_transfer_t pkt;
            if (opcode != PCKT_TRNSFR ||
                proto_decode_file_packet_transfer(buf, static_cast<size_t>(n), &pkt) != 0)
                continue;
            // Segment 1 and its acknowledgement always get through: a lost
            // acknowledgement of it can't be repaired (see swuc_stream_data).
            const bool lossy = pkt.seg_number != 1;
            if (lossy && dice(gen) < loss_)
                continue; // packet lost
            if (pkt.seg_number == 1) {
                expected = 1;
                first_segments_++;
                if (first_ack_delay_ms_ > 0)
                    std::this_thread::sleep_for(std::chrono::milliseconds(first_ack_delay_ms_));
            }
            if (pkt.seg_number > expected)
                continue;
            if (pkt.seg_number == expected) {
                size_t off = (pkt.seg_number - 1) * PROTO_PAYLOAD_MAX;
                if (off + pkt.payload_len <= data_.size())
                    memcpy(data_.data() + off, pkt.payload, pkt.payload_len);
                expected++;
                written_++;
            }
            if (lossy && dice(gen) < loss_)
                continue; // acknowledgement lost
            uint8_t out[PROTO_PKT_ACK_SIZE];
            file_packet_ack_t ack = {{1, PCKT_TRNSFR_ACK, 0}, pkt.seg_number};
            proto_encode_file_packet_ack(out, sizeof(out), &ack);
            sendto(fd_, out, sizeof(out), 0, reinterpret_cast<sockaddr *>(&from), from_len);
        }
    }

    int fd_ = -1;
    sockaddr_in addr_ = {};
    std::vector<uint8_t> data_;
    double loss_;
    int first_ack_delay_ms_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> written_{0};
    std::atomic<unsigned> first_segments_{0};
    std::thread thread_;
};

std::vector<uint8_t> payload(size_t size)
{
    std::vector<uint8_t> v(size);
    std::mt19937 gen(7);
    for (auto &b : v)
        b = static_cast<uint8_t>(gen());
    return v;
}

void open_to(swuc_session *s, const LossyTerminal &t, int keepalive_ms = 2000)
{
    swuc_config cfg;
    cfg.terminal = t.addr();
    cfg.local_addr = htonl(INADDR_LOOPBACK);
    cfg.keepalive_ms = keepalive_ms;
    ASSERT_EQ(swuc_open(s, &cfg), 0);
}

TEST(ClientStream, GoBackNDeliversEveryByteOverALossyLink)
{
    for (uint32_t window : {1u, 8u, 64u}) {
        SCOPED_TRACE(window);
        const std::vector<uint8_t> data = payload(300000);
        LossyTerminal terminal(data.size(), 0.03);
        swuc_session s;
        ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal));
        swuc_stream_opts opts;
        opts.window = window;
        opts.ack_timeout_ms = 30;
        opts.max_timeouts = 50;
        swuc_progress progress;
        uint64_t last_acked = 0;
        bool monotonic = true;
        ASSERT_EQ(swuc_stream_data(
                      &s, data.data(), data.size(), &opts,
                      [&](const swuc_progress &p) {
                          monotonic = monotonic && p.acked_bytes >= last_acked;
                          last_acked = p.acked_bytes;
                      },
                      &progress),
                  0);
        EXPECT_TRUE(terminal.data() == data);
        EXPECT_EQ(terminal.written(), (data.size() + 1451) / 1452) << "a segment written twice";
        EXPECT_EQ(progress.acked_bytes, data.size());
        EXPECT_GT(progress.retransmitted, 0u);
        EXPECT_TRUE(monotonic);
        EXPECT_EQ(last_acked, data.size());
    }
}

TEST(ClientStream, SlowFirstAcknowledgementDoesNotRestartTheStream)
{
    const std::vector<uint8_t> data = payload(20000);
    LossyTerminal terminal(data.size(), 0.0, 400);
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal));
    swuc_stream_opts opts;
    opts.window = 16;
    opts.ack_timeout_ms = 50;
    ASSERT_EQ(swuc_stream_data(&s, data.data(), data.size(), &opts, {}, nullptr), 0);
    EXPECT_EQ(terminal.first_segments(), 1u);
    EXPECT_TRUE(terminal.data() == data);
}

TEST(ClientStream, LongTransferAsksForStatusToKeepTheSessionAlive)
{
    const std::vector<uint8_t> data = payload(200000);
    LossyTerminal terminal(data.size(), 0.3); // slow going
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal, 100));
    swuc_stream_opts opts;
    opts.window = 4;
    opts.ack_timeout_ms = 20;
    opts.max_timeouts = 100;
    const int64_t started = swuc_now_ms();
    ASSERT_EQ(swuc_stream_data(&s, data.data(), data.size(), &opts, {}, nullptr), 0);
    const int64_t took = swuc_now_ms() - started;
    ASSERT_GT(took, 300) << "the transfer was too quick to tell";
    EXPECT_GE(s.status_reports, static_cast<uint64_t>(took / 100 / 3));
    EXPECT_EQ(s.last_status.text, STT_STREAMING);
}

TEST(ClientStatus, ReportIsReadIntoItsFields)
{
    swuc_status st;
    ASSERT_EQ(
        swuc_parse_status(STT_ERROR_MISSING_PACKETS.data(), STT_ERROR_MISSING_PACKETS.size(), &st),
        0);
    EXPECT_EQ(st.battery_status, 80u);
    EXPECT_EQ(st.status_code, 2u);
    EXPECT_EQ(st.status_message, "invalid stream, some packets are missing...");
    EXPECT_EQ(st.stage_code, 5u);
    EXPECT_EQ(st.stage_description,
              "Terminal encountered a major error, returning to initial state, re-connect to "
              "continue");
    EXPECT_EQ(st.stage_progress, 0u);
    EXPECT_EQ(st.stage_complete, 0u);
    EXPECT_EQ(st.text, STT_ERROR_MISSING_PACKETS);

    for (
        const char *bad :
        {"", "{", "[]", R"({"battery_status":80})",
         R"({"battery_status":"80","status_code":0,"status_message":"x","stage_code":1,"stage_description":"y","stage_progress":0,"stage_complete":0})"}) {
        EXPECT_NE(swuc_parse_status(bad, strlen(bad), &st), 0) << bad;
    }
}

} // namespace
