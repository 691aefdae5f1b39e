// swu-pack: builds an update package for the terminal, or checks one.
//
//   swu-pack -o FILE [--bitmask N] [--force] [--sign KEY [--downgrade]] ARTIFACT...
//   swu-pack verify FILE [--key KEY.pub]
//   swu-pack keygen KEY
//
// Only what the terminal can install is packed: regular files, stored at the
// top of the archive under their base names, with names its card can hold
// and an st.bin its microcontroller can take (--force overrides the last
// two). verify refuses what the packer would.
#include "pack.h"

#include "common/printable.h"
#include "proto/package.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace
{

int fail(const std::string &message)
{
    fprintf(stderr, "swu-pack: %s\n", message.c_str());
    return 1;
}

std::string base_name(const std::string &path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    size_t slash = p.find_last_of('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

// Prints the findings; 0 when the package may go on (nothing refused, or
// `force`), 1 otherwise.
int report(const std::vector<pack_finding> &findings, bool force)
{
    bool refused = false;
    for (const pack_finding &f : findings) {
        fprintf(stderr, "swu-pack: %s: %s\n", f.refuse ? "refused" : "warning", f.text.c_str());
        refused = refused || f.refuse;
    }
    if (refused && force)
        fprintf(stderr, "swu-pack: --force: going on anyway\n");
    return refused && !force ? 1 : 0;
}

int build(const std::string &out, uint32_t bitmask, const std::vector<std::string> &artifacts,
          bool force, const std::string &sign_key, bool downgrade)
{
    std::vector<pack_member> members;
    std::vector<pack_listed> listing;
    for (const std::string &path : artifacts) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0)
            return fail("cannot read artifact '" + path + "': " + strerror(errno));
        if (!S_ISREG(st.st_mode))
            return fail("artifact '" + path + "' is not a regular file");
        pack_member m;
        m.name = base_name(path);
        if (m.name == "." || m.name == "..")
            return fail("artifact '" + path + "' has no file name");
        m.source = path;
        members.push_back(m);
        listing.push_back({m.name, PACK_FILE, st.st_size});
    }
    if (report(pack_review(listing), force) != 0)
        return fail("nothing written (--force packs it anyway)");
    std::string err;
    if (!sign_key.empty()) {
        std::vector<uint8_t> sk;
        if (sign_read_key(sign_key, SIGN_SECRET_KEY_SIZE, &sk, &err) != 0 ||
            pack_sign(&members, sk, downgrade, &err) != 0)
            return fail(err);
    }
    if (pack_write(out, members, bitmask, PKG_MAX_SIZE, &err) != 0)
        return fail(out + ": " + err);
    pack_report written;
    if (pack_verify(out, &written, &err) != 0)
        return fail(out + ": written but does not check: " + err);
    printf("%s: %zu artifacts, %llu bytes, bitmask 0x%X, crc %u\n", out.c_str(), members.size(),
           static_cast<unsigned long long>(written.package_size), bitmask, written.footer_crc);
    return 0;
}

int verify(const std::string &file, const std::string &public_key)
{
    pack_report found;
    std::string err;
    int result = pack_verify(file, &found, &err);
    for (const pack_listed &m : found.members)
        printf("%12lld  %s%s%s\n", static_cast<long long>(m.size), printable(m.name).c_str(),
               m.kind == PACK_FILE ? "" : "  ", m.kind == PACK_FILE ? "" : pack_kind_name(m.kind));
    if (result != 0)
        return fail(file + ": " + err);
    if (report(pack_review(found.members), false) != 0)
        return fail(file + ": the terminal would be harmed by this package");
    if (!public_key.empty()) {
        std::vector<uint8_t> pk;
        if (sign_read_key(public_key, SIGN_PUBLIC_KEY_SIZE, &pk, &err) != 0)
            return fail(err);
        if (found.manifest_sig.empty())
            return fail(file + ": the package is unsigned");
        if (manifest_check(found.manifest, found.manifest_sig, pk, found.artifacts, &err) != 0)
            return fail(file + ": " + err);
        printf("%s: signature ok\n", file.c_str());
    }
    printf("%s: %zu members, %llu bytes, bitmask 0x%X, crc %u ok\n", file.c_str(),
           found.members.size(), static_cast<unsigned long long>(found.package_size),
           found.artifacts_bitmask, found.footer_crc);
    return 0;
}

} // namespace

int run(int argc, char **argv)
{
    CLI::App app{"Builds an update package for the terminal (gzip-compressed tar archive and "
                 "CRC footer), or checks one."};
    std::string out;
    uint32_t bitmask = 0;
    std::vector<std::string> artifacts;
    app.add_option("-o,--output", out, "Package file to write");
    app.add_option("--bitmask", bitmask, "Artifacts bitmask recorded in the footer")
        ->default_val(0);
    app.add_option("artifacts", artifacts, "Regular files to pack, stored under their base names");
    bool force = false;
    std::string sign_key;
    CLI::Option *sign_opt = app.add_option(
        "--sign", sign_key, "Secret key (swu-pack keygen) to sign the package's manifest with");
    bool downgrade = false;
    app.add_flag("--downgrade", downgrade,
                 "Sign the package as a downgrade: a terminal with a newer version installs it")
        ->needs(sign_opt);
    app.add_flag("--force", force,
                 "Pack artifacts that would harm the terminal (names its card can't hold, an "
                 "empty or oversized st.bin)");

    std::string checked;
    CLI::App *verify_cmd =
        app.add_subcommand("verify", "Check a package's footer CRC and list its members");
    verify_cmd->add_option("file", checked, "Package file")->required();
    std::string public_key;
    verify_cmd->add_option("--key", public_key, "Public key: the package must be signed by it");
    std::string key_path;
    CLI::App *keygen_cmd = app.add_subcommand(
        "keygen", "Write a new Ed25519 key pair: KEY (secret) and KEY.pub (for the terminal)");
    keygen_cmd->add_option("key", key_path, "Secret key file to write")->required();
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    }

    if (*verify_cmd) {
        if (!out.empty() || !artifacts.empty())
            return fail("verify takes only the package file");
        return verify(checked, public_key);
    }
    if (*keygen_cmd) {
        std::string err;
        if (sign_keygen(key_path, &err) != 0)
            return fail(err);
        printf("%s: secret key; %s.pub: public key\n", key_path.c_str(), key_path.c_str());
        return 0;
    }
    if (out.empty())
        return fail("no package file given (-o FILE)\n" + app.help());
    if (artifacts.empty())
        return fail("no artifacts given");
    return build(out, bitmask, artifacts, force, sign_key, downgrade);
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        return fail(std::string("unexpected error: ") + e.what());
    } catch (...) {
        return fail("unexpected error");
    }
}
