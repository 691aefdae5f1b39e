// The service's process skeleton: options, context, and the receive and
// transmit threads between the protocol socket and the queues.
#include "swu/swu.h"

#include "lib/sys/swu_assert.h"
#include "swu/pkg_install.h"
#include "swu/self_adv.h"
#include "swu/sim_failures.h"
#include "swu/sys-api.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

std::atomic<int> g_to_exit{0};
std::atomic<long> g_swu_reson{0};

namespace
{

constexpr const char *USAGE_FMT =
    "Usage: %s [-S] [-w num of iterations]\n\tS:\tsimulate stream failure\n\tF:\tsimulate invalid "
    "file name\n\tL:\tsimulate invalid file name length\n\tZ:\tsimulate invalid pkg size\n\tM:\t"
    "simulate memory failure\n\tR:\tsimulate SWU reson (0x0, 0x1, 0x2, 0x3)\n";

// A reason given on the command line is meant for testing the client side
// with a chosen reason, so the registers must not overwrite it.
bool g_swu_reson_given = false;

// Set by the transmit thread when it reaches the empty marker message that
// the shutdown queues behind everything else: all before it has been sent.
std::mutex g_tx_drain_lock;
std::condition_variable g_tx_drain_cv;
bool g_tx_drained = false;

// Shared by the main thread and the advertisement thread.
std::atomic<uint16_t> g_seq_num{0};

[[noreturn]] void or_bust(const char *what, int err)
{
    errno = err;
    perror(what);
    exit(err);
}

// The cores the service started with; the installation thread goes back to
// them.
cpu_set_t g_start_cores;
bool g_start_cores_known = false;

// Every packet is handed from the receive thread to the main thread and its
// acknowledgement on to the transmit thread. On one core a hand-over is a
// plain task switch; across cores each is an interrupt that wakes the other
// core, which costs more than the work handed over. So the service stays on
// the core it starts on, and the threads it creates inherit that. If the core
// cannot be read or kept, the scheduler places the threads as it likes.
void keep_to_one_core()
{
    g_start_cores_known = sched_getaffinity(0, sizeof(g_start_cores), &g_start_cores) == 0;
    const int cpu = sched_getcpu();
    if (cpu < 0)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof(set), &set);
}

} // namespace

void swu_release_core()
{
    if (g_start_cores_known)
        sched_setaffinity(0, sizeof(g_start_cores), &g_start_cores);
}

void swu_parse_options(int argc, char **argv)
{
    int opt;
    while ((opt = getopt(argc, argv, "R:SFLZM")) != -1) {
        switch (opt) {
        case 'S':
            sim_failure_arm(SIM_STREAM_FAILURE);
            break;
        case 'F':
            sim_failure_arm(SIM_INVALID_PKG_NAME);
            break;
        case 'L':
            sim_failure_arm(SIM_INVALID_PKG_NAME_LEN);
            break;
        case 'Z':
            sim_failure_arm(SIM_INVALID_PKG_SIZE);
            break;
        case 'M':
            sim_failure_arm(SIM_MALLOC_FAILURE);
            break;
        case 'R':
            g_swu_reson = strtol(optarg, nullptr, 16);
            g_swu_reson_given = true;
            printf("swu reson: 0x%lX\n", g_swu_reson.load());
            break;
        default:
            printf(USAGE_FMT, argv[0]);
            exit(1);
        }
    }
}

int swu_init_context(swu_data_t *swu_data, const struct timespec *q_wait)
{
    SWU_ASSERT(swu_data != NULL);
    int ret = pthread_attr_init(&swu_data->thrd_attr);
    if (ret != 0)
        return ret;
    ilq_init(&swu_data->msg_q[RX_MSG_Q], q_wait);
    ilq_init(&swu_data->msg_q[TX_MSG_Q], q_wait);
    fsm_init(&swu_data->sm, SM_STATE_IDLE, swu_data);
    timer_init(&swu_data->timer, SWU_SESSION_TIMEOUT_S);
    swu_data->pkg_file = nullptr;
    return 0;
}

void swu_init(swu_data_t *swu_data)
{
    SWU_ASSERT(swu_data != NULL);
    if (!g_swu_reson_given)
        g_swu_reson = sys_api_get_swu_reson_reg();
    g_instatll_thrd_data.swu_reson = g_swu_reson;
    printf("\t\treson: 0x%lX..............\n", g_swu_reson.load());

    memset(static_cast<void *>(swu_data), 0, sizeof(*swu_data));
    if (udps_init(&swu_data->sock[MC_SOCK]) == nullptr ||
        udps_init(&swu_data->sock[TXRX_SOCK]) == nullptr)
        or_bust("[OR_BUST] udps_init", errno);
    int rcvbuf = SWU_RCVBUF_SIZE;
    setsockopt(swu_data->sock[TXRX_SOCK].sock_fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    if (udps_bind(&swu_data->sock[TXRX_SOCK], PROTO_SWU_PORT) != 0)
        or_bust("[OR_BUST] udps_bind", errno);
    int ret = swu_init_context(swu_data, &SWU_QUEUE_WAIT);
    if (ret != 0)
        or_bust("[OR_BUST] pthrd attr init", ret);
}

int swu_cleanup(swu_data_t *swu_data)
{
    SWU_ASSERT(swu_data != NULL);
    msg_q_drain(&swu_data->msg_q[RX_MSG_Q]);
    msg_q_drain(&swu_data->msg_q[TX_MSG_Q]);
    ilq_destroy(&swu_data->msg_q[RX_MSG_Q]);
    ilq_destroy(&swu_data->msg_q[TX_MSG_Q]);
    shutdown(swu_data->sock[TXRX_SOCK].sock_fd, SHUT_RDWR);
    shutdown(swu_data->sock[MC_SOCK].sock_fd, SHUT_RDWR);
    udps_close(&swu_data->sock[TXRX_SOCK]);
    udps_close(&swu_data->sock[MC_SOCK]);
    pthread_attr_destroy(&swu_data->thrd_attr);
    return 0;
}

int swu_start_threads(swu_data_t *swu_data, thread_desc_t *adv, thread_desc_t *rx,
                      thread_desc_t *tx)
{
    SWU_ASSERT(swu_data != NULL);
    SWU_ASSERT(adv != NULL && rx != NULL && tx != NULL);
    struct start {
        thread_desc_t *desc;
        void *(*proc)(void *);
    };
    const start order[] = {{adv, self_adv_thrd_proc}, {rx, rx_thrd_proc}, {tx, tx_thrd_proc}};
    keep_to_one_core();
    for (const start &s : order) {
        s.desc->thread_id = 0;
        pthread_t id;
        int ret = pthread_create(&id, &swu_data->thrd_attr, s.proc, s.desc);
        if (ret != 0) {
            errno = ret;
            perror("[OR_BUST] pthread_create");
            swu_stop_threads(swu_data, adv, rx, tx);
            return ret;
        }
        s.desc->thread_id = id;
    }
    return 0;
}

void swu_stop_threads(swu_data_t *swu_data, thread_desc_t *adv, thread_desc_t *rx,
                      thread_desc_t *tx)
{
    SWU_ASSERT(swu_data != NULL);
    SWU_ASSERT(adv != NULL && rx != NULL && tx != NULL);
    // The last answer (the reboot response) is queued just before the state
    // machine ends; the stop flag would keep the transmit thread from sending it.
    if (tx->thread_id != 0) {
        std::unique_lock<std::mutex> lock(g_tx_drain_lock);
        g_tx_drained = false;
        msg_t *marker = msg_alloc(0);
        if (marker != nullptr) {
            ilq_enqueue(&swu_data->msg_q[TX_MSG_Q], &marker->node);
            g_tx_drain_cv.wait_for(lock, std::chrono::seconds(1), [] { return g_tx_drained; });
        }
    }
    g_to_exit = 1;
    ilq_release(&swu_data->msg_q[RX_MSG_Q]);
    ilq_release(&swu_data->msg_q[TX_MSG_Q]);
    for (thread_desc_t *t : {rx, tx, adv}) {
        if (t->thread_id != 0)
            pthread_join(t->thread_id, nullptr);
        t->thread_id = 0;
    }
}

void *rx_thrd_proc(void *arg)
{
    SWU_ASSERT(arg != NULL);
    auto *desc = static_cast<thread_desc_t *>(arg);
    pthread_setname_np(pthread_self(), "swu-rx");
    struct pollfd pfd = {desc->sock->sock_fd, POLLIN, 0};
    // One system call takes a whole burst; the datagrams are then queued one
    // by one, in the order they came.
    static thread_local char buffs[SWU_RX_BATCH][SWU_DATAGRAM_BUFF_SIZE];
    struct sockaddr_in senders[SWU_RX_BATCH];
    struct iovec iov[SWU_RX_BATCH];
    struct mmsghdr hdrs[SWU_RX_BATCH];

    while (g_to_exit == 0) {
        pfd.revents = 0;
        // An error condition is drained like data: the failing receive clears
        // it, where waiting for POLLIN alone would spin on it.
        if (udps_poll(&pfd, 1, SWU_POLL_TIMEOUT_MS) <= 0 || pfd.revents == 0)
            continue;
        // Everything pending is taken after one wake-up (a flood does not
        // hold off the stop).
        bool drained = false;
        while (g_to_exit == 0 && !drained) {
            for (unsigned i = 0; i < SWU_RX_BATCH; i++) {
                iov[i] = {buffs[i], SWU_DATAGRAM_BUFF_SIZE};
                hdrs[i] = {};
                hdrs[i].msg_hdr.msg_iov = &iov[i];
                hdrs[i].msg_hdr.msg_iovlen = 1;
                hdrs[i].msg_hdr.msg_name = &senders[i];
                hdrs[i].msg_hdr.msg_namelen = sizeof(senders[i]);
            }
            int n = udps_recv_batch_nonblk(desc->sock, hdrs, SWU_RX_BATCH);
            if (n <= 0)
                break;
            drained = static_cast<unsigned>(n) < SWU_RX_BATCH;
            for (int i = 0; i < n; i++) {
                const uint32_t len = hdrs[i].msg_len;
                // An empty datagram ends the drain; the ones received with it
                // are queued all the same.
                if (len == 0) {
                    drained = true;
                    continue;
                }
                // A sender faster than the state machine is dropped like an
                // overflowing socket buffer rather than let to exhaust memory.
                if (ilq_length(desc->msg_q) >= SWU_RX_QUEUE_MAX)
                    continue;
                msg_t *msg = msg_alloc(len);
                if (msg == nullptr)
                    continue; // no memory: this datagram is lost, the next may fit
                buff_to_msg(msg, buffs[i], len, &senders[i]);
                ilq_enqueue(desc->msg_q, &msg->node);
            }
        }
    }
    return arg;
}

namespace
{

// Sends a batch in order. A full send buffer is waited for (as a poll before
// each send would); any other failure drops that message, not retried. False
// when the stop flag ended the wait with messages unsent.
bool send_batch(udp_sock_t *sock, struct mmsghdr *hdrs, unsigned n)
{
    struct pollfd pfd = {sock->sock_fd, POLLOUT, 0};
    unsigned sent = 0;
    while (sent < n) {
        int r = udps_send_batch_nonblk(sock, hdrs + sent, n - sent);
        if (r > 0) {
            sent += static_cast<unsigned>(r);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) {
            if (g_to_exit != 0)
                return false;
            pfd.revents = 0;
            udps_poll(&pfd, 1, SWU_POLL_TIMEOUT_MS);
        } else if (errno != EINTR) {
            perror("[sendto failed]");
            sent++;
        }
    }
    return true;
}

void signal_drained()
{
    {
        std::lock_guard<std::mutex> lock(g_tx_drain_lock);
        g_tx_drained = true;
    }
    g_tx_drain_cv.notify_all();
}

} // namespace

void *tx_thrd_proc(void *arg)
{
    SWU_ASSERT(arg != NULL);
    auto *desc = static_cast<thread_desc_t *>(arg);
    pthread_setname_np(pthread_self(), "swu-tx");
    msg_t *held[SWU_TX_BATCH];
    struct sockaddr_in dest[SWU_TX_BATCH];
    struct iovec iov[SWU_TX_BATCH];
    struct mmsghdr hdrs[SWU_TX_BATCH];

    while (g_to_exit == 0) {
        // Waits for the first message, then takes whatever else is queued
        // already: answers given in one burst leave in one system call.
        unsigned n = 0;
        bool marker = false;
        for (msg_t *m = msg_dequeue(desc->msg_q); m != nullptr;
             m = n < SWU_TX_BATCH ? reinterpret_cast<msg_t *>(ilq_try_dequeue(desc->msg_q))
                                  : nullptr) {
            if (m->buffer_size == 0) { // the shutdown's marker: all before it goes first
                free(m);
                marker = true;
                break;
            }
            const uint32_t size = std::min<uint32_t>(m->buffer_size, SWU_DATAGRAM_BUFF_SIZE);
            dest[n] = m->client_addr;
            dest[n].sin_family = AF_INET;
            iov[n] = {m->buffer, size};
            hdrs[n] = {};
            hdrs[n].msg_hdr.msg_iov = &iov[n];
            hdrs[n].msg_hdr.msg_iovlen = 1;
            hdrs[n].msg_hdr.msg_name = &dest[n];
            hdrs[n].msg_hdr.msg_namelen = sizeof(dest[n]);
            held[n++] = m;
        }
        if (n > 0 && g_to_exit == 0) // what is held at the stop is not sent
            send_batch(desc->sock, hdrs, n);
        for (unsigned i = 0; i < n; i++)
            free(held[i]);
        if (marker)
            signal_drained();
    }
    return arg;
}

void buff_to_msg(msg_t *msg, char *buff, uint32_t size, struct sockaddr_in *client_addr)
{
    SWU_ASSERT(msg);
    SWU_ASSERT(buff);
    SWU_ASSERT(client_addr);
    msg->buffer_size = size;
    msg->client_addr = *client_addr;
    memcpy(msg->buffer, buff, size);
}

void msg_to_buff(msg_t *msg, char *buff, uint32_t size, struct sockaddr_in *client_addr)
{
    SWU_ASSERT(msg);
    SWU_ASSERT(buff);
    SWU_ASSERT(client_addr);
    *client_addr = msg->client_addr;
    memcpy(buff, msg->buffer, size);
}

msg_t *msg_alloc(uint32_t buffer_size)
{
    auto *msg = static_cast<msg_t *>(malloc(sizeof(msg_t) + buffer_size));
    if (msg == nullptr)
        return nullptr;
    msg->node.next = nullptr;
    msg->node.prev = nullptr;
    memset(&msg->client_addr, 0, sizeof(msg->client_addr));
    msg->buffer_size = buffer_size;
    return msg;
}

msg_t *msg_dequeue(ilq_desc_t *q)
{
    // The node is the record's first field.
    return reinterpret_cast<msg_t *>(ilq_dequeue(q));
}

void msg_send(ilq_desc_t *q, msg_t *msg)
{
    SWU_ASSERT(msg != NULL);
    ilq_enqueue(q, &msg->node);
}

void msg_q_drain(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    while (!ilq_is_empty(q)) {
        msg_t *msg = msg_dequeue(q);
        if (msg == nullptr)
            break;
        free(msg);
    }
}

int msg_opcode(const msg_t *msg)
{
    SWU_ASSERT(msg != NULL);
    return proto_get_opcode(reinterpret_cast<const uint8_t *>(msg->buffer), msg->buffer_size);
}

uint16_t get_seq_num()
{
    // fetch_add wraps modulo 2^16, so the increment and the read stay one step.
    return static_cast<uint16_t>(g_seq_num.fetch_add(1, std::memory_order_relaxed) + 1);
}

void debug_print_hdr(msg_hdr_t *hdr)
{
    SWU_ASSERT(hdr);
    printf("[HEADER] seq num: %d\topcode: 0x%X\n", hdr->seq_num, hdr->opcode);
}

swu_data_t *swu_context(fsm_t *sm)
{
    SWU_ASSERT(sm != NULL);
    auto *swu_data = static_cast<swu_data_t *>(fsm_get_data(sm));
    SWU_ASSERT(swu_data != NULL);
    return swu_data;
}
