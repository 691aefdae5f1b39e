// Link layer of the UART conversation with the STM32 supervisor
// microcontroller: the frame record and its wire layout, the CRC-8 that
// protects it, the sending of one frame and the byte-by-byte receive parser
// that finds frames in the incoming stream and resynchronises on the preamble.
//
// Frames in both directions share one layout (all integers little-endian):
//   EF BE AD DE | opc | length N | N payload bytes | CRC-8 over opc..payload
// so the microcontroller simulator and the tests use this layer too. The
// command set and the programming sequence live in zynq_st_uart_prot.h.
//
// The parser keeps one process-wide state: one exchange at a time, from one
// thread only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace stm
{

// One frame. Packed: its first length + 7 bytes are the frame exactly as it
// travels on the wire. The CRC byte sits in buf[length], behind the payload.
struct __attribute__((packed)) msg_t {
    uint32_t preamble; // bytes EF BE AD DE on the wire
    uint8_t opc;
    uint8_t length;
    uint8_t buf[256];
};

} // namespace stm

static_assert(sizeof(stm::msg_t) == 262);
static_assert(offsetof(stm::msg_t, preamble) == 0);
static_assert(offsetof(stm::msg_t, opc) == 4);
static_assert(offsetof(stm::msg_t, length) == 5);
static_assert(offsetof(stm::msg_t, buf) == 6);

inline constexpr uint32_t STM_PREAMBLE = 0xDEADBEEF;
inline constexpr uint8_t STM_PREAMBLE_BYTES[4] = {0xEF, 0xBE, 0xAD, 0xDE};
// Longest frame: preamble, opcode, length, 255 payload bytes, CRC.
inline constexpr size_t STM_FRAME_MAX = 262;
inline constexpr size_t STM_FRAME_OVERHEAD = 7;

// Opcodes from the Zynq to the STM32.
enum zynq_to_st_uart_opc : uint8_t {
    STM32_STATUS_REQ = 15,
    STM32_LED_CTRL = 30,
    STM32_SHUTDOWN = 60,
    STM32_VERSION_REQ = 75,
    STM32_INIT_SW_UPDATE = 90,
    STM32_ERASE_API = 105,
    STM32_PROGRAM_START = 120,
    STM32_PROGRAM_BYTES = 135,
    STM32_PROGRAM_VERIFIY = 150,
    STM32_PROGRAM_DONE = 165,
    STM32_PROGRAM_READ = 180,
    STM32_BTN_CTRL_REQ = 195,
};

// Opcodes from the STM32 to the Zynq: a reply carries its request's number;
// STM32_SHUTDOWN_REQ is the one frame the STM32 sends unasked.
enum st_to_zynq_uart_opc : uint8_t {
    STM32_STATUS_REP = 15,
    STM32_LED_CTRL_REP = 30,
    STM32_SHUTDOWN_REQ = 60,
    STM32_VERSION_REP = 75,
    STM32_INIT_DONE = 90,
    STM32_ERASE_DONE = 105,
    STM32_PROGRAM_READY = 120,
    STM32_WRITE_DONE = 135,
    STM32_VERIFIY_REP = 150,
    STM32_PROGRAM_DONE_REP = 165,
    STM32_PROGRAM_READ_REP = 180,
    STM32_BTN_CTRL_REP = 195,
};

// Receive parser states.
enum state_t : uint8_t {
    IDLE = 0,
    RCV_PREAMBLE_B2 = 1,
    RCV_PREAMBLE_B3 = 2,
    RCV_FULL_PREAMBLE = 3,
    RCV_OPC = 4,
    RCV_LEN = 5,
    RCV_DATA = 6,
    RCV_CS = 7,
};

constexpr std::array<uint8_t, 256> stm_make_crc8_table()
{
    std::array<uint8_t, 256> t{};
    for (unsigned k = 0; k < 256; k++) {
        unsigned r = k;
        for (int bit = 0; bit < 8; bit++)
            r = (r & 0x80) ? ((r << 1) ^ 0x07) : (r << 1);
        t[k] = static_cast<uint8_t>(r);
    }
    return t;
}

// CRC-8/SMBUS table: entry k is the CRC of the single byte k.
inline constexpr std::array<uint8_t, 256> crc8_table = stm_make_crc8_table();
static_assert(crc8_table[1] == 0x07 && crc8_table[2] == 0x0E && crc8_table[255] == 0xF3);

// CRC-8 (polynomial 0x07, initial 0, not reflected, no final XOR) over `size`
// bytes at `buf`; 0 for no bytes.
uint8_t crc8(const uint8_t *buf, size_t size);

// Zeroes `msg` and fills preamble, opcode, length, the `size` payload bytes
// (size <= 255) and the CRC byte: a frame ready for stm_send_msg.
void stm_build_msg(stm::msg_t *msg, uint8_t opc, const uint8_t *payload, uint8_t size);

// Writes the first msg->length + 7 bytes of `msg` to `fd` with one write.
// 0 when all of them were written, 1 on an error or a short write (no retry).
int stm_send_msg(int fd, const stm::msg_t *msg);

// True when buf[length] holds the CRC-8 over opcode, length and payload.
bool is_msg_valid(const stm::msg_t *msg);

// Feeds `bufLen` bytes to the parser, which assembles into *msg (never
// cleared by the parser; a frame may span calls). 1 as soon as a frame with a
// correct CRC is complete (the bytes behind it are not examined), else 0.
// Frames with a wrong CRC are dropped silently.
int parse_msg(const uint8_t *buf, size_t bufLen, stm::msg_t *msg);

// Back to IDLE; the frame index is set afresh on every path out of IDLE.
void parse_reset_state();

// The parser's current state, for diagnostics and tests.
state_t parse_get_state();
