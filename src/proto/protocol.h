// The messages of the UDP update protocol, byte for byte.
//
// One message per datagram: a 4-byte header, then the body of the opcode.
// Every multi-byte integer travels least significant byte first, whatever the
// host's order; text fields carry no terminating zero.
//
// The records below hold host-order values and are never laid onto a buffer:
// each has an encoder that writes its exact wire bytes and a decoder that
// reads them back, for both sides of the protocol (the terminal decodes
// requests and encodes responses, a client the other way round).
//   encoders: int proto_encode_X(uint8_t *buf, size_t size, const X *rec)
//             return the number of bytes written, or -1 (nothing written)
//             when `size` cannot hold the message;
//   decoders: int proto_decode_X(const uint8_t *buf, size_t len, X *rec)
//             return 0, or -1 (record untouched) when the `len` bytes of the
//             datagram are shorter than the fixed part of the message; they
//             never read past `len` and check nothing else (not even the
//             opcode).
// A variable tail (identifier, status text, package name, payload) is
// referenced, not copied: a decoded tail pointer points into `buf`.
#pragma once

#include "proto/codes.h"

#include <cstddef>
#include <cstdint>

// Transport.
inline constexpr uint16_t PROTO_SWU_PORT = 12226; // requests in, responses out
inline constexpr uint16_t PROTO_ADV_PORT = 12225; // advertisement destination
inline constexpr const char *PROTO_ADV_GROUP = "227.0.0.0";
inline constexpr size_t PROTO_DATAGRAM_MAX = 1480;  // longer datagrams are cut
inline constexpr uint16_t PROTO_PAYLOAD_MAX = 1452; // package bytes per packet

// Wire sizes (for variable messages, of the part before the tail).
inline constexpr size_t PROTO_HDR_SIZE = 4;
inline constexpr size_t PROTO_CON_REQ_FIXED_SIZE = 19;
inline constexpr size_t PROTO_CON_RSP_SIZE = 8;
inline constexpr size_t PROTO_STT_RSP_HEAD_SIZE = 6;
inline constexpr size_t PROTO_FT_REQ_HEAD_SIZE = 14;
inline constexpr size_t PROTO_FT_RSP_SIZE = 7;
inline constexpr size_t PROTO_PKT_HEAD_SIZE = 20;
inline constexpr size_t PROTO_PKT_ACK_SIZE = 12;
inline constexpr size_t PROTO_SELF_ADV_SIZE = 57;
inline constexpr size_t PROTO_ORVAN_ID_SIZE = 32;

// Requests run from 0x21 upwards, responses and the announcement from 0x70.
enum message_opcodes : uint8_t {
    UNUSED = 0x20,
    CONNECTION_REQST = 0x21,
    STATUS_REQST = 0x22,
    STREAM_REQST = 0x23,
    PCKT_TRNSFR = 0x24,
    FILE_STREAM_END = 0x25,
    ERROR_RECEIVED = 0x26,
    TERMINAL_REBOOT_REQ = 0x27,
    SWU_SELF_ADVERTISE_OPCD = 0x70,
    CONNECTION_RSPNS = 0x71,
    STATUS_RSPNS = 0x72,
    FILE_STREAM_RSPNS = 0x73,
    PCKT_TRNSFR_ACK = 0x74,
    FILE_STREAM_END_RSPNS = 0x75,
    RESTARTING_UPDATE_PROC = 0x76,
    TERMINAL_REBOOT_RSPNS = 0x77,
};

enum swu_connection_status : uint8_t {
    SWU_CON_RES_ALREADY_CONNECTED = 0,
    SWU_CON_RES_CONNECTION_CONFIRMED = 1,
    SWU_CON_RES_BATTERY_TOO_LOW = 2,
    SWU_CON_RES_UPGRADDING = 3,
};

// Whether a client is connected, as the advertisement tells it.
enum terminal_connection_status : uint8_t {
    SWU_CON_STATUS_AVAIL = 0,
    SWU_CON_STATUS_BUSY = 1,
};

// Start of every message. The terminal never checks a request's number.
struct message_header {
    uint16_t seq_num;
    uint8_t opcode;
    uint8_t reserved;
};
using msg_hdr_t = message_header;

// CONNECTION_REQST: 19 fixed bytes, then umd_id_len bytes of identifier.
struct connection_request {
    msg_hdr_t hdr;
    uint8_t app_id;           // must not be 0
    uint16_t uma_rx_port;     // for connection, status, restart, reboot responses
    uint16_t uma_stream_port; // for stream responses and acknowledgements
    uint8_t session_id[8];
    uint16_t umd_id_len;
    // Decoded: the identifier's bytes in the datagram, or null when the
    // datagram does not hold all umd_id_len of them.
    const uint8_t *umd_id;
};
using conection_request_t = connection_request;

// CONNECTION_RSPNS, 8 bytes.
struct connection_response {
    msg_hdr_t hdr;
    uint8_t connection_status; // swu_connection_status
    uint8_t power_source;      // swu_power_source
    uint8_t bettery_status;    // percent
    uint8_t swu_mode_reason_bitfield;
};
using conection_response_t = connection_response;

// STATUS_RSPNS: 6 bytes, then the JSON text; the datagram's length gives the
// text's length.
struct status_response {
    msg_hdr_t hdr;
    uint16_t data_length; // capacity of the terminal's text buffer (400)
    const char *buffer;   // the text, no terminating zero
    size_t buffer_len;
};
using status_response_t = status_response;

// STREAM_REQST: 14 bytes, then fname_len bytes of package name.
struct file_tranfer_req {
    msg_hdr_t hdr;
    uint64_t fsize;
    uint16_t fname_len;
    // Decoded: the name's bytes in the datagram, or null when the datagram
    // does not hold all fname_len of them.
    const char *fname;
};
using file_transfer_request_t = file_tranfer_req;

// FILE_STREAM_RSPNS, 7 bytes.
struct file_transfer_response {
    msg_hdr_t hdr;
    uint16_t payload_max;
    uint8_t file_transfer_status;
};
using file_transfer_response_t = file_transfer_response;

// PCKT_TRNSFR: 20 bytes, then the payload (the rest of the datagram).
struct file_pkt_transfer {
    msg_hdr_t hdr;
    uint64_t seg_number; // from 1
    uint64_t seg_count;
    const uint8_t *payload;
    size_t payload_len;
};
using file_packet_transfer_t = file_pkt_transfer;

// PCKT_TRNSFR_ACK, 12 bytes.
struct file_pkt_ack {
    msg_hdr_t hdr;
    uint64_t seg_number;
};
using file_packet_ack_t = file_pkt_ack;

// RESTARTING_UPDATE_PROC: the header alone. The other header-only messages
// (STATUS_REQST, FILE_STREAM_END, ERROR_RECEIVED, TERMINAL_REBOOT_REQ,
// FILE_STREAM_END_RSPNS, TERMINAL_REBOOT_RSPNS) use msg_hdr_t directly.
struct restart_swu_msg {
    msg_hdr_t hdr;
};
using restart_swu_msg_t = restart_swu_msg;

// SWU_SELF_ADVERTISE_OPCD, 57 bytes.
struct self_adv {
    msg_hdr_t hdr;
    uint8_t connection_status; // terminal_connection_status
    uint16_t tx_port;
    uint16_t rx_port;
    uint16_t curr_sw_v[3];
    uint16_t factory_sw_v[3];
    uint16_t conf_ver;
    uint8_t term_type;
    uint8_t orvanID_len;
    char orvanID[PROTO_ORVAN_ID_SIZE]; // zero-padded
};
using self_adv_t = self_adv;

// The opcode of the datagram, or -1 when it is shorter than a header.
int proto_get_opcode(const uint8_t *buf, size_t len);

// Header; also the whole of every header-only message.
int proto_encode_hdr(uint8_t *buf, size_t size, const msg_hdr_t *hdr);
int proto_decode_hdr(const uint8_t *buf, size_t len, msg_hdr_t *hdr);

// Writes 19 + umd_id_len bytes; umd_id may be null only when umd_id_len is 0.
int proto_encode_connection_request(uint8_t *buf, size_t size, const conection_request_t *req);
int proto_decode_connection_request(const uint8_t *buf, size_t len, conection_request_t *req);

int proto_encode_connection_response(uint8_t *buf, size_t size, const conection_response_t *rsp);
int proto_decode_connection_response(const uint8_t *buf, size_t len, conection_response_t *rsp);

// Writes 6 + buffer_len bytes. The text may already be in place at buf + 6.
int proto_encode_status_response(uint8_t *buf, size_t size, const status_response_t *rsp);
int proto_decode_status_response(const uint8_t *buf, size_t len, status_response_t *rsp);

// Writes 14 + fname_len bytes; fname may be null only when fname_len is 0.
int proto_encode_file_transfer_request(uint8_t *buf, size_t size,
                                       const file_transfer_request_t *req);
int proto_decode_file_transfer_request(const uint8_t *buf, size_t len,
                                       file_transfer_request_t *req);

int proto_encode_file_transfer_response(uint8_t *buf, size_t size,
                                        const file_transfer_response_t *rsp);
int proto_decode_file_transfer_response(const uint8_t *buf, size_t len,
                                        file_transfer_response_t *rsp);

// Writes 20 + payload_len bytes. The payload may already be in place at
// buf + 20.
int proto_encode_file_packet_transfer(uint8_t *buf, size_t size, const file_packet_transfer_t *pkt);
int proto_decode_file_packet_transfer(const uint8_t *buf, size_t len, file_packet_transfer_t *pkt);

int proto_encode_file_packet_ack(uint8_t *buf, size_t size, const file_packet_ack_t *ack);
int proto_decode_file_packet_ack(const uint8_t *buf, size_t len, file_packet_ack_t *ack);

int proto_encode_restart_swu_msg(uint8_t *buf, size_t size, const restart_swu_msg_t *msg);
int proto_decode_restart_swu_msg(const uint8_t *buf, size_t len, restart_swu_msg_t *msg);

int proto_encode_self_adv(uint8_t *buf, size_t size, const self_adv_t *adv);
int proto_decode_self_adv(const uint8_t *buf, size_t len, self_adv_t *adv);
