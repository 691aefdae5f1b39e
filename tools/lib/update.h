// The update of one terminal as the technician's tool runs it: connect, stream
// the package, follow the check and the installation, ask for the reboot; and
// the exit code that each way of failing gives the command.
//
// The session library does the protocol; this layer decides what to do when
// a step goes unanswered on a lossy link (ask for status to learn whether the
// request or its answer was lost) and when a stream can be started over.
#pragma once

#include "lib/exit_codes.h"
#include "lib/session.h"
#include "lib/stream.h"

#include <cstdint>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <vector>

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
    // The identity the terminal advertised before the update: only it counts
    // as the terminal coming back ("": not known, any identity does).
    std::string expected_identity;
};

// What the caller hears while the update runs; any member may be empty.
struct update_events {
    std::function<void(const std::string &)> note;       // one step, one line
    std::function<void(const swuc_progress &)> progress; // while streaming
    std::function<void()> stream_done;                   // end of one stream attempt
    std::function<void(const swuc_status &)> status;     // every report while installing
    std::function<void(const std::string &)> step;       // entering each step of the outcome
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
    uint64_t foreign = 0;     // datagrams and advertisements dropped: not the terminal's
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

// Runs one update to its end. Never throws; every failure is in the outcome.
update_outcome run_update(const update_params &params, const update_events &events);
