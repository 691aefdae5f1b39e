// swu-pack: builds an update package for the terminal, or checks one.
//
//   swu-pack -o FILE [--bitmask N] ARTIFACT...
//   swu-pack verify FILE
//
// Only what the terminal can install is packed: regular files, stored at the
// top of the archive under their base names, with names its card can hold.
#include "pack.h"

#include "proto/package.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
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

int build(const std::string &out, uint32_t bitmask, const std::vector<std::string> &artifacts)
{
    std::vector<pack_member> members;
    // The card's FAT file system ignores case: "A.bin" and "a.bin" are one file.
    std::map<std::string, std::string> folded_names;
    for (const std::string &path : artifacts) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0)
            return fail("cannot read artifact '" + path + "': " + strerror(errno));
        if (!S_ISREG(st.st_mode))
            return fail("artifact '" + path + "' is not a regular file");
        std::string name = base_name(path);
        std::string problem = pack_name_problem(name);
        if (!problem.empty())
            return fail("artifact '" + path + "' refused: " + problem);
        std::string folded = name;
        for (char &c : folded)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        auto [it, added] = folded_names.emplace(folded, path);
        if (!added)
            return fail("artifacts '" + it->second + "' and '" + path +
                        "' would be one file on the card's FAT file system");
        pack_member m;
        m.name = name;
        m.source = path;
        members.push_back(m);
    }
    std::string err;
    if (pack_write(out, members, bitmask, PKG_MAX_SIZE, &err) != 0)
        return fail(out + ": " + err);
    pack_report report;
    if (pack_verify(out, &report, &err) != 0)
        return fail(out + ": written but does not check: " + err);
    printf("%s: %zu artifacts, %llu bytes, bitmask 0x%X, crc %u\n", out.c_str(), members.size(),
           static_cast<unsigned long long>(report.package_size), bitmask, report.footer_crc);
    return 0;
}

int verify(const std::string &file)
{
    pack_report report;
    std::string err;
    int result = pack_verify(file, &report, &err);
    for (const pack_listed &m : report.members)
        printf("%12lld  %s%s%s\n", static_cast<long long>(m.size), m.name.c_str(),
               m.kind == PACK_FILE ? "" : "  ", m.kind == PACK_FILE ? "" : pack_kind_name(m.kind));
    if (result != 0)
        return fail(file + ": " + err);
    printf("%s: %zu members, %llu bytes, bitmask 0x%X, crc %u ok\n", file.c_str(),
           report.members.size(), static_cast<unsigned long long>(report.package_size),
           report.artifacts_bitmask, report.footer_crc);
    return 0;
}

} // namespace

int main(int argc, char **argv)
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

    std::string checked;
    CLI::App *verify_cmd =
        app.add_subcommand("verify", "Check a package's footer CRC and list its members");
    verify_cmd->add_option("file", checked, "Package file")->required();
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    }

    if (*verify_cmd) {
        if (!out.empty() || !artifacts.empty())
            return fail("verify takes only the package file");
        return verify(checked);
    }
    if (out.empty())
        return fail("no package file given (-o FILE)\n" + app.help());
    if (artifacts.empty())
        return fail("no artifacts given");
    return build(out, bitmask, artifacts);
}
