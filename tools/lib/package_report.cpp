#include "lib/package_report.h"

#include "common/printable.h"
#include "proto/package.h"

using nlohmann::json;

void pack_report_text(FILE *out, const std::string &file, const pack_report &r)
{
    fprintf(out, "package    %s, %llu bytes\n", printable(file).c_str(),
            static_cast<unsigned long long>(r.package_size));
    fprintf(out, "footer     bitmask 0x%X, crc 0x%08X\n", r.artifacts_bitmask, r.footer_crc);
    fprintf(out, "crc        %s\n", r.payload_crc == r.footer_crc ? "ok" : "MISMATCH");
    for (const pack_listed &m : r.members) {
        fprintf(out, "  %12lld  %s", static_cast<long long>(m.size), printable(m.name).c_str());
        if (m.kind != PACK_FILE)
            fprintf(out, "  %s", pack_kind_name(m.kind));
        if (!m.link.empty())
            fprintf(out, " to %s", printable(m.link).c_str());
        fputc('\n', out);
    }
    fprintf(out, "installs   %zu artifacts\n", r.artifacts.size());
    if (r.has_version)
        fprintf(out, "version    %s (\"%s\" in %s)\n", pkg_version_text(r.version).c_str(),
                printable(r.version_text).c_str(), VERSION_ARTIFACT);
    else
        fprintf(out, "version    none: the package leaves the advertised version as it is\n");
    if (r.has_mcu_image)
        fprintf(out, "st.bin     %llu bytes, crc32 0x%08X\n",
                static_cast<unsigned long long>(r.mcu_image_size), r.mcu_image_crc32);
    else
        fprintf(out, "st.bin     none: the microcontroller is not reprogrammed\n");
    fprintf(out, "signed     %s\n",
            r.manifest_sig.empty() ? "no" : "yes (swu-pack verify --key checks the signer)");
    for (const pack_finding &f : r.findings)
        fprintf(out, "%s  %s\n", f.refuse ? "REFUSED" : "warning", f.text.c_str());
    fprintf(out, "verdict    %s\n",
            pack_refused(r) ? "REFUSED: this package must not be sent"
                            : "ok: the package can be sent");
}

json pack_report_json(const pack_report &r)
{
    json members = json::array(), artifacts = json::array(), found = json::array();
    for (const pack_listed &m : r.members) {
        json j = {{"name", m.name}, {"kind", pack_kind_name(m.kind)}, {"size", m.size}};
        if (!m.link.empty())
            j["link"] = m.link;
        members.push_back(j);
    }
    for (const manifest_entry &a : r.artifacts)
        artifacts.push_back({{"name", a.name}, {"size", a.size}, {"sha256", a.sha256}});
    for (const pack_finding &f : r.findings)
        found.push_back({{"refuse", f.refuse}, {"text", f.text}});
    return {{"size", r.package_size},
            {"artifacts_bitmask", r.artifacts_bitmask},
            {"footer_crc", r.footer_crc},
            {"payload_crc", r.payload_crc},
            {"members", members},
            {"artifacts", artifacts},
            {"findings", found},
            {"version", r.has_version ? pkg_version_text(r.version) : ""},
            {"st_bin", r.has_mcu_image
                           ? json{{"size", r.mcu_image_size}, {"crc32", r.mcu_image_crc32}}
                           : json(nullptr)},
            {"signed", !r.manifest_sig.empty()},
            {"result", pack_refused(r) ? "refused" : "ok"}};
}
