// update --all PACKAGE: every free terminal heard (or every known one), in
// waves as the fleet options allow, a table of the outcomes and a report.
#include "cli_common.h"
#include "client_output.h"
#include "common/printable.h"
#include "lib/fleet.h"
#include "lib/policy.h"

#include <algorithm>
#include <fstream>
#include <mutex>

using nlohmann::json;

namespace
{

// A terminal of the rollout: its report entry and how the plan took it.
struct job : report_entry {
    fleet_take take = FLEET_TAKE;
};

} // namespace

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

    std::vector<std::string> why;
    const std::vector<fleet_take> take = swuc_fleet_plan(found, o.known, o.policy, pkg, &why);
    std::vector<job> jobs(found.size());
    std::vector<job *> startable;
    size_t strangers = 0;
    for (size_t i = 0; i < found.size(); i++) {
        jobs[i].advert = found[i];
        jobs[i].name = addr_text(found[i].sender);
        if (found[i].adv.rx_port != PROTO_SWU_PORT)
            jobs[i].name += ":" + std::to_string(found[i].adv.rx_port);
        jobs[i].take = take[i];
        jobs[i].skipped = take[i] == FLEET_SKIP;
        jobs[i].why = why[i];
        if (take[i] == FLEET_TAKE)
            startable.push_back(&jobs[i]);
        strangers += take[i] == FLEET_STRANGER ? 1 : 0;
    }
    if (!o.json)
        printf("updating %zu of %zu terminals heard, at most %d at once%s\n", startable.size(),
               jobs.size() - strangers, fleet.parallel,
               fleet.canary > 0 ? (", " + std::to_string(fleet.canary) + " first").c_str() : "");

    std::mutex out_lock;
    update_params with_version = u;
    with_version.expected_version = pkg.has_version ? pkg_version_text(pkg.version) : "";
    std::vector<std::string> not_started;
    swuc_run_fleet(
        startable.size(), fleet,
        [&](size_t i) {
            job &jb = *startable[i];
            remembered_terminal t;
            t.address = swuc_advert_terminal(jb.advert);
            t.identity = swuc_advert_id(jb.advert.adv);
            update_view view(stdout, false, "[" + jb.name + "] ", &out_lock, 25);
            update_events ev = o.json ? update_events{} : view.events();
            {
                std::lock_guard<std::mutex> guard(out_lock);
                warn_reused_name(o, t, u, pkg);
            }
            update_params p = make_params(o, t.address, package, with_version);
            p.expected_identity = t.identity;
            jb.started = true;
            jb.start_time = utc_now();
            jb.out = run_update(p, ev);
            jb.end_time = utc_now();
            {
                std::lock_guard<std::mutex> guard(out_lock);
                swuc_remember_name(t, jb.out.name, pkg.package_size, pkg.footer_crc);
                // ack-error and reboot after a fleet reach the session's port.
                if (jb.out.rx_port != 0)
                    swuc_remember_ports(t, jb.out.rx_port, jb.out.stream_port);
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
    uint64_t foreign = 0;
    json list = json::array(), apart = json::array();
    std::vector<std::vector<std::string>> rows = {
        {"TERMINAL", "IDENTITY", "FROM", "RESULT", "TIME", "EXIT", "DETAIL"}};
    std::vector<std::vector<std::string>> stranger_rows = {{"ADDRESS", "IDENTITY", "WHY"}};
    for (const job &jb : jobs) {
        const std::string id = swuc_advert_id(jb.advert.adv);
        const std::string shown_id = printable(id);
        const std::string from = pkg_version_text(jb.advert.adv.curr_sw_v);
        foreign += jb.out.foreign;
        if (jb.take == FLEET_STRANGER) {
            stranger_rows.push_back({jb.name, shown_id, jb.why});
            apart.push_back({{"terminal", jb.name},
                             {"identity", id},
                             {"result", "not known"},
                             {"why", jb.why}});
            continue;
        }
        if (!jb.started) {
            const char *result = jb.take == FLEET_SKIP ? "skipped" : "not started";
            rows.push_back({jb.name, shown_id, from, result, "-", "-", jb.why});
            list.push_back(
                {{"terminal", jb.name}, {"identity", id}, {"result", result}, {"why", jb.why}});
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
        }
        if (report)
            report << report_line(jb, pkg.footer_crc)
                          .dump(-1, ' ', false, json::error_handler_t::replace)
                   << "\n";
    }
    note_foreign(o, "update --all", foreign);
    if (o.json) {
        for (json &j : apart)
            list.push_back(j);
        print_json(list);
    } else {
        fputs(("\n" + format_table(rows)).c_str(), stdout);
        if (strangers > 0)
            fputs(("\nheard, but not known terminals (left alone):\n" + format_table(stranger_rows))
                      .c_str(),
                  stdout);
    }
    const bool all_started =
        std::all_of(startable.begin(), startable.end(), [](const job *j) { return j->started; });
    return failed > 0 || !all_started ? SWUC_EXIT_FLEET : SWUC_EXIT_OK;
}
