#include "pack.h"

#include "common/printable.h"
#include "lib/sys/unique_fd.h"
#include "proto/package.h"
#include "sign/manifest.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

struct archive_out {
    int fd;
    uint64_t written;
    uint64_t limit; // payload bytes allowed
};

la_ssize_t write_out(struct archive *a, void *client, const void *buf, size_t len)
{
    auto *out = static_cast<archive_out *>(client);
    if (out->written + len > out->limit) {
        // libarchive's own formatter knows no long long.
        std::string text =
            "the package would exceed " + std::to_string(out->limit + PKG_FOOTER_SIZE) + " bytes";
        archive_set_error(a, EFBIG, "%s", text.c_str());
        return -1;
    }
    const auto *p = static_cast<const uint8_t *>(buf);
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(out->fd, p + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            archive_set_error(a, errno, "write failed: %s", strerror(errno));
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    out->written += len;
    return static_cast<la_ssize_t>(len);
}

struct archive_in {
    int fd;
    uint64_t left; // payload bytes still to hand out
    uint8_t buf[65536];
};

la_ssize_t read_in(struct archive *a, void *client, const void **buf)
{
    auto *in = static_cast<archive_in *>(client);
    size_t want = in->left < sizeof in->buf ? static_cast<size_t>(in->left) : sizeof in->buf;
    ssize_t n;
    do {
        n = read(in->fd, in->buf, want);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        archive_set_error(a, errno, "read failed: %s", strerror(errno));
        return -1;
    }
    in->left -= static_cast<uint64_t>(n);
    *buf = in->buf;
    return n;
}

using archive_ptr = std::unique_ptr<struct archive, int (*)(struct archive *)>;
using entry_ptr = std::unique_ptr<struct archive_entry, void (*)(struct archive_entry *)>;

int add_member(struct archive *a, const pack_member &m, std::string *err)
{
    entry_ptr entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), m.name.c_str());
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);
    archive_entry_set_uname(entry.get(), "root");
    archive_entry_set_gname(entry.get(), "root");

    unique_fd src;
    switch (m.kind) {
    case PACK_FILE:
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        if (m.source.empty()) {
            archive_entry_set_size(entry.get(), static_cast<la_int64_t>(m.data.size()));
        } else {
            src.reset(open(m.source.c_str(), O_RDONLY | O_CLOEXEC));
            struct stat st;
            if (!src.valid() || fstat(src.get(), &st) != 0) {
                *err = "cannot read '" + m.source + "': " + strerror(errno);
                return -1;
            }
            archive_entry_set_size(entry.get(), st.st_size);
            archive_entry_set_mtime(entry.get(), st.st_mtime, 0);
        }
        break;
    case PACK_DIR:
        archive_entry_set_filetype(entry.get(), AE_IFDIR);
        archive_entry_set_perm(entry.get(), 0755);
        break;
    case PACK_SYMLINK:
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_perm(entry.get(), 0777);
        archive_entry_set_symlink(entry.get(), m.link.c_str());
        break;
    case PACK_HARDLINK:
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        archive_entry_set_hardlink(entry.get(), m.link.c_str());
        break;
    case PACK_OTHER:
        *err = "'" + m.name + "': special files are not packed";
        return -1;
    }
    if (archive_write_header(a, entry.get()) != ARCHIVE_OK) {
        *err = archive_error_string(a);
        return -1;
    }
    if (m.kind != PACK_FILE)
        return 0;
    if (!src.valid()) {
        if (!m.data.empty() && archive_write_data(a, m.data.data(), m.data.size()) < 0) {
            *err = archive_error_string(a);
            return -1;
        }
        return 0;
    }
    static thread_local uint8_t chunk[65536];
    for (;;) {
        ssize_t n = read(src.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *err = "cannot read '" + m.source + "': " + strerror(errno);
            return -1;
        }
        if (n == 0)
            return 0;
        if (archive_write_data(a, chunk, static_cast<size_t>(n)) < 0) {
            *err = archive_error_string(a);
            return -1;
        }
    }
}

int write_package(int fd, const std::vector<pack_member> &members, uint32_t bitmask,
                  uint64_t max_size, std::string *err)
{
    if (max_size < PKG_FOOTER_SIZE) {
        *err = "no room for the footer";
        return -1;
    }
    archive_out out = {fd, 0, max_size - PKG_FOOTER_SIZE};
    archive_ptr a(archive_write_new(), archive_write_free);
    // pax only where ustar can't hold a name; the gzip stream must end the
    // payload exactly, so the last block is not padded.
    if (archive_write_set_format_pax_restricted(a.get()) != ARCHIVE_OK ||
        archive_write_add_filter_gzip(a.get()) != ARCHIVE_OK ||
        archive_write_set_bytes_in_last_block(a.get(), 1) != ARCHIVE_OK ||
        archive_write_open(a.get(), &out, nullptr, write_out, nullptr) != ARCHIVE_OK) {
        *err = archive_error_string(a.get());
        return -1;
    }
    for (const pack_member &m : members)
        if (add_member(a.get(), m, err) != 0)
            return -1;
    if (archive_write_close(a.get()) != ARCHIVE_OK) {
        *err = archive_error_string(a.get());
        return -1;
    }

    pkg_metadata_t meta = {bitmask, 0, PKG_CRC_START};
    if (lseek(fd, 0, SEEK_SET) != 0 || pkg_crc_fd(fd, out.written, &meta.crc) != 0) {
        *err = std::string("cannot read the archive back: ") + strerror(errno);
        return -1;
    }
    uint8_t footer[PKG_FOOTER_SIZE];
    pkg_footer_encode(&meta, footer);
    if (pwrite(fd, footer, sizeof footer, static_cast<off_t>(out.written)) !=
        static_cast<ssize_t>(sizeof footer)) {
        *err = std::string("cannot write the footer: ") + strerror(errno);
        return -1;
    }
    return 0;
}

const char *kind_name(pack_kind kind)
{
    switch (kind) {
    case PACK_FILE:
        return "file";
    case PACK_DIR:
        return "directory";
    case PACK_SYMLINK:
        return "symbolic link";
    case PACK_HARDLINK:
        return "hard link";
    case PACK_OTHER:
        return "special file";
    }
    return "?";
}

constexpr int64_t VERSION_FILE_MAX = 65536;

// A member's path as tar writes it: without "./" and a trailing slash.
std::string member_path(std::string name)
{
    while (name.compare(0, 2, "./") == 0)
        name.erase(0, 2);
    while (!name.empty() && name.back() == '/')
        name.pop_back();
    return name;
}

// The name of a member at the top of the archive; "" for any other.
std::string top_level_name(const std::string &name)
{
    std::string path = member_path(name);
    return path.find('/') == std::string::npos ? path : std::string();
}

// FAT ignores case.
std::string fold_case(std::string name)
{
    for (char &c : name)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return name;
}

// Feeds the current member's data to `take`. 0, or -1 when it can't be read.
int read_member(struct archive *a, const std::function<void(const char *, size_t)> &take)
{
    char chunk[16384];
    for (;;) {
        la_ssize_t n = archive_read_data(a, chunk, sizeof chunk);
        if (n < 0)
            return -1;
        if (n == 0)
            return 0;
        take(chunk, static_cast<size_t>(n));
    }
}

// The "version" key of the "[pkg_data]" section, as an INI reader takes it:
// blanks around names and values dropped, ';' and '#' lines ignored.
bool version_key(const std::string &text, std::string *value)
{
    auto trim = [](std::string t) {
        size_t b = t.find_first_not_of(" \t\r"), e = t.find_last_not_of(" \t\r");
        return b == std::string::npos ? std::string() : t.substr(b, e - b + 1);
    };
    std::string section;
    size_t at = 0;
    while (at <= text.size()) {
        size_t eol = text.find('\n', at);
        std::string line = trim(text.substr(at, eol == std::string::npos ? eol : eol - at));
        at = eol == std::string::npos ? text.size() + 1 : eol + 1;
        if (line.empty() || line[0] == ';' || line[0] == '#')
            continue;
        if (line[0] == '[') {
            section = trim(line.substr(1, line.find(']') - 1));
            continue;
        }
        size_t eq = line.find_first_of("=:");
        if (section == "pkg_data" && eq != std::string::npos &&
            trim(line.substr(0, eq)) == "version") {
            *value = trim(line.substr(eq + 1));
            return true;
        }
    }
    return false;
}

} // namespace

std::string pack_name_problem(const std::string &name)
{
    if (name.empty() || name == "." || name == "..")
        return "'" + name + "' is not a file name";
    if (name.size() > ARTIFACT_NAME_MAX_LEN)
        return "the name has " + std::to_string(name.size()) +
               " bytes; the terminal takes at most " + std::to_string(ARTIFACT_NAME_MAX_LEN);
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F)
            return "the name holds a control character, which the card's FAT file system can't "
                   "hold";
        if (c >= 0x80)
            return "the name holds a non-ASCII byte; the card is mounted without a character set, "
                   "so it would not keep the name as given";
        if (strchr("\"*/:<>?\\|", c) != nullptr)
            return std::string("the name holds '") + static_cast<char>(c) +
                   "', which the card's FAT file system can't hold";
    }
    if (name.back() == '.' || name.back() == ' ')
        return "the card's FAT file system drops a trailing dot or blank from a name";
    return "";
}

int pack_write(const std::string &out_path, const std::vector<pack_member> &members,
               uint32_t bitmask, uint64_t max_size, std::string *err)
{
    int fd = open(out_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *err = "cannot create '" + out_path + "': " + strerror(errno);
        return -1;
    }
    int result = write_package(fd, members, bitmask, max_size, err);
    if (close(fd) != 0 && result == 0) {
        *err = "cannot write '" + out_path + "': " + strerror(errno);
        result = -1;
    }
    if (result != 0)
        unlink(out_path.c_str());
    return result;
}

int pack_verify(const std::string &path, pack_report *report, std::string *err)
{
    *report = pack_report{};
    unique_fd guard(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!guard.valid()) {
        *err = "cannot open '" + path + "': " + strerror(errno);
        return -1;
    }
    const int fd = guard.get();
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *err = "cannot examine '" + path + "': " + strerror(errno);
        return -1;
    }
    report->package_size = static_cast<uint64_t>(st.st_size);
    if (report->package_size < PKG_FOOTER_SIZE) {
        *err =
            "the file has " + std::to_string(st.st_size) + " bytes, too few for the 12-byte footer";
        return -1;
    }
    uint64_t payload = report->package_size - PKG_FOOTER_SIZE;
    uint8_t footer[PKG_FOOTER_SIZE];
    if (pread(fd, footer, sizeof footer, static_cast<off_t>(payload)) !=
        static_cast<ssize_t>(sizeof footer)) {
        *err = "cannot read the footer";
        return -1;
    }
    pkg_metadata_t meta;
    pkg_footer_decode(footer, &meta);
    report->artifacts_bitmask = meta.artifacts_bitmask;
    report->footer_crc = meta.crc;
    report->payload_crc = PKG_CRC_START;
    if (pkg_crc_fd(fd, payload, &report->payload_crc) != 0) {
        *err = std::string("cannot read the payload: ") + strerror(errno);
        return -1;
    }

    // The terminal unpacks with "tar -xzf": only gzip-compressed tar counts.
    if (lseek(fd, 0, SEEK_SET) != 0) {
        *err = std::string("cannot read the payload: ") + strerror(errno);
        return -1;
    }
    if (!sign_init()) {
        *err = "libsodium cannot be used";
        return -1;
    }
    auto in = std::make_unique<archive_in>();
    in->fd = fd;
    in->left = payload;
    archive_ptr a(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(a.get());
    archive_read_support_format_tar(a.get());
    int r = archive_read_open(a.get(), in.get(), nullptr, read_in, nullptr);
    struct archive_entry *entry;
    while (r == ARCHIVE_OK && (r = archive_read_next_header(a.get(), &entry)) == ARCHIVE_OK) {
        pack_kind kind = PACK_FILE;
        if (archive_entry_hardlink(entry) != nullptr)
            kind = PACK_HARDLINK;
        else if (archive_entry_filetype(entry) == AE_IFDIR)
            kind = PACK_DIR;
        else if (archive_entry_filetype(entry) == AE_IFLNK)
            kind = PACK_SYMLINK;
        else if (archive_entry_filetype(entry) != AE_IFREG)
            kind = PACK_OTHER;
        report->members.push_back({archive_entry_pathname(entry), kind, archive_entry_size(entry)});
        const std::string artifact =
            kind == PACK_FILE ? top_level_name(report->members.back().name) : std::string();
        if (artifact.empty()) {
            if (archive_read_data_skip(a.get()) != ARCHIVE_OK)
                break;
            continue;
        }
        // Every artifact is read whole: its hash, and what the tools show of
        // the version file, the microcontroller image and the manifest.
        const bool is_version = artifact == VERSION_ARTIFACT;
        const bool is_image = fold_case(artifact) == MCU_IMAGE_ARTIFACT;
        const bool is_manifest = artifact == MANIFEST_ARTIFACT || artifact == MANIFEST_SIG_ARTIFACT;
        std::string text;
        uint32_t crc = ~0u;
        crypto_hash_sha256_state sha;
        crypto_hash_sha256_init(&sha);
        if (read_member(a.get(), [&](const char *p, size_t n) {
                crypto_hash_sha256_update(&sha, reinterpret_cast<const uint8_t *>(p), n);
                if ((is_version || is_manifest) && text.size() < VERSION_FILE_MAX)
                    text.append(p, n);
                if (is_image)
                    for (size_t i = 0; i < n; i++)
                        crc = crc32_table[(crc ^ static_cast<uint8_t>(p[i])) & 0xFF] ^ (crc >> 8);
            }) != 0)
            break;
        uint8_t hash[crypto_hash_sha256_BYTES];
        crypto_hash_sha256_final(&sha, hash);
        char hex[2 * sizeof hash + 1];
        sodium_bin2hex(hex, sizeof hex, hash, sizeof hash);
        report->artifacts.push_back(
            {artifact, static_cast<uint64_t>(archive_entry_size(entry)), hex});
        if (is_version) {
            report->has_version = version_key(text, &report->version_text);
            report->version = pack_parse_version(report->version_text);
        } else if (is_image) {
            report->has_mcu_image = true;
            report->mcu_image_size = static_cast<uint64_t>(archive_entry_size(entry));
            report->mcu_image_crc32 = ~crc;
        } else if (artifact == MANIFEST_ARTIFACT) {
            report->manifest = text;
        } else if (artifact == MANIFEST_SIG_ARTIFACT) {
            report->manifest_sig = text;
        }
    }
    std::string problems;
    if (report->payload_crc != report->footer_crc) {
        char text[128];
        snprintf(text, sizeof text, "CRC mismatch: the footer says %u, the payload gives %u",
                 report->footer_crc, report->payload_crc);
        problems = text;
    }
    if (r != ARCHIVE_EOF || archive_filter_code(a.get(), 0) != ARCHIVE_FILTER_GZIP) {
        const char *why = archive_error_string(a.get());
        problems += std::string(problems.empty() ? "" : "; ") +
                    "the payload is not a complete gzip-compressed tar archive: " +
                    (why != nullptr ? why : "not gzip");
    }
    if (!problems.empty()) {
        *err = problems;
        return -1;
    }
    return 0;
}

const char *pack_kind_name(pack_kind kind)
{
    return kind_name(kind);
}

std::vector<pack_finding> pack_review(const std::vector<pack_listed> &members)
{
    std::vector<pack_finding> found;
    std::map<std::string, std::string> folded_names; // FAT ignores case
    for (const pack_listed &m : members) {
        const std::string name = member_path(m.name);
        if (name.empty() || name == ".")
            continue; // the archive's own top directory
        // Appended, not concatenated: GCC 12 at -O2 sees a false overlap in
        // "'" + s + "'".
        std::string shown(1, '\'');
        shown.append(printable(name)).push_back('\'');
        // A hard link unpacks as a regular file, and is installed as one.
        const bool regular = m.kind == PACK_FILE || m.kind == PACK_HARDLINK;
        if (name.find('/') != std::string::npos) {
            found.push_back({false, shown + " is not at the top of the archive: the terminal "
                                            "ignores it"});
            continue;
        }
        if (!regular) {
            found.push_back({false, shown + " is a " + kind_name(m.kind) +
                                        ": the terminal installs only regular files"});
            continue;
        }
        std::string problem = pack_name_problem(name);
        if (!problem.empty()) {
            found.push_back({true, "artifact " + shown + ": " + problem});
            continue;
        }
        const std::string folded = fold_case(name);
        auto [it, added] = folded_names.emplace(folded, name);
        if (!added)
            found.push_back({true, "artifacts '" + printable(it->second) + "' and " + shown +
                                       " would be one file on the card's FAT file system"});
        if (folded != MCU_IMAGE_ARTIFACT || m.kind != PACK_FILE)
            continue;
        if (m.size == 0)
            found.push_back({true, shown + " is empty: the microcontroller's application would "
                                           "be erased with nothing to write in its place"});
        else if (static_cast<uint64_t>(m.size) > MCU_APP_AREA_SIZE)
            found.push_back({true, shown + " has " + std::to_string(m.size) +
                                       " bytes, more than the microcontroller's application "
                                       "area of " +
                                       std::to_string(MCU_APP_AREA_SIZE)});
    }
    return found;
}

pack_version pack_parse_version(const std::string &text)
{
    // As the terminal splits it (strtok): empty pieces don't count.
    pack_version version;
    int i = 0;
    for (size_t at = 0; i < 3 && at < text.size();) {
        size_t dot = std::min(text.find('.', at), text.size());
        if (dot > at)
            version.v[i++] =
                static_cast<uint16_t>(strtoul(text.substr(at, dot - at).c_str(), nullptr, 10));
        at = dot + 1;
    }
    return version;
}

int pack_version_compare(const pack_version &a, const pack_version &b)
{
    for (int i = 0; i < 3; i++)
        if (a.v[i] != b.v[i])
            return a.v[i] < b.v[i] ? -1 : 1;
    return 0;
}

std::string pack_version_text(const pack_version &v)
{
    return std::to_string(v.v[0]) + "." + std::to_string(v.v[1]) + "." + std::to_string(v.v[2]);
}

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
        std::string version;
        if (m.name == VERSION_ARTIFACT && version_key(text, &version)) {
            pack_version v = pack_parse_version(version);
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
