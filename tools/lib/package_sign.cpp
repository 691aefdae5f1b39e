#include "lib/package_sign.h"

#include "proto/package.h"
#include "proto/version.h"
#include "sign/manifest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

int pack_sign(std::vector<pack_member> *members, const std::vector<uint8_t> &sk, bool downgrade,
              std::string *err)
{
    std::vector<manifest_entry> entries;
    manifest_package package;
    package.downgrade = downgrade;
    for (const pack_member &m : *members) {
        if (m.kind != PACK_FILE) {
            *err = "only regular files can be signed";
            return -1;
        }
        manifest_entry e{m.name, m.data.size(), sign_sha256(m.data.data(), m.data.size())};
        std::string text = m.data;
        if (!m.source.empty()) {
            struct stat st;
            if (stat(m.source.c_str(), &st) != 0) {
                *err = "cannot read '" + m.source + "': " + strerror(errno);
                return -1;
            }
            e.size = static_cast<uint64_t>(st.st_size);
            e.sha256 = sign_file_sha256(m.source);
            if (m.name == VERSION_ARTIFACT) {
                std::ifstream in(m.source, std::ios::binary);
                text.assign(std::istreambuf_iterator<char>(in), {});
            }
        }
        // The manifest states the version the terminal will read from the
        // package's version file, so that the terminal can refuse an old one.
        pkg_version_key key;
        if (m.name == VERSION_ARTIFACT && pkg_version_ini_text(text, &key) == 0 && key.found) {
            pkg_version_t v;
            pkg_version_parse(key.value.c_str(), &v);
            std::copy(v.v, v.v + 3, package.version);
        }
        entries.push_back(e);
    }
    pack_member manifest, sig;
    manifest.name = MANIFEST_ARTIFACT;
    manifest.data = manifest_text(entries, package);
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
