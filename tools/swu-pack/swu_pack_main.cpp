// swu-pack: builds an update package for the terminal, or checks one.
//
//   swu-pack -o FILE [--bitmask N] [--force] [--sign KEY [--downgrade]] ARTIFACT...
//   swu-pack verify FILE [--key KEY.pub] [--json]
//   swu-pack keygen KEY
//
// Only what the terminal can install is packed: regular files, stored at the
// top of the archive under their base names, with names its card can hold
// and an st.bin its microcontroller can take (--force overrides the last
// two). verify prints the report "swu-client check" prints, and refuses what
// the packer would.
#include "lib/package_report.h"
#include "lib/package_sign.h"
#include "proto/package.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

int fail(const std::string &message)
{
    fprintf(stderr, "swu-pack: %s\n", message.c_str());
    return 1;
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
    std::string err;
    if (pack_collect_files(artifacts, &members, &listing, &err) != 0)
        return fail(err);
    if (report(pack_review(listing), force) != 0)
        return fail("nothing written (--force packs it anyway)");
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

// The signer of a checked package: "" when `public_key` signed it.
std::string signer_problem(const pack_report &found, const std::string &public_key)
{
    std::vector<uint8_t> pk;
    std::string err;
    if (sign_read_key(public_key, SIGN_PUBLIC_KEY_SIZE, &pk, &err) != 0)
        return err;
    if (found.manifest_sig.empty())
        return "the package is unsigned";
    if (manifest_check(found.manifest, found.manifest_sig, pk, found.artifacts, &err) != 0)
        return err;
    return "";
}

int verify(const std::string &file, const std::string &public_key, bool json)
{
    pack_report found;
    std::string err;
    pack_verify(file, &found, &err);
    bool ok = !pack_refused(found);
    std::string signer;
    if (!public_key.empty()) {
        signer = signer_problem(found, public_key);
        ok = ok && signer.empty();
    }
    if (json) {
        nlohmann::json j = pack_report_json(found);
        j["file"] = file;
        if (!public_key.empty())
            j["signer"] = signer.empty() ? "ok" : signer;
        j["exit_code"] = ok ? 0 : 1;
        printf("%s\n", j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        return ok ? 0 : 1;
    }
    pack_report_text(stdout, file, found);
    if (!public_key.empty())
        printf("signer     %s\n", signer.empty() ? "ok" : signer.c_str());
    return ok ? 0 : 1;
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
    CLI::App *verify_cmd = app.add_subcommand(
        "verify",
        "Check a package as the terminal will unpack it (the report of swu-client check)");
    verify_cmd->add_option("file", checked, "Package file")->required();
    std::string public_key;
    verify_cmd->add_option("--key", public_key, "Public key: the package must be signed by it");
    bool json = false;
    verify_cmd->add_flag("--json", json, "Print the report as one JSON object");
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
        return verify(checked, public_key, json);
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
