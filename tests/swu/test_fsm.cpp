#include "swu/fsm.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr uint8_t I = SM_STATE_IDLE, C = SM_STATE_CONNECT, S = SM_STATE_STREAM, V = SM_STATE_VERIFY,
                  U = SM_STATE_UPGRADE, E = SM_STATE_ERROR, F = SM_STATE_FINISH;
constexpr int NONE = -1;

// The machine's transitions, one row per state, one column per event value.
// clang-format off
constexpr int kNext[SM_STATE_COUNT][SM_EVNT_COUNT] = {
    /* IDLE    */ {I, I, I, I, NONE, C, E, NONE, E, E, I, NONE},
    /* CONNECT */ {C, C, C, C, S,    E, E, NONE, E, E, I, NONE},
    /* STREAM  */ {S, S, S, S, S,    E, V, E,    NONE, E, I, NONE},
    /* VERIFY  */ {V, V, V, V, V,    E, V, U,    NONE, E, I, NONE},
    /* UPGRADE */ {U, U, U, U, U,    E, E, U,    F,    E, I, NONE},
    /* ERROR   */ {E, E, E, E, E,    E, E, E,    NONE, E, I, NONE},
    /* FINISH  */ {F, F, F, F, F,    F, F, F,    NONE, F, F, NONE},
};
// clang-format on

// Stand-in handlers, reached through the machine's data: each step records
// the state it ran in and returns the next scripted event.
struct script {
    std::vector<uint8_t> events;
    size_t next = 0;
    std::vector<uint8_t> visited;
};

uint8_t scripted_handler(fsm_t *sm)
{
    auto *s = static_cast<script *>(fsm_get_data(sm));
    s->visited.push_back(sm->curr_state);
    return s->events.at(s->next++);
}

// Records where one transition landed, then ends the run by entering the
// end state with the end event.
uint8_t probe_handler(fsm_t *sm)
{
    auto *s = static_cast<script *>(fsm_get_data(sm));
    s->visited.push_back(sm->curr_state);
    sm->curr_state = SM_STATE_FINISH;
    return SM_EVNT_INT_UPDATE_DONE;
}

template <fsm_handler_t H>
constexpr fsm_handler_t kVec[SM_STATE_COUNT + 1] = {H, H, H, H, H, H, H, nullptr};

// Runs the machine from `state` with `event` and the production table.
int run(script &s, uint8_t state, uint8_t event, const fsm_handler_t *vec)
{
    fsm_t sm;
    fsm_init(&sm, state, &s);
    sm.handler_vec = vec;
    return fsm_run(&sm, event, SM_STATE_FINISH, SM_EVNT_INT_UPDATE_DONE);
}

// The same, in a child whose standard output joins standard error, where a
// death test looks for the message.
void run_to_death(uint8_t state, uint8_t event, const fsm_handler_t *vec, script s = {})
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    run(s, state, event, vec);
}

} // namespace

TEST(FsmTable, EveryPairWithARowLeadsToItsState)
{
    for (uint8_t state = 0; state < SM_STATE_COUNT; ++state) {
        for (uint8_t event = 0; event < SM_EVNT_COUNT; ++event) {
            if (kNext[state][event] == NONE)
                continue;
            script s;
            testing::internal::CaptureStdout();
            run(s, state, event, kVec<probe_handler>);
            testing::internal::GetCapturedStdout();
            ASSERT_EQ(s.visited.size(), 1u);
            EXPECT_EQ(s.visited[0], kNext[state][event])
                << "state " << int(state) << " event " << int(event);
        }
    }
}

TEST(FsmTable, EveryPairWithoutARowEndsTheProcessWithStatusMinus7)
{
    fflush(stdout);
    for (uint8_t state = 0; state < SM_STATE_COUNT; ++state) {
        for (uint8_t event = 0; event < SM_EVNT_COUNT; ++event) {
            if (kNext[state][event] != NONE)
                continue;
            EXPECT_EXIT(run_to_death(state, event, kVec<probe_handler>),
                        testing::ExitedWithCode(249), "invalid index translation table index !!!!")
                << "state " << int(state) << " event " << int(event);
        }
    }
}

TEST(FsmRun, PrintsOneLinePerStepAndStopsOnTheEndEventInTheEndState)
{
    // The road of an update, with one idle and one finish step that find nothing.
    script s;
    s.events = {SM_EVNT_NO_EVENT,          SM_EVNT_INT_CONNECTED,    SM_EVNT_EXT_STATUS_REQ,
                SM_EVNT_EXT_STREAM_REQ,    SM_EVNT_INT_PKG_RECEIVED, SM_EVNT_INT_PKG_VERIEFIED,
                SM_EVNT_INT_PKG_INSTALLED, SM_EVNT_NO_EVENT,         SM_EVNT_INT_UPDATE_DONE};
    testing::internal::CaptureStdout();
    int ret = run(s, SM_STATE_IDLE, SM_EVNT_NO_EVENT, kVec<scripted_handler>);
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(ret, 0);
    EXPECT_EQ(s.next, s.events.size());
    EXPECT_EQ(s.visited, (std::vector<uint8_t>{I, I, C, C, S, V, U, F, F}));
    EXPECT_EQ(out, "[fsm_run][event : 0]\t[state : 0]\n"
                   "[fsm_run][event : 0]\t[state : 0]\n"
                   "[fsm_run][event : 5]\t[state : 0]\n"
                   "[fsm_run][event : 3]\t[state : 1]\n"
                   "[fsm_run][event : 4]\t[state : 1]\n"
                   "[fsm_run][event : 6]\t[state : 2]\n"
                   "[fsm_run][event : 7]\t[state : 3]\n"
                   "[fsm_run][event : 8]\t[state : 4]\n"
                   "[fsm_run][event : 0]\t[state : 6]\n"
                   "[fsm_run][event : 11]\t[state : 6]\n");
}
