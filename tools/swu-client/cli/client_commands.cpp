#include "client_commands.h"

#include "cli_common.h"
#include "common/printable.h"
#include "lib/package_inspect.h"
#include "proto/package.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

using nlohmann::json;

int check_package(const client_options &o, const std::string &package, pack_report *found,
                  std::string *why)
{
    if (access(package.c_str(), R_OK) != 0) {
        *why = "cannot read '" + package + "': " + strerror(errno);
        return SWUC_EXIT_LOCAL;
    }
    std::string err;
    std::vector<pack_finding> findings;
    const bool intact = pack_verify(package, found, &err) == 0;
    findings = found->findings;
    if (!intact && !findings.empty())
        findings.front().text = "the terminal would refuse it: " + findings.front().text;
    bool refused = false;
    for (const pack_finding &f : findings) {
        if (!o.json)
            fprintf(stderr, "swu-client: %s: %s: %s\n", printable(package).c_str(),
                    f.refuse ? "refused" : "warning", f.text.c_str());
        refused = refused || f.refuse;
    }
    if (refused && o.policy.force && !o.json)
        fprintf(stderr, "swu-client: --force: sending it anyway\n");
    return swuc_package_verdict(o.policy, findings, why);
}
