// discover: the terminals heard on the advertisement group.
#include "cli_common.h"
#include "client_output.h"
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
