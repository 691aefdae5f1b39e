// The self-advertisement that lets a client find the terminal: multicast
// every 3 seconds while the service runs.
#include "swu/self_adv.h"
#include "lib/sys/swu_assert.h"
#include "lib/sys/terminal_config.h"
#include "platform/platform.h"
#include "proto/version.h"
#include "swu/emmc_mount.h"
#include "swu/status.h"
#include "swu/swu.h"
#include "swu/sys-api.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

constexpr const char ORVAN_ID_START_TAG[] = "<orVanId>";
constexpr const char ORVAN_ID_END_TAG[] = "</orVanId>";
constexpr size_t ORVAN_ID_START_LEN = sizeof(ORVAN_ID_START_TAG) - 1;
constexpr size_t ORVAN_ID_END_LEN = sizeof(ORVAN_ID_END_TAG) - 1;
constexpr uint32_t CONFIG0_READ_SIZE = 1024;
constexpr const char *PKG_VER_FILE = "/mnt/emmc/pkg_ver.txt";
constexpr unsigned SELF_ADV_PERIOD_S = 3;

int read_orvanID(char *orvanID, uint8_t *size)
{
    SWU_ASSERT(orvanID != NULL);
    SWU_ASSERT(size != NULL);
    char block[CONFIG0_READ_SIZE] = {};
    if (read_config0(block, sizeof(block)) != 0)
        return -1;
    if (memcmp(block, ORVAN_ID_START_TAG, ORVAN_ID_START_LEN) != 0) {
        printf("[ERROR][%s][%s] msg : invalid start tag\n", __FILE_NAME__, __func__);
        return 1;
    }
    const char *id = block + ORVAN_ID_START_LEN;
    const char *end =
        static_cast<const char *>(memchr(id, '<', sizeof(block) - ORVAN_ID_START_LEN));
    if (end == nullptr || static_cast<size_t>(block + sizeof(block) - end) < ORVAN_ID_END_LEN ||
        memcmp(end, ORVAN_ID_END_TAG, ORVAN_ID_END_LEN) != 0)
        return 1;
    const auto id_len = static_cast<unsigned>(end - id);
    if (id_len > *size) {
        printf("id_len: %u | size: %u\n", id_len, static_cast<unsigned>(*size));
        return -1;
    }
    memset(orvanID, 0, *size);
    memcpy(orvanID, id, id_len);
    *size = static_cast<uint8_t>(id_len);
    printf("orvanID: %.*s | len : %u\n", static_cast<int>(id_len), id, id_len);
    return 0;
}

uint16_t get_conf_ver()
{
    return 505;
}

} // namespace

int get_curr_ver(uint16_t *curr_version, int size)
{
    SWU_ASSERT(curr_version != NULL);
    if (size < 3)
        return -1;
    if (mount_emmc() != 0)
        return -1;
    pkg_version_key key;
    // Opened here rather than by ini_parse, so that it is close-on-exec: the
    // installation thread may be starting a tool meanwhile.
    FILE *f = fopen(plat_path(PKG_VER_FILE).c_str(), "re");
    int parsed = f == nullptr ? -1 : pkg_version_ini_file(f, &key);
    if (f != nullptr)
        fclose(f);
    if (parsed != 0) {
        printf("Can't load '%s'\n", PKG_VER_FILE);
        return -1;
    }
    // A file without the key says nothing about the version.
    if (!key.found)
        return -1;
    pkg_version_t version;
    std::copy(curr_version, curr_version + 3, version.v);
    pkg_version_parse(key.value.c_str(), &version);
    std::copy(version.v, version.v + 3, curr_version);
    return 0;
}

void self_adv_build(self_adv_t *adv)
{
    SWU_ASSERT(adv != NULL);
    memset(adv, 0, sizeof(*adv));
    adv->hdr.opcode = SWU_SELF_ADVERTISE_OPCD;
    adv->tx_port = PROTO_SWU_PORT;
    adv->rx_port = PROTO_SWU_PORT;
    uint16_t curr_ver[3] = {0, 0, 0};
    uint16_t factory_ver[3] = {0, 0, 0};
    if (g_swu_reson & SWU_REASON_KEEP_MCU)
        sys_api_get_factory_fw_version(factory_ver, 3);
    adv->orvanID_len = PROTO_ORVAN_ID_SIZE;
    read_orvanID(adv->orvanID, &adv->orvanID_len);
    get_curr_ver(curr_ver, 3);
    memcpy(adv->factory_sw_v, factory_ver, sizeof(factory_ver));
    memcpy(adv->curr_sw_v, curr_ver, sizeof(curr_ver));
    adv->conf_ver = get_conf_ver();
    adv->term_type = get_term_type();
}

void *self_adv_thrd_proc(void *arg)
{
    SWU_ASSERT(arg != NULL);
    auto *desc = static_cast<thread_desc_t *>(arg);
    pthread_setname_np(pthread_self(), "swu-adv");
    self_adv_t adv;
    self_adv_build(&adv);

    struct sockaddr_in dest = {};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(PROTO_ADV_PORT);
    dest.sin_addr.s_addr = inet_addr(PROTO_ADV_GROUP);
    struct pollfd pfd = {desc->sock->sock_fd, POLLOUT, 0};
    uint8_t wire[PROTO_SELF_ADV_SIZE];

    while (g_to_exit == 0) {
        adv.connection_status = get_connection_status();
        adv.hdr.seq_num = get_seq_num();
        pfd.revents = 0;
        // A pending error is cleared by the failing send rather than polled
        // again and again.
        if (udps_poll(&pfd, 1, SWU_POLL_TIMEOUT_MS) <= 0 || pfd.revents == 0)
            continue;
        proto_encode_self_adv(wire, sizeof(wire), &adv);
        udps_sendto_nonblk(desc->sock, wire, sizeof(wire), &dest);
        // The pause is slept in slices so that the shutdown need not wait it out.
        for (unsigned i = 0; i < SELF_ADV_PERIOD_S * 10 && g_to_exit == 0; i++)
            usleep(100000);
    }
    return nullptr;
}
