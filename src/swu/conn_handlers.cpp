// The idle and connect states, and the request operations the later states
// share: refusing a second client, the status report, the session time-out.
#include "swu/conn_handlers.h"

#include "lib/sys/swu_assert.h"
#include "swu/pkg_install.h"
#include "swu/status.h"
#include "swu/stream_handlers.h"
#include "swu/sys-api.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct sockaddr_in g_connected_client_addr;
uint16_t g_connected_client_stream_port = 0;

namespace
{

uint8_t *bytes_of(msg_t *msg)
{
    return reinterpret_cast<uint8_t *>(msg->buffer);
}

} // namespace

bool from_connected_client(const msg_t *msg)
{
    return msg->client_addr.sin_addr.s_addr == g_connected_client_addr.sin_addr.s_addr;
}

int validate_connection_request(conection_request_t *con_req)
{
    SWU_ASSERT(con_req != NULL);
    debug_print_hdr(&con_req->hdr);
    const uint8_t *sid = con_req->session_id;
    printf("[CONNECTION REQUST]app id: %u\tport: %d\tsession id: %u%u%u%u%u%u%u%u\tumd id len: "
           "%d\tumd id: \n",
           con_req->app_id, con_req->uma_rx_port, sid[7], sid[6], sid[5], sid[4], sid[3], sid[2],
           sid[1], sid[0], con_req->umd_id_len);
    return con_req->app_id != 0 ? 0 : 1;
}

uint8_t do_connect(ilq_desc_t *q, msg_t *message, stopwatch_t *timer)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(message != NULL);
    SWU_ASSERT(timer != NULL);
    conection_request_t req;
    if (proto_decode_connection_request(bytes_of(message), message->buffer_size, &req) != 0)
        return SM_EVNT_NO_EVENT;

    msg_t *rsp = msg_alloc(PROTO_CON_RSP_SIZE);
    if (rsp == nullptr) {
        perror("malloc faild...");
        return SM_EVNT_NO_EVENT;
    }
    if (validate_connection_request(&req) != 0) {
        printf("[%s] invalid connection request\n", "do_connect");
        free(rsp);
        return SM_EVNT_NO_EVENT;
    }

    g_connected_client_stream_port = htons(req.uma_stream_port);
    memset(&g_connected_client_addr, 0, sizeof(g_connected_client_addr));
    g_connected_client_addr.sin_family = AF_INET;
    g_connected_client_addr.sin_port = htons(req.uma_rx_port);
    g_connected_client_addr.sin_addr = message->client_addr.sin_addr;

    conection_response_t con_rsp = {};
    con_rsp.hdr = {get_seq_num(), CONNECTION_RSPNS, 0};
    con_rsp.power_source = stub_get_power_source();
    con_rsp.bettery_status = stub_get_battery_status();
    con_rsp.swu_mode_reason_bitfield = static_cast<uint8_t>(g_swu_reson & 0xFF);

    uint8_t event = SM_EVNT_NO_EVENT;
    if (con_rsp.power_source == SWU_PWR_SRC_BATTERY &&
        con_rsp.bettery_status < SWU_PWR_SRC_MIN_BATTERY_ALOWED) {
        con_rsp.connection_status = SWU_CON_RES_BATTERY_TOO_LOW;
    } else {
        con_rsp.connection_status = SWU_CON_RES_CONNECTION_CONFIRMED;
        event = SM_EVNT_INT_CONNECTED;
        set_connection_status();
        timer_reset(timer);
    }
    proto_encode_connection_response(bytes_of(rsp), rsp->buffer_size, &con_rsp);
    rsp->client_addr = g_connected_client_addr;
    msg_send(q, rsp);
    return event;
}

uint8_t do_already_connected(ilq_desc_t *q, msg_t *message)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(message != NULL);
    conection_request_t req;
    if (proto_decode_connection_request(bytes_of(message), message->buffer_size, &req) != 0)
        return SM_EVNT_NO_EVENT;

    msg_t *rsp = msg_alloc(PROTO_CON_RSP_SIZE);
    if (rsp == nullptr) {
        perror("malloc faild...");
        return SM_EVNT_EXT_CONNECTION_REQ;
    }
    conection_response_t con_rsp = {};
    con_rsp.hdr = {get_seq_num(), CONNECTION_RSPNS, 0};
    con_rsp.connection_status = SWU_CON_RES_ALREADY_CONNECTED;
    con_rsp.power_source = stub_get_power_source();
    con_rsp.bettery_status = stub_get_battery_status();
    con_rsp.swu_mode_reason_bitfield = 7;
    proto_encode_connection_response(bytes_of(rsp), rsp->buffer_size, &con_rsp);
    rsp->client_addr.sin_family = AF_INET;
    rsp->client_addr.sin_addr = message->client_addr.sin_addr;
    rsp->client_addr.sin_port = htons(req.uma_rx_port);
    msg_send(q, rsp);
    return SM_EVNT_EXT_CONNECTION_REQ;
}

uint8_t do_status_request(ilq_desc_t *q, msg_t *message, stopwatch_t *timer)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(message != NULL);
    SWU_ASSERT(timer != NULL);
    if (!from_connected_client(message))
        return SM_EVNT_NO_EVENT;
    msg_t *rsp = msg_alloc(PROTO_STT_RSP_HEAD_SIZE + STT_RSPNS_MSG_BUFF_MIN_SIZE);
    if (rsp == nullptr)
        return SM_EVNT_INT_ERROR;

    // The report is built in place, behind the head.
    char *text = rsp->buffer + PROTO_STT_RSP_HEAD_SIZE;
    memset(text, 0, STT_RSPNS_MSG_BUFF_MIN_SIZE);
    status_response_t stt = {};
    stt.hdr = {get_seq_num(), STATUS_RSPNS, 0};
    stt.data_length = STT_RSPNS_MSG_BUFF_MIN_SIZE;
    stt.buffer = text;
    stt.buffer_len = build_stt_message(text, STT_RSPNS_MSG_BUFF_MIN_SIZE);
    int len = proto_encode_status_response(bytes_of(rsp), rsp->buffer_size, &stt);
    rsp->buffer_size = static_cast<uint32_t>(len);
    rsp->client_addr = g_connected_client_addr;
    msg_send(q, rsp);
    timer_reset(timer);
    return SM_EVNT_EXT_STATUS_REQ;
}

void on_timeout(swu_data_t *swu_data, uint8_t *event)
{
    SWU_ASSERT(swu_data != NULL);
    SWU_ASSERT(event != NULL);
    stream_release(&swu_data->pkg_file);
    *event = SM_EVNT_INT_TIMEOUT;
    g_connected_client_stream_port = 0;
    memset(&g_connected_client_addr, 0, sizeof(g_connected_client_addr));
    timer_set_timeout(&swu_data->timer, SWU_SESSION_TIMEOUT_S);
    unset_connection_status();
    post_install_sem();
}

uint8_t state_handler_idle(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_IDLE);
    set_status_code(SWU_STAGE_CODE_OK);
    msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
    if (msg == nullptr)
        return SM_EVNT_NO_EVENT;
    uint8_t event = SM_EVNT_NO_EVENT;
    if (msg_opcode(msg) == CONNECTION_REQST)
        event = do_connect(&swu_data->msg_q[TX_MSG_Q], msg, &swu_data->timer);
    free(msg);
    return event;
}

uint8_t state_handler_connected(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_CONNECT);
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
    case STREAM_REQST:
        // A stream that ended in the error state and was acknowledged there
        // may still hold its file; the new request replaces it.
        stream_release(&swu_data->pkg_file);
        event = do_stream_request(tx_q, msg);
        break;
    default:
        break;
    }
    free(msg);
    return event;
}
