// The update of one terminal as the technician's tool runs it: connect, stream
// the package, follow the check and the installation, ask for the reboot; and
// the exit code that each way of failing gives the command.
//
// The session library does the protocol; this layer decides what to do when
// a step goes unanswered on a lossy link (ask for status to learn whether the
// request or its answer was lost) and when a stream can be started over.
#pragma once

#include "swu-client/lib/swu_client.h"

#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <vector>

// Exit codes of swu-client, one per way an operation can end.
enum swuc_exit_code : int {
    SWUC_EXIT_OK = 0,
    SWUC_EXIT_LOCAL = 1,         // the command could not run here (file, socket)
    SWUC_EXIT_USAGE = 2,         // bad command line
    SWUC_EXIT_NO_ANSWER = 3,     // no terminal answered
    SWUC_EXIT_BUSY = 4,          // another client is connected
    SWUC_EXIT_BATTERY = 5,       // the terminal's battery is too low
    SWUC_EXIT_REFUSED = 6,       // stream request refused (status code 1)
    SWUC_EXIT_INCOMPLETE = 7,    // the terminal found packets missing (status code 2)
    SWUC_EXIT_NO_MEMORY = 8,     // the terminal could not reserve the package (status code 3)
    SWUC_EXIT_FS_FAILURE = 9,    // the terminal could not create the package file (status code 4)
    SWUC_EXIT_INSTALL = 10,      // package check or installation failed
    SWUC_EXIT_SESSION_LOST = 11, // the terminal dropped the session or stopped answering
    SWUC_EXIT_STALLED = 12,      // the transfer or the installation made no progress
    SWUC_EXIT_FLEET = 13,        // update --all: at least one terminal failed
    SWUC_EXIT_PACKAGE = 14,      // the package would harm the terminal; nothing was sent
    SWUC_EXIT_INTERNAL = 15,     // an unexpected error inside the client
    SWUC_EXIT_VERSION = 16,      // the package is not newer than the installed version
    SWUC_EXIT_OLD_VERSION = 17,  // the terminal came back from its reboot with another version
    SWUC_EXIT_NOT_BACK = 18,     // the terminal did not come back from its reboot in time
};

// The exit-code table of the help text.
extern const char *const swuc_exit_code_help;

// The exit code for an error report with status code `status_code`.
int swuc_exit_for_status(unsigned status_code);

// True for the failures after which a stream is started over: packets went
// missing, or the stream stalled.
bool swuc_retryable(int exit_code);

struct update_params {
    sockaddr_in terminal = {};
    in_addr_t local_addr = INADDR_ANY;
    uint16_t rx_port = 0; // 0: ephemeral
    uint16_t stream_port = 0;
    std::string package_path;
    // As announced to the terminal. Empty: each stream attempt announces a
    // fresh name (swuc_attempt_name) derived from the package file's name.
    std::string name;
    uint32_t window = SWUC_DEFAULT_WINDOW;
    int ack_timeout_ms = SWUC_DEFAULT_ACK_TIMEOUT_MS;
    int reply_timeout_ms = SWUC_DEFAULT_REPLY_TIMEOUT_MS;
    int keepalive_ms = SWUC_DEFAULT_KEEPALIVE_MS;
    int retries = 2;             // streams started over after a transport failure
    int install_timeout_s = 600; // longest wait for the check and installation
    bool reboot = true;
    // After the reboot, wait this long for the terminal's advertisement
    // (0: don't), and expect it to name this version ("": any).
    int confirm_timeout_s = 90;
    std::string expected_version;
};

// What the caller hears while the update runs; any member may be empty.
struct update_events {
    std::function<void(const std::string &)> note;       // one step, one line
    std::function<void(const swuc_progress &)> progress; // while streaming
    std::function<void()> stream_done;                   // end of one stream attempt
    std::function<void(const swuc_status &)> status;     // every report while installing
};

struct update_outcome {
    int exit_code = SWUC_EXIT_OK;
    std::string message; // one line
    std::string step;    // connect, stream, install, reboot, done
    bool have_status = false;
    swuc_status last_status;
    swuc_progress progress; // of the last stream attempt
    double stream_seconds = 0;
    double total_seconds = 0;
    int attempts = 0;
    bool reboot_confirmed = false;
    std::string confirmation;   // "confirmed", "old version", "not back"; "" when not waited for
    std::string version_after;  // as the terminal advertised it after its reboot
    double check_seconds = 0;   // in the verification stage
    double install_seconds = 0; // in the upgrade stage
    uint16_t rx_port = 0;       // the ports the session used
    uint16_t stream_port = 0;
    std::string name;         // the name of the last stream requested; "" when none was
    uint32_t package_crc = 0; // as its footer records it
};

// The name under which stream attempt `attempt` (1, 2, ...) of a package
// travels: "<stem>-<size>-<crc>-<attempt>", with the package file's base name
// cut to the characters and the length the terminal takes. The terminal
// writes into an existing file of the same name without truncating it and
// checks the whole file, so a name must never carry two different packages;
// size and CRC in the name see to that.
std::string swuc_attempt_name(const std::string &path, uint64_t size, uint32_t crc, int attempt);

// The CRC a package's footer records (its last four bytes, little-endian); 0
// when it is too short to have a footer.
uint32_t swuc_footer_crc(const uint8_t *data, uint64_t size);

// A fleet's rollout: the first `canary` jobs go first, and the rest start
// only when all of them succeeded; no job starts once `max_failures` have
// failed (0: no limit); at most `parallel` run at once.
struct fleet_opts {
    int parallel = 4;
    int canary = 0;
    int max_failures = 0;
};
enum fleet_fate { FLEET_NOT_STARTED, FLEET_UPDATED, FLEET_FAILED };
// Runs update(i) (true when it succeeded) for jobs 0..n-1 as `o` allows. Each
// job's fate; a job not started gets its reason in (*why)[i].
std::vector<fleet_fate> swuc_run_fleet(size_t n, const fleet_opts &o,
                                       const std::function<bool(size_t)> &update,
                                       std::vector<std::string> *why);

// Runs one update to its end. Never throws; every failure is in the outcome.
update_outcome run_update(const update_params &params, const update_events &events);

// A status report in words: "<stage description> (stage N, status M: text)".
std::string describe_status(const swuc_status &st);
