#include "console_state.h"

#include "swu-client/cli/client_output.h"

#include <chrono>

using nlohmann::json;

namespace
{

constexpr size_t HISTORY = 10;     // ended rollouts kept
constexpr size_t STATUS_LINES = 6; // of each terminal's status texts
constexpr size_t MAX_TERMINALS = 256;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The terminal's stage codes of its check and installation, as the page's
// phases.
const char *phase_of_stage(unsigned stage_code)
{
    switch (stage_code) {
    case 3:
        return "verify";
    case 4:
    case 6:
        return "install";
    default:
        return nullptr;
    }
}

} // namespace

console_state::console_state(console_backend *backend) : backend_(backend) {}

console_state::~console_state()
{
    stop();
}

bool console_state::start(std::string *err)
{
    if (!backend_->listen(err))
        return false;
    listener_ = std::thread([this] { listen_loop(); });
    return true;
}

void console_state::stop()
{
    stopping_ = true;
    change_.notify_all();
    if (listener_.joinable())
        listener_.join();
    // A rollout runs to its end: a terminal left mid-update would wait out
    // its session and fall back to idle, or restart by itself when finished.
    if (runner_.joinable())
        runner_.join();
}

void console_state::changed()
{
    version_++;
    change_.notify_all();
}

void console_state::listen_loop()
{
    while (!stopping_) {
        json t;
        if (!backend_->next_advert(500, &t))
            continue;
        std::lock_guard<std::mutex> g(lock_);
        const std::string key = t["key"];
        // Advertisements are anyone's claim: a flood of made-up terminals
        // displaces the longest silent, never grows the table.
        if (!terminals_.contains(key) && terminals_.size() >= MAX_TERMINALS) {
            auto oldest = terminals_.begin();
            for (auto it = terminals_.begin(); it != terminals_.end(); ++it)
                if ((*it)["heard_ms"] < (*oldest)["heard_ms"])
                    oldest = it;
            terminals_.erase(oldest);
        }
        t["heard_ms"] = now_ms();
        terminals_[key] = t;
        changed();
    }
}

json console_state::snapshot()
{
    std::lock_guard<std::mutex> g(lock_);
    const int64_t now = now_ms();
    json list = json::array();
    for (auto &[key, t] : terminals_.items()) {
        json shown = t;
        shown["silent_s"] = static_cast<double>(now - t["heard_ms"].get<int64_t>()) / 1000.0;
        shown.erase("heard_ms");
        list.push_back(shown);
    }
    json past = json::array();
    for (const json &r : history_)
        past.push_back({{"id", r["id"]},
                        {"package", r["package"]},
                        {"started", r["started"]},
                        {"ended", r["ended"]},
                        {"summary", r["summary"]}});
    return {{"terminals", list}, {"rollout", rollout_}, {"history", past}, {"version", version_}};
}

uint64_t console_state::wait_change(uint64_t seen, int timeout_ms)
{
    std::unique_lock<std::mutex> g(lock_);
    change_.wait_for(g, std::chrono::milliseconds(timeout_ms),
                     [&] { return version_ != seen || stopping_; });
    return version_;
}

bool console_state::rollout_running()
{
    std::lock_guard<std::mutex> g(lock_);
    return running_;
}

void console_state::learnt(const std::string &key, const json &dry_run)
{
    std::lock_guard<std::mutex> g(lock_);
    if (terminals_.contains(key) && dry_run.contains("reasons")) {
        terminals_[key]["reasons"] = dry_run["reasons"];
        changed();
    }
}

bool console_state::start_rollout(const rollout_order &order, std::string *why)
{
    std::lock_guard<std::mutex> g(lock_);
    if (running_) {
        *why = "a rollout is already running (" + rollout_["package"].get<std::string>() +
               "); wait for it to end";
        return false;
    }
    const uint64_t id = next_id_++;
    json terminals = json::array();
    for (const json &p : order.plan) {
        json t = p;
        t["phase"] = p["take"] == "update" ? "waiting" : "skipped";
        t["failed"] = false;
        t["statuses"] = json::array();
        terminals.push_back(t);
    }
    rollout_ = {{"id", id},
                {"package", order.package},
                {"started", utc_now()},
                {"ended", nullptr},
                {"running", true},
                {"canary", order.fleet.canary},
                {"max_failures", order.fleet.max_failures},
                {"terminals", terminals},
                {"report", json::array()},
                {"summary", ""}};
    running_ = true;
    changed();
    if (runner_.joinable())
        runner_.join(); // the last one has ended: running_ was false
    runner_ = std::thread([this, order] { run_rollout(order); });
    return true;
}

void console_state::touch(const std::string &key, const std::function<void(json &)> &change)
{
    std::lock_guard<std::mutex> g(lock_);
    for (json &t : rollout_["terminals"])
        if (t["key"] == key) {
            change(t);
            changed();
            return;
        }
}

void console_state::run_rollout(rollout_order order)
{
    std::vector<std::string> keys;
    for (const json &p : order.plan)
        if (p["take"] == "update")
            keys.push_back(p["key"].get<std::string>());
    std::vector<std::string> not_started;
    std::vector<json> lines(keys.size());
    std::vector<bool> started(keys.size(), false);
    backend_->fleet(
        keys.size(), order.fleet,
        [&](size_t i) {
            const std::string &key = keys[i];
            started[i] = true;
            console_events ev;
            ev.step = [&](const std::string &step) {
                touch(key, [&](json &t) {
                    // The install step's phases come with the status reports.
                    if (step != "install" && step != "done")
                        t["phase"] = step;
                });
            };
            ev.stream = [&](uint64_t acked, uint64_t total, double seconds) {
                const double rate = seconds > 0 ? static_cast<double>(acked) / seconds : 0;
                const double eta = rate > 0 ? static_cast<double>(total - acked) / rate : -1;
                touch(key, [&](json &t) {
                    t["stream"] = {
                        {"acked", acked}, {"total", total}, {"rate", rate}, {"eta", eta}};
                });
            };
            ev.status = [&](const json &st) {
                touch(key, [&](json &t) {
                    if (const char *phase = phase_of_stage(st["stage_code"].get<unsigned>()))
                        t["phase"] = phase;
                    t["status"] = st;
                });
            };
            ev.note = [&](const std::string &line) {
                touch(key, [&](json &t) {
                    json &s = t["statuses"];
                    s.push_back(line);
                    if (s.size() > STATUS_LINES)
                        s.erase(s.begin());
                });
            };
            json report;
            json out = backend_->update(key, order.package_path, ev, &report);
            const bool ok = out["exit_code"] == 0;
            lines[i] = report;
            touch(key, [&](json &t) {
                t["outcome"] = out;
                t["failed"] = !ok;
                if (ok)
                    t["phase"] = out["confirmation"] == "confirmed" ? "confirmed" : "done";
            });
            return ok;
        },
        &not_started);

    std::lock_guard<std::mutex> g(lock_);
    json report = json::array();
    int updated = 0, failed = 0;
    for (json &t : rollout_["terminals"]) {
        const std::string key = t["key"];
        size_t i = 0;
        while (i < keys.size() && keys[i] != key)
            i++;
        if (i < keys.size() && started[i]) {
            report.push_back(lines[i]);
            (t["failed"].get<bool>() ? failed : updated)++;
        } else {
            const bool skipped = i == keys.size();
            const std::string why = skipped ? t["why"].get<std::string>() : not_started[i];
            t["phase"] = skipped ? "skipped" : "not started";
            t["why"] = why;
            report.push_back(backend_->report_skipped(key, order.package_path, skipped, why));
        }
    }
    rollout_["report"] = report;
    rollout_["running"] = false;
    rollout_["ended"] = utc_now();
    rollout_["summary"] = std::to_string(updated) + " updated, " + std::to_string(failed) +
                          " failed, " + std::to_string(report.size() - updated - failed) +
                          " left alone";
    history_.push_back(rollout_);
    if (history_.size() > HISTORY)
        history_.erase(history_.begin());
    running_ = false;
    changed();
}

bool console_state::report(uint64_t id, std::string *lines)
{
    std::lock_guard<std::mutex> g(lock_);
    for (const json &r : history_)
        if (r["id"] == id) {
            lines->clear();
            for (const json &l : r["report"])
                *lines += l.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
            return true;
        }
    return false;
}
