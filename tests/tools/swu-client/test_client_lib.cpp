// The client library against a stand-in terminal on loopback: the transfer's
// window, go-back-N and keep-alive over a lossy link, the reading of status
// reports, and the update policy's exit codes.
#include "lib/fleet.h"
#include "lib/policy.h"
#include "lib/remembered.h"
#include "lib/stream.h"
#include "lib/update.h"
#include "proto/package.h"
#include "support/sim_root.h"
#include "support/stranger.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

const std::string REPORT_STREAMING =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":2,"stage_description":"Terminal is receiving update stream...","stage_progress":0,"stage_complete":0})";

const std::string REPORT_FINISHED =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":6,"stage_description":"Terminal is rebooting...","stage_progress":0,"stage_complete":1})";

// Answers as the terminal does: connection requests with `connection_status`
// (none at all for SILENT; status requests only once confirmed), packets
// written and acknowledged in order only, repeats acknowledged, segment 1
// restarting the count. Loses a share of the packets and of the
// acknowledgements, never segment 1's.
class StandIn
{
  public:
    static constexpr uint8_t SILENT = 0xFF;

    explicit StandIn(size_t size, double loss = 0, uint8_t connection_status = 1)
        : data_(size), loss_(loss), connection_status_(connection_status)
    {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        addr_.sin_family = AF_INET;
        addr_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr_);
        bind(fd_, reinterpret_cast<sockaddr *>(&addr_), sizeof(addr_));
        getsockname(fd_, reinterpret_cast<sockaddr *>(&addr_), &len);
        timeval tv = {0, 50000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        thread_ = std::thread([this] { run(); });
    }
    ~StandIn()
    {
        stop_ = true;
        thread_.join();
        close(fd_);
    }

    sockaddr_in addr() const { return addr_; }
    std::vector<uint8_t> data_;
    std::atomic<uint64_t> written_{0};
    std::atomic<uint64_t> max_ahead_{0}; // most segments beyond the last one written
    // Status requests go unanswered until then (swuc_now_ms), as while an
    // installation holds a slow terminal's only core; answered after, they
    // report the finish stage once `finished_`.
    std::atomic<int64_t> mute_until_ms_{0};
    std::atomic<bool> finished_{false};
    // Segments after this one are neither written nor acknowledged.
    std::atomic<uint64_t> swallow_after_{UINT64_MAX};

  private:
    void reply(const uint8_t *buf, int len, sockaddr_in to)
    {
        sendto(fd_, buf, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr *>(&to),
               sizeof(to));
    }

    void run()
    {
        std::mt19937 gen(42);
        std::uniform_real_distribution<double> dice(0.0, 1.0);
        uint64_t expected = 1;
        bool connected = false;
        uint8_t buf[2048], out[512];
        while (!stop_) {
            sockaddr_in from = {};
            socklen_t from_len = sizeof(from);
            ssize_t n =
                recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
            if (n <= 0)
                continue;
            const auto len = static_cast<size_t>(n);
            conection_request_t req;
            file_packet_transfer_t pkt;
            switch (proto_get_opcode(buf, len)) {
            case CONNECTION_REQST:
                if (connection_status_ != SILENT &&
                    proto_decode_connection_request(buf, len, &req) == 0) {
                    conection_response_t rsp = {
                        {1, CONNECTION_RSPNS, 0}, connection_status_, 0, 42, 1};
                    connected = connection_status_ == SWU_CON_RES_CONNECTION_CONFIRMED;
                    from.sin_port = htons(req.uma_rx_port);
                    reply(out, proto_encode_connection_response(out, sizeof(out), &rsp), from);
                }
                break;
            case STATUS_REQST:
                if (connected && swuc_now_ms() >= mute_until_ms_) {
                    const std::string &report = finished_ ? REPORT_FINISHED : REPORT_STREAMING;
                    status_response_t rsp = {
                        {1, STATUS_RSPNS, 0}, 400, report.data(), report.size()};
                    reply(out, proto_encode_status_response(out, sizeof(out), &rsp), from);
                }
                break;
            case PCKT_TRNSFR:
                if (proto_decode_file_packet_transfer(buf, len, &pkt) != 0)
                    break;
                max_ahead_ = std::max<uint64_t>(max_ahead_, pkt.seg_number - (expected - 1));
                if ((pkt.seg_number != 1 && dice(gen) < loss_) || pkt.seg_number > swallow_after_)
                    break; // packet lost
                if (pkt.seg_number == 1)
                    expected = 1;
                if (pkt.seg_number > expected)
                    break;
                if (pkt.seg_number == expected) {
                    size_t off = (expected - 1) * PROTO_PAYLOAD_MAX;
                    if (off + pkt.payload_len <= data_.size())
                        memcpy(data_.data() + off, pkt.payload, pkt.payload_len);
                    expected++;
                    written_++;
                }
                if (pkt.seg_number != 1 && dice(gen) < loss_)
                    break; // acknowledgement lost
                file_packet_ack_t ack = {{1, PCKT_TRNSFR_ACK, 0}, pkt.seg_number};
                reply(out, proto_encode_file_packet_ack(out, sizeof(out), &ack), from);
                break;
            }
        }
    }

    int fd_ = -1;
    sockaddr_in addr_ = {};
    double loss_;
    uint8_t connection_status_;
    std::atomic<bool> stop_{false};
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

void open_to(swuc_session *s, const StandIn &t, int keepalive_ms = SWUC_DEFAULT_KEEPALIVE_MS)
{
    swuc_config cfg;
    cfg.terminal = t.addr();
    cfg.local_addr = htonl(INADDR_LOOPBACK);
    cfg.keepalive_ms = keepalive_ms;
    ASSERT_EQ(swuc_open(s, &cfg), 0);
}

TEST(ClientStream, GoBackNKeepsWithinTheWindowAndDeliversEveryByteOverALossyLink)
{
    for (uint32_t window : {1u, 8u, 64u}) {
        SCOPED_TRACE(window);
        const std::vector<uint8_t> data = payload(300000);
        StandIn terminal(data.size(), 0.03);
        swuc_session s;
        ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal));
        swuc_stream_opts opts;
        opts.window = window;
        swuc_progress progress;
        uint64_t reported = 0;
        ASSERT_EQ(swuc_stream_data(
                      &s, data.data(), data.size(), &opts,
                      [&](const swuc_progress &p) { reported = p.acked_bytes; }, &progress),
                  0);
        EXPECT_TRUE(terminal.data_ == data);
        EXPECT_EQ(terminal.written_, (data.size() + 1451) / 1452) << "a segment written twice";
        EXPECT_EQ(reported, data.size());
        EXPECT_GT(progress.retransmitted, 0u);
    }
}

// Acknowledgements stop after segment 40 while a forger on this host
// acknowledges every later one: the stream keeps exactly its window in flight
// and never counts the forged ones.
TEST(ClientStream, TheWindowIsAHardLimitAndOnlyTheTerminalAcknowledges)
{
    const std::vector<uint8_t> data = payload(100 * PROTO_PAYLOAD_MAX);
    StandIn terminal(data.size());
    terminal.swallow_after_ = 40;
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal));
    std::vector<Stranger::datagram> acks;
    for (uint64_t seg = 41; seg <= 100; seg++)
        acks.push_back(Stranger::ack(seg, Stranger::to("127.0.0.1", s.port[SWUC_STREAM])));
    Stranger forger(acks, "127.0.0.1", 0);
    swuc_stream_opts opts;
    opts.window = 4;
    opts.stall_ms = 300;
    swuc_progress progress;
    EXPECT_NE(swuc_stream_data(&s, data.data(), data.size(), &opts, {}, &progress), 0);
    EXPECT_EQ(progress.acked_packets, 40u);
    EXPECT_EQ(terminal.max_ahead_, 4u) << "packets in flight beyond the last acknowledged";
    EXPECT_GT(s.foreign, 0u);
}

TEST(ClientStream, LongTransferAsksForStatusToKeepTheSessionAlive)
{
    const std::vector<uint8_t> data = payload(600000);
    StandIn terminal(data.size(), 0.3); // slow going
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal, 100));
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    swuc_stream_opts opts;
    opts.window = 4;
    const int64_t started = swuc_now_ms();
    ASSERT_EQ(swuc_stream_data(&s, data.data(), data.size(), &opts, {}, nullptr), 0);
    const int64_t took = swuc_now_ms() - started;
    ASSERT_GT(took, 300) << "the transfer was too quick to tell";
    EXPECT_GE(s.status_reports, static_cast<uint64_t>(took / 100 / 3));
    EXPECT_EQ(s.last_status.text, REPORT_STREAMING);
}

// An installation follows a terminal through a silence shorter than the
// limit, and gives it up as gone after a longer one.
TEST(ClientFollow, ASilentTerminalIsWaitedForUpToTheSilenceLimit)
{
    StandIn terminal(0);
    terminal.finished_ = true;
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_to(&s, terminal));
    s.cfg.reply_timeout_ms = 100; // three unanswered requests take 0.3 s
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    swuc_follow_opts o;
    o.silence_ms = 1500;
    terminal.mute_until_ms_ = swuc_now_ms() + 800;
    swuc_status last;
    EXPECT_EQ(swuc_follow_install(&s, &o, {}, &last), 0);
    EXPECT_EQ(last.stage_code, SM_STATE_FINISH);

    o.silence_ms = 500;
    terminal.mute_until_ms_ = swuc_now_ms() + 60000;
    const int64_t asked = swuc_now_ms();
    EXPECT_NE(swuc_follow_install(&s, &o, {}, &last), 0);
    EXPECT_LT(swuc_now_ms() - asked, 1500) << "the silence limit was not kept";
}

TEST(ClientStatus, ReportIsReadIntoItsFieldsOrRefused)
{
    swuc_status st;
    ASSERT_EQ(swuc_parse_status(REPORT_STREAMING.data(), REPORT_STREAMING.size(), &st), 0);
    EXPECT_EQ(st.battery_status, 80u);
    EXPECT_EQ(st.status_message, "operation compleated successfully...");
    EXPECT_EQ(st.stage_code, SM_STATE_STREAM);
    EXPECT_EQ(st.stage_description, "Terminal is receiving update stream...");
    EXPECT_EQ(st.text, REPORT_STREAMING);
    for (
        const char *bad :
        {"", "{", "[]", R"({"battery_status":80})",
         R"({"battery_status":"80","status_code":0,"status_message":"x","stage_code":1,"stage_description":"y","stage_progress":0,"stage_complete":0})"})
        EXPECT_NE(swuc_parse_status(bad, strlen(bad), &st), 0) << bad;
}

TEST(ClientPolicy, EachWayOfFailingHasItsExitCode)
{
    const std::pair<unsigned, int> by_status[] = {
        {SWU_STAGE_CODE_INVL_STREAM_REQ, SWUC_EXIT_REFUSED},
        {SWU_STAGE_CODE_MISSING_PCKTS, SWUC_EXIT_INCOMPLETE},
        {SWU_STAGE_CODE_MEM_ALLOC_FAILURE, SWUC_EXIT_NO_MEMORY},
        {SWU_STAGE_CODE_FS_FAILURE, SWUC_EXIT_FS_FAILURE},
        {SWU_STAGE_CODE_OK, SWUC_EXIT_INSTALL},
        {SWU_STAGE_CODE_EINVAL_PKG, SWUC_EXIT_INSTALL}};
    for (const auto &[status_code, exit_code] : by_status)
        EXPECT_EQ(swuc_exit_for_status(status_code), exit_code) << status_code;
    for (int code = SWUC_EXIT_OK; code <= SWUC_EXIT_FLEET; code++)
        EXPECT_EQ(swuc_retryable(code), code == SWUC_EXIT_INCOMPLETE || code == SWUC_EXIT_STALLED)
            << code;

    // Refusals of the connection and names the terminal would refuse, before
    // anything is streamed; a terminal that never answers.
    SimRoot root;
    root.write("p.swu", "bytes");
    const struct {
        uint8_t connection_status;
        std::string name;
        int exit_code;
        const char *message;
    } rows[] = {
        {SWU_CON_RES_BATTERY_TOO_LOW, "p.swu", SWUC_EXIT_BATTERY,
         "battery too low for an update (42 %"},
        {SWU_CON_RES_ALREADY_CONNECTED, "p.swu", SWUC_EXIT_BUSY, "busy"},
        {StandIn::SILENT, "p.swu", SWUC_EXIT_NO_ANSWER, ""},
        {StandIn::SILENT, "", SWUC_EXIT_NO_ANSWER, ""},
        {StandIn::SILENT, "a/b", SWUC_EXIT_USAGE, ""},
        {StandIn::SILENT, std::string(100, 'n'), SWUC_EXIT_USAGE, ""},
    };
    update_params p;
    p.package_path = root.path("p.swu");
    p.reply_timeout_ms = 200;
    for (const auto &r : rows) {
        StandIn terminal(0, 0, r.connection_status);
        p.terminal = terminal.addr();
        p.name = r.name;
        update_outcome out = run_update(p, {});
        EXPECT_EQ(out.exit_code, r.exit_code) << r.name << ": " << out.message;
        EXPECT_EQ(out.message.rfind(r.message, 0), 0u) << out.message;
        if (*r.message != '\0') {
            EXPECT_EQ(out.step, "connect");
        }
    }
    p.package_path = root.path("missing.swu");
    EXPECT_EQ(run_update(p, {}).exit_code, SWUC_EXIT_LOCAL);
}

TEST(ClientPolicy, EachAttemptTravelsUnderANameOfItsOwn)
{
    EXPECT_EQ(swuc_attempt_name("/x/update-2.0.1.swu", 3000, 0x1a2b3c4d, 1),
              "update-2.0.1.swu-3000-1a2b3c4d-1");
    EXPECT_EQ(swuc_attempt_name("dir/a b+c.swu", 1, 0, 12), "a_b_c.swu-1-00000000-12");
    EXPECT_EQ(swuc_attempt_name("dir/", 5, 1, 1), "package-5-00000001-1");
    // Cut to what the terminal takes; the figures stay whole.
    const std::string longest = swuc_attempt_name(std::string(200, 'n'), 629145600, ~0u, 3);
    EXPECT_EQ(longest.size(), PKG_NAME_MAX_LEN);
    EXPECT_TRUE(pkg_name_valid(longest.data(), longest.size()));
    EXPECT_EQ(longest.substr(longest.size() - 21), "-629145600-ffffffff-3");

    const uint8_t pkg[12] = {9, 9, 9, 9, 9, 9, 9, 9, 0x4d, 0x3c, 0x2b, 0x1a};
    EXPECT_EQ(swuc_footer_crc(pkg, 12), 0x1a2b3c4du);
    EXPECT_EQ(swuc_footer_crc(pkg, 11), 0u);
}

TEST(ClientFleet, CanaryWaveFirstAndNoNewUpdateOnceTheFailureBudgetIsSpent)
{
    std::vector<std::string> why;
    std::atomic<int> started{0};
    auto fails = [&](std::set<size_t> failing) {
        return [&started, failing](size_t i) {
            started++;
            return failing.count(i) == 0;
        };
    };
    // Canaries 0 and 1 succeed: the rest follows.
    std::vector<fleet_fate> fate = swuc_run_fleet(5, {2, 2, 0}, fails({3}), &why);
    EXPECT_EQ(fate, (std::vector<fleet_fate>{FLEET_UPDATED, FLEET_UPDATED, FLEET_UPDATED,
                                             FLEET_FAILED, FLEET_UPDATED}));
    // A canary fails: nothing else starts.
    started = 0;
    fate = swuc_run_fleet(5, {4, 2, 0}, fails({1}), &why);
    EXPECT_EQ(started, 2);
    EXPECT_EQ(fate[4], FLEET_NOT_STARTED);
    EXPECT_EQ(why[4], "the canary wave failed");
    // One at a time, two failures allowed: the third job is the last started.
    started = 0;
    fate = swuc_run_fleet(6, {1, 0, 2}, fails({0, 2}), &why);
    EXPECT_EQ(started, 3);
    EXPECT_EQ(fate[3], FLEET_NOT_STARTED);
    EXPECT_EQ(why[3], "2 failures, the budget is spent");
}

swuc_advert heard_from(const char *addr, const std::string &id, uint16_t seq, bool busy,
                       uint16_t major = 1)
{
    swuc_advert a = {};
    a.sender = Stranger::to(addr, 40000);
    a.adv.hdr.seq_num = seq;
    a.adv.rx_port = PROTO_SWU_PORT;
    a.adv.connection_status = busy ? SWU_CON_STATUS_BUSY : SWU_CON_STATUS_AVAIL;
    a.adv.curr_sw_v[0] = major;
    a.adv.orvanID_len = static_cast<uint8_t>(id.size());
    memcpy(a.adv.orvanID, id.data(), id.size());
    return a;
}

// Back from its reboot: free, from the terminal's address and port, with
// its identity, after it was gone (its counter started again, or it was
// silent for a while). Its busy advertisements never count.
TEST(ClientPolicy, TheTerminalIsBackOnlyWhenItAdvertisesFreeUnderItsIdentityAfterItWasGone)
{
    const sockaddr_in t = Stranger::to("10.0.0.5", PROTO_SWU_PORT);
    swuc_reboot_watch w(t, "ID", 900, true, 0);
    EXPECT_FALSE(w.heard(heard_from("10.0.0.5", "ID", 901, true), 1000)) << "the finish state";
    EXPECT_FALSE(w.heard(heard_from("10.0.0.5", "ID", 902, false), 2000)) << "never gone";
    EXPECT_FALSE(w.heard(heard_from("10.0.0.9", "ID", 1, false), 3000)) << "another address";
    EXPECT_FALSE(w.heard(heard_from("10.0.0.5", "XX", 1, false), 3000)) << "another identity";
    EXPECT_EQ(w.foreign(), 2u);
    EXPECT_FALSE(w.heard(heard_from("10.0.0.5", "ID", 1, true), 4000)) << "restarted, busy";
    EXPECT_TRUE(w.heard(heard_from("10.0.0.5", "ID", 2, false), 5000));

    swuc_reboot_watch quiet(t, "ID", 0, false, 0);
    EXPECT_FALSE(quiet.heard(heard_from("10.0.0.5", "ID", 5, false), 1000));
    const int64_t later = 1000 + swuc_reboot_watch::GONE_MS;
    EXPECT_FALSE(quiet.heard(heard_from("10.0.0.5", "ID", 6, true), later)) << "gone, but busy";
    EXPECT_TRUE(quiet.heard(heard_from("10.0.0.5", "ID", 7, false), later + 1));
}

// With a list of known terminals, the rest heard are strangers: never taken,
// never counted. A known identity heard from two addresses is taken at
// neither unless the inventory names its address.
TEST(ClientFleet, OnlyKnownTerminalsAreTaken)
{
    const std::vector<swuc_advert> heard = {
        heard_from("10.0.0.1", "A", 1, false), heard_from("10.0.0.2", "B", 1, true),
        heard_from("10.0.0.3", "C", 1, false, 2), heard_from("10.0.0.66", "A", 1, false)};
    pack_report pkg;
    pkg.has_version = true;
    pkg.version.v[0] = 2;
    std::vector<std::string> why;
    EXPECT_EQ(swuc_fleet_plan(heard, {}, {}, pkg, &why),
              (std::vector<fleet_take>{FLEET_TAKE, FLEET_SKIP, FLEET_SKIP, FLEET_TAKE}));
    EXPECT_EQ(why[1], "busy: another client is connected");
    EXPECT_EQ(why[2], "the package installs 2.0.0, the terminal runs 2.0.0 (--reinstall sends it)");

    EXPECT_EQ(
        swuc_fleet_plan(heard, known_terminals::from_list("A,B"), {}, pkg, &why),
        (std::vector<fleet_take>{FLEET_STRANGER, FLEET_SKIP, FLEET_STRANGER, FLEET_STRANGER}));
    EXPECT_EQ(why[0], "its identity is advertised from 2 addresses (an inventory line with its "
                      "address settles it)");
    EXPECT_EQ(why[2], "not a known terminal");
    known_terminals inventory;
    std::string err;
    ASSERT_TRUE(known_terminals::from_inventory("A 10.0.0.1  # the shop\n\nC\n", &inventory, &err));
    EXPECT_EQ(swuc_fleet_plan(heard, inventory, {}, pkg, &why),
              (std::vector<fleet_take>{FLEET_TAKE, FLEET_STRANGER, FLEET_SKIP, FLEET_STRANGER}));
    EXPECT_FALSE(known_terminals::from_inventory("A\nB 10.0.0\n", &inventory, &err));
    EXPECT_EQ(err, "line 2: not \"IDENTITY [ADDRESS]\"");
}

// Remembered per terminal, address and identity both; never through a
// symbolic link; a file over the cap is not read and is started afresh.
TEST(ClientState, RememberedPerTerminalNeverThroughALinkAndCapped)
{
    SimRoot root;
    setenv("XDG_STATE_HOME", root.path("state").c_str(), 1);
    const remembered_terminal a{Stranger::to("10.0.0.5", PROTO_SWU_PORT), "ID"};
    const remembered_terminal b{a.address, "OTHER"};
    uint16_t rx = 0, stream = 0;
    swuc_remember_ports(a, 4000, 4001);
    ASSERT_TRUE(swuc_recall_ports(a, &rx, &stream));
    EXPECT_EQ(rx, 4000);
    EXPECT_FALSE(swuc_recall_ports(b, &rx, &stream));
    swuc_remember_name(a, "p.swu", 10, 1);
    EXPECT_TRUE(swuc_name_carried_another(a, "p.swu", 11, 1));
    EXPECT_FALSE(swuc_name_carried_another(b, "p.swu", 11, 1));

    const std::string session = swuc_state_file("session", a);
    root.write("target", "5000 5001\n");
    std::filesystem::remove(session);
    std::filesystem::create_symlink(root.path("target"), session);
    EXPECT_FALSE(swuc_recall_ports(a, &rx, &stream));
    swuc_remember_ports(a, 4000, 4001);
    EXPECT_EQ(root.read("target"), "5000 5001\n");

    const std::string names = swuc_state_file("names", a);
    std::string big = "p.swu 12 1\n";
    big.resize(SWUC_STATE_CAP + 1, '\n');
    root.write(names.substr(root.dir().size() + 1), big);
    EXPECT_FALSE(swuc_name_carried_another(a, "p.swu", 10, 1)) << "read past the cap";
    swuc_remember_name(a, "q.swu", 1, 1);
    EXPECT_EQ(std::filesystem::file_size(names), 10u);
    unsetenv("XDG_STATE_HOME");
}

} // namespace
