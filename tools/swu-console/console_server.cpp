#include "console_server.h"

#include "console_page.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace
{

httplib::Server *g_server = nullptr;
// Ends the event streams, which would otherwise hold the server's workers.
std::atomic<bool> g_stopping{false};

constexpr const char *TOKEN_COOKIE = "swu_console_token";

std::string dump(const json &j)
{
    return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

void reply(httplib::Response &res, int code, const json &j)
{
    res.status = code;
    res.set_content(dump(j), "application/json");
}

void refuse(httplib::Response &res, int code, const std::string &why)
{
    reply(res, code, {{"error", why}});
}

// Constant time: the token must not leak through timing.
bool same(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char d = 0;
    for (size_t i = 0; i < a.size(); i++)
        d |= static_cast<unsigned char>(a[i] ^ b[i]);
    return d == 0;
}

std::string cookie_value(const httplib::Request &req, const std::string &name)
{
    const std::string cookies = req.get_header_value("Cookie");
    for (size_t at = 0; at < cookies.size();) {
        size_t end = cookies.find(';', at);
        if (end == std::string::npos)
            end = cookies.size();
        std::string pair = cookies.substr(at, end - at);
        pair.erase(0, pair.find_first_not_of(' '));
        if (pair.rfind(name + "=", 0) == 0)
            return pair.substr(name.size() + 1);
        at = end + 1;
    }
    return "";
}

class console_http
{
  public:
    console_http(const console_config &cfg, console_state *state, console_backend *backend)
        : cfg_(cfg), state_(state), backend_(backend)
    {
        const std::string port = ":" + std::to_string(cfg.port);
        hosts_ = {cfg.host + port};
        if (console_loopback(cfg.host))
            hosts_.push_back("localhost" + port);
    }

    void install(httplib::Server &srv)
    {
        srv.set_payload_max_length(console_backend::max_package_size());
        srv.set_pre_routing_handler([this](const httplib::Request &req, httplib::Response &res) {
            return guard(req, res) ? httplib::Server::HandlerResponse::Unhandled
                                   : httplib::Server::HandlerResponse::Handled;
        });
        for (size_t i = 0; i < console_page_count; i++) {
            const console_page_file &f = console_page[i];
            srv.Get(f.path, [this, &f](const httplib::Request &req, httplib::Response &res) {
                res.set_content(reinterpret_cast<const char *>(f.data), f.size, f.type);
                res.set_header("Content-Security-Policy",
                               "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
                res.set_header("X-Content-Type-Options", "nosniff");
                // The token arrives once in the address; the cookie carries it
                // on every later request of this page.
                if (!cfg_.token.empty() && req.has_param("token"))
                    res.set_header("Set-Cookie", std::string(TOKEN_COOKIE) + "=" + cfg_.token +
                                                     "; Path=/; HttpOnly; SameSite=Strict");
            });
        }
        srv.Get("/api/state", [this](const httplib::Request &, httplib::Response &res) {
            reply(res, 200, state_->snapshot());
        });
        srv.Get("/api/events",
                [this](const httplib::Request &, httplib::Response &res) { events(res); });
        srv.Get("/api/packages", [this](const httplib::Request &, httplib::Response &res) {
            reply(res, 200, packages());
        });
        srv.Get("/api/check", [this](const httplib::Request &req, httplib::Response &res) {
            std::string path, why;
            const std::string name = req.get_param_value("package");
            if (!resolve(name, &path, &why))
                return refuse(res, 404, why);
            json j = backend().check(path);
            j["package"] = name;
            reply(res, 200, j);
        });
        srv.Post("/api/upload",
                 [this](const httplib::Request &req, httplib::Response &res) { upload(req, res); });
        srv.Post("/api/dry-run", [this](const httplib::Request &req, httplib::Response &res) {
            dry_run(req, res);
        });
        srv.Post("/api/plan",
                 [this](const httplib::Request &req, httplib::Response &res) { plan(req, res); });
        srv.Post("/api/rollout", [this](const httplib::Request &req, httplib::Response &res) {
            rollout(req, res);
        });
        srv.Get("/api/report", [this](const httplib::Request &req, httplib::Response &res) {
            std::string lines;
            uint64_t id = strtoull(req.get_param_value("id").c_str(), nullptr, 10);
            if (!state_->report(id, &lines))
                return refuse(res, 404, "no ended rollout " + std::to_string(id));
            res.set_header("Content-Disposition",
                           "attachment; filename=\"rollout-" + std::to_string(id) + ".jsonl\"");
            res.set_content(lines, "application/x-ndjson");
        });
    }

  private:
    console_backend &backend() { return *backend_; }

    // Host, Origin, the kind of a request body, and the token.
    bool guard(const httplib::Request &req, httplib::Response &res)
    {
        const std::string host = req.get_header_value("Host");
        if (std::find(hosts_.begin(), hosts_.end(), host) == hosts_.end()) {
            refuse(res, 403, "this console answers only to " + hosts_[0]);
            return false;
        }
        if (req.has_header("Origin")) {
            const std::string origin = req.get_header_value("Origin");
            bool ours = false;
            for (const std::string &h : hosts_)
                ours = ours || origin == "http://" + h;
            if (!ours) {
                refuse(res, 403, "requests from other pages are refused");
                return false;
            }
        }
        // A cross-site form can post only the simple kinds of body.
        if (req.method == "POST") {
            const std::string type = req.get_header_value("Content-Type");
            if (type.rfind("application/json", 0) != 0 &&
                type.rfind("application/octet-stream", 0) != 0) {
                refuse(res, 415, "a JSON or package body is expected");
                return false;
            }
        }
        if (cfg_.token.empty())
            return true;
        const std::string given = req.has_param("token") ? req.get_param_value("token")
                                  : req.has_header("X-Console-Token")
                                      ? req.get_header_value("X-Console-Token")
                                      : cookie_value(req, TOKEN_COOKIE);
        if (!same(given, cfg_.token)) {
            refuse(res, 401, "this console needs the token it printed at start");
            return false;
        }
        return true;
    }

    void events(httplib::Response &res)
    {
        res.set_header("Cache-Control", "no-store");
        auto seen = std::make_shared<uint64_t>(~uint64_t{0});
        res.set_chunked_content_provider(
            "text/event-stream", [this, seen](size_t, httplib::DataSink &sink) {
                // Once a second at least, so that silent terminals age on the
                // page; at most five times, however busy the LAN.
                if (*seen != ~uint64_t{0}) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(200));
                    *seen = state_->wait_change(*seen, 800);
                } else {
                    *seen = 0;
                }
                if (state_->stopping() || g_stopping)
                    return false;
                const std::string msg = "data: " + dump(state_->snapshot()) + "\n\n";
                return sink.write(msg.data(), msg.size());
            });
    }

    json packages()
    {
        json list = json::array();
        for (const auto &[dir, prefix] : {std::pair{cfg_.packages_dir, std::string()},
                                          std::pair{cfg_.uploads_dir, std::string("uploaded/")}}) {
            std::error_code ec;
            for (const auto &e : std::filesystem::directory_iterator(dir, ec)) {
                const std::string name = e.path().filename().string();
                std::string path, why;
                if (resolve(prefix + name, &path, &why))
                    list.push_back({{"package", prefix + name},
                                    {"size", std::filesystem::file_size(path, ec)},
                                    {"uploaded", !prefix.empty()}});
            }
        }
        std::sort(list.begin(), list.end(),
                  [](const json &a, const json &b) { return a["package"] < b["package"]; });
        return list;
    }

    // A package the page names: "NAME" in the packages directory or
    // "uploaded/NAME"; a regular file there, never reached through a link.
    bool resolve(const std::string &name, std::string *path, std::string *why)
    {
        std::string dir = cfg_.packages_dir, base = name;
        if (name.rfind("uploaded/", 0) == 0) {
            dir = cfg_.uploads_dir;
            base = name.substr(9);
        }
        if (dir.empty() || !console_backend::package_name_ok(base)) {
            *why = "no package '" + name + "'";
            return false;
        }
        *path = dir + "/" + base;
        struct stat st;
        if (lstat(path->c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            *why = "no package '" + name + "'";
            return false;
        }
        return true;
    }

    void upload(const httplib::Request &req, httplib::Response &res)
    {
        const std::string name = req.get_param_value("name");
        if (!console_backend::package_name_ok(name))
            return refuse(res, 400, "a package name is 1 to 99 letters, digits, '.', '_' or '-'");
        const std::string path = cfg_.uploads_dir + "/" + name;
        const int fd =
            open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
        bool ok = fd >= 0;
        for (size_t at = 0; ok && at < req.body.size();) {
            ssize_t n = write(fd, req.body.data() + at, req.body.size() - at);
            ok = n > 0;
            at += ok ? static_cast<size_t>(n) : 0;
        }
        if (fd >= 0)
            close(fd);
        if (!ok)
            return refuse(res, 500, "cannot keep the upload");
        json j = backend().check(path);
        j["package"] = "uploaded/" + name;
        reply(res, 200, j);
    }

    // The body's package, terminals and policy. False (answered) when bad.
    bool order_of(const httplib::Request &req, httplib::Response &res, rollout_order *o,
                  std::vector<std::string> *keys)
    {
        json body = json::parse(req.body, nullptr, false);
        if (!body.is_object() || !body["terminals"].is_array()) {
            refuse(res, 400, "expected {\"package\", \"terminals\": [...]}");
            return false;
        }
        std::string why;
        o->package = body.value("package", "");
        if (!resolve(o->package, &o->package_path, &why)) {
            refuse(res, 404, why);
            return false;
        }
        for (const json &k : body["terminals"])
            if (k.is_string())
                keys->push_back(k.get<std::string>());
        o->policy.allow_downgrade = body.value("allow_downgrade", false);
        o->policy.reinstall = body.value("reinstall", false);
        o->fleet.canary = std::max(0, body.value("canary", 0));
        o->fleet.max_failures = std::max(0, body.value("max_failures", 0));
        o->fleet.parallel = std::clamp(body.value("parallel", 4), 1, 16);
        o->plan = backend().plan(o->package_path, *keys, o->policy);
        return true;
    }

    void dry_run(const httplib::Request &req, httplib::Response &res)
    {
        rollout_order o;
        std::vector<std::string> keys;
        if (!order_of(req, res, &o, &keys))
            return;
        for (json &t : o.plan)
            if (t["take"] == "update") {
                t["dry_run"] = backend().dry_run(t["key"].get<std::string>());
                state_->learnt(t["key"].get<std::string>(), t["dry_run"]);
            }
        reply(res, 200, {{"package", o.package}, {"terminals", o.plan}});
    }

    // The confirmation step: the plan is shown, and only its id starts it.
    void plan(const httplib::Request &req, httplib::Response &res)
    {
        rollout_order o;
        std::vector<std::string> keys;
        if (!order_of(req, res, &o, &keys))
            return;
        std::lock_guard<std::mutex> g(plan_lock_);
        pending_ = o;
        pending_id_ = console_token().substr(0, 16);
        reply(res, 200, {{"plan", pending_id_}, {"package", o.package}, {"terminals", o.plan}});
    }

    void rollout(const httplib::Request &req, httplib::Response &res)
    {
        json body = json::parse(req.body, nullptr, false);
        const std::string id = body.is_object() ? body.value("plan", "") : "";
        std::lock_guard<std::mutex> g(plan_lock_);
        if (id.empty() || !same(id, pending_id_))
            return refuse(res, 409, "confirm a current plan first");
        if (std::none_of(pending_.plan.begin(), pending_.plan.end(),
                         [](const json &t) { return t["take"] == "update"; }))
            return refuse(res, 409, "the plan updates no terminal");
        std::string why;
        if (!state_->start_rollout(pending_, &why))
            return refuse(res, 409, why);
        pending_id_.clear();
        reply(res, 202, {{"started", true}});
    }

    console_config cfg_;
    console_state *state_;
    console_backend *backend_;
    std::vector<std::string> hosts_;
    std::mutex plan_lock_;
    rollout_order pending_;
    std::string pending_id_;
};

} // namespace

bool console_loopback(const std::string &host)
{
    return host == "localhost" || host.rfind("127.", 0) == 0;
}

std::string console_token()
{
    std::random_device rd; // the system's entropy
    std::string t;
    for (int i = 0; i < 8; i++) {
        char buf[9];
        snprintf(buf, sizeof buf, "%08x", rd());
        t += buf;
    }
    return t;
}

int run_console(const console_config &cfg, console_state *state, console_backend *backend,
                const std::function<bool()> &ready)
{
    httplib::Server srv;
    console_http http(cfg, state, backend);
    http.install(srv);
    if (!srv.bind_to_port(cfg.host, cfg.port)) {
        fprintf(stderr, "swu-console: cannot listen on %s:%d\n", cfg.host.c_str(), cfg.port);
        return 1;
    }
    if (!ready())
        return 1;
    g_server = &srv;
    std::string address = "http://" + cfg.host + ":" + std::to_string(cfg.port) + "/";
    if (!cfg.token.empty())
        address += "?token=" + cfg.token;
    printf("swu-console: open %s\n", address.c_str());
    fflush(stdout);
    srv.listen_after_bind();
    g_server = nullptr;
    return 0;
}

void stop_console()
{
    g_stopping = true;
    if (g_server != nullptr)
        g_server->stop();
}
