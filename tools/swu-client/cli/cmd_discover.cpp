// discover: the terminals heard on the advertisement group.
#include "cli_common.h"
#include "client_output.h"
#include "command_line.h"
#include "common/printable.h"

using nlohmann::json;

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

command_run define_discover(CLI::App &app, command_line &cl)
{
    CLI::App *discover =
        app.add_subcommand("discover", "list the terminals heard on 227.0.0.0:12225");
    discover
        ->add_option("--timeout", cl.timeout_s, "seconds to listen (advertisements come every 3 s)")
        ->check(CLI::Range(0.1, 3600.0));
    add_common_options(discover, cl.o, false);

    return [](command_line &c) { return cmd_discover(c.o, c.timeout_s); };
}
