// The states after a complete stream: verification and upgrade, which drive
// the installation thread, the error state, and the finish state that ends
// the state machine.
#pragma once

#include "lib/sys/ilist_queue.h"
#include "swu/swu.h"

#include <atomic>
#include <cstdint>

// Monotonic second of the finish state's first call; 0 when not running.
extern uint64_t finish_state_start_time;
// Non-zero while an installation thread started by this process runs.
extern std::atomic<int> g_install_thrd_alive;

// A complete package has arrived: the next verification starts a check of
// its own rather than follow the thread of an earlier package.
void install_expect_package(swu_data_t *swu_data);

// SM_EVNT_INT_TIMEOUT after answering the connected client's acknowledgement.
uint8_t do_error_received(ilq_desc_t *q, msg_t *message);
// SM_EVNT_INT_UPDATE_DONE after answering the connected client's request.
uint8_t do_terminal_reboot_request(ilq_desc_t *q, msg_t *message);
