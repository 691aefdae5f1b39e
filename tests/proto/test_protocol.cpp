#include "proto/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace
{

using bytes = std::vector<uint8_t>;

// Encodes into a heap block of exactly `size` bytes, so that the sanitizers
// catch a write beyond it; empty when the encoder refuses.
template <typename Rec, typename Enc> bytes encode(Enc enc, const Rec &rec, size_t size = 1480)
{
    auto buf = std::make_unique<uint8_t[]>(size);
    int n = enc(buf.get(), size, &rec);
    return n < 0 ? bytes{} : bytes(buf.get(), buf.get() + n);
}

// `total` bytes of `fill` that start with `head`.
bytes padded(std::initializer_list<uint8_t> head, size_t total, uint8_t fill)
{
    bytes b(total, fill);
    std::copy(head.begin(), head.end(), b.begin());
    return b;
}

// One message against its golden bytes: the record encodes to them, they
// decode to a record that encodes to them again, a datagram one byte shorter
// than the fixed part is refused without touching the record or reading past
// its end, and a buffer one byte short of the message is refused.
template <typename Rec, typename Enc, typename Dec>
void expect_wire(const Rec &rec, Enc enc, Dec dec, const bytes &golden, size_t fixed)
{
    EXPECT_EQ(encode(enc, rec), golden);
    Rec back{};
    ASSERT_EQ(dec(golden.data(), golden.size(), &back), 0);
    EXPECT_EQ(encode(enc, back), golden);

    auto cut = std::make_unique<uint8_t[]>(fixed - 1);
    memcpy(cut.get(), golden.data(), fixed - 1);
    Rec untouched = rec;
    EXPECT_EQ(dec(cut.get(), fixed - 1, &untouched), -1);
    EXPECT_EQ(encode(enc, untouched), golden);
    EXPECT_EQ(dec(golden.data(), fixed, &back), 0);

    EXPECT_EQ(encode(enc, rec, golden.size() - 1), bytes{});
}

} // namespace

TEST(ProtocolWire, HeaderAndHeaderOnlyMessages)
{
    msg_hdr_t hdr{0x0102, TERMINAL_REBOOT_RSPNS, 0};
    expect_wire(hdr, proto_encode_hdr, proto_decode_hdr, {0x02, 0x01, 0x77, 0x00}, 4);
    restart_swu_msg_t restart{{0xFFFF, RESTARTING_UPDATE_PROC, 0}};
    expect_wire(restart, proto_encode_restart_swu_msg, proto_decode_restart_swu_msg,
                {0xFF, 0xFF, 0x76, 0x00}, 4);

    const uint8_t status_req[] = {0x05, 0x00, 0x22, 0x99};
    EXPECT_EQ(proto_get_opcode(status_req, 4), STATUS_REQST);
    EXPECT_EQ(proto_get_opcode(status_req, 3), -1);
}

TEST(ProtocolWire, ConnectionRequestPortsAreLittleEndian)
{
    const bytes golden = {0x09, 0x00, 0x21, 0x00, 0x01, 0x34, 0x12, 0x78, 0x56, 1,   2,
                          3,    4,    5,    6,    7,    8,    0x03, 0x00, 'u',  'm', 'd'};
    conection_request_t req{};
    ASSERT_EQ(proto_decode_connection_request(golden.data(), golden.size(), &req), 0);
    EXPECT_EQ(req.app_id, 1);
    EXPECT_EQ(req.uma_rx_port, 0x1234);
    EXPECT_EQ(req.uma_stream_port, 0x5678);
    EXPECT_EQ(req.umd_id_len, 3);
    EXPECT_EQ(req.umd_id, golden.data() + 19);
    // Cut inside the identifier: the fixed fields decode, the identifier is
    // not offered.
    ASSERT_EQ(proto_decode_connection_request(golden.data(), 21, &req), 0);
    EXPECT_EQ(req.umd_id, nullptr);

    const uint8_t id[] = {'u', 'm', 'd'};
    req.umd_id = id;
    expect_wire(req, proto_encode_connection_request, proto_decode_connection_request, golden, 19);
}

TEST(ProtocolWire, ConnectionResponse)
{
    conection_response_t rsp{
        {1, CONNECTION_RSPNS, 0}, SWU_CON_RES_CONNECTION_CONFIRMED, SWU_PWR_SRC_EXTERNAL, 80, 6};
    expect_wire(rsp, proto_encode_connection_response, proto_decode_connection_response,
                {0x01, 0x00, 0x71, 0x00, 0x01, 0x01, 0x50, 0x06}, 8);
}

TEST(ProtocolWire, StatusResponseCarriesTextWithoutTerminator)
{
    // 150 bytes of text make a 156-byte datagram that still announces 400.
    const std::string text(150, 'x');
    status_response_t rsp{{0x1234, STATUS_RSPNS, 0}, 400, text.data(), text.size()};
    const bytes golden = padded({0x34, 0x12, 0x72, 0x00, 0x90, 0x01}, 156, 'x');
    expect_wire(rsp, proto_encode_status_response, proto_decode_status_response, golden, 6);

    // The text may be built in place, behind the head.
    uint8_t buf[6 + 400];
    memcpy(buf + 6, "{}", 2);
    status_response_t in_place{{2, STATUS_RSPNS, 0}, 400, reinterpret_cast<char *>(buf + 6), 2};
    ASSERT_EQ(proto_encode_status_response(buf, sizeof buf, &in_place), 8);
    EXPECT_EQ(bytes(buf, buf + 8), (bytes{0x02, 0x00, 0x72, 0x00, 0x90, 0x01, '{', '}'}));
}

TEST(ProtocolWire, FileTransferRequest)
{
    const char name[] = "pkg_1.0-2.tar.gz";
    file_transfer_request_t req{{7, STREAM_REQST, 0}, 629145600, 16, name};
    bytes golden =
        padded({0x07, 0x00, 0x23, 0x00, 0x00, 0x00, 0x80, 0x25, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00},
               30, 0);
    memcpy(golden.data() + 14, name, 16);
    expect_wire(req, proto_encode_file_transfer_request, proto_decode_file_transfer_request, golden,
                14);

    // A name length beyond the datagram is decoded, but no name is offered.
    golden[12] = 17;
    file_transfer_request_t back{};
    ASSERT_EQ(proto_decode_file_transfer_request(golden.data(), golden.size(), &back), 0);
    EXPECT_EQ(back.fname_len, 17);
    EXPECT_EQ(back.fname, nullptr);
}

TEST(ProtocolWire, FileTransferResponse)
{
    file_transfer_response_t rsp{{3, FILE_STREAM_RSPNS, 0}, PROTO_PAYLOAD_MAX, 0};
    expect_wire(rsp, proto_encode_file_transfer_response, proto_decode_file_transfer_response,
                {0x03, 0x00, 0x73, 0x00, 0xAC, 0x05, 0x00}, 7);
}

TEST(ProtocolWire, PacketAndAcknowledgementCarryTheSameSegmentBytes)
{
    const uint8_t payload[] = {0xDE, 0xAD, 0xBE};
    file_packet_transfer_t pkt{{4, PCKT_TRNSFR, 0}, 1, 0x0807060504030201, payload, 3};
    // Segment 1 at offsets 4 to 11, the count with distinct bytes at 12 to 19.
    const bytes golden = {0x04, 0x00, 0x24, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xDE, 0xAD, 0xBE};
    expect_wire(pkt, proto_encode_file_packet_transfer, proto_decode_file_packet_transfer, golden,
                20);

    file_packet_transfer_t back{};
    ASSERT_EQ(proto_decode_file_packet_transfer(golden.data(), golden.size(), &back), 0);
    EXPECT_EQ(back.payload, golden.data() + 20);
    EXPECT_EQ(back.payload_len, 3u);

    file_packet_ack_t ack{{5, PCKT_TRNSFR_ACK, 0}, back.seg_number};
    expect_wire(ack, proto_encode_file_packet_ack, proto_decode_file_packet_ack,
                {0x05, 0x00, 0x74, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, 12);

    // A full packet, the largest message, is 1472 bytes.
    bytes full(PROTO_PAYLOAD_MAX, 0x5A);
    pkt.payload = full.data();
    pkt.payload_len = full.size();
    EXPECT_EQ(encode(proto_encode_file_packet_transfer, pkt, 1472).size(), 1472u);
}

TEST(ProtocolWire, SelfAdvertisement)
{
    self_adv_t adv{};
    adv.hdr = {0x0A0B, SWU_SELF_ADVERTISE_OPCD, 0};
    adv.connection_status = SWU_CON_STATUS_BUSY;
    adv.tx_port = PROTO_SWU_PORT;
    adv.rx_port = PROTO_SWU_PORT;
    adv.curr_sw_v[0] = 2;
    adv.curr_sw_v[1] = 10;
    adv.curr_sw_v[2] = 4464;
    adv.factory_sw_v[1] = 1;
    adv.factory_sw_v[2] = 3;
    adv.conf_ver = 505;
    adv.term_type = SWU_TERM_TYPE_DYNAMIC;
    adv.orvanID_len = 6;
    memcpy(adv.orvanID, "ABC123", 6);

    const bytes golden = padded({0x0B, 0x0A, 0x70, 0x00, 0x01, 0xC2, 0x2F, 0xC2, 0x2F, 0x02, 0x00,
                                 0x0A, 0x00, 0x70, 0x11, 0x00, 0x00, 0x01, 0x00, 0x03, 0x00, 0xF9,
                                 0x01, 0x01, 0x06, 'A',  'B',  'C',  '1',  '2',  '3'},
                                57, 0x00);
    expect_wire(adv, proto_encode_self_adv, proto_decode_self_adv, golden, 57);
}
