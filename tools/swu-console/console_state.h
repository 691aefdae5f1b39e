// What the console knows and shows: the terminals heard, the rollout that
// runs (one at a time) and the last ones that ended. Every change bumps a
// counter that the event streams wait on; each then sends the whole
// snapshot, which is small.
#pragma once

#include "console_backend.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A confirmed plan: the terminals the technician agreed to update.
struct rollout_order {
    std::string package;      // as the page names it
    std::string package_path; // on disk
    nlohmann::json plan;      // console_backend::plan
    console_policy policy;
    console_fleet fleet;
};

class console_state
{
  public:
    explicit console_state(console_backend *backend);
    ~console_state();

    // Listens for advertisements until the console ends. False with *err.
    bool start(std::string *err);
    void stop();

    nlohmann::json snapshot();
    // Waits until the state changed after `seen` or `timeout_ms` passed;
    // the current counter. Returns at once when the console stops.
    uint64_t wait_change(uint64_t seen, int timeout_ms);
    bool stopping() const { return stopping_; }

    // Starts the rollout in a thread of its own, so that no page (open or
    // closed) holds it. False, with *why, while another runs.
    bool start_rollout(const rollout_order &order, std::string *why);
    bool rollout_running();
    // Keeps what a dry run learnt of a terminal (its update-mode reason).
    void learnt(const std::string &key, const nlohmann::json &dry_run);
    // The report of rollout `id` (JSON lines), false when there is none.
    bool report(uint64_t id, std::string *lines);

  private:
    void listen_loop();
    void run_rollout(rollout_order order);
    // Applies `change` to the running rollout's entry for `key`.
    void touch(const std::string &key, const std::function<void(nlohmann::json &)> &change);
    void changed(); // with lock_ held

    console_backend *backend_;
    std::mutex lock_;
    std::condition_variable change_;
    uint64_t version_ = 0;
    std::atomic<bool> stopping_{false};
    nlohmann::json terminals_ = nlohmann::json::object(); // key -> advertisement, "heard_ms"
    nlohmann::json rollout_;                              // the running or last one; null: none
    bool running_ = false;
    std::vector<nlohmann::json> history_; // ended rollouts, newest last
    uint64_t next_id_ = 1;
    std::thread listener_, runner_;
};
