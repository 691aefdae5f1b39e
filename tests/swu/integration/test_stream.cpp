// Package stream reception through the running daemon: refused requests,
// the simulated failures, segments out of order, repeated and missing, and
// the error state's acknowledgement and time-out.
#include "status_texts.h"
#include "support/terminal_fixture.h"

namespace
{

class Stream : public TerminalTest
{
  protected:
    // A stream request with `name_len_delta` added to the announced name
    // length.
    static std::vector<uint8_t> stream_request(uint64_t size, const std::string &name,
                                               int name_len_delta = 0)
    {
        std::vector<uint8_t> buf(PROTO_FT_REQ_HEAD_SIZE + name.size());
        file_transfer_request_t req = {};
        req.hdr = {1, STREAM_REQST, 0};
        req.fsize = size;
        req.fname_len = static_cast<uint16_t>(name.size());
        req.fname = name.data();
        EXPECT_GT(proto_encode_file_transfer_request(buf.data(), buf.size(), &req), 0);
        uint16_t len = static_cast<uint16_t>(static_cast<int>(name.size()) + name_len_delta);
        buf[12] = static_cast<uint8_t>(len);
        buf[13] = static_cast<uint8_t>(len >> 8);
        return buf;
    }

    static bool answered(swuc_session *s, uint8_t opcode, int ms)
    {
        uint8_t buf[2048];
        return swuc_await(s, SWUC_STREAM, opcode, buf, sizeof(buf), ms) >= 0;
    }

    static bool acked(swuc_session *s, uint64_t seg)
    {
        uint8_t buf[2048];
        ssize_t n = swuc_await(s, SWUC_STREAM, PCKT_TRNSFR_ACK, buf, sizeof(buf), 1000 * SLOW);
        file_packet_ack_t ack;
        return n > 0 && proto_decode_file_packet_ack(buf, static_cast<size_t>(n), &ack) == 0 &&
               ack.seg_number == seg;
    }

    // A valid package that travels in exactly three packets.
    std::string three_packet_package(std::string *bytes)
    {
        std::string path = make_package("three.pkg", {file_member("app.bin", test_bytes(3000, 9))});
        *bytes = root_.read("client/three.pkg");
        EXPECT_GT(bytes->size(), 2u * PROTO_PAYLOAD_MAX);
        EXPECT_LE(bytes->size(), 3u * PROTO_PAYLOAD_MAX);
        return path;
    }

    static int send_segment(swuc_session *s, const std::string &pkg, uint64_t seg)
    {
        size_t off = (seg - 1) * PROTO_PAYLOAD_MAX;
        size_t len = std::min<size_t>(PROTO_PAYLOAD_MAX, pkg.size() - off);
        return swuc_send_packet(s, seg, 3, reinterpret_cast<const uint8_t *>(pkg.data()) + off,
                                len);
    }
};

TEST_F(Stream, RefusedRequestsTellWhyInTheErrorStateUntilAcknowledged)
{
    ASSERT_NO_FATAL_FAILURE(start());
    root_.mkdir("work/blocked.pkg"); // a name that can't be created as a file

    struct refused {
        const char *what;
        std::vector<uint8_t> request;
        std::string_view report;
    };
    const refused cases[] = {
        {"size above 600 MiB", stream_request(629145601, "big.pkg"), STT_ERROR_INVALID_REQUEST},
        {"empty name", stream_request(100, ""), STT_ERROR_INVALID_REQUEST},
        {"name length one short", stream_request(100, "a.pkg", -1), STT_ERROR_INVALID_REQUEST},
        {"name length one over", stream_request(100, "a.pkg", 1), STT_ERROR_INVALID_REQUEST},
        {"slash in the name", stream_request(100, "pkg/a"), STT_ERROR_INVALID_REQUEST},
        {"space in the name", stream_request(100, "my pkg"), STT_ERROR_INVALID_REQUEST},
        {"name of 100 characters", stream_request(100, std::string(100, 'n')),
         STT_ERROR_INVALID_REQUEST},
        {"file can't be created", stream_request(100, "blocked.pkg"), STT_ERROR_FS_FAILURE},
    };

    swuc_session s;
    swuc_session stranger;
    ASSERT_NO_FATAL_FAILURE(open_session(&stranger, "127.0.0.2", 500 * SLOW));
    bool first = true;
    for (const refused &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_NO_FATAL_FAILURE(connect(&s));
        ASSERT_EQ(swuc_send(&s, SWUC_STREAM, c.request.data(), c.request.size()), 0);
        EXPECT_FALSE(answered(&s, FILE_STREAM_RSPNS, 500 * SLOW));
        EXPECT_EQ(status(&s).text, c.report);
        if (first) {
            // Only the connected client's acknowledgement counts.
            EXPECT_NE(swuc_ack_error(&stranger), 0);
            EXPECT_EQ(status(&s).stage_code, SWUC_STAGE_ERROR);
            first = false;
        }
        ASSERT_NO_FATAL_FAILURE(ack_error(&s));
        swuc_close(&s);
    }
    EXPECT_FALSE(root_.exists("work/big.pkg"));

    // The largest package is accepted; a repeated request is ignored, and a
    // stream end without packets fails as incomplete and removes the file.
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    std::vector<uint8_t> largest = stream_request(629145600, "pkg_1.0-2.tar.gz");
    ASSERT_EQ(swuc_send(&s, SWUC_STREAM, largest.data(), largest.size()), 0);
    uint8_t buf[64];
    ssize_t n = swuc_await(&s, SWUC_STREAM, FILE_STREAM_RSPNS, buf, sizeof(buf), 1000 * SLOW);
    ASSERT_EQ(n, static_cast<ssize_t>(PROTO_FT_RSP_SIZE));
    file_transfer_response_t ftr;
    ASSERT_EQ(proto_decode_file_transfer_response(buf, static_cast<size_t>(n), &ftr), 0);
    EXPECT_EQ(ftr.payload_max, 1452);
    EXPECT_EQ(ftr.file_transfer_status, 0);
    EXPECT_EQ(std::filesystem::file_size(root_.path("work/pkg_1.0-2.tar.gz")), 629145600u);
    EXPECT_EQ(status(&s).text, STT_STREAMING);
    ASSERT_EQ(swuc_send(&s, SWUC_STREAM, largest.data(), largest.size()), 0);
    EXPECT_FALSE(answered(&s, FILE_STREAM_RSPNS, 300 * SLOW));
    EXPECT_NE(swuc_stream_end(&s), 0);
    EXPECT_EQ(status(&s).text, STT_ERROR_MISSING_PACKETS);
    EXPECT_FALSE(root_.exists("work/pkg_1.0-2.tar.gz"));
    ASSERT_NO_FATAL_FAILURE(ack_error(&s));
}

TEST_F(Stream, SimulatedFailuresStrikeOnceEach)
{
    TerminalSetup setup;
    setup.daemon_args = {"-F", "-L", "-Z", "-M", "-S"};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    const std::string app = test_bytes(20000, 6);
    std::string pkg = make_package("sim.pkg", {file_member("app.bin", app)});

    // Name, name length, size, memory: one refused request each.
    swuc_session s;
    for (std::string_view report : {STT_ERROR_INVALID_REQUEST, STT_ERROR_INVALID_REQUEST,
                                    STT_ERROR_INVALID_REQUEST, STT_ERROR_NO_MEMORY}) {
        ASSERT_NO_FATAL_FAILURE(connect(&s));
        file_transfer_response_t ftr;
        EXPECT_NE(swuc_stream_request(&s, "sim.pkg", 20000, &ftr), 0);
        EXPECT_EQ(status(&s).text, report);
        ASSERT_NO_FATAL_FAILURE(ack_error(&s));
        swuc_close(&s);
    }

    // The first complete stream is taken for an incomplete one, and its
    // file stays.
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    EXPECT_NE(send_file(&s, pkg, "sim.pkg"), 0);
    swuc_status st = status(&s);
    EXPECT_EQ(st.stage_code, SWUC_STAGE_ERROR);
    EXPECT_EQ(st.status_code, SWUC_STT_MISSING_PACKETS);
    EXPECT_EQ(root_.read("work/sim.pkg"), root_.read("client/sim.pkg"));
    ASSERT_NO_FATAL_FAILURE(ack_error(&s));
    swuc_close(&s);

    // Then the update goes through.
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    ASSERT_EQ(send_file(&s, pkg, "sim.pkg"), 0);
    EXPECT_EQ(follow(&s).text, STT_FINISHED);
    EXPECT_EQ(card_file("app.bin"), app);
}

TEST_F(Stream, SegmentsAheadAreNotAcknowledgedAndRepeatsAreNotRewritten)
{
    ASSERT_NO_FATAL_FAILURE(start());
    std::string pkg;
    three_packet_package(&pkg);

    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    file_transfer_response_t ftr;
    ASSERT_EQ(swuc_stream_request(&s, "three.pkg", pkg.size(), &ftr), 0);
    ASSERT_EQ(send_segment(&s, pkg, 1), 0);
    EXPECT_TRUE(acked(&s, 1));
    ASSERT_EQ(send_segment(&s, pkg, 3), 0);
    EXPECT_FALSE(answered(&s, PCKT_TRNSFR_ACK, 300 * SLOW)) << "segment 3 acknowledged before 2";
    EXPECT_TRUE(swu_.wait_output("INVALID PKG SEGMENT # [EXPECTED: 2 | RECEIVED: 3]", 2s));
    ASSERT_EQ(send_segment(&s, pkg, 2), 0);
    EXPECT_TRUE(acked(&s, 2));
    // A repeat carrying other bytes: acknowledged, but the package must keep
    // the first copy or its check fails.
    const std::string junk(PROTO_PAYLOAD_MAX, 'j');
    ASSERT_EQ(
        swuc_send_packet(&s, 2, 3, reinterpret_cast<const uint8_t *>(junk.data()), junk.size()), 0);
    EXPECT_TRUE(acked(&s, 2));
    ASSERT_EQ(send_segment(&s, pkg, 3), 0);
    EXPECT_TRUE(acked(&s, 3));
    ASSERT_EQ(swuc_stream_end(&s), 0) << "the complete stream was not confirmed";
    EXPECT_EQ(follow(&s).text, STT_FINISHED);
}

TEST_F(Stream, MissingPacketFailsTheStreamAndTheErrorStateTimesOut)
{
    ASSERT_NO_FATAL_FAILURE(start());
    std::string pkg;
    three_packet_package(&pkg);

    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    file_transfer_response_t ftr;
    ASSERT_EQ(swuc_stream_request(&s, "three.pkg", pkg.size(), &ftr), 0);
    for (uint64_t seg : {1, 2}) {
        ASSERT_EQ(send_segment(&s, pkg, seg), 0);
        EXPECT_TRUE(acked(&s, seg));
    }
    EXPECT_NE(swuc_stream_end(&s), 0) << "an incomplete stream was confirmed";
    EXPECT_EQ(status(&s).text, STT_ERROR_MISSING_PACKETS);
    EXPECT_FALSE(root_.exists("work/three.pkg"));

    // Status requests hold the error state.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(status(&s).text, STT_ERROR_MISSING_PACKETS);
    const int64_t last_answer = s.last_status_ms;

    // Without them it ends after more than 10 seconds; connection requests
    // go unanswered until then.
    swuc_session probe;
    ASSERT_NO_FATAL_FAILURE(open_session(&probe, "127.0.0.1", 300));
    int64_t idle_at = -1;
    while (idle_at < 0 && swuc_now_ms() - last_answer < 16000) {
        conection_response_t rsp;
        if (swuc_connect(&probe, &rsp) == 0) {
            EXPECT_EQ(rsp.connection_status, SWU_CON_RES_CONNECTION_CONFIRMED);
            idle_at = swuc_now_ms();
        }
    }
    ASSERT_GT(idle_at, 0) << "the error state never timed out";
    EXPECT_GT(idle_at - last_answer, 10000);
    EXPECT_LT(idle_at - last_answer, 13500);
    EXPECT_EQ(status(&probe).text, STT_CONNECTED);
}

TEST_F(Stream, EmptyPackageDoesNotStopTheDaemon)
{
    ASSERT_NO_FATAL_FAILURE(start());
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(connect(&s));
    file_transfer_response_t ftr;
    ASSERT_EQ(swuc_stream_request(&s, "empty.pkg", 0, &ftr), 0);
    swuc_stream_end(&s); // whatever it answers, the daemon must go on
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(swu_.ended()) << "the daemon ended";
    swuc_status st = status(&s);
    EXPECT_NE(st.stage_code, SWUC_STAGE_STREAM) << st.text;
}

} // namespace
