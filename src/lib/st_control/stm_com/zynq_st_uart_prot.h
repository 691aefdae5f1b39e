// The Zynq's side of the conversation with the STM32 supervisor
// microcontroller over its UART: line set-up, the command set, and the
// firmware programming sequence through the STM32's bootloader.
//
// Every command with a reply sends one frame and then polls the line: a read
// (up to 1 s on a line set up by stm_init_uart), parse, a 10 ms sleep, until
// the reply with the matching opcode has been parsed or the poll budget is
// spent (10 polls, 50 for chunk writes and the done step). Frames of other
// opcodes that arrive meanwhile are passed over. Commands print nothing;
// failures come back as -1 and the caller reports them.
//
// One command at a time, from one thread: the commands share the line and the
// process-wide receive parser.
#pragma once

#include <cstdint>

// The STM32's operating state, first byte of its status reply.
enum stm_state : uint8_t {
    STM32_APPLICATION = 1,
    STM32_BOOTLOADER_NO_APPLICATION_PRESENT = 2,
    STM32_BOOTLOADER_APPLICATION_TRIGGERED_RESTART = 3,
    STM32_BOOTLOADER_APPLICATION_UPDATE_INCOMPLETE = 4,
    STM32_BOOTLOADER_APPLICATION_JUMP_FAILED = 5,
};

// Yes / done, and no, in acknowledge, recovery and shutdown-answer bytes.
inline constexpr uint8_t STM32_ACK = 0xAA;
inline constexpr uint8_t STM32_NAK = 0x55;

// Flash address at which the STM32's application image begins.
inline constexpr uint32_t API_START = 0x08020000;

// Raw, 8N1, 230400 bit/s; reads return after 1 s without data; both queues
// flushed. Errors are not reported.
void stm_init_uart(int fd);

// Status: *status0 = the stm_state; *status1 = the recovery flag (0xAA
// requested, 0x55 not), written only when the reply has exactly 2 payload
// bytes. Null pointers are not written. 0 or -1.
int stm_status_req(int fd, uint8_t *status0, uint8_t *status1);

// Application and bootloader versions. Null pointers are not written. 0 or -1.
int stm_version_req(int fd, uint32_t *api_ver, uint32_t *boot_ver);

// Reads (r0w1 == 0) or sets the LED: non-zero isBlink blinks, colour modulo 8.
// A read returns the LED's colour bits 0..7 or -1; a write returns 0 once
// sent, -1 if the send failed. A read that times out leaves the parser as it
// was.
int stm_led_ctrl(int tty_fd, uint8_t r0w1, uint8_t isBlink, uint8_t color);

// Button active (isActive == 1) or not (any other value). 0 or -1; a time-out
// leaves the parser as it was.
int stm_btn_ctrl(int tty_fd, uint8_t isActive);

// Orders a shutdown; no reply. 0 once sent, -1 otherwise.
int stm_shutdown_req(int fd);

// Restarts an STM32 running its application into its bootloader; no reply.
// 0 once sent, -1 otherwise.
int stm_goto_bootloader(int fd);

// Waits, without limit, for the STM32's own shutdown request, logs it and
// answers: 'A'/'a' accepts, 'N'/'n' refuses, anything else sends 0x00.
// 0 once answered, -1 when the answer could not be sent.
int stm_detect_shutdown_rq(int tty_fd, char answer);

// Programming steps, each 0 or -1 (the bootloader must answer 0xAA).
int stm_init_sw_update(int fd);
int stm_erase_api(int fd);
// Announces the image size, padded to a multiple of 8.
int stm_program_start(int fd, uint32_t fileSize);
// One chunk: -2 (nothing sent) unless size is a non-zero multiple of 8 of at
// most 248 and data is not null.
int stm_program_bytes(int fd, const uint8_t *data, uint32_t size);
// 0 when the STM32's CRC-32 of what it received equals that of the padded
// image in file_fd (whose position is left at its end).
int stm_program_verifiy(int fd, int file_fd);
// Ends programming; the bootloader starts the application.
int stm_program_done(int fd);

// The whole sequence: bootloader, update, erase, size, chunks of 248 bytes
// (each announced by a "* BYTES: n *" line), CRC check, done. 0, or -1 at the
// first failure.
int stm_update_file(int uart_fd, int file_fd);

// Reads the application area back from API_START and compares its CRC-32
// with the image's. 0 when equal, -1 otherwise or on a failed read.
int stm_dow_file(int fd, int file_fd);

// What the link has carried since the last reset: for measurements.
struct stm_link_stats_t {
    uint64_t bytes_sent;     // bytes of frames written
    uint64_t bytes_received; // bytes read by exchanges and the shutdown wait
    uint64_t polls;          // reads made by exchanges (each followed by 10 ms)
};
extern stm_link_stats_t g_stm_link_stats;
inline void stm_link_stats_reset()
{
    g_stm_link_stats = stm_link_stats_t{};
}
