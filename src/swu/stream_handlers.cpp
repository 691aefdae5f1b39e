// Package stream reception: the stream request, the stream state, and the
// packets written into the package file.
#include "swu/stream_handlers.h"

#include "lib/sys/swu_assert.h"
#include "swu/conn_handlers.h"
#include "swu/install_handlers.h"
#include "swu/pkg_file.h"
#include "swu/sim_failures.h"
#include "swu/status.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

uint32_t g_expected_n_pkts = 0;
uint64_t g_pkt_counter = 0;
uint64_t seg_sequential_counter = 0;

namespace
{

// A message to the connected client's stream port.
void send_to_stream_port(ilq_desc_t *q, msg_t *rsp)
{
    rsp->client_addr.sin_family = AF_INET;
    rsp->client_addr.sin_addr = g_connected_client_addr.sin_addr;
    rsp->client_addr.sin_port = g_connected_client_stream_port;
    msg_send(q, rsp);
}

// The simulated refusals of the command line: the first switch that is set
// is used up and refuses this request with its status code.
bool simulated_refusal()
{
    struct sim {
        sim_failure failure;
        uint8_t status_code;
    };
    const sim order[] = {{SIM_INVALID_PKG_NAME, SWU_STAGE_CODE_INVL_STREAM_REQ},
                         {SIM_INVALID_PKG_NAME_LEN, SWU_STAGE_CODE_INVL_STREAM_REQ},
                         {SIM_INVALID_PKG_SIZE, SWU_STAGE_CODE_INVL_STREAM_REQ},
                         {SIM_MALLOC_FAILURE, SWU_STAGE_CODE_MEM_ALLOC_FAILURE}};
    for (const sim &s : order) {
        if (sim_failure_take(s.failure)) {
            set_status_code(s.status_code);
            return true;
        }
    }
    return false;
}

int refuse(const char *why, uint8_t status_code)
{
    perror(why);
    set_status_code(status_code);
    return -1;
}

} // namespace

int is_string(char *str, uint32_t len)
{
    SWU_ASSERT(str != NULL);
    for (uint32_t i = 0; i < len; i++) {
        if (!pkg_name_char(str[i]))
            return 0;
    }
    return 1;
}

uint32_t calc_num_pckts(uint32_t pkg_size)
{
    return pkg_size / PAYLOAD_SIZE + (pkg_size % PAYLOAD_SIZE != 0 ? 1 : 0);
}

void stream_release(char **pkg_file)
{
    release_pkg_file(pkg_file);
    g_expected_n_pkts = 0;
}

int do_stream_request_validation(file_transfer_request_t *ftr, ssize_t buf_size)
{
    SWU_ASSERT(ftr != NULL);
    if (simulated_refusal())
        return -1;
    if (ftr->fsize > MAX_UPDATE_PKG_SIZE)
        return refuse("invalid pkg size\n", SWU_STAGE_CODE_INVL_STREAM_REQ);
    pkg_file_set_size(ftr->fsize);

    // A name that would not fit g_pkg_name counts as a wrong length.
    ssize_t name_len = buf_size - static_cast<ssize_t>(PROTO_FT_REQ_HEAD_SIZE);
    if (name_len <= 0 || name_len != ftr->fname_len ||
        name_len >= static_cast<ssize_t>(PKG_NAME_SIZE) || ftr->fname == nullptr)
        return refuse("invalid pkg name length\n", SWU_STAGE_CODE_INVL_STREAM_REQ);
    char name[PKG_NAME_SIZE] = {};
    memcpy(name, ftr->fname, static_cast<size_t>(name_len));
    if (!is_string(name, static_cast<uint32_t>(name_len)))
        return refuse("invalid pkg name\n", SWU_STAGE_CODE_INVL_STREAM_REQ);

    int status_code = pkg_file_create(name, static_cast<size_t>(name_len));
    if (status_code != 0) {
        set_status_code(static_cast<uint8_t>(status_code));
        return -1;
    }
    return 0;
}

uint8_t do_stream_request(ilq_desc_t *q, msg_t *request)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(request != NULL);
    // A datagram too short for the fixed fields leaves the record empty and
    // fails as a wrong name length.
    file_transfer_request_t ftr = {};
    proto_decode_file_transfer_request(reinterpret_cast<const uint8_t *>(request->buffer),
                                       request->buffer_size, &ftr);
    if (do_stream_request_validation(&ftr, request->buffer_size) != 0)
        return SM_EVNT_INT_ERROR;
    g_expected_n_pkts = calc_num_pckts(g_pkg_size);

    msg_t *rsp = msg_alloc(PROTO_FT_RSP_SIZE);
    if (rsp == nullptr) {
        set_status_code(SWU_STAGE_CODE_MEM_ALLOC_FAILURE);
        return SM_EVNT_INT_ERROR;
    }
    file_transfer_response_t ft_rsp = {};
    ft_rsp.hdr = {get_seq_num(), FILE_STREAM_RSPNS, 0};
    ft_rsp.payload_max = PAYLOAD_SIZE;
    ft_rsp.file_transfer_status = 0;
    proto_encode_file_transfer_response(reinterpret_cast<uint8_t *>(rsp->buffer), rsp->buffer_size,
                                        &ft_rsp);
    send_to_stream_port(q, rsp);
    g_pkt_counter = 0;
    unset_stage_complete();
    return SM_EVNT_EXT_STREAM_REQ;
}

uint8_t do_transfer(ilq_desc_t *q, msg_t *request, uint64_t *pkt_counter, char **pkg_file)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(request != NULL);
    SWU_ASSERT(pkt_counter != NULL);
    SWU_ASSERT(pkg_file != NULL);
    file_packet_transfer_t pkt;
    if (proto_decode_file_packet_transfer(reinterpret_cast<const uint8_t *>(request->buffer),
                                          request->buffer_size, &pkt) != 0)
        return SM_EVNT_NO_EVENT;
    // Only whole segments inside the package are written or acknowledged.
    const uint64_t seg = pkt.seg_number;
    if (seg == 0 || pkt.payload_len > PAYLOAD_SIZE)
        return SM_EVNT_NO_EVENT;
    if (pkg_file_map(pkg_file) != 0)
        return SM_EVNT_NO_EVENT;

    if (seg == 1)
        seg_sequential_counter = 1;
    // A segment past the package's last is ahead of anything it can expect.
    if (seg > seg_sequential_counter || seg > calc_num_pckts(g_pkg_size)) {
        printf("INVALID PKG SEGMENT # [EXPECTED: %llu | RECEIVED: %llu]\n",
               static_cast<unsigned long long>(seg_sequential_counter),
               static_cast<unsigned long long>(seg));
        return SM_EVNT_NO_EVENT;
    }
    const uint64_t offset = (seg - 1) * PAYLOAD_SIZE;
    if (offset + pkt.payload_len > g_pkg_size)
        return SM_EVNT_NO_EVENT;

    msg_t *ack = msg_alloc(PROTO_PKT_ACK_SIZE);
    if (ack == nullptr) {
        perror("malloc faild...");
        return SM_EVNT_NO_EVENT;
    }
    file_packet_ack_t pkt_ack = {};
    pkt_ack.hdr = {get_seq_num(), PCKT_TRNSFR_ACK, 0};
    pkt_ack.seg_number = seg;
    proto_encode_file_packet_ack(reinterpret_cast<uint8_t *>(ack->buffer), ack->buffer_size,
                                 &pkt_ack);
    send_to_stream_port(q, ack);

    // A copy that failed leaves the segment expected: the stream comes out
    // incomplete rather than holding a hole.
    if (seg == seg_sequential_counter &&
        pkg_file_write(*pkg_file, offset, pkt.payload, pkt.payload_len) == 0) {
        seg_sequential_counter++;
        (*pkt_counter)++;
    }
    return SM_EVNT_EXT_STREAM_REQ;
}

uint8_t do_stream_end(ilq_desc_t *q, uint64_t *pkt_counter, char **pkg_file)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(pkt_counter != NULL);
    SWU_ASSERT(pkg_file != NULL);
    // Without a mapping no packet was written: the stream counts as incomplete
    // (even an empty package could not hold its footer).
    const bool mapped = *pkg_file != nullptr;
    pkg_file_close(pkg_file);

    if (sim_failure_take(SIM_STREAM_FAILURE)) {
        printf("simulate incompleate packge, expected: %u, received: %llu\n", g_expected_n_pkts,
               static_cast<unsigned long long>(*pkt_counter));
        set_status_code(SWU_STAGE_CODE_MISSING_PCKTS);
        return SM_EVNT_INT_ERROR;
    }
    if (!mapped || *pkt_counter != g_expected_n_pkts) {
        printf("incompleate packge, expected: %u, received: %llu\n", g_expected_n_pkts,
               static_cast<unsigned long long>(*pkt_counter));
        pkg_file_remove();
        set_status_code(SWU_STAGE_CODE_MISSING_PCKTS);
        return SM_EVNT_INT_ERROR;
    }

    msg_t *rsp = msg_alloc(PROTO_HDR_SIZE);
    if (rsp == nullptr) {
        perror("malloc faild...");
        return SM_EVNT_NO_EVENT;
    }
    msg_hdr_t hdr = {get_seq_num(), FILE_STREAM_END_RSPNS, 0};
    proto_encode_hdr(reinterpret_cast<uint8_t *>(rsp->buffer), rsp->buffer_size, &hdr);
    send_to_stream_port(q, rsp);
    set_status_code(SWU_STAGE_CODE_OK);
    set_stage_complete();
    return SM_EVNT_INT_PKG_RECEIVED;
}

uint8_t state_handler_stream(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_STREAM);
    set_status_code(SWU_STAGE_CODE_OK);
    uint8_t event = SM_EVNT_NO_EVENT;
    if (timer_is_timeout(&swu_data->timer)) {
        on_timeout(swu_data, &event);
        return event;
    }
    msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
    if (msg == nullptr)
        return SM_EVNT_NO_EVENT;
    ilq_desc_t *tx_q = &swu_data->msg_q[TX_MSG_Q];
    switch (msg_opcode(msg)) {
    case CONNECTION_REQST:
        event = do_already_connected(tx_q, msg);
        break;
    case STATUS_REQST:
        event = do_status_request(tx_q, msg, &swu_data->timer);
        break;
    case PCKT_TRNSFR:
        event = do_transfer(tx_q, msg, &g_pkt_counter, &swu_data->pkg_file);
        break;
    case FILE_STREAM_END:
        event = do_stream_end(tx_q, &g_pkt_counter, &swu_data->pkg_file);
        if (event == SM_EVNT_INT_PKG_RECEIVED)
            install_expect_package(swu_data);
        break;
    default:
        break;
    }
    free(msg);
    return event;
}
