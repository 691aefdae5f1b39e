#include "client_commands.h"

#include "client_output.h"
#include "common/printable.h"
#include "pack.h"
#include "proto/package.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <netdb.h>
#include <thread>
#include <unistd.h>

namespace
{

using nlohmann::json;

// ------------------------------------------------------------ addressing

int resolve_local(const client_options &o, in_addr_t *addr)
{
    *addr = htonl(INADDR_ANY);
    if (o.local_addr.empty())
        return 0;
    in_addr a;
    if (inet_pton(AF_INET, o.local_addr.c_str(), &a) != 1)
        return -1;
    *addr = a.s_addr;
    return 0;
}

// "HOST" or "HOST:PORT", PORT defaulting to the terminal's protocol port.
int resolve_terminal(const std::string &host_port, sockaddr_in *out, std::string *err)
{
    std::string host = host_port;
    uint16_t port = PROTO_SWU_PORT;
    size_t colon = host_port.rfind(':');
    if (colon != std::string::npos) {
        host = host_port.substr(0, colon);
        char *end = nullptr;
        unsigned long p = strtoul(host_port.c_str() + colon + 1, &end, 10);
        if (*end != '\0' || p == 0 || p > 65535) {
            *err = "bad port in '" + host_port + "'";
            return -1;
        }
        port = static_cast<uint16_t>(p);
    }
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *res = nullptr;
    int r = getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (r != 0 || res == nullptr) {
        *err = "cannot resolve '" + host + "': " + gai_strerror(r);
        return -1;
    }
    *out = *reinterpret_cast<sockaddr_in *>(res->ai_addr);
    out->sin_port = htons(port);
    freeaddrinfo(res);
    return 0;
}

// "2026-11-23T13:49:47Z".
std::string utc_now()
{
    char text[32];
    time_t now = time(nullptr);
    struct tm tm;
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &tm));
    return text;
}

// Terminals may send any bytes: invalid UTF-8 is replaced, not thrown at.
void print_json(const json &j)
{
    printf("%s\n", j.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

std::string addr_text(const sockaddr_in &sa)
{
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sa.sin_addr, buf, sizeof(buf));
    return buf;
}

// ------------------------------------------------- the last session's ports

// What the client keeps about a terminal between commands, under
// $XDG_STATE_HOME (or ~/.local/state): "session" and "names".
std::filesystem::path state_file(const char *kind, const sockaddr_in &terminal)
{
    std::filesystem::path dir;
    if (const char *x = getenv("XDG_STATE_HOME"); x != nullptr && *x != '\0')
        dir = x;
    else if (const char *h = getenv("HOME"); h != nullptr && *h != '\0')
        dir = std::filesystem::path(h) / ".local/state";
    else
        return {};
    return dir / "swu-client" / (std::string(kind) + "-" + addr_text(terminal));
}

// The terminal answers reboot, error and status requests only to the rx port
// of the session it remembers, so a later command for the same terminal binds
// that port again.
std::filesystem::path ports_file(const sockaddr_in &terminal)
{
    return state_file("session", terminal);
}

// Every name a package was announced under, with the package's size and CRC:
// the terminal keeps a file of that name, and checks a later package sent
// under it against the old file's tail.
void remember_name(const sockaddr_in &terminal, const std::string &name, uint64_t size,
                   uint32_t crc)
{
    std::filesystem::path f = state_file("names", terminal);
    if (f.empty() || name.empty())
        return;
    std::error_code ec;
    std::filesystem::create_directories(f.parent_path(), ec);
    std::ofstream(f, std::ios::app) << name << " " << size << " " << crc << "\n";
}

bool name_carried_another(const sockaddr_in &terminal, const std::string &name, uint64_t size,
                          uint32_t crc)
{
    std::filesystem::path f = state_file("names", terminal);
    if (f.empty())
        return false;
    std::ifstream in(f);
    std::string n;
    uint64_t sz = 0;
    uint32_t c = 0;
    while (in >> n >> sz >> c)
        if (n == name && (sz != size || c != crc))
            return true;
    return false;
}

void remember_ports(const sockaddr_in &terminal, uint16_t rx, uint16_t stream)
{
    std::filesystem::path f = ports_file(terminal);
    if (f.empty())
        return;
    std::error_code ec;
    std::filesystem::create_directories(f.parent_path(), ec);
    std::ofstream(f) << rx << " " << stream << "\n";
}

bool recall_ports(const sockaddr_in &terminal, uint16_t *rx, uint16_t *stream)
{
    std::filesystem::path f = ports_file(terminal);
    if (f.empty())
        return false;
    std::ifstream in(f);
    unsigned a = 0, b = 0;
    if (!(in >> a >> b) || a == 0 || a > 65535 || b > 65535)
        return false;
    *rx = static_cast<uint16_t>(a);
    *stream = static_cast<uint16_t>(b);
    return true;
}

// ------------------------------------------------------------- reporting

std::string reason_text(unsigned bits)
{
    if (bits == 0)
        return "none";
    std::string t;
    auto add = [&](const char *s) { t += (t.empty() ? "" : ", ") + std::string(s); };
    if (bits & SWU_REASON_UPDATE_REQUESTED)
        add("update requested");
    if (bits & SWU_REASON_ERROR_BOOT)
        add("error boot");
    if (bits & SWU_REASON_KEEP_MCU)
        add("factory firmware kept");
    return t;
}

void error_line(const std::string &host, const std::string &message)
{
    fprintf(stderr, "swu-client: %s: %s\n", printable(host).c_str(), printable(message).c_str());
}

int finish(const client_options &o, const std::string &host, json j, int code,
           const std::string &message)
{
    if (o.json) {
        j["terminal"] = host;
        j["exit_code"] = code;
        if (!message.empty())
            j["message"] = message;
        print_json(j);
    } else if (code != SWUC_EXIT_OK) {
        error_line(host, message);
    }
    return code;
}

// ------------------------------------------------------------- sessions

// Opens a session to `terminal` from the given ports; with `recall`, an
// unset rx port becomes the last session's when that port is free.
int open_session(swuc_session *s, const client_options &o, const sockaddr_in &terminal, bool recall,
                 std::string *err)
{
    swuc_config cfg;
    cfg.terminal = terminal;
    cfg.reply_timeout_ms = o.reply_timeout_ms;
    cfg.umd_id = "swu-client";
    if (resolve_local(o, &cfg.local_addr) != 0) {
        *err = "bad local address '" + o.local_addr + "'";
        return -1;
    }
    cfg.rx_port = o.rx_port;
    cfg.stream_port = o.stream_port;
    uint16_t rx = 0, stream = 0;
    if (recall && o.rx_port == 0 && recall_ports(terminal, &rx, &stream)) {
        swuc_config remembered = cfg;
        remembered.rx_port = rx;
        if (swuc_open(s, &remembered) == 0)
            return 0;
    }
    if (swuc_open(s, &cfg) != 0) {
        *err = std::string("cannot open the client's sockets: ") + strerror(errno);
        return -1;
    }
    return 0;
}

// ------------------------------------------------------------- discovery

std::vector<swuc_advert> listen_for(const client_options &o, double timeout_s, std::string *err)
{
    std::vector<swuc_advert> found;
    in_addr_t local;
    if (resolve_local(o, &local) != 0) {
        *err = "bad local address '" + o.local_addr + "'";
        return found;
    }
    swuc_listener l;
    if (swuc_listen_open(&l, local) != 0) {
        *err = std::string("cannot join the advertisement group: ") + strerror(errno);
        return found;
    }
    std::map<std::string, swuc_advert> by_addr; // the latest of each terminal
    const int64_t deadline = swuc_now_ms() + static_cast<int64_t>(timeout_s * 1000);
    for (;;) {
        int64_t left = deadline - swuc_now_ms();
        if (left <= 0)
            break;
        swuc_advert a;
        if (swuc_listen_next(&l, &a, static_cast<int>(left)) != 0)
            break;
        by_addr[addr_text(a.sender) + ":" + std::to_string(a.adv.rx_port)] = a;
    }
    swuc_listen_close(&l);
    for (auto &[key, a] : by_addr)
        found.push_back(a);
    return found;
}

// Waits at most `timeout_s` for the advertisement of the terminal at
// `terminal` (its address and protocol port).
bool find_advert(const client_options &o, const sockaddr_in &terminal, double timeout_s,
                 swuc_advert *found)
{
    in_addr_t local;
    swuc_listener l;
    if (resolve_local(o, &local) != 0 || swuc_listen_open(&l, local) != 0)
        return false;
    const int64_t deadline = swuc_now_ms() + static_cast<int64_t>(timeout_s * 1000);
    bool heard = false;
    for (int64_t left; !heard && (left = deadline - swuc_now_ms()) > 0;) {
        if (swuc_listen_next(&l, found, static_cast<int>(left)) != 0)
            break;
        const sockaddr_in at = swuc_advert_terminal(*found);
        heard = at.sin_addr.s_addr == terminal.sin_addr.s_addr && at.sin_port == terminal.sin_port;
    }
    swuc_listen_close(&l);
    return heard;
}

} // namespace

int cmd_discover(const client_options &o, double timeout_s)
{
    std::string err;
    std::vector<swuc_advert> found = listen_for(o, timeout_s, &err);
    if (!err.empty()) {
        fprintf(stderr, "swu-client: %s\n", err.c_str());
        return SWUC_EXIT_LOCAL;
    }
    if (o.json) {
        json list = json::array();
        for (const auto &a : found)
            list.push_back(advert_json(a));
        print_json(list);
    } else if (found.empty()) {
        printf("no terminal heard in %.0f s\n", timeout_s);
    } else {
        std::vector<std::vector<std::string>> rows = {
            {"ADDRESS", "IDENTITY", "INSTALLED", "FACTORY", "CONFIG", "TYPE", "STATE"}};
        for (const auto &a : found) {
            json j = advert_json(a);
            std::string addr = j["address"].get<std::string>();
            if (a.adv.rx_port != PROTO_SWU_PORT)
                addr += ":" + std::to_string(a.adv.rx_port);
            rows.push_back({addr, printable(swuc_advert_id(a.adv)),
                            j["installed_version"].get<std::string>(),
                            j["factory_version"].get<std::string>(), std::to_string(a.adv.conf_ver),
                            j["terminal_type"].get<std::string>(),
                            a.adv.connection_status == SWU_CON_STATUS_AVAIL ? "free" : "busy"});
        }
        fputs(format_table(rows).c_str(), stdout);
    }
    return found.empty() ? SWUC_EXIT_NO_ANSWER : SWUC_EXIT_OK;
}

int cmd_status(const client_options &o, const std::string &host)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    swuc_session s;
    if (open_session(&s, o, terminal, true, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_LOCAL, err);

    json j = json::object();
    std::string connection;
    bool connected = false;
    for (int attempt = 0; attempt < 3 && !connected; attempt++) {
        conection_response_t rsp;
        if (swuc_connect(&s, &rsp) != 0)
            continue;
        j["connection_status"] = rsp.connection_status;
        j["power_source"] = rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery" : "external";
        j["battery"] = rsp.bettery_status;
        j["update_reason_bits"] = rsp.swu_mode_reason_bitfield;
        if (rsp.connection_status == SWU_CON_RES_BATTERY_TOO_LOW)
            return finish(o, host, j, SWUC_EXIT_BATTERY,
                          "battery too low for an update (" + std::to_string(rsp.bettery_status) +
                              " %)");
        if (rsp.connection_status == SWU_CON_RES_CONNECTION_CONFIRMED) {
            connected = true;
            connection = std::string(rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery"
                                                                             : "external power") +
                         ", battery " + std::to_string(rsp.bettery_status) +
                         " %, update reason: " + reason_text(rsp.swu_mode_reason_bitfield);
            remember_ports(terminal, s.port[SWUC_RX], s.port[SWUC_STREAM]);
        } else {
            break; // busy: only its own client gets its status
        }
    }
    // Unconfirmed, the terminal may still be ours (a running update from this
    // machine, or one in its check, installation, error or finish state,
    // which take no connection): it answers status to its client's port.
    swuc_status st;
    if (swuc_get_status(&s, &st) != 0) {
        if (j.contains("connection_status"))
            return finish(o, host, j, SWUC_EXIT_BUSY, "busy: another client is connected");
        return finish(o, host, j, SWUC_EXIT_NO_ANSWER, "no answer");
    }
    if (o.json) {
        j["status"] = status_json(st);
        return finish(o, host, j, SWUC_EXIT_OK, "");
    }
    printf("terminal   %s:%u\n", addr_text(terminal).c_str(), ntohs(terminal.sin_port));
    if (!connection.empty())
        printf("connected  %s\n", connection.c_str());
    printf("stage      %u  %s\n", st.stage_code, printable(st.stage_description).c_str());
    printf("status     %u  %s\n", st.status_code, printable(st.status_message).c_str());
    printf("progress   %u %%, stage %s\n", st.stage_progress,
           st.stage_complete ? "complete" : "not complete");
    printf("battery    %u %%\n", st.battery_status);
    return SWUC_EXIT_OK;
}

namespace
{

// Refuses, before anything is sent, a package that would harm a terminal
// (and one that it would only refuse). SWUC_EXIT_OK to go on, with the
// package's figures in *found; otherwise the exit code and *why.
int check_package(const client_options &o, const std::string &package, pack_report *found,
                  std::string *why)
{
    if (access(package.c_str(), R_OK) != 0) {
        *why = "cannot read '" + package + "': " + strerror(errno);
        return SWUC_EXIT_LOCAL;
    }
    std::string err;
    std::vector<pack_finding> findings;
    if (pack_verify(package, found, &err) != 0)
        findings.push_back({true, "the terminal would refuse it: " + err});
    else
        findings = pack_review(found->members);
    int refused = 0;
    for (const pack_finding &f : findings) {
        if (!o.json)
            fprintf(stderr, "swu-client: %s: %s: %s\n", printable(package).c_str(),
                    f.refuse ? "refused" : "warning", f.text.c_str());
        if (f.refuse && refused++ == 0)
            *why = f.text;
    }
    if (refused == 0)
        return SWUC_EXIT_OK;
    if (o.force) {
        if (!o.json)
            fprintf(stderr, "swu-client: --force: sending it anyway\n");
        return SWUC_EXIT_OK;
    }
    *why = "package refused: " + *why +
           (refused > 1 ? " (and " + std::to_string(refused - 1) + " more)" : "") +
           "; nothing was sent (--force sends it)";
    return SWUC_EXIT_PACKAGE;
}

void warn_reused_name(const client_options &o, const sockaddr_in &terminal, const update_params &u,
                      const pack_report &pkg)
{
    if (o.json || u.name.empty() ||
        !name_carried_another(terminal, u.name, pkg.package_size, pkg.footer_crc))
        return;
    fprintf(stderr,
            "swu-client: warning: the name '%s' carried another package to %s before; the "
            "terminal keeps that file and checks this package against its tail, so the check "
            "is likely to fail. Leave --name out for a fresh name.\n",
            printable(u.name).c_str(), addr_text(terminal).c_str());
}

// The version floor: SWUC_EXIT_OK, or SWUC_EXIT_VERSION with *why.
int version_floor(const client_options &o, const pack_version &installed, const pack_report &pkg,
                  std::string *why)
{
    if (!pkg.has_version)
        return SWUC_EXIT_OK; // the package does not change the advertised version
    const int cmp = pack_version_compare(pkg.version, installed);
    const std::string versions = "the package installs " + pack_version_text(pkg.version) +
                                 ", the terminal runs " + pack_version_text(installed);
    if (cmp < 0 && !o.allow_downgrade) {
        *why = versions + " (--allow-downgrade sends it)";
        return SWUC_EXIT_VERSION;
    }
    if (cmp == 0 && !o.reinstall) {
        *why = versions + " (--reinstall sends it)";
        return SWUC_EXIT_VERSION;
    }
    return SWUC_EXIT_OK;
}

// Connects and lets the session lapse: what an update would meet.
int dry_run(const client_options &o, const std::string &host, const sockaddr_in &terminal, json j)
{
    swuc_session s;
    std::string err;
    if (open_session(&s, o, terminal, false, &err) != 0)
        return finish(o, host, j, SWUC_EXIT_LOCAL, err);
    conection_response_t rsp;
    if (swuc_connect(&s, &rsp) != 0)
        return finish(o, host, j, SWUC_EXIT_NO_ANSWER, "no answer to the connection request");
    const std::string power = rsp.power_source == SWU_PWR_SRC_BATTERY ? "battery" : "external";
    j["power_source"] = power;
    j["battery"] = rsp.bettery_status;
    int code = SWUC_EXIT_OK;
    std::string state = "free";
    if (rsp.connection_status == SWU_CON_RES_ALREADY_CONNECTED) {
        code = SWUC_EXIT_BUSY;
        state = "busy: another client is connected";
    } else if (rsp.connection_status == SWU_CON_RES_BATTERY_TOO_LOW) {
        code = SWUC_EXIT_BATTERY;
        state = "battery too low for an update";
    }
    j["terminal_state"] = state;
    if (!o.json) {
        printf("terminal   %s, %s power, battery %u %%\n", state.c_str(), power.c_str(),
               rsp.bettery_status);
        printf("dry run    %s\n", code == SWUC_EXIT_OK ? "an update would start; nothing was sent"
                                                       : "an update would not start");
    }
    j["result"] = code == SWUC_EXIT_OK ? "would update" : "would fail";
    return finish(o, host, j, code, code == SWUC_EXIT_OK ? "" : state);
}

update_params make_params(const client_options &o, const sockaddr_in &terminal,
                          const std::string &package, const update_params &u)
{
    update_params p = u;
    p.terminal = terminal;
    resolve_local(o, &p.local_addr);
    p.rx_port = o.rx_port;
    p.stream_port = o.stream_port;
    p.package_path = package;
    p.reply_timeout_ms = o.reply_timeout_ms;
    return p;
}

std::string summary(const update_outcome &out)
{
    const double rate = out.stream_seconds > 0
                            ? static_cast<double>(out.progress.acked_bytes) / out.stream_seconds
                            : 0;
    return "updated in " + format_duration(out.total_seconds) + " (stream " +
           format_bytes(static_cast<double>(out.progress.total_bytes)) + " at " +
           format_bytes(rate) + "/s" +
           (out.progress.retransmitted > 0
                ? ", " + std::to_string(out.progress.retransmitted) + " packets resent"
                : "") +
           ")" + (out.reboot_confirmed ? ", rebooting" : "");
}

} // namespace

int cmd_update(const client_options &o, const std::string &host, const std::string &package,
               const update_params &u)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    in_addr_t local;
    if (resolve_local(o, &local) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE,
                      "bad local address '" + o.local_addr + "'");
    pack_report pkg;
    if (int code = check_package(o, package, &pkg, &err); code != SWUC_EXIT_OK)
        return finish(o, host, json::object(), code, err);
    // The installed version comes with the terminal's advertisement (every
    // 3 s).
    json j = {{"package_version", pkg.has_version ? pack_version_text(pkg.version) : ""}};
    swuc_advert adv;
    if (find_advert(o, terminal, 3.5, &adv)) {
        pack_version installed;
        std::copy(adv.adv.curr_sw_v, adv.adv.curr_sw_v + 3, installed.v);
        j["installed_version"] = pack_version_text(installed);
        if (!o.json && o.dry_run)
            printf("versions   package %s, installed %s\n",
                   pkg.has_version ? pack_version_text(pkg.version).c_str() : "(none)",
                   pack_version_text(installed).c_str());
        if (int code = version_floor(o, installed, pkg, &err); code != SWUC_EXIT_OK)
            return finish(o, host, j, code, err);
    } else if (!o.json) {
        printf("installed version unknown (no advertisement heard from %s); not compared\n",
               addr_text(terminal).c_str());
    }
    if (o.dry_run)
        return dry_run(o, host, terminal, j);
    warn_reused_name(o, terminal, u, pkg);
    update_params p = make_params(o, terminal, package, u);
    p.expected_version = pkg.has_version ? pack_version_text(pkg.version) : "";
    update_view view(stdout, isatty(STDOUT_FILENO) != 0, "", nullptr);
    update_events ev = o.json ? update_events{} : view.events();
    if (!o.json)
        view.line("updating " + addr_text(terminal) + " with " + package);
    update_outcome out = run_update(p, ev);
    if (out.rx_port != 0)
        remember_ports(terminal, out.rx_port, out.stream_port);
    remember_name(terminal, out.name, pkg.package_size, pkg.footer_crc);
    if (o.json)
        return finish(o, host, outcome_json(out), out.exit_code, "");
    if (out.exit_code == SWUC_EXIT_OK)
        view.line(summary(out));
    else
        error_line(host, out.message);
    return out.exit_code;
}

int cmd_update_all(const client_options &o, const std::string &package, const update_params &u,
                   double timeout_s, const fleet_opts &fleet, const std::string &report_path)
{
    if (o.rx_port != 0 || o.stream_port != 0) {
        fprintf(stderr, "swu-client: update --all takes ephemeral ports only\n");
        return SWUC_EXIT_USAGE;
    }
    std::string err;
    pack_report pkg;
    if (int code = check_package(o, package, &pkg, &err); code != SWUC_EXIT_OK)
        return finish(o, package, json::object(), code, err);
    std::vector<swuc_advert> found = listen_for(o, timeout_s, &err);
    if (!err.empty()) {
        fprintf(stderr, "swu-client: %s\n", err.c_str());
        return SWUC_EXIT_LOCAL;
    }
    if (found.empty()) {
        if (o.json)
            printf("[]\n");
        else
            fprintf(stderr, "swu-client: no terminal heard in %.0f s\n", timeout_s);
        return SWUC_EXIT_NO_ANSWER;
    }

    struct job {
        swuc_advert advert;
        std::string name;
        bool skipped = false;
        std::string why; // of a skip, or of an update not started
        update_outcome out;
        bool started = false;
        std::string start_time, end_time;
    };
    std::vector<job> jobs(found.size());
    for (size_t i = 0; i < found.size(); i++) {
        jobs[i].advert = found[i];
        jobs[i].name = addr_text(found[i].sender);
        if (found[i].adv.rx_port != PROTO_SWU_PORT)
            jobs[i].name += ":" + std::to_string(found[i].adv.rx_port);
        jobs[i].skipped = found[i].adv.connection_status != SWU_CON_STATUS_AVAIL;
        jobs[i].why = "busy: another client is connected";
        pack_version installed;
        std::copy(found[i].adv.curr_sw_v, found[i].adv.curr_sw_v + 3, installed.v);
        if (!jobs[i].skipped && version_floor(o, installed, pkg, &jobs[i].why) != SWUC_EXIT_OK)
            jobs[i].skipped = true;
    }
    std::vector<job *> startable;
    for (job &jb : jobs)
        if (!jb.skipped)
            startable.push_back(&jb);
    if (!o.json)
        printf("updating %zu of %zu terminals heard, at most %d at once%s\n", startable.size(),
               jobs.size(), fleet.parallel,
               fleet.canary > 0 ? (", " + std::to_string(fleet.canary) + " first").c_str() : "");

    std::mutex out_lock;
    update_params with_version = u;
    with_version.expected_version = pkg.has_version ? pack_version_text(pkg.version) : "";
    std::vector<std::string> not_started;
    swuc_run_fleet(
        startable.size(), fleet,
        [&](size_t i) {
            job &jb = *startable[i];
            sockaddr_in terminal = swuc_advert_terminal(jb.advert);
            update_view view(stdout, false, "[" + jb.name + "] ", &out_lock, 25);
            update_events ev = o.json ? update_events{} : view.events();
            {
                std::lock_guard<std::mutex> guard(out_lock);
                warn_reused_name(o, terminal, u, pkg);
            }
            jb.started = true;
            jb.start_time = utc_now();
            jb.out = run_update(make_params(o, terminal, package, with_version), ev);
            jb.end_time = utc_now();
            {
                std::lock_guard<std::mutex> guard(out_lock);
                remember_name(terminal, jb.out.name, pkg.package_size, pkg.footer_crc);
                // ack-error and reboot after a fleet reach the session's port.
                if (jb.out.rx_port != 0)
                    remember_ports(terminal, jb.out.rx_port, jb.out.stream_port);
            }
            // The view takes the output lock itself.
            if (!o.json)
                view.line(jb.out.exit_code == SWUC_EXIT_OK ? summary(jb.out)
                                                           : "FAILED: " + jb.out.message);
            return jb.out.exit_code == SWUC_EXIT_OK;
        },
        &not_started);
    for (size_t i = 0; i < startable.size(); i++)
        if (!startable[i]->started)
            startable[i]->why = not_started[i];
    std::ofstream report;
    if (!report_path.empty()) {
        report.open(report_path, std::ios::app);
        if (!report)
            fprintf(stderr, "swu-client: cannot write the report '%s'\n", report_path.c_str());
    }

    int failed = 0;
    json list = json::array();
    std::vector<std::vector<std::string>> rows = {
        {"TERMINAL", "IDENTITY", "FROM", "RESULT", "TIME", "EXIT", "DETAIL"}};
    for (const job &jb : jobs) {
        const std::string id = swuc_advert_id(jb.advert.adv);
        const std::string shown_id = printable(id);
        const std::string from = format_version(jb.advert.adv.curr_sw_v);
        json line = {{"identity", id},
                     {"address", jb.name},
                     {"version_before", from},
                     {"version_after", jb.out.version_after},
                     {"package_name", jb.out.name},
                     {"package_crc", pkg.footer_crc},
                     {"start", jb.start_time},
                     {"end", jb.end_time},
                     {"stream_seconds", jb.out.stream_seconds},
                     {"check_seconds", jb.out.check_seconds},
                     {"install_seconds", jb.out.install_seconds},
                     {"confirmation", jb.out.confirmation}};
        if (!jb.started) {
            const char *result = jb.skipped ? "skipped" : "not started";
            rows.push_back({jb.name, shown_id, from, result, "-", "-", jb.why});
            list.push_back(
                {{"terminal", jb.name}, {"identity", id}, {"result", result}, {"why", jb.why}});
            line["outcome"] = std::string(result) + ": " + jb.why;
            line["exit_code"] = nullptr;
        } else {
            const bool ok = jb.out.exit_code == SWUC_EXIT_OK;
            failed += ok ? 0 : 1;
            rows.push_back({jb.name, shown_id, from, ok ? "updated" : "FAILED",
                            format_duration(jb.out.total_seconds), std::to_string(jb.out.exit_code),
                            ok ? (jb.out.confirmation.empty()
                                      ? "not confirmed"
                                      : jb.out.confirmation + " " + jb.out.version_after)
                               : printable(jb.out.message)});
            json j = outcome_json(jb.out);
            j["terminal"] = jb.name;
            j["identity"] = id;
            list.push_back(j);
            line["outcome"] = ok ? "updated" : "failed: " + jb.out.message;
            line["exit_code"] = jb.out.exit_code;
        }
        if (report)
            report << line.dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
    }
    if (o.json)
        print_json(list);
    else
        fputs(("\n" + format_table(rows)).c_str(), stdout);
    const bool all_started =
        std::all_of(startable.begin(), startable.end(), [](const job *j) { return j->started; });
    return failed > 0 || !all_started ? SWUC_EXIT_FLEET : SWUC_EXIT_OK;
}

namespace
{

// Reboot and error acknowledgement: one header-only request, confirmed by
// its response, which the terminal sends to the rx port of its session.
int end_request(const client_options &o, const std::string &host, bool reboot)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    swuc_session s;
    if (open_session(&s, o, terminal, true, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_LOCAL, err);
    for (int attempt = 0; attempt < 3; attempt++) {
        if ((reboot ? swuc_reboot(&s) : swuc_ack_error(&s)) == 0) {
            json j = {{"result", reboot ? "rebooting" : "error acknowledged"}};
            if (!o.json)
                printf("%s: %s\n", host.c_str(),
                       reboot ? "rebooting" : "error acknowledged; the terminal is back at idle");
            return finish(o, host, j, SWUC_EXIT_OK, "");
        }
    }
    return finish(o, host, json::object(), SWUC_EXIT_NO_ANSWER,
                  std::string("no answer: the terminal takes this request only in its ") +
                      (reboot ? "finish" : "error") +
                      " state, from the machine of its session, and answers to that session's "
                      "rx port (--rx-port; the last session's port is used when known)");
}

} // namespace

int cmd_reboot(const client_options &o, const std::string &host)
{
    return end_request(o, host, true);
}

int cmd_ack_error(const client_options &o, const std::string &host)
{
    return end_request(o, host, false);
}

int cmd_check(const client_options &o, const std::string &package)
{
    pack_report pkg;
    std::string err;
    if (access(package.c_str(), R_OK) != 0)
        return finish(o, package, json::object(), SWUC_EXIT_LOCAL,
                      "cannot read '" + package + "': " + strerror(errno));
    const bool intact = pack_verify(package, &pkg, &err) == 0;
    std::vector<pack_finding> findings = pack_review(pkg.members);
    if (!intact)
        findings.insert(findings.begin(), {true, err});
    const bool refused = std::any_of(findings.begin(), findings.end(),
                                     [](const pack_finding &f) { return f.refuse; });
    char crc[16], mcu_crc[16];
    snprintf(crc, sizeof crc, "0x%08X", pkg.footer_crc);
    snprintf(mcu_crc, sizeof mcu_crc, "0x%08X", pkg.mcu_image_crc32);
    if (o.json) {
        json members = json::array(), found = json::array();
        for (const pack_listed &m : pkg.members)
            members.push_back(
                {{"name", m.name}, {"kind", pack_kind_name(m.kind)}, {"size", m.size}});
        for (const pack_finding &f : findings)
            found.push_back({{"refuse", f.refuse}, {"text", f.text}});
        json j = {{"size", pkg.package_size},
                  {"artifacts_bitmask", pkg.artifacts_bitmask},
                  {"footer_crc", pkg.footer_crc},
                  {"payload_crc", pkg.payload_crc},
                  {"members", members},
                  {"findings", found},
                  {"version", pkg.has_version ? pack_version_text(pkg.version) : ""},
                  {"st_bin", pkg.has_mcu_image ? json{{"size", pkg.mcu_image_size},
                                                      {"crc32", pkg.mcu_image_crc32}}
                                               : json(nullptr)},
                  {"signed", !pkg.manifest_sig.empty()},
                  {"result", refused ? "refused" : "ok"}};
        return finish(o, package, j, refused ? SWUC_EXIT_PACKAGE : SWUC_EXIT_OK, "");
    }
    printf("package    %s, %llu bytes\n", printable(package).c_str(),
           static_cast<unsigned long long>(pkg.package_size));
    printf("footer     bitmask 0x%X, crc %s\n", pkg.artifacts_bitmask, crc);
    printf("crc        %s\n", pkg.payload_crc == pkg.footer_crc ? "ok" : "MISMATCH");
    for (const pack_listed &m : pkg.members)
        printf("  %12lld  %s%s%s\n", static_cast<long long>(m.size), printable(m.name).c_str(),
               m.kind == PACK_FILE ? "" : "  ", m.kind == PACK_FILE ? "" : pack_kind_name(m.kind));
    printf("version    %s\n",
           pkg.has_version ? (pack_version_text(pkg.version) + " (\"" +
                              printable(pkg.version_text) + "\" in " + VERSION_ARTIFACT + ")")
                                 .c_str()
                           : "none: the package leaves the advertised version as it is");
    if (pkg.has_mcu_image)
        printf("st.bin     %llu bytes, crc32 %s\n",
               static_cast<unsigned long long>(pkg.mcu_image_size), mcu_crc);
    else
        printf("st.bin     none: the microcontroller is not reprogrammed\n");
    printf("signed     %s\n",
           pkg.manifest_sig.empty() ? "no" : "yes (swu-pack verify --key checks the signer)");
    for (const pack_finding &f : findings)
        printf("%s  %s\n", f.refuse ? "REFUSED" : "warning", f.text.c_str());
    printf("verdict    %s\n",
           refused ? "REFUSED: this package must not be sent" : "ok: the package can be sent");
    return refused ? SWUC_EXIT_PACKAGE : SWUC_EXIT_OK;
}
