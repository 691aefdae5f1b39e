#include "swu/fsm.h"

#include "lib/sys/swu_assert.h"

#include <cstdio>
#include <cstdlib>

const fsm_handler_t g_state_handler_vec[SM_STATE_COUNT + 1] = {
    state_handler_idle,    state_handler_connected, state_handler_stream, state_handler_verify,
    state_handler_upgrade, state_handler_error,     state_handler_finish, nullptr,
};

namespace
{

// One table per process, shared by every machine.
const fsm_transition_t *sm_transition_table = nullptr;

// Guards against editing mistakes in the table: every row names a real state
// and event, rows stay in (state, event) order up to the closing row, and no
// row makes the end event a transition.
constexpr bool table_is_well_formed()
{
    for (int i = 0; i < FSM_TRANSITION_TBL_SIZE; ++i) {
        const fsm_transition_t &row = g_sm_transition_table[i];
        if (row.curr >= SM_STATE_COUNT || row.next >= SM_STATE_COUNT ||
            row.event >= SM_EVNT_COUNT || row.event == SM_EVNT_INT_UPDATE_DONE)
            return false;
        if (i > 0 && i < FSM_TRANSITION_TBL_SIZE - 1) {
            const fsm_transition_t &prev = g_sm_transition_table[i - 1];
            if (row.curr < prev.curr || (row.curr == prev.curr && row.event < prev.event))
                return false;
        }
    }
    return true;
}
static_assert(table_is_well_formed());

uint8_t fsm_transition_lookup(fsm_t *sm, uint8_t event)
{
    SWU_ASSERT(sm);
    for (int i = 0; i < sm->transition_tbl_size; ++i) {
        const fsm_transition_t &row = sm_transition_table[i];
        if (row.curr == sm->curr_state && row.event == event)
            return row.next;
    }
    puts("invalid index translation table index !!!!");
    exit(-7);
}

} // namespace

void fsm_init(fsm_t *sm, uint8_t init_state, void *data)
{
    SWU_ASSERT(sm);
    sm_transition_table = g_sm_transition_table;
    sm->curr_state = init_state;
    sm->curr_data = data;
    sm->handler_vec = g_state_handler_vec;
    sm->transition_tbl_size = FSM_TRANSITION_TBL_SIZE;
}

void *fsm_get_data(fsm_t *sm)
{
    SWU_ASSERT(sm);
    return sm->curr_data;
}

int fsm_run(fsm_t *sm, const uint8_t init_event, const uint8_t end_state, const uint8_t end_event)
{
    SWU_ASSERT(sm);
    uint8_t event = init_event;
    for (;;) {
        printf("[%s][event : %d]\t[state : %d]\n", __func__, event, sm->curr_state);
        sm->curr_state = fsm_transition_lookup(sm, event);
        event = sm->handler_vec[sm->curr_state](sm);
        if (sm->curr_state == end_state && event == end_event)
            break;
    }
    printf("[%s][event : %d]\t[state : %d]\n", __func__, event, sm->curr_state);
    return 0;
}
