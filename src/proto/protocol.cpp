#include "proto/protocol.h"

#include "lib/sys/le_bytes.h"
#include "lib/sys/swu_assert.h"

#include <cstring>

namespace
{

// Byte-array mirrors of the wire layouts. Every member has alignment 1, so the
// compiler adds no padding, and offsetof() of a member is its wire offset;
// the assertions pin each offset to the documented layout.
struct wire_hdr {
    uint8_t seq_num[2];
    uint8_t opcode;
    uint8_t reserved;
};
static_assert(sizeof(wire_hdr) == PROTO_HDR_SIZE);
static_assert(offsetof(wire_hdr, seq_num) == 0);
static_assert(offsetof(wire_hdr, opcode) == 2);
static_assert(offsetof(wire_hdr, reserved) == 3);

struct wire_con_req {
    wire_hdr hdr;
    uint8_t app_id;
    uint8_t uma_rx_port[2];
    uint8_t uma_stream_port[2];
    uint8_t session_id[8];
    uint8_t umd_id_len[2];
};
static_assert(sizeof(wire_con_req) == PROTO_CON_REQ_FIXED_SIZE);
static_assert(offsetof(wire_con_req, app_id) == 4);
static_assert(offsetof(wire_con_req, uma_rx_port) == 5);
static_assert(offsetof(wire_con_req, uma_stream_port) == 7);
static_assert(offsetof(wire_con_req, session_id) == 9);
static_assert(offsetof(wire_con_req, umd_id_len) == 17);

struct wire_con_rsp {
    wire_hdr hdr;
    uint8_t connection_status;
    uint8_t power_source;
    uint8_t bettery_status;
    uint8_t swu_mode_reason_bitfield;
};
static_assert(sizeof(wire_con_rsp) == PROTO_CON_RSP_SIZE);
static_assert(offsetof(wire_con_rsp, connection_status) == 4);
static_assert(offsetof(wire_con_rsp, power_source) == 5);
static_assert(offsetof(wire_con_rsp, bettery_status) == 6);
static_assert(offsetof(wire_con_rsp, swu_mode_reason_bitfield) == 7);

struct wire_stt_rsp {
    wire_hdr hdr;
    uint8_t data_length[2];
};
static_assert(sizeof(wire_stt_rsp) == PROTO_STT_RSP_HEAD_SIZE);
static_assert(offsetof(wire_stt_rsp, data_length) == 4);

struct wire_ft_req {
    wire_hdr hdr;
    uint8_t fsize[8];
    uint8_t fname_len[2];
};
static_assert(sizeof(wire_ft_req) == PROTO_FT_REQ_HEAD_SIZE);
static_assert(offsetof(wire_ft_req, fsize) == 4);
static_assert(offsetof(wire_ft_req, fname_len) == 12);

struct wire_ft_rsp {
    wire_hdr hdr;
    uint8_t payload_max[2];
    uint8_t file_transfer_status;
};
static_assert(sizeof(wire_ft_rsp) == PROTO_FT_RSP_SIZE);
static_assert(offsetof(wire_ft_rsp, payload_max) == 4);
static_assert(offsetof(wire_ft_rsp, file_transfer_status) == 6);

struct wire_pkt {
    wire_hdr hdr;
    uint8_t seg_number[8];
    uint8_t seg_count[8];
};
static_assert(sizeof(wire_pkt) == PROTO_PKT_HEAD_SIZE);
static_assert(offsetof(wire_pkt, seg_number) == 4);
static_assert(offsetof(wire_pkt, seg_count) == 12);

struct wire_pkt_ack {
    wire_hdr hdr;
    uint8_t seg_number[8];
};
static_assert(sizeof(wire_pkt_ack) == PROTO_PKT_ACK_SIZE);
static_assert(offsetof(wire_pkt_ack, seg_number) == 4);

struct wire_self_adv {
    wire_hdr hdr;
    uint8_t connection_status;
    uint8_t tx_port[2];
    uint8_t rx_port[2];
    uint8_t curr_sw_v[3][2];
    uint8_t factory_sw_v[3][2];
    uint8_t conf_ver[2];
    uint8_t term_type;
    uint8_t orvanID_len;
    uint8_t orvanID[PROTO_ORVAN_ID_SIZE];
};
static_assert(sizeof(wire_self_adv) == PROTO_SELF_ADV_SIZE);
static_assert(offsetof(wire_self_adv, connection_status) == 4);
static_assert(offsetof(wire_self_adv, tx_port) == 5);
static_assert(offsetof(wire_self_adv, rx_port) == 7);
static_assert(offsetof(wire_self_adv, curr_sw_v) == 9);
static_assert(offsetof(wire_self_adv, factory_sw_v) == 15);
static_assert(offsetof(wire_self_adv, conf_ver) == 21);
static_assert(offsetof(wire_self_adv, term_type) == 23);
static_assert(offsetof(wire_self_adv, orvanID_len) == 24);
static_assert(offsetof(wire_self_adv, orvanID) == 25);

#define WIRE_AT(buf, wire_type, field) ((buf) + offsetof(wire_type, field))

void put_hdr(uint8_t *buf, const msg_hdr_t &hdr)
{
    le_put16(WIRE_AT(buf, wire_hdr, seq_num), hdr.seq_num);
    *WIRE_AT(buf, wire_hdr, opcode) = hdr.opcode;
    *WIRE_AT(buf, wire_hdr, reserved) = hdr.reserved;
}

msg_hdr_t get_hdr(const uint8_t *buf)
{
    msg_hdr_t hdr;
    hdr.seq_num = le_get16(WIRE_AT(buf, wire_hdr, seq_num));
    hdr.opcode = *WIRE_AT(buf, wire_hdr, opcode);
    hdr.reserved = *WIRE_AT(buf, wire_hdr, reserved);
    return hdr;
}

} // namespace

int proto_get_opcode(const uint8_t *buf, size_t len)
{
    SWU_ASSERT(buf);
    if (len < PROTO_HDR_SIZE)
        return -1;
    return *WIRE_AT(buf, wire_hdr, opcode);
}

int proto_encode_hdr(uint8_t *buf, size_t size, const msg_hdr_t *hdr)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(hdr);
    if (size < PROTO_HDR_SIZE)
        return -1;
    put_hdr(buf, *hdr);
    return PROTO_HDR_SIZE;
}

int proto_decode_hdr(const uint8_t *buf, size_t len, msg_hdr_t *hdr)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(hdr);
    if (len < PROTO_HDR_SIZE)
        return -1;
    *hdr = get_hdr(buf);
    return 0;
}

int proto_encode_connection_request(uint8_t *buf, size_t size, const conection_request_t *req)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(req);
    const size_t total = PROTO_CON_REQ_FIXED_SIZE + req->umd_id_len;
    if (size < total || (req->umd_id_len > 0 && req->umd_id == nullptr))
        return -1;
    put_hdr(buf, req->hdr);
    *WIRE_AT(buf, wire_con_req, app_id) = req->app_id;
    le_put16(WIRE_AT(buf, wire_con_req, uma_rx_port), req->uma_rx_port);
    le_put16(WIRE_AT(buf, wire_con_req, uma_stream_port), req->uma_stream_port);
    memcpy(WIRE_AT(buf, wire_con_req, session_id), req->session_id, sizeof(req->session_id));
    le_put16(WIRE_AT(buf, wire_con_req, umd_id_len), req->umd_id_len);
    if (req->umd_id_len > 0)
        memmove(buf + PROTO_CON_REQ_FIXED_SIZE, req->umd_id, req->umd_id_len);
    return static_cast<int>(total);
}

int proto_decode_connection_request(const uint8_t *buf, size_t len, conection_request_t *req)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(req);
    if (len < PROTO_CON_REQ_FIXED_SIZE)
        return -1;
    req->hdr = get_hdr(buf);
    req->app_id = *WIRE_AT(buf, wire_con_req, app_id);
    req->uma_rx_port = le_get16(WIRE_AT(buf, wire_con_req, uma_rx_port));
    req->uma_stream_port = le_get16(WIRE_AT(buf, wire_con_req, uma_stream_port));
    memcpy(req->session_id, WIRE_AT(buf, wire_con_req, session_id), sizeof(req->session_id));
    req->umd_id_len = le_get16(WIRE_AT(buf, wire_con_req, umd_id_len));
    req->umd_id = len - PROTO_CON_REQ_FIXED_SIZE >= req->umd_id_len ? buf + PROTO_CON_REQ_FIXED_SIZE
                                                                    : nullptr;
    return 0;
}

int proto_encode_connection_response(uint8_t *buf, size_t size, const conection_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (size < PROTO_CON_RSP_SIZE)
        return -1;
    put_hdr(buf, rsp->hdr);
    *WIRE_AT(buf, wire_con_rsp, connection_status) = rsp->connection_status;
    *WIRE_AT(buf, wire_con_rsp, power_source) = rsp->power_source;
    *WIRE_AT(buf, wire_con_rsp, bettery_status) = rsp->bettery_status;
    *WIRE_AT(buf, wire_con_rsp, swu_mode_reason_bitfield) = rsp->swu_mode_reason_bitfield;
    return PROTO_CON_RSP_SIZE;
}

int proto_decode_connection_response(const uint8_t *buf, size_t len, conection_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (len < PROTO_CON_RSP_SIZE)
        return -1;
    rsp->hdr = get_hdr(buf);
    rsp->connection_status = *WIRE_AT(buf, wire_con_rsp, connection_status);
    rsp->power_source = *WIRE_AT(buf, wire_con_rsp, power_source);
    rsp->bettery_status = *WIRE_AT(buf, wire_con_rsp, bettery_status);
    rsp->swu_mode_reason_bitfield = *WIRE_AT(buf, wire_con_rsp, swu_mode_reason_bitfield);
    return 0;
}

int proto_encode_status_response(uint8_t *buf, size_t size, const status_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (size < PROTO_STT_RSP_HEAD_SIZE || size - PROTO_STT_RSP_HEAD_SIZE < rsp->buffer_len ||
        (rsp->buffer_len > 0 && rsp->buffer == nullptr))
        return -1;
    // The text first: it may sit in place already, and the head must not
    // clobber it.
    if (rsp->buffer_len > 0)
        memmove(buf + PROTO_STT_RSP_HEAD_SIZE, rsp->buffer, rsp->buffer_len);
    put_hdr(buf, rsp->hdr);
    le_put16(WIRE_AT(buf, wire_stt_rsp, data_length), rsp->data_length);
    return static_cast<int>(PROTO_STT_RSP_HEAD_SIZE + rsp->buffer_len);
}

int proto_decode_status_response(const uint8_t *buf, size_t len, status_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (len < PROTO_STT_RSP_HEAD_SIZE)
        return -1;
    rsp->hdr = get_hdr(buf);
    rsp->data_length = le_get16(WIRE_AT(buf, wire_stt_rsp, data_length));
    rsp->buffer = reinterpret_cast<const char *>(buf + PROTO_STT_RSP_HEAD_SIZE);
    rsp->buffer_len = len - PROTO_STT_RSP_HEAD_SIZE;
    return 0;
}

int proto_encode_file_transfer_request(uint8_t *buf, size_t size,
                                       const file_transfer_request_t *req)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(req);
    const size_t total = PROTO_FT_REQ_HEAD_SIZE + req->fname_len;
    if (size < total || (req->fname_len > 0 && req->fname == nullptr))
        return -1;
    put_hdr(buf, req->hdr);
    le_put64(WIRE_AT(buf, wire_ft_req, fsize), req->fsize);
    le_put16(WIRE_AT(buf, wire_ft_req, fname_len), req->fname_len);
    if (req->fname_len > 0)
        memmove(buf + PROTO_FT_REQ_HEAD_SIZE, req->fname, req->fname_len);
    return static_cast<int>(total);
}

int proto_decode_file_transfer_request(const uint8_t *buf, size_t len, file_transfer_request_t *req)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(req);
    if (len < PROTO_FT_REQ_HEAD_SIZE)
        return -1;
    req->hdr = get_hdr(buf);
    req->fsize = le_get64(WIRE_AT(buf, wire_ft_req, fsize));
    req->fname_len = le_get16(WIRE_AT(buf, wire_ft_req, fname_len));
    req->fname = len - PROTO_FT_REQ_HEAD_SIZE >= req->fname_len
                     ? reinterpret_cast<const char *>(buf + PROTO_FT_REQ_HEAD_SIZE)
                     : nullptr;
    return 0;
}

int proto_encode_file_transfer_response(uint8_t *buf, size_t size,
                                        const file_transfer_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (size < PROTO_FT_RSP_SIZE)
        return -1;
    put_hdr(buf, rsp->hdr);
    le_put16(WIRE_AT(buf, wire_ft_rsp, payload_max), rsp->payload_max);
    *WIRE_AT(buf, wire_ft_rsp, file_transfer_status) = rsp->file_transfer_status;
    return PROTO_FT_RSP_SIZE;
}

int proto_decode_file_transfer_response(const uint8_t *buf, size_t len,
                                        file_transfer_response_t *rsp)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(rsp);
    if (len < PROTO_FT_RSP_SIZE)
        return -1;
    rsp->hdr = get_hdr(buf);
    rsp->payload_max = le_get16(WIRE_AT(buf, wire_ft_rsp, payload_max));
    rsp->file_transfer_status = *WIRE_AT(buf, wire_ft_rsp, file_transfer_status);
    return 0;
}

int proto_encode_file_packet_transfer(uint8_t *buf, size_t size, const file_packet_transfer_t *pkt)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(pkt);
    if (size < PROTO_PKT_HEAD_SIZE || size - PROTO_PKT_HEAD_SIZE < pkt->payload_len ||
        (pkt->payload_len > 0 && pkt->payload == nullptr))
        return -1;
    if (pkt->payload_len > 0)
        memmove(buf + PROTO_PKT_HEAD_SIZE, pkt->payload, pkt->payload_len);
    put_hdr(buf, pkt->hdr);
    le_put64(WIRE_AT(buf, wire_pkt, seg_number), pkt->seg_number);
    le_put64(WIRE_AT(buf, wire_pkt, seg_count), pkt->seg_count);
    return static_cast<int>(PROTO_PKT_HEAD_SIZE + pkt->payload_len);
}

int proto_decode_file_packet_transfer(const uint8_t *buf, size_t len, file_packet_transfer_t *pkt)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(pkt);
    if (len < PROTO_PKT_HEAD_SIZE)
        return -1;
    pkt->hdr = get_hdr(buf);
    pkt->seg_number = le_get64(WIRE_AT(buf, wire_pkt, seg_number));
    pkt->seg_count = le_get64(WIRE_AT(buf, wire_pkt, seg_count));
    pkt->payload = buf + PROTO_PKT_HEAD_SIZE;
    pkt->payload_len = len - PROTO_PKT_HEAD_SIZE;
    return 0;
}

int proto_encode_file_packet_ack(uint8_t *buf, size_t size, const file_packet_ack_t *ack)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(ack);
    if (size < PROTO_PKT_ACK_SIZE)
        return -1;
    put_hdr(buf, ack->hdr);
    le_put64(WIRE_AT(buf, wire_pkt_ack, seg_number), ack->seg_number);
    return PROTO_PKT_ACK_SIZE;
}

int proto_decode_file_packet_ack(const uint8_t *buf, size_t len, file_packet_ack_t *ack)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(ack);
    if (len < PROTO_PKT_ACK_SIZE)
        return -1;
    ack->hdr = get_hdr(buf);
    ack->seg_number = le_get64(WIRE_AT(buf, wire_pkt_ack, seg_number));
    return 0;
}

int proto_encode_restart_swu_msg(uint8_t *buf, size_t size, const restart_swu_msg_t *msg)
{
    SWU_ASSERT(msg);
    return proto_encode_hdr(buf, size, &msg->hdr);
}

int proto_decode_restart_swu_msg(const uint8_t *buf, size_t len, restart_swu_msg_t *msg)
{
    SWU_ASSERT(msg);
    return proto_decode_hdr(buf, len, &msg->hdr);
}

int proto_encode_self_adv(uint8_t *buf, size_t size, const self_adv_t *adv)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(adv);
    if (size < PROTO_SELF_ADV_SIZE)
        return -1;
    put_hdr(buf, adv->hdr);
    *WIRE_AT(buf, wire_self_adv, connection_status) = adv->connection_status;
    le_put16(WIRE_AT(buf, wire_self_adv, tx_port), adv->tx_port);
    le_put16(WIRE_AT(buf, wire_self_adv, rx_port), adv->rx_port);
    for (size_t i = 0; i < 3; ++i) {
        le_put16(WIRE_AT(buf, wire_self_adv, curr_sw_v) + 2 * i, adv->curr_sw_v[i]);
        le_put16(WIRE_AT(buf, wire_self_adv, factory_sw_v) + 2 * i, adv->factory_sw_v[i]);
    }
    le_put16(WIRE_AT(buf, wire_self_adv, conf_ver), adv->conf_ver);
    *WIRE_AT(buf, wire_self_adv, term_type) = adv->term_type;
    *WIRE_AT(buf, wire_self_adv, orvanID_len) = adv->orvanID_len;
    memcpy(WIRE_AT(buf, wire_self_adv, orvanID), adv->orvanID, PROTO_ORVAN_ID_SIZE);
    return PROTO_SELF_ADV_SIZE;
}

int proto_decode_self_adv(const uint8_t *buf, size_t len, self_adv_t *adv)
{
    SWU_ASSERT(buf);
    SWU_ASSERT(adv);
    if (len < PROTO_SELF_ADV_SIZE)
        return -1;
    adv->hdr = get_hdr(buf);
    adv->connection_status = *WIRE_AT(buf, wire_self_adv, connection_status);
    adv->tx_port = le_get16(WIRE_AT(buf, wire_self_adv, tx_port));
    adv->rx_port = le_get16(WIRE_AT(buf, wire_self_adv, rx_port));
    for (size_t i = 0; i < 3; ++i) {
        adv->curr_sw_v[i] = le_get16(WIRE_AT(buf, wire_self_adv, curr_sw_v) + 2 * i);
        adv->factory_sw_v[i] = le_get16(WIRE_AT(buf, wire_self_adv, factory_sw_v) + 2 * i);
    }
    adv->conf_ver = le_get16(WIRE_AT(buf, wire_self_adv, conf_ver));
    adv->term_type = *WIRE_AT(buf, wire_self_adv, term_type);
    adv->orvanID_len = *WIRE_AT(buf, wire_self_adv, orvanID_len);
    memcpy(adv->orvanID, WIRE_AT(buf, wire_self_adv, orvanID), PROTO_ORVAN_ID_SIZE);
    return 0;
}
