// The self-advertisement that lets a client find the terminal: multicast to
// PROTO_ADV_GROUP:PROTO_ADV_PORT every 3 seconds while the service runs.
#pragma once

#include "proto/protocol.h"

// Fills the advertisement's fixed part: opcode, ports, installed version (from
// the card's version file), factory version (SWU_REASON_KEEP_MCU only), conf_ver,
// terminal type and identity (from configuration block 0). The connection
// status and sequence number are set per cycle by the thread.
void self_adv_build(self_adv_t *adv);

// The installed version, from the card's version file (mounting the card):
// fills up to three numbers of `curr_version` and leaves the others as they
// were. 0, or -1 when the card or the file can't be read. `size` at least 3.
int get_curr_ver(uint16_t *curr_version, int size);

// The advertisement thread; `arg` is a thread_desc_t *. Returns null.
void *self_adv_thrd_proc(void *arg);
