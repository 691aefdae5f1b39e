// The commands of swu-client, one file each. Each prints its result
// (readable, or JSON with `json`) and returns the process's exit code
// (swuc_exit_code).
#pragma once

#include "lib/fleet.h"
#include "lib/policy.h"
#include "lib/remembered.h"
#include "lib/update.h"

#include <string>
#include <vector>

struct client_options {
    std::string local_addr;   // local IPv4 address of the sockets and the group membership; "" any
    uint16_t rx_port = 0;     // 0: ephemeral (or the last session's, for reboot and ack-error)
    uint16_t stream_port = 0; // 0: ephemeral
    int reply_timeout_ms = SWUC_DEFAULT_REPLY_TIMEOUT_MS;
    bool json = false;
    bool verbose = false;  // also say what was dropped for not being the terminal's
    bool dry_run = false;  // update: check everything, stream nothing
    update_policy policy;  // update: what may be sent despite the checks
    known_terminals known; // update --all: the terminals it may touch (empty: all)
};

// Shows and verifies a package without a terminal: footer, CRC, listing
// against the artifact rules, version, microcontroller image.
int cmd_check(const client_options &o, const std::string &package);

int cmd_discover(const client_options &o, double timeout_s);
int cmd_status(const client_options &o, const std::string &host);
// `u` holds the update options; without a name, each stream attempt gets a
// fresh one. The package is checked first: one that would harm the terminal
// is refused unless `o.policy.force`.
int cmd_update(const client_options &o, const std::string &host, const std::string &package,
               const update_params &u);
// Discovers for `timeout_s`, updates every free terminal (every free known
// one, with `o.known`) that the package is newer for, as `fleet` allows,
// prints a table of the outcomes and adds a JSON line per terminal to
// `report_path` (when not empty).
int cmd_update_all(const client_options &o, const std::string &package, const update_params &u,
                   double timeout_s, const fleet_opts &fleet, const std::string &report_path);
int cmd_reboot(const client_options &o, const std::string &host);
int cmd_ack_error(const client_options &o, const std::string &host);

// Refuses, before anything is sent, a package that would harm a terminal
// (and one that it would only refuse). SWUC_EXIT_OK to go on, with the
// package's figures in *found; otherwise the exit code and *why.
int check_package(const client_options &o, const std::string &package, pack_report *found,
                  std::string *why);
// Warns when `u.name` carried another package to `t` before.
void warn_reused_name(const client_options &o, const remembered_terminal &t, const update_params &u,
                      const pack_report &pkg);
