// Package stream reception: the stream request, the stream state, and the
// packets written through one shared mapping of the package file.
#include "lib/sys/swu_assert.h"
#include "swu/status.h"
#include "swu/swu.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

char g_pkg_name[PKG_NAME_SIZE];
int g_pkg_fd = 0;
uint32_t g_pkg_size = 0;
uint32_t g_expected_n_pkts = 0;
uint64_t g_pkt_counter = 0;
uint64_t seg_sequential_counter = 0;

namespace
{

// Length of the current mapping, kept apart from g_pkg_size so that the unmap
// always matches the map.
size_t g_pkg_map_len = 0;

swu_data_t *context_of(fsm_t *sm)
{
    SWU_ASSERT(sm != NULL);
    auto *swu_data = static_cast<swu_data_t *>(fsm_get_data(sm));
    SWU_ASSERT(swu_data != NULL);
    return swu_data;
}

void unmap_pkg(char **pkg_file)
{
    if (*pkg_file != nullptr)
        munmap(*pkg_file, g_pkg_map_len);
    *pkg_file = nullptr;
    g_pkg_map_len = 0;
}

// A message to the connected client's stream port.
void send_to_stream_port(ilq_desc_t *q, msg_t *rsp)
{
    rsp->client_addr.sin_family = AF_INET;
    rsp->client_addr.sin_addr = g_connected_client_addr.sin_addr;
    rsp->client_addr.sin_port = g_connected_client_stream_port;
    msg_send(q, rsp);
}

bool name_char(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

} // namespace

int is_string(char *str, uint32_t len)
{
    SWU_ASSERT(str != NULL);
    for (uint32_t i = 0; i < len; i++) {
        if (!name_char(str[i]))
            return 0;
    }
    return 1;
}

uint32_t calc_num_pckts(uint32_t pkg_size)
{
    return pkg_size / PAYLOAD_SIZE + (pkg_size % PAYLOAD_SIZE != 0 ? 1 : 0);
}

void release_pkg_file(char **pkg_file)
{
    SWU_ASSERT(pkg_file != NULL);
    unmap_pkg(pkg_file);
    if (g_pkg_fd > 0)
        cleanup_pkg_file();
}

int do_stream_request_validation(file_transfer_request_t *ftr, ssize_t buf_size)
{
    SWU_ASSERT(ftr != NULL);
    if (g_invalid_pkg_name) {
        g_invalid_pkg_name--;
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    if (g_invalid_pkg_name_len) {
        g_invalid_pkg_name_len--;
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    if (g_invalid_pkg_size) {
        g_invalid_pkg_size--;
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    if (g_malloc_failure) {
        g_malloc_failure--;
        set_status_code(SWU_STAGE_CODE_MEM_ALLOC_FAILURE);
        return -1;
    }
    if (ftr->fsize > MAX_UPDATE_PKG_SIZE) {
        perror("invalid pkg size\n");
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    g_pkg_size = static_cast<uint32_t>(ftr->fsize);

    // A name that would not fit g_pkg_name counts as a wrong length.
    ssize_t name_len = buf_size - static_cast<ssize_t>(PROTO_FT_REQ_HEAD_SIZE);
    if (name_len <= 0 || name_len != ftr->fname_len ||
        name_len >= static_cast<ssize_t>(PKG_NAME_SIZE) || ftr->fname == nullptr) {
        perror("invalid pkg name length\n");
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    char name[PKG_NAME_SIZE] = {};
    memcpy(name, ftr->fname, static_cast<size_t>(name_len));
    if (!is_string(name, static_cast<uint32_t>(name_len))) {
        perror("invalid pkg name\n");
        set_status_code(SWU_STAGE_CODE_INVL_STREAM_REQ);
        return -1;
    }
    memcpy(g_pkg_name, name, sizeof(g_pkg_name));

    // A link planted under the name must not redirect the package elsewhere.
    int fd = open(g_pkg_name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0755);
    if (fd == 0) {
        // Started with standard input closed: 0 stands for "no file" here.
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        close(fd);
        fd = moved;
    }
    if (fd < 1) {
        perror("file openning failed\n");
        set_status_code(SWU_STAGE_CODE_FS_FAILURE);
        return -1;
    }
    g_pkg_fd = fd;

    if (g_pkg_size > 0 && lseek(g_pkg_fd, static_cast<off_t>(g_pkg_size) - 1, SEEK_SET) < 0) {
        perror("failed reserving memory\n");
        set_status_code(SWU_STAGE_CODE_MEM_ALLOC_FAILURE);
        return -1;
    }
    const char zero = 0;
    if (write(g_pkg_fd, &zero, 1) != 1) {
        perror("failed write / reserving memory\n");
        set_status_code(SWU_STAGE_CODE_MEM_ALLOC_FAILURE);
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
    if (seg == 0 || seg > calc_num_pckts(g_pkg_size) || pkt.payload_len > PAYLOAD_SIZE)
        return SM_EVNT_NO_EVENT;
    const uint64_t offset = (seg - 1) * PAYLOAD_SIZE;
    if (offset + pkt.payload_len > g_pkg_size)
        return SM_EVNT_NO_EVENT;

    if (*pkg_file == nullptr) {
        if (g_pkg_fd <= 0)
            return SM_EVNT_NO_EVENT;
        void *map = mmap(nullptr, g_pkg_size, PROT_READ | PROT_WRITE, MAP_SHARED, g_pkg_fd, 0);
        if (map == MAP_FAILED) {
            perror("mmap_failed");
            return SM_EVNT_NO_EVENT;
        }
        *pkg_file = static_cast<char *>(map);
        g_pkg_map_len = g_pkg_size;
    }

    if (seg == 1)
        seg_sequential_counter = 1;
    if (seg > seg_sequential_counter) {
        printf("INVALID PKG SEGMENT # [EXPECTED: %llu | RECEIVED: %llu]\n",
               static_cast<unsigned long long>(seg_sequential_counter),
               static_cast<unsigned long long>(seg));
        return SM_EVNT_NO_EVENT;
    }

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

    if (seg == seg_sequential_counter) {
        memcpy(*pkg_file + offset, pkt.payload, pkt.payload_len);
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
    unmap_pkg(pkg_file);
    if (g_pkg_fd > 0)
        close(g_pkg_fd);
    g_pkg_fd = 0;

    if (g_set_stream_failure) {
        g_set_stream_failure = 0;
        printf("simulate incompleate packge, expected: %u, received: %llu\n", g_expected_n_pkts,
               static_cast<unsigned long long>(*pkt_counter));
        set_status_code(SWU_STAGE_CODE_MISSING_PCKTS);
        return SM_EVNT_INT_ERROR;
    }
    if (!mapped || *pkt_counter != g_expected_n_pkts) {
        printf("incompleate packge, expected: %u, received: %llu\n", g_expected_n_pkts,
               static_cast<unsigned long long>(*pkt_counter));
        unlink(g_pkg_name);
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
    swu_data_t *swu_data = context_of(sm);
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
        // The new package needs a check of its own, whatever thread came before.
        if (event == SM_EVNT_INT_PKG_RECEIVED)
            swu_data->instatll_thrd_fd = 0;
        break;
    default:
        break;
    }
    free(msg);
    return event;
}
