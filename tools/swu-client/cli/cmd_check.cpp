// swu-client check: the package's report, without a terminal.
#include "client_commands.h"

#include "common/printable.h"
#include "lib/package_report.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

int cmd_check(const client_options &o, const std::string &package)
{
    pack_report found;
    std::string err;
    if (access(package.c_str(), R_OK) != 0) {
        err = "cannot read '" + package + "': " + strerror(errno);
        if (o.json)
            printf("%s\n", nlohmann::json{{"terminal", package},
                                          {"exit_code", SWUC_EXIT_LOCAL},
                                          {"message", err}}
                               .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                               .c_str());
        else
            fprintf(stderr, "swu-client: %s\n", printable(err).c_str());
        return SWUC_EXIT_LOCAL;
    }
    pack_verify(package, &found, &err);
    const int code = pack_refused(found) ? SWUC_EXIT_PACKAGE : SWUC_EXIT_OK;
    if (!o.json) {
        pack_report_text(stdout, package, found);
        return code;
    }
    nlohmann::json j = pack_report_json(found);
    j["terminal"] = package;
    j["exit_code"] = code;
    printf("%s\n", j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return code;
}
