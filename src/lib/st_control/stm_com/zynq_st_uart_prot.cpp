#include "lib/st_control/stm_com/zynq_st_uart_prot.h"

#include "lib/st_control/logFile.h"
#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/sys/crc.h"
#include "lib/sys/le_bytes.h"
#include "proto/package.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr int POLLS_DEFAULT = 10;
constexpr int POLLS_SLOW = 50;
constexpr useconds_t POLL_SLEEP_US = 10000;
constexpr useconds_t BOOTLOADER_RESTART_US = 100000;

// Largest chunk: the largest multiple of 8 that the length byte can carry.
constexpr uint32_t CHUNK_MAX = 248;
constexpr size_t CRC_BLOCK = 1024;
constexpr size_t READBACK_AREA = MCU_APP_AREA_SIZE;
constexpr uint8_t READBACK_STEP = 64;

// Rounds of the status step that may still find the application running.
// A real STM32 is in its bootloader a fraction of a second after the order;
// each round lasts at least 100 ms plus one exchange, so 50 rounds allow it
// more than 5 s. Past that it is not going to restart, and the update fails
// rather than keep the installer waiting for ever.
constexpr int STM32_STATUS_ROUNDS_MAX = 50;

// The common CRC-32, with which the STM32 checks its flash, of the image
// padded with zeros to a multiple of 8; leaves the file position at the end.
uint32_t get_file_crc(int file_fd)
{
    uint32_t crc = 0;
    uint8_t block[CRC_BLOCK];
    static const uint8_t zeros[8] = {};
    lseek(file_fd, 0, SEEK_SET);
    for (;;) {
        ssize_t n = read(file_fd, block, sizeof(block));
        if (n <= 0)
            break;
        crc = crc32_std(crc, block, static_cast<size_t>(n));
        crc = crc32_std(crc, zeros, (8 - static_cast<size_t>(n) % 8) % 8);
    }
    return crc;
}

enum exchange_result { EXCHANGE_OK = 0, EXCHANGE_SEND_FAILED = -1, EXCHANGE_TIMED_OUT = -2 };

// Sends one request and polls for the frame with `reply_opc`. A reply counts
// only when completed within the first budget - 1 polls; frames of other
// opcodes are passed over, and bytes behind them in the same read are lost.
exchange_result exchange(int fd, uint8_t opc, const uint8_t *payload, uint8_t size,
                         uint8_t reply_opc, int budget, stm::msg_t &rxMsg)
{
    stm::msg_t txMsg;
    stm_build_msg(&txMsg, opc, payload, size);
    if (stm_send_msg(fd, &txMsg) != 0)
        return EXCHANGE_SEND_FAILED;

    uint8_t buf[STM_FRAME_MAX] = {};
    size_t offset = 0;
    int ret = 0;
    int timeout = budget;
    std::memset(&rxMsg, 0, sizeof(rxMsg));
    do {
        ssize_t readLen = read(fd, buf + offset, STM_FRAME_MAX - offset);
        g_stm_link_stats.polls++;
        if (readLen > 0) {
            ret = parse_msg(buf + offset, static_cast<size_t>(readLen), &rxMsg);
            offset += static_cast<size_t>(readLen);
            g_stm_link_stats.bytes_received += static_cast<uint64_t>(readLen);
        }
        timeout--;
        usleep(POLL_SLEEP_US);
    } while (timeout != 0 && (rxMsg.opc != reply_opc || ret == 0));

    return (timeout != 0 && ret != 0 && rxMsg.opc == reply_opc) ? EXCHANGE_OK : EXCHANGE_TIMED_OUT;
}

// A command whose reply is one acknowledge byte.
int acked_command(int fd, uint8_t opc, const uint8_t *payload, uint8_t size, int budget)
{
    stm::msg_t rxMsg;
    exchange_result r = exchange(fd, opc, payload, size, opc, budget, rxMsg);
    if (r == EXCHANGE_SEND_FAILED)
        return -1;
    // A reply without payload has no acknowledge byte (buf[0] is its CRC).
    if (r != EXCHANGE_OK || rxMsg.length < 1 || rxMsg.buf[0] != STM32_ACK) {
        parse_reset_state();
        return -1;
    }
    return 0;
}

int send_only(int fd, uint8_t opc, const uint8_t *payload, uint8_t size)
{
    stm::msg_t txMsg;
    stm_build_msg(&txMsg, opc, payload, size);
    return stm_send_msg(fd, &txMsg) == 0 ? 0 : -1;
}

// Reads up to `size` bytes of flash at `first` into fileBuf; the reply may
// carry more or fewer. `room` is what fileBuf can still take: a longer reply
// fails rather than overrun it. The number of bytes received, or -1.
int stm_program_read(int fd, uint8_t *fileBuf, uint8_t size, uint32_t first, size_t room)
{
    uint8_t payload[5];
    le_put32(payload, first);
    payload[4] = size;
    stm::msg_t rxMsg;
    exchange_result r = exchange(fd, STM32_PROGRAM_READ, payload, sizeof(payload),
                                 STM32_PROGRAM_READ_REP, POLLS_DEFAULT, rxMsg);
    if (r == EXCHANGE_SEND_FAILED)
        return -1;
    if (r != EXCHANGE_OK || rxMsg.length > room) {
        parse_reset_state();
        return -1;
    }
    std::memcpy(fileBuf, rxMsg.buf, rxMsg.length);
    return rxMsg.length;
}

uint8_t g_readback[READBACK_AREA];

} // namespace

int stm_status_req(int fd, uint8_t *status0, uint8_t *status1)
{
    stm::msg_t rxMsg;
    exchange_result r =
        exchange(fd, STM32_STATUS_REQ, nullptr, 0, STM32_STATUS_REP, POLLS_DEFAULT, rxMsg);
    if (r == EXCHANGE_SEND_FAILED)
        return -1;
    if (r != EXCHANGE_OK) {
        parse_reset_state();
        return -1;
    }
    if (status0 != nullptr)
        *status0 = rxMsg.buf[0];
    if (status1 != nullptr && rxMsg.length == 2)
        *status1 = rxMsg.buf[1];
    return 0;
}

int stm_version_req(int fd, uint32_t *api_ver, uint32_t *boot_ver)
{
    stm::msg_t rxMsg;
    exchange_result r =
        exchange(fd, STM32_VERSION_REQ, nullptr, 0, STM32_VERSION_REP, POLLS_DEFAULT, rxMsg);
    if (r == EXCHANGE_SEND_FAILED)
        return -1;
    if (r != EXCHANGE_OK) {
        parse_reset_state();
        return -1;
    }
    // The payload length is not checked: a short reply reads as zeros and its
    // CRC byte, all inside the record.
    if (api_ver != nullptr)
        *api_ver = le_get32(&rxMsg.buf[0]);
    if (boot_ver != nullptr)
        *boot_ver = le_get32(&rxMsg.buf[4]);
    return 0;
}

int stm_led_ctrl(int tty_fd, uint8_t r0w1, uint8_t isBlink, uint8_t color)
{
    uint8_t ctrl = static_cast<uint8_t>((r0w1 ? 0x40 : 0) | (isBlink ? 0x20 : 0) | (color % 8));
    if (r0w1 != 0)
        return send_only(tty_fd, STM32_LED_CTRL, &ctrl, 1);

    stm::msg_t rxMsg;
    if (exchange(tty_fd, STM32_LED_CTRL, &ctrl, 1, STM32_LED_CTRL_REP, POLLS_DEFAULT, rxMsg) !=
        EXCHANGE_OK)
        return -1;
    return rxMsg.buf[0] & 7;
}

int stm_btn_ctrl(int tty_fd, uint8_t isActive)
{
    uint8_t btn = (isActive == 1) ? 0x00 : 0x01;
    stm::msg_t rxMsg;
    if (exchange(tty_fd, STM32_BTN_CTRL_REQ, &btn, 1, STM32_BTN_CTRL_REP, POLLS_DEFAULT, rxMsg) !=
        EXCHANGE_OK)
        return -1;
    return 0;
}

int stm_shutdown_req(int fd)
{
    return send_only(fd, STM32_SHUTDOWN, nullptr, 0);
}

int stm_goto_bootloader(int fd)
{
    return send_only(fd, STM32_INIT_SW_UPDATE, nullptr, 0);
}

int stm_detect_shutdown_rq(int tty_fd, char answer)
{
    uint8_t buf[STM_FRAME_MAX] = {};
    size_t offset = 0;
    int ret = 0;
    stm::msg_t rxMsg;
    std::memset(&rxMsg, 0, sizeof(rxMsg));
    do {
        // The parser keeps its place across reads, so a full area can start
        // over: a request after the first 262 bytes must still be seen.
        if (offset == sizeof(buf))
            offset = 0;
        ssize_t readLen = read(tty_fd, buf + offset, sizeof(buf) - offset);
        if (readLen > 0) {
            ret = parse_msg(buf + offset, static_cast<size_t>(readLen), &rxMsg);
            offset += static_cast<size_t>(readLen);
            g_stm_link_stats.bytes_received += static_cast<uint64_t>(readLen);
        }
        usleep(POLL_SLEEP_US);
    } while (ret == 0 || rxMsg.opc != STM32_SHUTDOWN_REQ);

    addLog("Got shutdown Request!!");

    uint8_t reply = 0x00;
    if (answer == 'A' || answer == 'a')
        reply = STM32_ACK;
    else if (answer == 'N' || answer == 'n')
        reply = STM32_NAK;
    return send_only(tty_fd, STM32_SHUTDOWN, &reply, 1);
}

int stm_init_sw_update(int fd)
{
    return acked_command(fd, STM32_INIT_SW_UPDATE, nullptr, 0, POLLS_DEFAULT);
}

int stm_erase_api(int fd)
{
    return acked_command(fd, STM32_ERASE_API, nullptr, 0, POLLS_DEFAULT);
}

int stm_program_start(int fd, uint32_t fileSize)
{
    uint8_t payload[4];
    le_put32(payload, fileSize);
    return acked_command(fd, STM32_PROGRAM_START, payload, sizeof(payload), POLLS_DEFAULT);
}

int stm_program_bytes(int fd, const uint8_t *data, uint32_t size)
{
    if (data == nullptr || size == 0 || size % 8 != 0 || size > 255)
        return -2;
    return acked_command(fd, STM32_PROGRAM_BYTES, data, static_cast<uint8_t>(size), POLLS_SLOW);
}

int stm_program_verifiy(int fd, int file_fd)
{
    stm::msg_t rxMsg;
    exchange_result r =
        exchange(fd, STM32_PROGRAM_VERIFIY, nullptr, 0, STM32_VERIFIY_REP, POLLS_DEFAULT, rxMsg);
    if (r == EXCHANGE_SEND_FAILED)
        return -1;
    if (r != EXCHANGE_OK || rxMsg.length != 4 || le_get32(rxMsg.buf) != get_file_crc(file_fd)) {
        parse_reset_state();
        return -1;
    }
    return 0;
}

int stm_program_done(int fd)
{
    return acked_command(fd, STM32_PROGRAM_DONE, nullptr, 0, POLLS_SLOW);
}

int stm_update_file(int uart_fd, int file_fd)
{
    enum {
        STM32_STATUS_STATE,
        STM32_INIT_STATE,
        STM32_ERASE_STATE,
        STM32_START_STATE,
        STM32_TRANSMIT_STATE,
        STM32_PROGRAM_VERIFY,
        STM32_JUMP_TO_API,
    } state = STM32_STATUS_STATE;
    int done = 0;
    uint8_t status = 0;
    int statusRounds = 0;
    uint32_t byteCountTotal = 0;

    while (done == 0) {
        switch (state) {
        case STM32_STATUS_STATE:
            if (stm_status_req(uart_fd, &status, nullptr) != 0)
                return -1;
            if (status != STM32_APPLICATION) {
                state = STM32_INIT_STATE;
                break;
            }
            if (++statusRounds > STM32_STATUS_ROUNDS_MAX)
                return -1;
            if (stm_goto_bootloader(uart_fd) != 0)
                return -1;
            usleep(BOOTLOADER_RESTART_US);
            break;
        case STM32_INIT_STATE:
            if (stm_init_sw_update(uart_fd) != 0)
                return -1;
            state = STM32_ERASE_STATE;
            break;
        case STM32_ERASE_STATE:
            if (stm_erase_api(uart_fd) != 0)
                return -1;
            state = STM32_START_STATE;
            break;
        case STM32_START_STATE: {
            struct stat fileStat;
            if (fstat(file_fd, &fileStat) != 0) {
                perror("fstat:");
                return -1;
            }
            int fileSize = static_cast<int>((fileStat.st_size + 7) & ~static_cast<off_t>(7));
            if (stm_program_start(uart_fd, static_cast<uint32_t>(fileSize)) != 0)
                return -1;
            state = STM32_TRANSMIT_STATE;
            break;
        }
        case STM32_TRANSMIT_STATE: {
            uint8_t buf[CHUNK_MAX];
            lseek(file_fd, 0, SEEK_SET);
            for (;;) {
                ssize_t the_rd_ret = read(file_fd, buf, sizeof(buf));
                if (the_rd_ret == 0)
                    break;
                // A read error part-way would leave the STM32 with a short
                // image; end the update rather than go on to verify it.
                if (the_rd_ret < 0)
                    return -1;
                size_t n = static_cast<size_t>(the_rd_ret);
                size_t frac = (8 - n % 8) % 8;
                std::memset(buf + n, 0, frac);
                byteCountTotal += static_cast<uint32_t>(n + frac);
                printf("* BYTES: %d *\n", static_cast<int>(byteCountTotal));
                if (stm_program_bytes(uart_fd, buf, static_cast<uint32_t>(n + frac)) != 0)
                    return -1;
                state = STM32_PROGRAM_VERIFY;
            }
            // An image that gave no bytes would leave the sequence here for
            // ever: end it instead.
            if (state == STM32_TRANSMIT_STATE)
                return -1;
            break;
        }
        case STM32_PROGRAM_VERIFY:
            if (stm_program_verifiy(uart_fd, file_fd) != 0)
                return -1;
            state = STM32_JUMP_TO_API;
            break;
        case STM32_JUMP_TO_API:
            if (stm_program_done(uart_fd) != 0)
                return -1;
            done = 1;
            break;
        }
    }
    return 0;
}

int stm_dow_file(int fd, int file_fd)
{
    size_t offset = 0;
    int ret = 0;
    do {
        offset += static_cast<size_t>(ret);
        // The area's remaining room bounds each answer: one that would pass
        // the end fails the read-back instead of overrunning the area.
        ret = stm_program_read(fd, g_readback + offset, READBACK_STEP,
                               API_START + static_cast<uint32_t>(offset),
                               sizeof(g_readback) - offset);
        printf("offset: %u\n", static_cast<unsigned>(offset));
    } while (ret > 0);

    if (ret < 0)
        return -1;
    return get_file_crc(file_fd) == crc32_std(0, g_readback, offset) ? 0 : -1;
}
