#include "console_backend.h"

#include "lib/discovery.h"
#include "lib/fleet.h"
#include "lib/package_inspect.h"
#include "lib/package_report.h"
#include "lib/policy.h"
#include "lib/remembered.h"
#include "lib/session.h"
#include "lib/update.h"
#include "proto/package.h"
#include "swu-client/cli/client_output.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <unistd.h>

using nlohmann::json;

struct console_backend::impl {
    in_addr_t local = htonl(INADDR_ANY);
    swuc_listener listener;
    std::mutex lock;                          // guards `heard`
    std::map<std::string, swuc_advert> heard; // the latest advertisement of each key

    bool advert_of(const std::string &key, swuc_advert *out)
    {
        std::lock_guard<std::mutex> g(lock);
        auto it = heard.find(key);
        if (it == heard.end())
            return false;
        *out = it->second;
        return true;
    }
};

namespace
{

std::string key_of(const swuc_advert &a)
{
    char addr[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a.sender.sin_addr, addr, sizeof addr);
    return std::string(addr) + ":" + std::to_string(a.adv.rx_port);
}

// The name swu-client's tables and reports give a terminal.
std::string name_of(const swuc_advert &a)
{
    char addr[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a.sender.sin_addr, addr, sizeof addr);
    return a.adv.rx_port == PROTO_SWU_PORT
               ? addr
               : std::string(addr) + ":" + std::to_string(a.adv.rx_port);
}

// Reads and judges a package: false with the refusal in *why when it must
// not be sent.
bool judge(const std::string &path, pack_report *pkg, std::vector<pack_finding> *findings)
{
    std::string err;
    pack_verify(path, pkg, &err);
    *findings = pkg->findings;
    std::string why;
    return swuc_package_verdict(update_policy{}, *findings, &why) == SWUC_EXIT_OK;
}

} // namespace

console_backend::console_backend(const std::string &local_addr) : d_(std::make_unique<impl>())
{
    in_addr a;
    if (!local_addr.empty() && inet_pton(AF_INET, local_addr.c_str(), &a) == 1)
        d_->local = a.s_addr;
}

console_backend::~console_backend()
{
    swuc_listen_close(&d_->listener);
}

bool console_backend::listen(std::string *err)
{
    if (swuc_listen_open(&d_->listener, d_->local) == 0)
        return true;
    *err = std::string("cannot join the advertisement group: ") + strerror(errno);
    return false;
}

bool console_backend::next_advert(int timeout_ms, json *terminal)
{
    swuc_advert a;
    if (swuc_listen_next(&d_->listener, &a, timeout_ms) != 0)
        return false;
    const std::string key = key_of(a);
    {
        std::lock_guard<std::mutex> g(d_->lock);
        d_->heard[key] = a;
    }
    *terminal = advert_json(a);
    (*terminal)["key"] = key;
    (*terminal)["name"] = name_of(a);
    return true;
}

json console_backend::check(const std::string &path)
{
    pack_report pkg;
    std::vector<pack_finding> findings;
    judge(path, &pkg, &findings);
    return pack_report_json(pkg);
}

json console_backend::plan(const std::string &path, const std::vector<std::string> &keys,
                           const console_policy &p)
{
    pack_report pkg;
    std::vector<pack_finding> findings;
    const bool sendable = judge(path, &pkg, &findings);
    std::vector<swuc_advert> heard;
    json list = json::array();
    for (const std::string &key : keys) {
        swuc_advert a;
        if (d_->advert_of(key, &a))
            heard.push_back(a);
    }
    update_policy policy;
    policy.allow_downgrade = p.allow_downgrade;
    policy.reinstall = p.reinstall;
    std::vector<std::string> why;
    const std::vector<fleet_take> take = swuc_fleet_plan(heard, {}, policy, pkg, &why);
    const std::string to = pkg.has_version ? pkg_version_text(pkg.version) : "";
    for (size_t i = 0; i < heard.size(); i++) {
        std::string reason = why[i];
        const bool go = sendable && take[i] == FLEET_TAKE;
        if (!sendable)
            reason = "the package is refused";
        list.push_back({{"key", key_of(heard[i])},
                        {"name", name_of(heard[i])},
                        {"identity", swuc_advert_id(heard[i].adv)},
                        {"from", pkg_version_text(heard[i].adv.curr_sw_v)},
                        {"to", to},
                        {"take", go ? "update" : "skip"},
                        {"why", go ? "" : reason}});
    }
    return list;
}

json console_backend::dry_run(const std::string &key)
{
    swuc_advert a;
    if (!d_->advert_of(key, &a))
        return {{"exit_code", SWUC_EXIT_NO_ANSWER}, {"state", "not heard"}};
    swuc_config cfg;
    cfg.terminal = swuc_advert_terminal(a);
    cfg.local_addr = d_->local;
    cfg.umd_id = "swu-console";
    swuc_session s;
    if (swuc_open(&s, &cfg) != 0)
        return {{"exit_code", SWUC_EXIT_LOCAL},
                {"state", std::string("cannot open the client's sockets: ") + strerror(errno)}};
    conection_response_t rsp;
    if (swuc_connect(&s, &rsp) != 0)
        return {{"exit_code", SWUC_EXIT_NO_ANSWER},
                {"state", "no answer to the connection request"}};
    json j = {
        {"exit_code", SWUC_EXIT_OK},
        {"state", "free: an update would start; nothing was sent (its session lapses in 5 s)"},
        {"battery", rsp.bettery_status},
        {"reasons", rsp.swu_mode_reason_bitfield},
        {"power_source", rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery" : "external"}};
    if (rsp.connection_status == SWU_CON_RES_ALREADY_CONNECTED)
        j.update({{"exit_code", SWUC_EXIT_BUSY}, {"state", "busy: another client is connected"}});
    else if (rsp.connection_status == SWU_CON_RES_BATTERY_TOO_LOW)
        j.update({{"exit_code", SWUC_EXIT_BATTERY}, {"state", "battery too low for an update"}});
    return j;
}

json console_backend::update(const std::string &key, const std::string &path,
                             const console_events &ev, json *report)
{
    report_entry e;
    if (!d_->advert_of(key, &e.advert))
        return {{"exit_code", SWUC_EXIT_NO_ANSWER}, {"message", "not heard"}};
    pack_report pkg;
    std::vector<pack_finding> findings;
    judge(path, &pkg, &findings);
    remembered_terminal t;
    t.address = swuc_advert_terminal(e.advert);
    t.identity = swuc_advert_id(e.advert.adv);
    update_params p;
    p.terminal = t.address;
    p.local_addr = d_->local;
    p.package_path = path;
    p.expected_version = pkg.has_version ? pkg_version_text(pkg.version) : "";
    p.expected_identity = t.identity;
    update_events events;
    events.note = ev.note;
    events.step = ev.step;
    const int64_t started = swuc_now_ms();
    if (ev.stream)
        events.progress = [&](const swuc_progress &pr) {
            ev.stream(pr.acked_bytes, pr.total_bytes,
                      static_cast<double>(swuc_now_ms() - started) / 1000.0);
        };
    if (ev.status)
        events.status = [&](const swuc_status &st) { ev.status(status_json(st)); };
    e.name = name_of(e.advert);
    e.started = true;
    e.start_time = utc_now();
    e.out = run_update(p, events);
    e.end_time = utc_now();
    if (e.out.rx_port != 0)
        swuc_remember_ports(t, e.out.rx_port, e.out.stream_port);
    swuc_remember_name(t, e.out.name, pkg.package_size, pkg.footer_crc);
    *report = report_line(e, pkg.footer_crc);
    return outcome_json(e.out);
}

void console_backend::fleet(size_t n, const console_fleet &f,
                            const std::function<bool(size_t)> &update,
                            std::vector<std::string> *why)
{
    fleet_opts o;
    o.parallel = f.parallel;
    o.canary = f.canary;
    o.max_failures = f.max_failures;
    swuc_run_fleet(n, o, update, why);
}

json console_backend::report_skipped(const std::string &key, const std::string &path, bool skipped,
                                     const std::string &why)
{
    report_entry e;
    if (!d_->advert_of(key, &e.advert))
        return json::object();
    // Only the footer's CRC: the package is not read again for a terminal
    // it never reached.
    unique_map map;
    std::string err;
    const uint32_t crc = swuc_map_file(path.c_str(), &map, &err) == 0
                             ? swuc_footer_crc(static_cast<const uint8_t *>(map.get()), map.size())
                             : 0;
    e.name = name_of(e.advert);
    e.skipped = skipped;
    e.why = why;
    return report_line(e, crc);
}

uint64_t console_backend::max_package_size()
{
    return PKG_MAX_SIZE;
}

bool console_backend::package_name_ok(const std::string &name)
{
    return name != "." && name != ".." && pkg_name_valid(name.data(), name.size());
}
