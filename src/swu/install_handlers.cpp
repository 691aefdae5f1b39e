// The states after a complete stream: verification and upgrade, which drive
// the installation thread, the error state, and the finish state that ends
// the state machine.
#include "swu/install_handlers.h"

#include "lib/sys/swu_assert.h"
#include "swu/conn_handlers.h"
#include "swu/pkg_file.h"
#include "swu/pkg_install.h"
#include "swu/status.h"
#include "swu/stream_handlers.h"
#include "swu/swu.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

uint64_t finish_state_start_time = 0;
std::atomic<int> g_install_thrd_alive{0};

namespace
{

// The installation thread's own copy of the package name: g_pkg_name belongs
// to the main thread and changes with the next stream request.
char g_install_pkg_path[PKG_NAME_SIZE];

void *install_thrd_entry(void *arg)
{
    swu_release_core();
    pkg_install_thrd_proc(arg);
    g_install_thrd_alive = 0;
    return nullptr;
}

// Starts the check of the received package. 0, or pthread's error number.
int start_install_thread(swu_data_t *swu_data)
{
    pthread_attr_setdetachstate(&swu_data->thrd_attr, PTHREAD_CREATE_DETACHED);
    memcpy(g_install_pkg_path, g_pkg_name, sizeof(g_install_pkg_path));
    g_instatll_thrd_data.path = g_install_pkg_path;
    // The previous thread's verdict must not be read as this package's.
    set_install_status(INSTALL_STT_IN_PROGRESS);
    g_install_thrd_alive = 1;
    pthread_t id;
    int ret = pthread_create(&id, &swu_data->thrd_attr, install_thrd_entry, &g_instatll_thrd_data);
    pthread_attr_setdetachstate(&swu_data->thrd_attr, PTHREAD_CREATE_JOINABLE);
    if (ret != 0) {
        g_install_thrd_alive = 0;
        return ret;
    }
    swu_data->instatll_thrd_fd = id;
    return 0;
}

// One answer to the connected client's uma_rx_port, then a moment for the
// transmit thread to take it.
uint8_t answer_client(ilq_desc_t *q, msg_t *message, uint8_t opcode, uint8_t event)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(message != NULL);
    if (!from_connected_client(message))
        return SM_EVNT_NO_EVENT;
    msg_t *rsp = msg_alloc(PROTO_HDR_SIZE);
    if (rsp == nullptr)
        return SM_EVNT_NO_EVENT;
    restart_swu_msg_t hdr_only = {};
    hdr_only.hdr = {get_seq_num(), opcode, 0};
    proto_encode_restart_swu_msg(reinterpret_cast<uint8_t *>(rsp->buffer), rsp->buffer_size,
                                 &hdr_only);
    rsp->client_addr = g_connected_client_addr;
    msg_send(q, rsp);
    usleep(1);
    return event;
}

} // namespace

void install_expect_package(swu_data_t *swu_data)
{
    swu_data->instatll_thrd_fd = 0;
}

uint8_t state_handler_verify(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_VERIFY);
    set_status_code(SWU_STAGE_CODE_OK);

    if (swu_data->instatll_thrd_fd == 0) {
        if (g_install_thrd_alive) {
            // An earlier thread (left behind by a session time-out) shares the
            // status and the semaphore: let it run to its end first. Spare
            // signals are dropped by the next thread when it starts.
            post_install_sem();
        } else {
            int ret = start_install_thread(swu_data);
            if (ret != 0) {
                errno = ret;
                perror("pthread_create failed :");
                return SM_EVNT_INT_ERROR;
            }
        }
    }

    uint8_t event = SM_EVNT_NO_EVENT;
    if (timer_is_timeout(&swu_data->timer)) {
        on_timeout(swu_data, &event);
    } else {
        msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
        if (msg != nullptr) {
            if (msg_opcode(msg) == STATUS_REQST)
                event = do_status_request(&swu_data->msg_q[TX_MSG_Q], msg, &swu_data->timer);
            free(msg);
        }
    }

    if (swu_data->instatll_thrd_fd == 0)
        return event; // still waiting for the earlier thread to end
    switch (get_install_status()) {
    case INSTALL_STT_IN_PROGRESS:
    case INSTALL_STT_CRC_OK:
        break;
    case INSTALL_STT_ARTIFACT_OK:
        event = SM_EVNT_INT_PKG_VERIEFIED;
        post_install_sem();
        break;
    default:
        event = SM_EVNT_INT_ERROR;
        swu_data->instatll_thrd_fd = 0;
        post_install_sem();
        break;
    }
    return event;
}

uint8_t state_handler_upgrade(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_UPGRADE);
    set_status_code(SWU_STAGE_CODE_OK);

    uint8_t event = SM_EVNT_NO_EVENT;
    if (timer_is_timeout(&swu_data->timer)) {
        on_timeout(swu_data, &event);
    } else {
        msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
        if (msg != nullptr) {
            ilq_desc_t *tx_q = &swu_data->msg_q[TX_MSG_Q];
            int opcode = msg_opcode(msg);
            if (opcode == CONNECTION_REQST && g_connected_client_stream_port == 0)
                event = do_connect(tx_q, msg, &swu_data->timer);
            else if (opcode == STATUS_REQST)
                event = do_status_request(tx_q, msg, &swu_data->timer);
            free(msg);
        }
    }

    switch (get_install_status()) {
    case INSTALL_STT_INSTALL_COMPLEATE:
        puts("\t\tHERE: install stt = INSTALL_STT_INSTALL_COMPLEATE\n");
        event = SM_EVNT_INT_PKG_INSTALLED;
        post_install_sem();
        break;
    case INSTALL_STT_INSTALL_FAILURE:
        event = SM_EVNT_INT_ERROR;
        swu_data->instatll_thrd_fd = 0;
        post_install_sem();
        break;
    default:
        break;
    }
    return event;
}

uint8_t do_error_received(ilq_desc_t *q, msg_t *message)
{
    return answer_client(q, message, RESTARTING_UPDATE_PROC, SM_EVNT_INT_TIMEOUT);
}

uint8_t state_handler_error(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    set_stage_code(SM_STATE_ERROR);
    timer_set_timeout(&swu_data->timer, SWU_ERROR_TIMEOUT_S);

    uint8_t event = SM_EVNT_NO_EVENT;
    if (timer_is_timeout(&swu_data->timer)) {
        on_timeout(swu_data, &event);
        timer_set_timeout(&swu_data->timer, SWU_SESSION_TIMEOUT_S);
        return event;
    }
    msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
    if (msg == nullptr)
        return SM_EVNT_NO_EVENT;
    switch (msg_opcode(msg)) {
    case STATUS_REQST:
        event = do_status_request(&swu_data->msg_q[TX_MSG_Q], msg, &swu_data->timer);
        break;
    case ERROR_RECEIVED:
        event = do_error_received(&swu_data->msg_q[TX_MSG_Q], msg);
        // The client goes on without what a failed stream left behind. The
        // stopwatch keeps the error state's 10 s until a time-out.
        if (event == SM_EVNT_INT_TIMEOUT)
            stream_release(&swu_data->pkg_file);
        break;
    default:
        break;
    }
    free(msg);
    return event;
}

uint8_t do_terminal_reboot_request(ilq_desc_t *q, msg_t *message)
{
    return answer_client(q, message, TERMINAL_REBOOT_RSPNS, SM_EVNT_INT_UPDATE_DONE);
}

uint8_t state_handler_finish(fsm_t *sm)
{
    swu_data_t *swu_data = swu_context(sm);
    if (finish_state_start_time == 0)
        finish_state_start_time = timer_get_time_s();
    set_stage_code(SM_STATE_FINISH);
    set_status_code(SWU_STAGE_CODE_OK);

    uint8_t event = SM_EVNT_NO_EVENT;
    msg_t *msg = msg_dequeue(&swu_data->msg_q[RX_MSG_Q]);
    if (msg != nullptr) {
        ilq_desc_t *tx_q = &swu_data->msg_q[TX_MSG_Q];
        switch (msg_opcode(msg)) {
        case STATUS_REQST:
            event = do_status_request(tx_q, msg, &swu_data->timer);
            break;
        case TERMINAL_REBOOT_REQ:
            event = do_terminal_reboot_request(tx_q, msg);
            break;
        default:
            break;
        }
        free(msg);
    }
    if (event == SM_EVNT_INT_UPDATE_DONE ||
        timer_get_time_s() - finish_state_start_time >= SWU_FINISH_TIMEOUT_S) {
        finish_state_start_time = 0;
        return SM_EVNT_INT_UPDATE_DONE;
    }
    return event;
}
