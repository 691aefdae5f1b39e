// The client's update policy, without any I/O: which package may be sent to
// which terminal, which terminals a fleet rollout takes, when a stream is
// started over, and when a terminal counts as back from its reboot.
#pragma once

#include "lib/discovery.h"
#include "lib/package_inspect.h"

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

// True for the failures after which a stream is started over: packets went
// missing, or the stream stalled.
bool swuc_retryable(int exit_code);

// What the technician allowed.
struct update_policy {
    bool force = false;           // send a package the review refuses
    bool allow_downgrade = false; // send a package older than the installed one
    bool reinstall = false;       // send the installed version again
};

// The version floor: SWUC_EXIT_OK, or SWUC_EXIT_VERSION with *why.
int swuc_version_floor(const update_policy &p, const pkg_version_t &installed,
                       const pack_report &pkg, std::string *why);

// The package review's verdict: SWUC_EXIT_OK (also for refusals under
// --force), or SWUC_EXIT_PACKAGE with *why naming the first refusal.
int swuc_package_verdict(const update_policy &p, const std::vector<pack_finding> &findings,
                         std::string *why);

// The terminals a fleet rollout may touch: identities, each optionally bound
// to the address it must advertise from. Empty: every terminal heard.
struct known_terminals {
    struct entry {
        std::string identity;
        std::string address; // "" any
    };
    std::vector<entry> entries;

    bool empty() const { return entries.empty(); }
    // "ID,ID,..." (--only).
    static known_terminals from_list(const std::string &list);
    // One terminal a line: "IDENTITY [ADDRESS]"; '#' starts a comment. False
    // with *err on a line that is neither.
    static bool from_inventory(const std::string &text, known_terminals *out, std::string *err);
};

// How a fleet rollout treats one terminal it heard.
enum fleet_take {
    FLEET_TAKE,     // updated
    FLEET_SKIP,     // a known terminal left alone (busy, version floor): in the table
    FLEET_STRANGER, // not a known terminal: reported apart, never counted
};

// Decides for each of `heard` (one advertisement per address and port), the
// reason of every skip or stranger in (*why)[i]. A known identity heard from
// more than one address is trusted at none that the inventory does not pin.
std::vector<fleet_take> swuc_fleet_plan(const std::vector<swuc_advert> &heard,
                                        const known_terminals &known, const update_policy &p,
                                        const pack_report &pkg, std::vector<std::string> *why);

// Whether the terminal is back from its reboot, from the advertisements
// heard after the reboot request. Only advertisements from the terminal's
// address with the identity it had before the update count; it is back when it advertises free
// after it was gone: silent for `gone_ms`, or with its sequence counter started again. The finish
// state's busy advertisements never count.
class swuc_reboot_watch
{
  public:
    static constexpr int64_t GONE_MS = 4500; // one and a half advertisement periods

    // `last_seq` is the terminal's latest sequence number (`seq_known`:
    // whether one was heard), `now_ms` when the reboot was asked for.
    swuc_reboot_watch(const sockaddr_in &terminal, std::string identity, uint16_t last_seq,
                      bool seq_known, int64_t now_ms);

    // Takes one advertisement heard at `now_ms`; true when it says the
    // terminal is back.
    bool heard(const swuc_advert &a, int64_t now_ms);
    // Advertisements that were not the terminal's.
    uint64_t foreign() const { return foreign_; }

  private:
    sockaddr_in terminal_;
    std::string identity_;
    uint16_t last_seq_;
    bool seq_known_;
    int64_t last_ms_;
    bool gone_ = false;
    uint64_t foreign_ = 0;
};
