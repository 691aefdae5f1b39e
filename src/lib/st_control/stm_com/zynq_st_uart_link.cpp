#include "lib/st_control/stm_com/zynq_st_uart_link.h"
#include "lib/st_control/stm_com/zynq_st_uart_prot.h"

#include <cstring>
#include <termios.h>
#include <unistd.h>

namespace
{

state_t g_state = IDLE;

} // namespace

stm_link_stats_t g_stm_link_stats;

uint8_t crc8(const uint8_t *buf, size_t size)
{
    uint8_t crc = 0;
    for (size_t k = 0; k < size; k++)
        crc = crc8_table[crc ^ buf[k]];
    return crc;
}

void stm_build_msg(stm::msg_t *msg, uint8_t opc, const uint8_t *payload, uint8_t size)
{
    std::memset(msg, 0, sizeof(*msg));
    // Byte by byte, so the preamble goes out as EF BE AD DE on any host.
    std::memcpy(msg, STM_PREAMBLE_BYTES, sizeof(STM_PREAMBLE_BYTES));
    msg->opc = opc;
    msg->length = size;
    if (size > 0)
        std::memcpy(msg->buf, payload, size);
    msg->buf[size] = crc8(&msg->opc, static_cast<size_t>(size) + 2);
}

int stm_send_msg(int fd, const stm::msg_t *msg)
{
    size_t len = static_cast<size_t>(msg->length) + STM_FRAME_OVERHEAD;
    ssize_t n = write(fd, msg, len);
    if (n > 0)
        g_stm_link_stats.bytes_sent += static_cast<uint64_t>(n);
    return (n >= 0 && static_cast<size_t>(n) == len) ? 0 : 1;
}

bool is_msg_valid(const stm::msg_t *msg)
{
    return crc8(&msg->opc, static_cast<size_t>(msg->length) + 2) == msg->buf[msg->length];
}

int parse_msg(const uint8_t *buf, size_t bufLen, stm::msg_t *msg)
{
    // Position of the next byte: counted from the record's start in the
    // preamble states, from buf[0] once the length is known.
    static size_t i = 0;
    auto *rec = reinterpret_cast<uint8_t *>(msg);

    for (size_t k = 0; k < bufLen; k++) {
        uint8_t b = buf[k];
        switch (g_state) {
        case IDLE:
            if (b == 0xEF) {
                rec[0] = b;
                i = 1;
                g_state = RCV_PREAMBLE_B2;
            }
            break;
        case RCV_PREAMBLE_B2:
            if (b == 0xBE) {
                rec[i] = b;
                i = 2;
                g_state = RCV_PREAMBLE_B3;
            } else if (b != 0xEF) {
                g_state = IDLE;
            }
            break;
        case RCV_PREAMBLE_B3:
            if (b == 0xAD) {
                rec[i] = b;
                i = 3;
                g_state = RCV_FULL_PREAMBLE;
            } else if (b == 0xEF) {
                rec[0] = b;
                i = 1;
                g_state = RCV_PREAMBLE_B2;
            } else {
                g_state = IDLE;
            }
            break;
        case RCV_FULL_PREAMBLE:
            rec[i] = b;
            if (std::memcmp(rec, STM_PREAMBLE_BYTES, sizeof(STM_PREAMBLE_BYTES)) == 0) {
                g_state = RCV_OPC;
            } else if (b == 0xEF) {
                rec[0] = b;
                i = 1;
                g_state = RCV_PREAMBLE_B2;
            } else {
                g_state = IDLE;
            }
            break;
        case RCV_OPC:
            msg->opc = b;
            g_state = RCV_LEN;
            break;
        case RCV_LEN:
            msg->length = b;
            i = 0;
            g_state = (b > 0) ? RCV_DATA : RCV_CS;
            break;
        case RCV_DATA:
            msg->buf[i++] = b;
            if (i >= msg->length)
                g_state = RCV_CS;
            break;
        case RCV_CS:
            msg->buf[i] = b;
            g_state = IDLE;
            if (is_msg_valid(msg))
                return 1;
            break;
        }
    }
    return 0;
}

void parse_reset_state()
{
    g_state = IDLE;
}

state_t parse_get_state()
{
    return g_state;
}

// The results of these calls are not checked: a line that can't be set up
// shows itself as commands that time out, and every caller reports those.
void stm_init_uart(int fd)
{
    struct termios tty;
    std::memset(&tty, 0, sizeof(tty));
    tcgetattr(fd, &tty);
    tty.c_iflag &=
        ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    tty.c_oflag = 0;
    tty.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    tty.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
    tty.c_cflag |= CS8;
    tty.c_cc[VMIN] = 0;
    tty.c_cc[VTIME] = 10;
    cfsetispeed(&tty, B230400);
    cfsetospeed(&tty, B230400);
    tcsetattr(fd, TCSANOW, &tty);
    tcflush(fd, TCIOFLUSH);
}
