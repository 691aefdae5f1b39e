#include "lib/update.h"

#include "lib/policy.h"

#include "lib/sys/le_bytes.h"
#include "proto/package.h"
#include "proto/version.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace
{

constexpr int CONNECT_TRIES = 3;
constexpr int STEP_TRIES = 3;
// A stream gives up after this long without an acknowledgement, however
// short the acknowledgement time-out: a short time-out recovers quickly from
// a lost packet, and must not turn a hiccup of the link into a failure.
constexpr int STALL_LIMIT_MS = 5000;

std::string error_text(unsigned status_code)
{
    switch (status_code) {
    case SWU_STAGE_CODE_INVL_STREAM_REQ:
        return "stream request refused";
    case SWU_STAGE_CODE_MISSING_PCKTS:
        return "packets missing at the end of the stream";
    case SWU_STAGE_CODE_MEM_ALLOC_FAILURE:
        return "the terminal could not reserve room for the package";
    case SWU_STAGE_CODE_FS_FAILURE:
        return "the terminal could not create the package file";
    default:
        return "the terminal reports an error";
    }
}

double seconds_since(int64_t start_ms)
{
    return static_cast<double>(swuc_now_ms() - start_ms) / 1000.0;
}

// One update in progress: the session and what is known so far.
struct updater {
    const update_params &p;
    const update_events &ev;
    swuc_session s;
    update_outcome out;
    std::string attempt_name;

    updater(const update_params &params, const update_events &events) : p(params), ev(events) {}

    void enter(const char *step)
    {
        out.step = step;
        if (ev.step)
            ev.step(out.step);
    }

    void note(const std::string &line)
    {
        if (ev.note)
            ev.note(line);
    }

    int fail(int code, const std::string &message)
    {
        out.exit_code = code;
        out.message = message;
        return -1;
    }

    // Asks for status; 0 with the report kept in the outcome, or -1.
    int probe(swuc_status *st)
    {
        if (swuc_get_status(&s, st) != 0)
            return -1;
        out.have_status = true;
        out.last_status = *st;
        return 0;
    }

    // The failure that an error report, or a report of the idle stage, means.
    int fail_from_report(const swuc_status &st)
    {
        if (st.stage_code == SM_STATE_IDLE)
            return fail(SWUC_EXIT_SESSION_LOST, "the terminal dropped the session (back at idle)");
        if (st.stage_code == SM_STATE_ERROR) {
            if (st.status_code == SWU_STAGE_CODE_OK)
                return fail(SWUC_EXIT_INSTALL,
                            "the terminal rejected the package or its installation failed");
            return fail(swuc_exit_for_status(st.status_code),
                        error_text(st.status_code) + ": " + st.status_message + " (status code " +
                            std::to_string(st.status_code) + ")");
        }
        return fail(SWUC_EXIT_SESSION_LOST, "unexpected report: " + describe_status(st));
    }

    int open_session()
    {
        swuc_config cfg;
        cfg.terminal = p.terminal;
        cfg.local_addr = p.local_addr;
        cfg.rx_port = p.rx_port;
        cfg.stream_port = p.stream_port;
        cfg.reply_timeout_ms = p.reply_timeout_ms;
        cfg.keepalive_ms = p.keepalive_ms;
        cfg.umd_id = "swu-client";
        uint64_t now = static_cast<uint64_t>(swuc_now_ms()) ^ static_cast<uint64_t>(getpid()) << 32;
        memcpy(cfg.session_id, &now, sizeof(cfg.session_id));
        if (swuc_open(&s, &cfg) != 0)
            return fail(SWUC_EXIT_LOCAL,
                        std::string("cannot open the client's sockets: ") + strerror(errno));
        out.rx_port = s.port[SWUC_RX];
        out.stream_port = s.port[SWUC_STREAM];
        return 0;
    }

    int connect()
    {
        enter("connect");
        for (int attempt = 0; attempt < CONNECT_TRIES; attempt++) {
            conection_response_t rsp;
            if (swuc_connect(&s, &rsp) != 0)
                continue; // the request or its answer was lost
            switch (rsp.connection_status) {
            case SWU_CON_RES_CONNECTION_CONFIRMED:
                note("connected (battery " + std::to_string(rsp.bettery_status) + " %, " +
                     (rsp.power_source == SWU_PWR_SRC_BATTERY ? "on battery" : "external power") +
                     ")");
                return 0;
            case SWU_CON_RES_BATTERY_TOO_LOW:
                return fail(SWUC_EXIT_BATTERY,
                            "battery too low for an update (" + std::to_string(rsp.bettery_status) +
                                " %, at least " + std::to_string(SWU_PWR_SRC_MIN_BATTERY_ALOWED) +
                                " % or external power needed)");
            case SWU_CON_RES_ALREADY_CONNECTED: {
                // This may answer a duplicate of our own request, its
                // confirmation lost or still on the way: the terminal answers
                // status only to its connected client, so one status request
                // tells.
                swuc_status st;
                const int tries = s.cfg.status_tries;
                s.cfg.status_tries = attempt > 0 ? tries : 1;
                const bool ours = probe(&st) == 0 && st.stage_code == SM_STATE_CONNECT;
                s.cfg.status_tries = tries;
                if (ours) {
                    note("connected");
                    return 0;
                }
                return fail(SWUC_EXIT_BUSY,
                            "busy: another client is connected to the terminal (a session of "
                            "this machine that ended abruptly lapses once nothing here asks "
                            "for status for 5 s)");
            }
            default:
                return fail(SWUC_EXIT_NO_ANSWER,
                            "unknown connection status " + std::to_string(rsp.connection_status));
            }
        }
        return fail(SWUC_EXIT_NO_ANSWER, "no answer to the connection request");
    }

    int stream_request(uint64_t size)
    {
        for (int attempt = 0; attempt < STEP_TRIES; attempt++) {
            file_transfer_response_t rsp;
            if (swuc_stream_request(&s, out.name.c_str(), size, &rsp) == 0) {
                if (rsp.payload_max != PROTO_PAYLOAD_MAX)
                    return fail(SWUC_EXIT_REFUSED, "the terminal asks for packets of " +
                                                       std::to_string(rsp.payload_max) +
                                                       " bytes, this client sends " +
                                                       std::to_string(PROTO_PAYLOAD_MAX));
                return 0;
            }
            swuc_status st;
            if (probe(&st) != 0)
                return fail(SWUC_EXIT_SESSION_LOST, "the terminal stopped answering");
            if (st.stage_code == SM_STATE_STREAM)
                return 0; // accepted; its answer was lost
            if (st.stage_code != SM_STATE_CONNECT)
                return fail_from_report(st);
        }
        return fail(SWUC_EXIT_NO_ANSWER, "no answer to the stream request");
    }

    int stream_end()
    {
        for (int attempt = 0; attempt < STEP_TRIES; attempt++) {
            if (swuc_stream_end(&s) == 0)
                return 0;
            swuc_status st;
            if (probe(&st) != 0)
                return fail(SWUC_EXIT_SESSION_LOST, "the terminal stopped answering");
            switch (st.stage_code) {
            case SM_STATE_VERIFY:
            case SM_STATE_UPGRADE:
            case SM_STATE_FINISH:
                return 0; // complete; its answer was lost
            case SM_STATE_STREAM:
                continue; // the end was lost
            default:
                return fail_from_report(st);
            }
        }
        return fail(SWUC_EXIT_NO_ANSWER, "no answer to the end of the stream");
    }

    // One stream from the stream request to the confirmed end.
    int stream(const unique_map &pkg)
    {
        enter("stream");
        out.name = attempt_name;
        if (stream_request(pkg.size()) != 0)
            return -1;
        swuc_stream_opts opts;
        opts.window = p.window;
        opts.ack_timeout_ms = p.ack_timeout_ms;
        opts.stall_ms = STALL_LIMIT_MS;
        const int64_t start = swuc_now_ms();
        int r = swuc_stream_data(&s, static_cast<const uint8_t *>(pkg.get()), pkg.size(), &opts,
                                 ev.progress, &out.progress);
        out.stream_seconds = seconds_since(start);
        if (ev.stream_done)
            ev.stream_done();
        if (r != 0) {
            swuc_status st;
            if (probe(&st) != 0)
                return fail(SWUC_EXIT_SESSION_LOST, "the terminal stopped answering");
            if (st.stage_code == SM_STATE_STREAM)
                return fail(SWUC_EXIT_STALLED,
                            "the terminal stopped acknowledging packets (" +
                                std::to_string(out.progress.acked_packets) + " of " +
                                std::to_string(out.progress.total_packets) + " acknowledged)");
            return fail_from_report(st);
        }
        return stream_end();
    }

    // Brings the terminal back to idle after a failed stream, so that the
    // next attempt can connect: an open stream is closed (the terminal finds
    // it incomplete) and the error it then reports is acknowledged.
    bool recover()
    {
        swuc_status st;
        if (probe(&st) != 0)
            return true; // gone idle by itself: the session lapsed
        if (st.stage_code == SM_STATE_STREAM) {
            swuc_send_header(&s, SWUC_STREAM, FILE_STREAM_END);
            if (probe(&st) != 0)
                return false;
        }
        if (st.stage_code == SM_STATE_ERROR) {
            for (int attempt = 0; attempt < STEP_TRIES; attempt++)
                if (swuc_ack_error(&s) == 0)
                    return true;
            // The acknowledgement may have been taken with its answer lost.
            return probe(&st) != 0;
        }
        return st.stage_code == SM_STATE_IDLE;
    }

    int follow()
    {
        enter("install");
        swuc_follow_opts opts;
        opts.poll_ms = 500;
        opts.timeout_ms = p.install_timeout_s * 1000;
        const int64_t start = swuc_now_ms();
        bool heard = false;
        swuc_status last;
        int64_t stage_since = start;
        unsigned stage = SM_STATE_VERIFY;
        int r = swuc_follow_install(
            &s, &opts,
            [&](const swuc_status &st) {
                const int64_t now = swuc_now_ms();
                if (st.stage_code != stage) {
                    const double spent = static_cast<double>(now - stage_since) / 1000.0;
                    if (stage == SM_STATE_VERIFY)
                        out.check_seconds += spent;
                    else if (stage == SM_STATE_UPGRADE)
                        out.install_seconds += spent;
                    stage = st.stage_code;
                    stage_since = now;
                }
                heard = true;
                out.have_status = true;
                out.last_status = st;
                if (ev.status)
                    ev.status(st);
            },
            &last);
        if (r == 0)
            return 0;
        if (heard && (last.stage_code == SM_STATE_ERROR || last.stage_code == SM_STATE_IDLE))
            return fail_from_report(last);
        if (seconds_since(start) >= p.install_timeout_s)
            return fail(SWUC_EXIT_STALLED, "the installation did not end within " +
                                               std::to_string(p.install_timeout_s) + " s");
        return fail(SWUC_EXIT_SESSION_LOST, "the terminal stopped answering");
    }

    void reboot()
    {
        enter("reboot");
        if (!p.reboot) {
            note("finished; not asked to reboot (it restarts by itself 30 s after finishing)");
            return;
        }
        // A lost answer and a terminal already restarting look alike; the
        // terminal restarts by itself anyway, so this is no failure.
        for (int attempt = 0; attempt < STEP_TRIES && !out.reboot_confirmed; attempt++)
            out.reboot_confirmed = swuc_reboot(&s) == 0;
        note(out.reboot_confirmed ? "reboot confirmed"
                                  : "reboot not confirmed; the terminal restarts by itself 30 s "
                                    "after finishing");
    }

    // The terminal's first advertisement as free after it was gone (the
    // finish state advertises it busy): back, and with which version.
    int confirm()
    {
        if (!p.reboot || p.confirm_timeout_s <= 0)
            return 0;
        enter("confirm");
        note("waiting up to " + std::to_string(p.confirm_timeout_s) +
             " s for the terminal to come back");
        swuc_listener l;
        if (swuc_listen_open(&l, p.local_addr) != 0)
            return fail(SWUC_EXIT_LOCAL,
                        std::string("cannot join the advertisement group: ") + strerror(errno));
        swuc_reboot_watch watch(p.terminal, p.expected_identity, s.terminal_seq, s.heard,
                                swuc_now_ms());
        const int64_t deadline = swuc_now_ms() + int64_t{p.confirm_timeout_s} * 1000;
        bool back = false;
        swuc_advert a;
        for (int64_t left; !back && (left = deadline - swuc_now_ms()) > 0;) {
            if (swuc_listen_next(&l, &a, static_cast<int>(left)) != 0)
                break;
            back = watch.heard(a, swuc_now_ms());
        }
        swuc_listen_close(&l);
        out.foreign += watch.foreign();
        if (!back) {
            out.confirmation = "not back";
            return fail(SWUC_EXIT_NOT_BACK, "the terminal did not come back within " +
                                                std::to_string(p.confirm_timeout_s) +
                                                " s of its reboot");
        }
        out.version_after = pkg_version_text(a.adv.curr_sw_v);
        if (!p.expected_version.empty() && out.version_after != p.expected_version) {
            out.confirmation = "old version";
            return fail(SWUC_EXIT_OLD_VERSION, "the terminal came back running " +
                                                   out.version_after + ", not " +
                                                   p.expected_version);
        }
        out.confirmation = "confirmed";
        note("confirmed: the terminal is back, running " + out.version_after);
        return 0;
    }

    int run()
    {
        const int64_t start = swuc_now_ms();
        unique_map pkg;
        std::string err;
        if (swuc_map_file(p.package_path.c_str(), &pkg, &err) != 0)
            return fail(SWUC_EXIT_LOCAL, err);
        if (!p.name.empty() && !pkg_name_valid(p.name.data(), p.name.size()))
            return fail(SWUC_EXIT_USAGE, "package name '" + p.name + "' is not 1 to " +
                                             std::to_string(PKG_NAME_MAX_LEN) +
                                             " letters, digits, '.', '_' or '-'");
        const auto *bytes = static_cast<const uint8_t *>(pkg.get());
        out.package_crc = swuc_footer_crc(bytes, pkg.size());
        if (pkg.size() > PKG_MAX_SIZE)
            return fail(SWUC_EXIT_REFUSED, "the package is larger than the " +
                                               std::to_string(PKG_MAX_SIZE >> 20) +
                                               " MiB the terminal takes");
        if (open_session() != 0)
            return -1;
        for (int attempt = 0;; attempt++) {
            out.attempts = attempt + 1;
            attempt_name = !p.name.empty() ? p.name
                                           : swuc_attempt_name(p.package_path, pkg.size(),
                                                               out.package_crc, out.attempts);
            if (connect() != 0)
                return -1;
            if (stream(pkg) == 0)
                break;
            if (!swuc_retryable(out.exit_code) || attempt >= p.retries)
                return -1;
            note("stream failed (" + out.message + "); starting over");
            if (!recover())
                return -1;
            // Fresh sockets: nothing left over from the failed stream may
            // pass for an answer to the next one.
            if (open_session() != 0)
                return -1;
            out.exit_code = SWUC_EXIT_OK;
            out.message.clear();
        }
        note("stream complete");
        if (follow() != 0)
            return -1;
        reboot();
        if (confirm() != 0)
            return -1;
        enter("done");
        out.message = "updated";
        out.total_seconds = seconds_since(start);
        return 0;
    }
};

} // namespace

std::string swuc_attempt_name(const std::string &path, uint64_t size, uint32_t crc, int attempt)
{
    char tail[64];
    snprintf(tail, sizeof tail, "-%llu-%08x-%d", static_cast<unsigned long long>(size), crc,
             attempt);
    std::string stem = path.substr(path.find_last_of('/') + 1);
    for (char &c : stem)
        if (!pkg_name_char(c))
            c = '_';
    if (stem.empty())
        stem = "package";
    stem.resize(std::min(stem.size(), PKG_NAME_MAX_LEN - strlen(tail)));
    return stem + tail;
}

uint32_t swuc_footer_crc(const uint8_t *data, uint64_t size)
{
    return size >= PKG_FOOTER_SIZE ? le_get32(data + size - 4) : 0;
}

update_outcome run_update(const update_params &params, const update_events &events)
{
    const int64_t start = swuc_now_ms();
    updater u(params, events);
    u.run();
    u.out.total_seconds = seconds_since(start);
    u.out.foreign += u.s.foreign;
    return u.out;
}
