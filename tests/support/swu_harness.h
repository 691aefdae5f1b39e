// Drives the service's state handlers without a network: datagrams go
// straight onto the context's receive queue, answers come off its transmit
// queue. Shared by the handler tests and the datagram fuzzer, so it uses no
// test framework.
#pragma once

#include "swu/conn_handlers.h"
#include "swu/install_handlers.h"
#include "swu/pkg_file.h"
#include "swu/pkg_install.h"
#include "swu/sim_failures.h"
#include "swu/status.h"
#include "swu/stream_handlers.h"
#include "swu/swu.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using byte_vec = std::vector<uint8_t>;

inline constexpr uint32_t CLIENT_IP = 0x0A000002, STRANGER_IP = 0x0A000063;
inline constexpr uint16_t CLIENT_PORT = 40000; // where requests come from
inline constexpr uint16_t CLIENT_RX_PORT = 0x1234, CLIENT_STREAM_PORT = 0x2345;

struct sent_msg {
    uint32_t ip; // host order
    uint16_t port;
    byte_vec data;
    int opcode() const { return data.size() >= 4 ? data[2] : -1; }
};

// Client datagrams, built with the protocol's own encoders.
namespace dgram
{

template <typename Rec, typename Enc> byte_vec encode(Enc enc, const Rec &rec, size_t size)
{
    byte_vec b(size);
    b.resize(static_cast<size_t>(enc(b.data(), b.size(), &rec)));
    return b;
}

inline byte_vec cut(byte_vec b, size_t n)
{
    b.resize(n);
    return b;
}

inline byte_vec hdr(uint8_t opcode)
{
    return encode(proto_encode_hdr, msg_hdr_t{7, opcode, 0}, PROTO_HDR_SIZE);
}

inline byte_vec con_req(uint8_t app_id = 1, uint16_t rx_port = CLIENT_RX_PORT,
                        uint16_t stream_port = CLIENT_STREAM_PORT)
{
    conection_request_t req = {{1, CONNECTION_REQST, 0}, app_id, rx_port, stream_port, {}, 0, {}};
    return encode(proto_encode_connection_request, req, PROTO_CON_REQ_FIXED_SIZE);
}

// fname_len is the name's length unless given.
inline byte_vec stream_req(uint64_t size, const std::string &name, int fname_len = -1)
{
    file_transfer_request_t req = {{2, STREAM_REQST, 0}, size, uint16_t(name.size()), name.data()};
    byte_vec b = encode(proto_encode_file_transfer_request, req, 14 + name.size());
    if (fname_len >= 0) {
        b[12] = uint8_t(fname_len);
        b[13] = uint8_t(fname_len >> 8);
    }
    return b;
}

inline byte_vec packet(uint64_t seg, const void *payload, size_t len)
{
    file_packet_transfer_t pkt = {{3, PCKT_TRNSFR, 0}, seg, 0, (const uint8_t *)payload, len};
    return encode(proto_encode_file_packet_transfer, pkt, PROTO_PKT_HEAD_SIZE + len);
}

} // namespace dgram

// A service context whose queues never block, with the service's
// process-wide facts back at their start values.
class swu_harness
{
  public:
    explicit swu_harness(const struct timespec &q_wait = {0, 0})
    {
        reset_globals();
        swu_init_context(&ctx, &q_wait);
    }
    ~swu_harness()
    {
        stream_release(&ctx.pkg_file);
        for (ilq_desc_t &q : ctx.msg_q) {
            msg_q_drain(&q);
            ilq_destroy(&q);
        }
        pthread_attr_destroy(&ctx.thrd_attr);
        take_install_signals();
    }
    swu_harness(const swu_harness &) = delete;
    swu_harness &operator=(const swu_harness &) = delete;

    static void reset_globals()
    {
        g_to_exit = 0;
        g_swu_reson = 0;
        sim_failures_clear();
        memset(&g_connected_client_addr, 0, sizeof(g_connected_client_addr));
        g_connected_client_stream_port = 0;
        char *no_map = nullptr;
        stream_release(&no_map);
        memset(g_pkg_name, 0, sizeof(g_pkg_name));
        g_pkt_counter = seg_sequential_counter = finish_state_start_time = 0;
        set_install_status(INSTALL_STT_IN_PROGRESS);
        set_status_code(SWU_STAGE_CODE_OK);
        set_stage_code(SM_STATE_IDLE);
        unset_connection_status();
        unset_stage_complete();
        take_install_signals();
    }

    // Signals given to the installation thread since the last call.
    static int take_install_signals()
    {
        post_install_sem(); // sets the semaphore up on first use
        int n = -1;
        while (sem_trywait(&g_install_sync_sem) == 0)
            n++;
        return n;
    }

    void push(const byte_vec &data, uint32_t ip = CLIENT_IP, uint16_t port = CLIENT_PORT)
    {
        msg_t *msg = msg_alloc(static_cast<uint32_t>(data.size()));
        if (msg == nullptr)
            abort();
        msg->client_addr.sin_family = AF_INET;
        msg->client_addr.sin_addr.s_addr = htonl(ip);
        msg->client_addr.sin_port = htons(port);
        if (!data.empty())
            memcpy(msg->buffer, data.data(), data.size());
        ilq_enqueue(&ctx.msg_q[RX_MSG_Q], &msg->node);
    }

    // One call of the handler of `state`, after queuing `data` if given.
    uint8_t run(uint8_t state)
    {
        ctx.sm.curr_state = state;
        return ctx.sm.handler_vec[state](&ctx.sm);
    }
    uint8_t run(uint8_t state, const byte_vec &data, uint32_t ip = CLIENT_IP,
                uint16_t port = CLIENT_PORT)
    {
        push(data, ip, port);
        return run(state);
    }

    // Everything queued for sending, oldest first.
    std::vector<sent_msg> sent()
    {
        std::vector<sent_msg> out;
        while (!ilq_is_empty(&ctx.msg_q[TX_MSG_Q])) {
            msg_t *m = msg_dequeue(&ctx.msg_q[TX_MSG_Q]);
            out.push_back({ntohl(m->client_addr.sin_addr.s_addr), ntohs(m->client_addr.sin_port),
                           byte_vec(m->buffer, m->buffer + m->buffer_size)});
            free(m);
        }
        return out;
    }

    // The session's last restart `seconds` ago.
    void session_age(time_t seconds) { ctx.timer.timer_last = time(nullptr) - seconds; }

    // A confirmed client, its answer taken.
    void connect()
    {
        run(SM_STATE_IDLE, dgram::con_req());
        sent();
    }

    swu_data_t ctx = {};
};
