#include "lib/package_sign.h"

#include "sign/manifest.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

int pack_sign(std::vector<pack_member> *members, const std::vector<uint8_t> &sk, std::string *err)
{
    std::vector<manifest_entry> entries;
    for (const pack_member &m : *members) {
        if (m.kind != PACK_FILE) {
            *err = "only regular files can be signed";
            return -1;
        }
        manifest_entry e{m.name, m.data.size(), sign_sha256(m.data.data(), m.data.size())};
        if (!m.source.empty()) {
            struct stat st;
            if (stat(m.source.c_str(), &st) != 0) {
                *err = "cannot read '" + m.source + "': " + strerror(errno);
                return -1;
            }
            e.size = static_cast<uint64_t>(st.st_size);
            e.sha256 = sign_file_sha256(m.source);
        }
        entries.push_back(e);
    }
    pack_member manifest, sig;
    manifest.name = MANIFEST_ARTIFACT;
    manifest.data = manifest_text(entries);
    sig.name = MANIFEST_SIG_ARTIFACT;
    sig.data = manifest_sign(manifest.data, sk);
    if (sig.data.empty()) {
        *err = "cannot sign with this key";
        return -1;
    }
    members->push_back(manifest);
    members->push_back(sig);
    return 0;
}
