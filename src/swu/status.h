// What the terminal reports about an update in progress: whether a client is
// connected, the state whose handler ran last, the outcome of the last
// operation, the stage's progress and whether the stage is complete; and the
// one-line JSON report built from them for the status response.
//
// The main thread writes the facts through the setters below; other threads
// (the advertisement reads the connection flag) may read them at any time and
// see either the value before or after a change.
#pragma once

#include "proto/protocol.h"

#include <atomic>
#include <cstdint>

// The smallest buffer build_stt_message accepts; also the data_length that
// status responses announce.
inline constexpr uint32_t STT_RSPNS_MSG_BUFF_MIN_SIZE = 400;

// The status facts, all 0 at start and never reset as a group.
extern std::atomic<uint8_t> g_connection_status; // terminal_connection_status
extern std::atomic<uint8_t> g_status_code;       // stage_code (proto/codes.h)
extern std::atomic<uint8_t> g_stage_code;        // SM_STATE_ID
extern std::atomic<uint8_t> g_stage_progress;    // percent
extern std::atomic<uint8_t> g_stage_complete;    // 1 after a complete stream end

// Connection flag: set when a connection is confirmed, cleared when the
// session times out.
void set_connection_status();
void unset_connection_status();
uint8_t get_connection_status();

void set_stage_complete();
void unset_stage_complete();

// Assert "stt < SM_STATE_COUNT", "stg < SM_STATE_COUNT" and "prog <= 100".
void set_status_code(uint8_t stt);
void set_stage_code(uint8_t stg);
void set_stage_progress(uint8_t prog);

// Writes the JSON report, zero-terminated, into `msg` and returns its length
// without the zero. Asserts "msg" and
// "size >= STT_RSPNS_MSG_BUFF_MIN_SIZE"; the longest report is 265
// characters, so the text always fits.
uint32_t build_stt_message(char *msg, uint32_t size);
