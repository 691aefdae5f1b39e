// The service's table-driven state machine.
//
// Each state has one handler that runs one step (typically: take at most one
// received message, act on it, return an event). The engine turns the event
// into the next state through a constant transition table and calls that
// state's handler, on the calling thread, until the end condition holds.
// A (state, event) pair without a row is a programming error: the process
// ends with status -7.
//
// The handlers are defined by the modules that own each state; this header
// only declares them so that the handler vector can name them.
#pragma once

#include "proto/codes.h"

#include <cstddef>
#include <cstdint>

// The states are the stage codes of proto/codes.h (SM_STATE_ID).

// "EXT" events come from a client request, "INT" events from the terminal's
// own progress.
enum SM_EVENTS_CODES : uint8_t {
    SM_EVNT_NO_EVENT = 0,
    SM_EVNT_EXT_DISCOVERY_REQ = 1,
    SM_EVNT_EXT_CONNECTION_REQ = 2,
    SM_EVNT_EXT_STATUS_REQ = 3,
    SM_EVNT_EXT_STREAM_REQ = 4,
    SM_EVNT_INT_CONNECTED = 5,
    SM_EVNT_INT_PKG_RECEIVED = 6,
    SM_EVNT_INT_PKG_VERIEFIED = 7,
    SM_EVNT_INT_PKG_INSTALLED = 8,
    SM_EVNT_INT_ERROR = 9,
    SM_EVNT_INT_TIMEOUT = 10,
    SM_EVNT_INT_UPDATE_DONE = 11,
    SM_EVNT_COUNT = 12,
};

struct fsm;
using fsm_t = fsm;

// One step of a state; returns the next event.
using fsm_handler_t = uint8_t (*)(fsm_t *sm);

struct transition {
    uint8_t curr;
    uint8_t event;
    uint8_t next;
};
using fsm_transition_t = transition;

struct fsm {
    // Indexed by state id.
    const fsm_handler_t *handler_vec;
    // Handed to the handlers through fsm_get_data (the service context).
    void *curr_data;
    // Rows of the transition table. Not const, so that a context holding the
    // machine can still be zeroed and assigned as a whole.
    int transition_tbl_size;
    uint8_t curr_state;
};

// The handlers of the seven states, in state order; each is defined by the
// module that owns its state.
uint8_t state_handler_idle(fsm_t *sm);
uint8_t state_handler_connected(fsm_t *sm);
uint8_t state_handler_stream(fsm_t *sm);
uint8_t state_handler_verify(fsm_t *sm);
uint8_t state_handler_upgrade(fsm_t *sm);
uint8_t state_handler_error(fsm_t *sm);
uint8_t state_handler_finish(fsm_t *sm);

// The handlers in state order, closed by a null entry.
extern const fsm_handler_t g_state_handler_vec[SM_STATE_COUNT + 1];

inline constexpr int FSM_TRANSITION_TBL_SIZE = 72;

// The service's transitions, stored state by state and within a state by
// rising event. Lookup takes the first matching row, so the repeated
// (idle, 6) row and the closing (idle, 0) row change nothing. No row uses
// SM_EVNT_INT_UPDATE_DONE: that event only ends a run in its end state.
inline constexpr fsm_transition_t g_sm_transition_table[FSM_TRANSITION_TBL_SIZE] = {
    {SM_STATE_IDLE, SM_EVNT_NO_EVENT, SM_STATE_IDLE},
    {SM_STATE_IDLE, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_IDLE},
    {SM_STATE_IDLE, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_IDLE},
    {SM_STATE_IDLE, SM_EVNT_EXT_STATUS_REQ, SM_STATE_IDLE},
    {SM_STATE_IDLE, SM_EVNT_INT_CONNECTED, SM_STATE_CONNECT},
    {SM_STATE_IDLE, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_ERROR},
    {SM_STATE_IDLE, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_ERROR},
    {SM_STATE_IDLE, SM_EVNT_INT_PKG_INSTALLED, SM_STATE_ERROR},
    {SM_STATE_IDLE, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_IDLE, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_CONNECT, SM_EVNT_NO_EVENT, SM_STATE_CONNECT},
    {SM_STATE_CONNECT, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_CONNECT},
    {SM_STATE_CONNECT, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_CONNECT},
    {SM_STATE_CONNECT, SM_EVNT_EXT_STATUS_REQ, SM_STATE_CONNECT},
    {SM_STATE_CONNECT, SM_EVNT_EXT_STREAM_REQ, SM_STATE_STREAM},
    {SM_STATE_CONNECT, SM_EVNT_INT_CONNECTED, SM_STATE_ERROR},
    {SM_STATE_CONNECT, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_ERROR},
    {SM_STATE_CONNECT, SM_EVNT_INT_PKG_INSTALLED, SM_STATE_ERROR},
    {SM_STATE_CONNECT, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_CONNECT, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_STREAM, SM_EVNT_NO_EVENT, SM_STATE_STREAM},
    {SM_STATE_STREAM, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_STREAM},
    {SM_STATE_STREAM, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_STREAM},
    {SM_STATE_STREAM, SM_EVNT_EXT_STATUS_REQ, SM_STATE_STREAM},
    {SM_STATE_STREAM, SM_EVNT_EXT_STREAM_REQ, SM_STATE_STREAM},
    {SM_STATE_STREAM, SM_EVNT_INT_CONNECTED, SM_STATE_ERROR},
    {SM_STATE_STREAM, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_VERIFY},
    {SM_STATE_STREAM, SM_EVNT_INT_PKG_VERIEFIED, SM_STATE_ERROR},
    {SM_STATE_STREAM, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_STREAM, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_VERIFY, SM_EVNT_NO_EVENT, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_EXT_STATUS_REQ, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_EXT_STREAM_REQ, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_INT_CONNECTED, SM_STATE_ERROR},
    {SM_STATE_VERIFY, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_VERIFY},
    {SM_STATE_VERIFY, SM_EVNT_INT_PKG_VERIEFIED, SM_STATE_UPGRADE},
    {SM_STATE_VERIFY, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_VERIFY, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_UPGRADE, SM_EVNT_NO_EVENT, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_EXT_STATUS_REQ, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_EXT_STREAM_REQ, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_INT_CONNECTED, SM_STATE_ERROR},
    {SM_STATE_UPGRADE, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_ERROR},
    {SM_STATE_UPGRADE, SM_EVNT_INT_PKG_VERIEFIED, SM_STATE_UPGRADE},
    {SM_STATE_UPGRADE, SM_EVNT_INT_PKG_INSTALLED, SM_STATE_FINISH},
    {SM_STATE_UPGRADE, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_UPGRADE, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_ERROR, SM_EVNT_NO_EVENT, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_EXT_STATUS_REQ, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_EXT_STREAM_REQ, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_INT_CONNECTED, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_INT_PKG_VERIEFIED, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_INT_ERROR, SM_STATE_ERROR},
    {SM_STATE_ERROR, SM_EVNT_INT_TIMEOUT, SM_STATE_IDLE},

    {SM_STATE_FINISH, SM_EVNT_NO_EVENT, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_EXT_DISCOVERY_REQ, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_EXT_CONNECTION_REQ, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_EXT_STATUS_REQ, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_EXT_STREAM_REQ, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_INT_CONNECTED, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_INT_PKG_RECEIVED, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_INT_PKG_VERIEFIED, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_INT_ERROR, SM_STATE_FINISH},
    {SM_STATE_FINISH, SM_EVNT_INT_TIMEOUT, SM_STATE_FINISH},

    {SM_STATE_IDLE, SM_EVNT_NO_EVENT, SM_STATE_IDLE},
};

// Sets up `sm` in `init_state` with `data` for the handlers, using the
// service's handler vector and transition table. Asserts `sm`.
void fsm_init(fsm_t *sm, uint8_t init_state, void *data);

// The data given to fsm_init. Asserts `sm`.
void *fsm_get_data(fsm_t *sm);

// Runs the machine on the calling thread: the pending event, starting with
// `init_event`, selects the next state, whose handler returns the next pending
// event; one line "[fsm_run][event : E]\t[state : S]" per step on standard
// output. Returns 0 once a handler of `end_state` has returned `end_event`
// (that event needs no row); ends the process with status -7 on a pair
// without a row.
int fsm_run(fsm_t *sm, const uint8_t init_event, const uint8_t end_state, const uint8_t end_event);
