#include "client_output.h"

#include "common/printable.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <ctime>

namespace
{

constexpr int BAR_WIDTH = 30;

std::string fmt(const char *format, double v)
{
    char buf[64];
    snprintf(buf, sizeof(buf), format, v);
    return buf;
}

} // namespace

std::string format_bytes(double bytes)
{
    if (bytes >= 1024.0 * 1024 * 1024)
        return fmt("%.2f GiB", bytes / (1024.0 * 1024 * 1024));
    if (bytes >= 1024.0 * 1024)
        return fmt("%.1f MiB", bytes / (1024.0 * 1024));
    if (bytes >= 1024.0)
        return fmt("%.0f KiB", bytes / 1024.0);
    return fmt("%.0f B", bytes);
}

std::string format_duration(double seconds)
{
    long s = std::lround(std::max(seconds, 0.0));
    char buf[32];
    if (s >= 3600)
        snprintf(buf, sizeof(buf), "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(buf, sizeof(buf), "%ld:%02ld", s / 60, s % 60);
    return buf;
}

double progress_rate(const swuc_progress &p, double elapsed_s)
{
    return elapsed_s > 0 ? static_cast<double>(p.acked_bytes) / elapsed_s : 0.0;
}

std::string format_table(const std::vector<std::vector<std::string>> &rows)
{
    std::vector<size_t> width;
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++) {
            if (width.size() <= i)
                width.push_back(0);
            width[i] = std::max(width[i], row[i].size());
        }
    std::string text;
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            line += row[i];
            if (i + 1 < row.size())
                line += std::string(width[i] - row[i].size() + 2, ' ');
        }
        text += line + "\n";
    }
    return text;
}

update_view::update_view(FILE *out, bool bar, std::string prefix, std::mutex *lock, int line_step)
    : out_(out), bar_(bar), prefix_(std::move(prefix)), lock_(lock), line_step_(line_step)
{
}

update_events update_view::events()
{
    update_events ev;
    ev.note = [this](const std::string &text) { line(text); };
    ev.progress = [this](const swuc_progress &p) { on_progress(p); };
    ev.stream_done = [this] { on_stream_done(); };
    ev.status = [this](const swuc_status &st) { on_status(st); };
    return ev;
}

void update_view::end_bar()
{
    if (bar_open_) {
        fputc('\n', out_);
        bar_open_ = false;
    }
}

void update_view::line(const std::string &text)
{
    std::unique_lock<std::mutex> guard;
    if (lock_ != nullptr)
        guard = std::unique_lock<std::mutex>(*lock_);
    end_bar();
    fprintf(out_, "%s%s\n", prefix_.c_str(), printable(text).c_str());
    fflush(out_);
}

void update_view::on_progress(const swuc_progress &p)
{
    const int64_t now = swuc_now_ms();
    if (stream_start_ms_ == 0) {
        stream_start_ms_ = now;
        last_step_ = -1;
    }
    const double elapsed = static_cast<double>(now - stream_start_ms_) / 1000.0;
    const double rate = progress_rate(p, elapsed);
    const double fraction =
        p.total_bytes > 0 ? static_cast<double>(p.acked_bytes) / static_cast<double>(p.total_bytes)
                          : 1.0;
    const int percent = static_cast<int>(fraction * 100.0);
    const bool done = p.acked_bytes == p.total_bytes;
    std::string figures = std::to_string(percent) + "%  " +
                          format_bytes(static_cast<double>(p.acked_bytes)) + " of " +
                          format_bytes(static_cast<double>(p.total_bytes));
    if (rate > 0)
        figures += "  " + format_bytes(rate) + "/s";
    if (!done)
        figures +=
            "  " +
            (rate > 0 ? format_duration(static_cast<double>(p.total_bytes - p.acked_bytes) / rate)
                      : std::string("-:--")) +
            " left";
    if (p.retransmitted > 0)
        figures += "  (" + std::to_string(p.retransmitted) + " resent)";

    std::unique_lock<std::mutex> guard;
    if (lock_ != nullptr)
        guard = std::unique_lock<std::mutex>(*lock_);
    if (bar_) {
        const int filled = static_cast<int>(fraction * BAR_WIDTH);
        std::string bar(static_cast<size_t>(filled), '#');
        bar.resize(BAR_WIDTH, '.');
        // Redrawn in place; the erase clears what a longer line left behind.
        fprintf(out_, "\r%s[%s] %s\033[K", prefix_.c_str(), bar.c_str(), figures.c_str());
        bar_open_ = true;
        fflush(out_);
        return;
    }
    const int step = percent / line_step_;
    if (step != last_step_ && (rate > 0 || done)) {
        last_step_ = step;
        fprintf(out_, "%sstream %s\n", prefix_.c_str(), figures.c_str());
        fflush(out_);
    }
}

void update_view::on_stream_done()
{
    std::unique_lock<std::mutex> guard;
    if (lock_ != nullptr)
        guard = std::unique_lock<std::mutex>(*lock_);
    end_bar();
    stream_start_ms_ = 0;
}

void update_view::on_status(const swuc_status &st)
{
    if (static_cast<int>(st.stage_code) == last_stage_)
        return;
    last_stage_ = static_cast<int>(st.stage_code);
    const char *what = nullptr;
    switch (st.stage_code) {
    case SM_STATE_VERIFY:
        what = "verifying the package";
        break;
    case SM_STATE_UPGRADE:
        what = "installing";
        break;
    case SM_STATE_FINISH:
        what = "installed";
        break;
    case SM_STATE_ERROR:
        what = "error";
        break;
    default:
        break;
    }
    if (what != nullptr)
        line(std::string(what) + ": " + st.stage_description);
}

nlohmann::json status_json(const swuc_status &st)
{
    return {{"battery_status", st.battery_status},       {"status_code", st.status_code},
            {"status_message", st.status_message},       {"stage_code", st.stage_code},
            {"stage_description", st.stage_description}, {"stage_progress", st.stage_progress},
            {"stage_complete", st.stage_complete}};
}

nlohmann::json outcome_json(const update_outcome &o)
{
    const double rate =
        o.stream_seconds > 0 ? static_cast<double>(o.progress.acked_bytes) / o.stream_seconds : 0;
    nlohmann::json j = {{"result", o.exit_code == SWUC_EXIT_OK ? "updated" : "failed"},
                        {"exit_code", o.exit_code},
                        {"message", o.message},
                        {"step", o.step},
                        {"attempts", o.attempts},
                        {"bytes", o.progress.total_bytes},
                        {"packets", o.progress.total_packets},
                        {"retransmitted", o.progress.retransmitted},
                        {"ack_timeouts", o.progress.timeouts},
                        {"stream_seconds", o.stream_seconds},
                        {"stream_bytes_per_second", std::round(rate)},
                        {"total_seconds", o.total_seconds},
                        {"reboot_confirmed", o.reboot_confirmed},
                        {"confirmation", o.confirmation},
                        {"version_after", o.version_after},
                        {"check_seconds", o.check_seconds},
                        {"install_seconds", o.install_seconds},
                        {"package_name", o.name},
                        {"package_crc", o.package_crc},
                        {"foreign", o.foreign}};
    j["status"] = o.have_status ? status_json(o.last_status) : nlohmann::json(nullptr);
    return j;
}

nlohmann::json advert_json(const swuc_advert &a)
{
    char addr[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a.sender.sin_addr, addr, sizeof(addr));
    const self_adv_t &adv = a.adv;
    return {{"address", addr},
            {"port", adv.rx_port},
            {"identity", swuc_advert_id(adv)},
            {"installed_version", pkg_version_text(adv.curr_sw_v)},
            {"factory_version", pkg_version_text(adv.factory_sw_v)},
            {"config_version", adv.conf_ver},
            {"terminal_type", adv.term_type == SWU_TERM_TYPE_STATIC ? "static" : "dynamic"},
            {"busy", adv.connection_status != SWU_CON_STATUS_AVAIL}};
}

nlohmann::json report_line(const report_entry &e, uint32_t package_crc)
{
    const update_outcome &out = e.out;
    nlohmann::json line = {{"identity", swuc_advert_id(e.advert.adv)},
                           {"address", e.name},
                           {"version_before", pkg_version_text(e.advert.adv.curr_sw_v)},
                           {"version_after", out.version_after},
                           {"package_name", out.name},
                           {"package_crc", package_crc},
                           {"start", e.start_time},
                           {"end", e.end_time},
                           {"stream_seconds", out.stream_seconds},
                           {"check_seconds", out.check_seconds},
                           {"install_seconds", out.install_seconds},
                           {"confirmation", out.confirmation}};
    if (!e.started) {
        const char *result = e.skipped ? "skipped" : "not started";
        line["outcome"] = std::string(result) + ": " + e.why;
        line["exit_code"] = nullptr;
    } else {
        const bool ok = out.exit_code == SWUC_EXIT_OK;
        line["outcome"] = ok ? "updated" : "failed: " + out.message;
        line["exit_code"] = out.exit_code;
    }
    return line;
}

std::string utc_now()
{
    char text[32];
    time_t now = time(nullptr);
    struct tm tm;
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &tm));
    return text;
}
