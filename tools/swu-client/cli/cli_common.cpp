#include "cli_common.h"

#include "command_line.h"

#include "client_output.h"
#include "common/printable.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <netdb.h>

using nlohmann::json;

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

std::string addr_text(const sockaddr_in &sa)
{
    char buf[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sa.sin_addr, buf, sizeof(buf));
    return buf;
}

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

void print_json(const json &j)
{
    printf("%s\n", j.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
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

void note_foreign(const client_options &o, const std::string &host, uint64_t foreign)
{
    if (o.verbose && !o.json)
        fprintf(stderr, "swu-client: %s: %llu datagrams dropped: not from the terminal\n",
                printable(host).c_str(), static_cast<unsigned long long>(foreign));
}

int open_session(swuc_session *s, const client_options &o, const remembered_terminal &t,
                 bool recall, std::string *err)
{
    swuc_config cfg;
    cfg.terminal = t.address;
    cfg.reply_timeout_ms = o.reply_timeout_ms;
    cfg.umd_id = "swu-client";
    if (resolve_local(o, &cfg.local_addr) != 0) {
        *err = "bad local address '" + o.local_addr + "'";
        return -1;
    }
    cfg.rx_port = o.rx_port;
    cfg.stream_port = o.stream_port;
    uint16_t rx = 0, stream = 0;
    if (recall && o.rx_port == 0 && swuc_recall_ports(t, &rx, &stream)) {
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

remembered_terminal identify(const client_options &o, const sockaddr_in &terminal, double timeout_s)
{
    remembered_terminal t;
    t.address = terminal;
    swuc_advert a;
    if (find_advert(o, terminal, timeout_s, &a))
        t.identity = swuc_advert_id(a.adv);
    return t;
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

int end_request(const client_options &o, const std::string &host, bool reboot)
{
    sockaddr_in terminal;
    std::string err;
    if (resolve_terminal(host, &terminal, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_USAGE, err);
    swuc_session s;
    if (open_session(&s, o, identify(o, terminal, IDENTIFY_SECONDS), true, &err) != 0)
        return finish(o, host, json::object(), SWUC_EXIT_LOCAL, err);
    for (int attempt = 0; attempt < 3; attempt++) {
        if ((reboot ? swuc_reboot(&s) : swuc_ack_error(&s)) == 0) {
            note_foreign(o, host, s.foreign);
            json j = {{"result", reboot ? "rebooting" : "error acknowledged"}};
            if (!o.json)
                printf("%s: %s\n", host.c_str(),
                       reboot ? "rebooting" : "error acknowledged; the terminal is back at idle");
            return finish(o, host, j, SWUC_EXIT_OK, "");
        }
    }
    note_foreign(o, host, s.foreign);
    return finish(o, host, json::object(), SWUC_EXIT_NO_ANSWER,
                  std::string("no answer: the terminal takes this request only in its ") +
                      (reboot ? "finish" : "error") +
                      " state, from the machine of its session, and answers to that session's "
                      "rx port (--rx-port; the last session's port is used when known)");
}

void add_common_options(CLI::App *cmd, client_options &o, bool ports)
{
    cmd->add_option("--local", o.local_addr,
                    "local IPv4 address to send from and to join the advertisement group on");
    cmd->add_flag("--json", o.json, "print one machine-readable result (JSON) and nothing else");
    cmd->add_flag("-v,--verbose", o.verbose,
                  "also say how many datagrams were dropped for not coming from the "
                  "terminal's address and port");
    cmd->add_option("--reply-timeout", o.reply_timeout_ms, "milliseconds to wait for each answer")
        ->check(CLI::Range(50, 60000));
    if (ports) {
        cmd->add_option("--rx-port", o.rx_port,
                        "local UDP port for connection, status, reboot and restart answers "
                        "(default: ephemeral)");
        cmd->add_option("--stream-port", o.stream_port,
                        "local UDP port for the stream's answers (default: ephemeral)");
    }
}
