#include "lib/policy.h"

#include "lib/exit_codes.h"

#include <arpa/inet.h>
#include <map>
#include <sstream>

bool swuc_retryable(int exit_code)
{
    return exit_code == SWUC_EXIT_STALLED || exit_code == SWUC_EXIT_INCOMPLETE;
}

int swuc_version_floor(const update_policy &p, const pkg_version_t &installed,
                       const pack_report &pkg, std::string *why)
{
    if (!pkg.has_version)
        return SWUC_EXIT_OK; // the package does not change the advertised version
    const int cmp = pkg_version_compare(pkg.version, installed);
    const std::string versions = "the package installs " + pkg_version_text(pkg.version) +
                                 ", the terminal runs " + pkg_version_text(installed);
    if (cmp < 0 && !p.allow_downgrade) {
        *why = versions + " (--allow-downgrade sends it)";
        return SWUC_EXIT_VERSION;
    }
    if (cmp == 0 && !p.reinstall) {
        *why = versions + " (--reinstall sends it)";
        return SWUC_EXIT_VERSION;
    }
    return SWUC_EXIT_OK;
}

int swuc_package_verdict(const update_policy &p, const std::vector<pack_finding> &findings,
                         std::string *why)
{
    int refused = 0;
    for (const pack_finding &f : findings)
        if (f.refuse && refused++ == 0)
            *why = f.text;
    if (refused == 0 || p.force)
        return SWUC_EXIT_OK;
    *why = "package refused: " + *why +
           (refused > 1 ? " (and " + std::to_string(refused - 1) + " more)" : "") +
           "; nothing was sent (--force sends it)";
    return SWUC_EXIT_PACKAGE;
}

known_terminals known_terminals::from_list(const std::string &list)
{
    known_terminals k;
    std::stringstream in(list);
    for (std::string id; std::getline(in, id, ',');)
        if (!id.empty())
            k.entries.push_back({id, ""});
    return k;
}

bool known_terminals::from_inventory(const std::string &text, known_terminals *out,
                                     std::string *err)
{
    std::istringstream in(text);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        number++;
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        entry e;
        if (!(words >> e.identity))
            continue;
        words >> e.address;
        in_addr a;
        std::string extra;
        if ((!e.address.empty() && inet_pton(AF_INET, e.address.c_str(), &a) != 1) ||
            (words >> extra)) {
            *err = "line " + std::to_string(number) + ": not \"IDENTITY [ADDRESS]\"";
            return false;
        }
        out->entries.push_back(e);
    }
    return true;
}

std::vector<fleet_take> swuc_fleet_plan(const std::vector<swuc_advert> &heard,
                                        const known_terminals &known, const update_policy &p,
                                        const pack_report &pkg, std::vector<std::string> *why)
{
    std::vector<fleet_take> take(heard.size(), FLEET_TAKE);
    why->assign(heard.size(), "");
    std::map<std::string, int> addresses_of; // identity: addresses it was heard from
    for (const swuc_advert &a : heard)
        addresses_of[swuc_advert_id(a.adv)]++;
    for (size_t i = 0; i < heard.size(); i++) {
        const swuc_advert &a = heard[i];
        const std::string id = swuc_advert_id(a.adv);
        char addr[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &a.sender.sin_addr, addr, sizeof addr);
        if (!known.empty()) {
            const known_terminals::entry *match = nullptr;
            for (const auto &e : known.entries)
                if (e.identity == id && (e.address.empty() || e.address == addr))
                    match = &e;
            if (match == nullptr) {
                take[i] = FLEET_STRANGER;
                (*why)[i] = "not a known terminal";
                continue;
            }
            if (match->address.empty() && addresses_of[id] > 1) {
                take[i] = FLEET_STRANGER;
                (*why)[i] = "its identity is advertised from " + std::to_string(addresses_of[id]) +
                            " addresses (an inventory line with its address settles it)";
                continue;
            }
        }
        if (a.adv.connection_status != SWU_CON_STATUS_AVAIL) {
            take[i] = FLEET_SKIP;
            (*why)[i] = "busy: another client is connected";
            continue;
        }
        pkg_version_t installed;
        std::copy(a.adv.curr_sw_v, a.adv.curr_sw_v + 3, installed.v);
        if (swuc_version_floor(p, installed, pkg, &(*why)[i]) != SWUC_EXIT_OK)
            take[i] = FLEET_SKIP;
    }
    return take;
}

swuc_reboot_watch::swuc_reboot_watch(const sockaddr_in &terminal, std::string identity,
                                     uint16_t last_seq, bool seq_known, int64_t now_ms)
    : terminal_(terminal), identity_(std::move(identity)), last_seq_(last_seq),
      seq_known_(seq_known), last_ms_(now_ms)
{
}

bool swuc_reboot_watch::heard(const swuc_advert &a, int64_t now_ms)
{
    // The advertised port is the sender's own claim, and a relay in between
    // answers at another: the address and the identity decide.
    if (a.sender.sin_addr.s_addr != terminal_.sin_addr.s_addr ||
        (!identity_.empty() && swuc_advert_id(a.adv) != identity_)) {
        foreign_++;
        return false;
    }
    if (now_ms - last_ms_ >= GONE_MS || (seq_known_ && a.adv.hdr.seq_num < last_seq_))
        gone_ = true;
    last_ms_ = now_ms;
    last_seq_ = a.adv.hdr.seq_num;
    seq_known_ = true;
    return gone_ && a.adv.connection_status == SWU_CON_STATUS_AVAIL;
}
