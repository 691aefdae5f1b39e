#include "client_commands.h"

#include "cli_common.h"
#include "client_output.h"
#include "common/printable.h"
#include "pack.h"
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
    if (pack_verify(package, found, &err) != 0)
        findings.push_back({true, "the terminal would refuse it: " + err});
    else
        findings = pack_review(found->members);
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

int cmd_check(const client_options &o, const std::string &package)
{
    pack_report pkg;
    std::string err;
    if (access(package.c_str(), R_OK) != 0)
        return finish(o, package, json::object(), SWUC_EXIT_LOCAL,
                      "cannot read '" + package + "': " + strerror(errno));
    const bool intact = pack_verify(package, &pkg, &err) == 0;
    std::vector<pack_finding> findings = pack_review(pkg.members);
    if (!intact)
        findings.insert(findings.begin(), {true, err});
    const bool refused = std::any_of(findings.begin(), findings.end(),
                                     [](const pack_finding &f) { return f.refuse; });
    char crc[16], mcu_crc[16];
    snprintf(crc, sizeof crc, "0x%08X", pkg.footer_crc);
    snprintf(mcu_crc, sizeof mcu_crc, "0x%08X", pkg.mcu_image_crc32);
    if (o.json)
        return finish(o, package, package_json(pkg, findings),
                      refused ? SWUC_EXIT_PACKAGE : SWUC_EXIT_OK, "");
    printf("package    %s, %llu bytes\n", printable(package).c_str(),
           static_cast<unsigned long long>(pkg.package_size));
    printf("footer     bitmask 0x%X, crc %s\n", pkg.artifacts_bitmask, crc);
    printf("crc        %s\n", pkg.payload_crc == pkg.footer_crc ? "ok" : "MISMATCH");
    for (const pack_listed &m : pkg.members)
        printf("  %12lld  %s%s%s\n", static_cast<long long>(m.size), printable(m.name).c_str(),
               m.kind == PACK_FILE ? "" : "  ", m.kind == PACK_FILE ? "" : pack_kind_name(m.kind));
    printf("version    %s\n",
           pkg.has_version ? (pack_version_text(pkg.version) + " (\"" +
                              printable(pkg.version_text) + "\" in " + VERSION_ARTIFACT + ")")
                                 .c_str()
                           : "none: the package leaves the advertised version as it is");
    if (pkg.has_mcu_image)
        printf("st.bin     %llu bytes, crc32 %s\n",
               static_cast<unsigned long long>(pkg.mcu_image_size), mcu_crc);
    else
        printf("st.bin     none: the microcontroller is not reprogrammed\n");
    printf("signed     %s\n",
           pkg.manifest_sig.empty() ? "no" : "yes (swu-pack verify --key checks the signer)");
    for (const pack_finding &f : findings)
        printf("%s  %s\n", f.refuse ? "REFUSED" : "warning", f.text.c_str());
    printf("verdict    %s\n",
           refused ? "REFUSED: this package must not be sent" : "ok: the package can be sent");
    return refused ? SWUC_EXIT_PACKAGE : SWUC_EXIT_OK;
}
