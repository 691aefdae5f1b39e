// The console's one door to the host library: discovery, the package check,
// the update policy, the update of one terminal and the fleet rollout. The
// rest of the console sees JSON and plain values only, so that the library
// can change shape behind this file.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct console_policy {
    bool allow_downgrade = false;
    bool reinstall = false;
};

struct console_fleet {
    int parallel = 4;
    int canary = 0;
    int max_failures = 0;
};

// What one update tells while it runs.
struct console_events {
    std::function<void(const std::string &step)> step;
    // Bytes acknowledged and in all, seconds since the stream started.
    std::function<void(uint64_t acked, uint64_t total, double seconds)> stream;
    std::function<void(const nlohmann::json &status)> status; // as `status --json` shows it
    std::function<void(const std::string &line)> note;
};

class console_backend
{
  public:
    // `local_addr`: the address of the interface to listen and send on ("" any).
    explicit console_backend(const std::string &local_addr);
    ~console_backend();
    console_backend(const console_backend &) = delete;
    console_backend &operator=(const console_backend &) = delete;

    // Joins the advertisement group. False with *err when it can't.
    bool listen(std::string *err);
    // The next advertisement within `timeout_ms`, as `discover --json` shows
    // it plus "key" ("ADDRESS:PORT"); false when none came.
    bool next_advert(int timeout_ms, nlohmann::json *terminal);

    // The package at `path` as `check --json` shows it ("result" "ok" or
    // "refused").
    nlohmann::json check(const std::string &path);

    // The rollout of the package at `path` to the terminals `keys` as their
    // latest advertisements and the policy decide: per terminal "take"
    // ("update", "skip"), "why", "from", "to".
    nlohmann::json plan(const std::string &path, const std::vector<std::string> &keys,
                        const console_policy &p);

    // Connects to the terminal and lets the session lapse: what an update
    // would meet. {"exit_code", "state", "battery", "power_source",
    // "reasons"}: the update-mode reason comes only with a connection.
    nlohmann::json dry_run(const std::string &key);

    // Updates the terminal `key` with the package at `path`. The outcome as
    // `update --json` shows it, and its report line in *report.
    nlohmann::json update(const std::string &key, const std::string &path, const console_events &ev,
                          nlohmann::json *report);

    // Runs update(i) for jobs 0..n-1 as `f` allows; each job not started
    // gets its reason in (*why)[i].
    void fleet(size_t n, const console_fleet &f, const std::function<bool(size_t)> &update,
               std::vector<std::string> *why);

    // The report line of a terminal the rollout left alone.
    nlohmann::json report_skipped(const std::string &key, const std::string &path, bool skipped,
                                  const std::string &why);

    // The largest package a terminal takes.
    static uint64_t max_package_size();
    // Whether `name` is a file name the console accepts for a package.
    static bool package_name_ok(const std::string &name);

  private:
    struct impl;
    std::unique_ptr<impl> d_;
};
