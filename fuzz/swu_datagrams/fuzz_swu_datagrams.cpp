// Arbitrary datagrams, from the client or anyone else, in any state: the
// service must keep running, return only events its state has a transition
// for, answer with well-formed messages and leak nothing.
//
// An input is a sequence of records, one state handler call each:
//   ctl, len (u16 LE, taken modulo 1481), len bytes of datagram
//   ctl bits 0-1: 0 from the client, 1 from a stranger, 2 from the client's
//                 address but another port, 3 nothing received
//   ctl bit 2:    the session has expired (otherwise it was just restarted)
//   ctl bit 3:    the finish state's 30 seconds are over
//   ctl bits 4-6: the install status the installation thread has published
//   ctl bit 7:    one simulated failure switched on (chosen by len % 5)
// The installation thread itself is played by the input: the verification
// state finds one already started, so no real thread does real work.
//
// Each input runs inside a work directory of its own, so give crash files a
// place with -artifact_prefix=DIR/; -close_fd_mask=3 keeps the service's
// output from slowing the run down (scripts/test passes both).
#include "support/swu_harness.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

std::string g_work_dir;
std::string g_start_dir;

void remove_work_files()
{
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(g_work_dir, ec))
        std::filesystem::remove_all(entry.path(), ec);
}

bool has_row(uint8_t state, uint8_t event, uint8_t *next)
{
    for (const fsm_transition_t &row : g_sm_transition_table) {
        if (row.curr == state && row.event == event) {
            *next = row.next;
            return true;
        }
    }
    return false;
}

void check_sent(swu_harness &h)
{
    for (const sent_msg &m : h.sent()) {
        if (m.data.size() < PROTO_HDR_SIZE || m.data.size() > PROTO_DATAGRAM_MAX)
            __builtin_trap();
        if (m.opcode() < CONNECTION_RSPNS || m.opcode() > TERMINAL_REBOOT_RSPNS)
            __builtin_trap();
    }
}

void run_input(const uint8_t *data, size_t size)
{
    swu_harness h;
    uint8_t state = SM_STATE_IDLE;
    size_t pos = 0;
    while (pos + 3 <= size) {
        const uint8_t ctl = data[pos];
        size_t len = (data[pos + 1] | data[pos + 2] << 8) % (PROTO_DATAGRAM_MAX + 1);
        pos += 3;
        len = std::min(len, size - pos);
        byte_vec datagram(data + pos, data + pos + len);
        pos += len;

        h.ctx.timer.timer_last = (ctl & 0x04) ? 0 : time(nullptr);
        if (ctl & 0x08)
            finish_state_start_time = 1;
        if (ctl & 0x80)
            sim_failure_arm(static_cast<sim_failure>(len % SIM_FAILURE_COUNT));
        if (state == SM_STATE_VERIFY && h.ctx.instatll_thrd_fd == 0)
            h.ctx.instatll_thrd_fd = static_cast<pthread_t>(1);
        if (state == SM_STATE_VERIFY || state == SM_STATE_UPGRADE)
            set_install_status((ctl >> 4) & 0x07);

        switch (ctl & 0x03) {
        case 0:
            h.push(datagram, CLIENT_IP, CLIENT_PORT);
            break;
        case 1:
            h.push(datagram, STRANGER_IP, CLIENT_PORT);
            break;
        case 2:
            h.push(datagram, CLIENT_IP, CLIENT_PORT + 1);
            break;
        default:
            break;
        }
        const uint8_t event = h.run(state);
        check_sent(h);
        if (state == SM_STATE_FINISH && event == SM_EVNT_INT_UPDATE_DONE)
            break; // the run is over: the service restarts the terminal
        if (!has_row(state, event, &state))
            __builtin_trap(); // the engine would end the process
        h.take_install_signals();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_start_dir = std::filesystem::current_path().string();
    char tmpl[] = "/tmp/fuzz-swu-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        abort();
    g_work_dir = tmpl;
    setenv("SWU_ROOT", tmpl, 1);
    atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(g_work_dir, ec);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (chdir(g_work_dir.c_str()) != 0)
        abort();
    run_input(data, size);
    remove_work_files();
    if (chdir(g_start_dir.c_str()) != 0)
        abort();
    return 0;
}
