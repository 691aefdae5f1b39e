// What swu-client shows: an update's progress (a bar on a terminal, plain
// lines otherwise, prefixed lines for each terminal of a fleet), tables, and
// the machine-readable results.
#pragma once

#include "lib/discovery.h"
#include "lib/package_inspect.h"
#include "lib/stream.h"
#include "lib/update.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

// Shows one update as it runs. With `bar`, the stream redraws one line in
// place; otherwise a line is printed every `line_step` percent. Every line
// starts with `prefix`. `lock` (may be null) serialises the output of
// several updates.
class update_view
{
  public:
    update_view(FILE *out, bool bar, std::string prefix, std::mutex *lock, int line_step = 10);

    // Events that print to this view.
    update_events events();

    void line(const std::string &text);

  private:
    void on_progress(const swuc_progress &p);
    void on_stream_done();
    void on_status(const swuc_status &st);
    void end_bar();

    FILE *out_;
    bool bar_;
    std::string prefix_;
    std::mutex *lock_;
    int line_step_;
    bool bar_open_ = false;
    int64_t stream_start_ms_ = 0;
    int last_step_ = -1;
    int last_stage_ = -1;
};

// "2026-11-23T13:49:47Z", the times of the rollout report.
std::string utc_now();

// "1.5 MiB", "812 KiB", "17 B".
std::string format_bytes(double bytes);
// "0:07", "12:03", "1:02:03".
std::string format_duration(double seconds);
// Stream rate and time left, from the figures so far; the rate is 0 until
// something was acknowledged.
double progress_rate(const swuc_progress &p, double elapsed_s);

// Columns padded to their widest cell; the first row is the heading.
std::string format_table(const std::vector<std::vector<std::string>> &rows);

nlohmann::json status_json(const swuc_status &st);
nlohmann::json outcome_json(const update_outcome &o);
nlohmann::json advert_json(const swuc_advert &a);

// One terminal of a rollout, as its report line tells it.
struct report_entry {
    swuc_advert advert;
    std::string name; // "ADDRESS" or "ADDRESS:PORT"
    bool skipped = false;
    bool started = false;
    std::string why; // of a skip, or of an update not started
    update_outcome out;
    std::string start_time, end_time;
};
// One line of the rollout report (`--report`).
nlohmann::json report_line(const report_entry &e, uint32_t package_crc);
