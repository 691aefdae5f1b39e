#include "lib/package_inspect.h"

#include "common/printable.h"
#include "lib/sys/crc.h"
#include "lib/sys/unique_fd.h"
#include "proto/package.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

struct archive_in {
    int fd;
    uint64_t offset; // next payload byte to hand out
    uint64_t end;    // the payload's size
    uint8_t buf[65536];
};

la_ssize_t read_in(struct archive *a, void *client, const void **buf)
{
    auto *in = static_cast<archive_in *>(client);
    uint64_t left = in->end - in->offset;
    size_t want = left < sizeof in->buf ? static_cast<size_t>(left) : sizeof in->buf;
    ssize_t n;
    do {
        n = pread(in->fd, in->buf, want, static_cast<off_t>(in->offset));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        archive_set_error(a, errno, "read failed: %s", strerror(errno));
        return -1;
    }
    in->offset += static_cast<uint64_t>(n);
    *buf = in->buf;
    return n;
}

using archive_ptr = std::unique_ptr<struct archive, int (*)(struct archive *)>;

// What the reading keeps of a regular member's data.
struct member_data {
    std::string sha256;
    uint32_t crc = 0;
    std::string text;  // of a version file or manifest
    bool kept = false; // text holds the data
};

std::string last_part(const std::string &name)
{
    std::string path = name;
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

pack_kind kind_of(struct archive_entry *entry)
{
    if (archive_entry_hardlink(entry) != nullptr)
        return PACK_HARDLINK;
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return PACK_FILE;
    case AE_IFDIR:
        return PACK_DIR;
    case AE_IFLNK:
        return PACK_SYMLINK;
    default:
        return PACK_OTHER;
    }
}

// Hashes the current member's data. 0, or -1 when it can't be read.
int read_data(struct archive *a, bool keep_text, member_data *d)
{
    d->kept = keep_text;
    crypto_hash_sha256_state sha;
    crypto_hash_sha256_init(&sha);
    uint8_t chunk[16384];
    for (;;) {
        la_ssize_t n = archive_read_data(a, chunk, sizeof chunk);
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        crypto_hash_sha256_update(&sha, chunk, static_cast<size_t>(n));
        d->crc = crc32_std(d->crc, chunk, static_cast<size_t>(n));
        if (keep_text && d->text.size() < PACK_TEXT_MAX)
            d->text.append(reinterpret_cast<const char *>(chunk),
                           std::min(static_cast<size_t>(n), PACK_TEXT_MAX - d->text.size()));
    }
    uint8_t hash[crypto_hash_sha256_BYTES];
    crypto_hash_sha256_final(&sha, hash);
    char hex[2 * sizeof hash + 1];
    sodium_bin2hex(hex, sizeof hex, hash, sizeof hash);
    d->sha256 = hex;
    return 0;
}

// The archive in the payload that `in` hands out, open for reading; null
// when it can't be.
archive_ptr open_payload(archive_in *in)
{
    archive_ptr a(archive_read_new(), archive_read_free);
    // The terminal unpacks with "tar -xzf": only gzip-compressed tar counts.
    archive_read_support_filter_gzip(a.get());
    archive_read_support_format_tar(a.get());
    if (archive_read_open(a.get(), in, nullptr, read_in, nullptr) != ARCHIVE_OK)
        return {nullptr, archive_read_free};
    return a;
}

// Lists the members of the archive in the payload, with the data of the
// regular ones, as far as the judge's limits allow. ARCHIVE_EOF when it read
// to the end; otherwise *why says what went wrong, or stays empty when a
// member is beyond the limits.
int read_members(int fd, uint64_t payload, pack_report *report, std::vector<member_data> *data,
                 std::string *why)
{
    auto in = std::make_unique<archive_in>(archive_in{fd, 0, payload, {}});
    archive_ptr a = open_payload(in.get());
    int r = a != nullptr ? ARCHIVE_OK : ARCHIVE_FATAL;
    uint64_t unpacked = 0;
    struct archive_entry *entry;
    while (r == ARCHIVE_OK) {
        r = archive_read_next_header(a.get(), &entry);
        if (r == ARCHIVE_WARN)
            r = ARCHIVE_OK; // a name libarchive could not convert is still read as bytes
        if (r != ARCHIVE_OK)
            break;
        const char *name = archive_entry_pathname(entry);
        const char *link = archive_entry_hardlink(entry);
        if (link == nullptr)
            link = archive_entry_symlink(entry);
        pack_listed m{name != nullptr ? name : "", kind_of(entry), archive_entry_size(entry),
                      link != nullptr ? link : "", archive_entry_sparse_count(entry) > 0};
        report->members.push_back(m);
        data->emplace_back();
        // The limits come before the data, so nothing is unpacked beyond them.
        unpacked += pack_member_bytes(m);
        if (m.sparse || unpacked > PACK_UNPACKED_MAX)
            return ARCHIVE_FATAL; // *why stays empty: the judge names the member

        if (m.kind != PACK_FILE)
            continue;
        const std::string base = last_part(m.name);
        const bool keep = pack_fold_case(base) == VERSION_ARTIFACT || base == MANIFEST_ARTIFACT ||
                          base == MANIFEST_SIG_ARTIFACT;
        if (read_data(a.get(), keep, &data->back()) != 0) {
            r = ARCHIVE_FATAL;
            break;
        }
    }
    if (r != ARCHIVE_EOF || archive_filter_code(a.get(), 0) != ARCHIVE_FILTER_GZIP) {
        const char *err = a != nullptr ? archive_error_string(a.get()) : nullptr;
        *why = std::string("the payload is not a complete gzip-compressed tar archive: ") +
               (err != nullptr ? err : "not gzip");
        return r == ARCHIVE_EOF ? ARCHIVE_FATAL : r;
    }
    return ARCHIVE_EOF;
}

// A member as the terminal's BusyBox tar reads its headers.
struct tar_header {
    char type = 0;
    int64_t data = -1; // bytes of data behind the header; -1: no more members
    std::string name, link;
    bool hard_link = false;
};

// The members' headers as the terminal's BusyBox tar reads them: a regular
// member's ('0', '7', NUL) header size field says how much data follows and
// every other member has none, whatever its size field or a PAX "size" says;
// the name is a GNU long name, else a PAX "path", else prefix/name; and an
// empty regular member with a link name is a hard link. libarchive honours a
// PAX "size", gives a hard link in a PAX archive data and ignores the link
// name of a regular member, so where the two readings part, the judge would
// judge other members than the terminal unpacks.
class header_walk
{
  public:
    explicit header_walk(archive_in *in) : a_(archive_read_new(), archive_read_free)
    {
        archive_read_support_filter_gzip(a_.get());
        archive_read_support_format_raw(a_.get());
        struct archive_entry *entry;
        ok_ = archive_read_open(a_.get(), in, nullptr, read_in, nullptr) == ARCHIVE_OK &&
              archive_read_next_header(a_.get(), &entry) == ARCHIVE_OK;
    }

    tar_header next()
    {
        tar_header t;
        std::string longname, longlink;
        bool has_longname = false, has_longlink = false;
        uint8_t h[512];
        while (ok_ && read_block(h) && h[0] != '\0') {
            t.type = static_cast<char>(h[156]);
            const uint64_t size = size_field(h + 124);
            if (t.type == 'L' || t.type == 'K') {
                std::string text = read_text(size);
                (t.type == 'L' ? longname : longlink) = text.c_str();
                (t.type == 'L' ? has_longname : has_longlink) = true;
                continue;
            }
            if (t.type == 'x' || t.type == 'g') {
                std::string text = size > 0xFFFFF ? (skip(size), "") : read_text(size);
                if (t.type == 'x')
                    pax_names(text, &longname, &has_longname, &longlink, &has_longlink);
                continue;
            }
            const bool regular = t.type == '0' || t.type == '7' || t.type == '\0';
            t.data = regular ? static_cast<int64_t>(size) : 0;
            skip(static_cast<uint64_t>(t.data));
            const std::string name = field(h, 100), prefix = field(h + 345, 155);
            t.name = has_longname ? longname : prefix.empty() ? name : joined(prefix, name);
            t.link = has_longlink ? longlink : field(h + 157, 100);
            t.hard_link = t.type == '1' || (regular && size == 0 && !t.link.empty());
            return t;
        }
        t.data = -1;
        return t;
    }

  private:
    static std::string field(const uint8_t *f, size_t width)
    {
        const char *p = reinterpret_cast<const char *>(f);
        return std::string(p, strnlen(p, width));
    }

    // prefix "/" name, without the name's leading slashes.
    static std::string joined(const std::string &prefix, std::string name)
    {
        name.erase(0, name.find_first_not_of('/') == std::string::npos
                          ? name.size()
                          : name.find_first_not_of('/'));
        return prefix + (prefix.back() == '/' ? "" : "/") + name;
    }

    // "LEN KEY=VALUE\n" records; a malformed one ends the header.
    static void pax_names(const std::string &text, std::string *name, bool *has_name,
                          std::string *link, bool *has_link)
    {
        size_t at = 0;
        while (at < text.size()) {
            char *end = nullptr;
            const unsigned long len = strtoul(text.c_str() + at, &end, 10);
            const size_t key = static_cast<size_t>(end - text.c_str()) + 1;
            if (*end != ' ' || len < 5 || len > text.size() - at || key > at + len - 1)
                return;
            const std::string record(text.c_str() + key,
                                     strnlen(text.c_str() + key, at + len - 1 - key));
            at += len;
            if (record.compare(0, 5, "path=") == 0) {
                *name = record.substr(5);
                *has_name = true;
            } else if (record.compare(0, 9, "linkpath=") == 0) {
                *link = record.substr(9);
                *has_link = true;
            }
        }
    }

    // Octal, or base-256 when the first byte has its top bit set.
    static uint64_t size_field(const uint8_t *f)
    {
        uint64_t v = 0;
        if (f[0] & 0x80) {
            for (int i = 1; i < 12; i++)
                v = v << 8 | f[i];
            return v;
        }
        for (int i = 0; i < 12 && f[i] >= '0' && f[i] <= '7'; i++)
            v = v * 8 + (f[i] - '0');
        return v;
    }

    bool read_block(uint8_t *out)
    {
        size_t have = 0;
        while (have < 512) {
            la_ssize_t n = archive_read_data(a_.get(), out + have, 512 - have);
            if (n <= 0)
                return ok_ = false;
            have += static_cast<size_t>(n);
        }
        return true;
    }

    // The `size` bytes of an extension header (at most PACK_TEXT_MAX kept),
    // and its padding.
    std::string read_text(uint64_t size)
    {
        std::string text;
        uint8_t block[512];
        for (uint64_t left = size; left > 0 && ok_ && read_block(block);) {
            const size_t n = left < 512 ? static_cast<size_t>(left) : 512;
            if (text.size() < PACK_TEXT_MAX)
                text.append(reinterpret_cast<const char *>(block), n);
            left -= n;
        }
        return text;
    }

    // The data and the padding to the next block.
    void skip(uint64_t size)
    {
        uint8_t block[512];
        for (uint64_t left = (size + 511) / 512; left > 0 && ok_ && read_block(block); left--) {
        }
    }

    archive_ptr a_;
    bool ok_ = false;
};

// Where the terminal's tar reads the members' headers otherwise than the
// listing: the finding, or "".
std::string headers_part(int fd, uint64_t payload, const std::vector<pack_listed> &members)
{
    auto in = std::make_unique<archive_in>(archive_in{fd, 0, payload, {}});
    header_walk walk(in.get());
    for (const pack_listed &m : members) {
        const tar_header t = walk.next();
        const std::string shown = "member '" + printable(m.name) + "'";
        if (t.data < 0)
            return shown + " is not there for the terminal's tar";
        const int64_t listed = m.kind == PACK_FILE ? m.size : 0;
        if (t.data != listed)
            return shown + " holds " + std::to_string(listed) +
                   " bytes of data, but the terminal's tar reads " + std::to_string(t.data) +
                   " bytes, and with them other members";
        if (t.name != m.name)
            return shown + " is named '" + printable(t.name) + "' for the terminal's tar";
        if (t.hard_link != (m.kind == PACK_HARDLINK) ||
            ((t.hard_link || t.type == '2') && t.link != m.link))
            return shown + " is " +
                   (t.hard_link ? "a hard link to '" + printable(t.link) + "'"
                                : std::string("no hard link")) +
                   " for the terminal's tar";
    }
    if (walk.next().data >= 0)
        return "the terminal's tar reads more members than the archive lists";
    return "";
}

// Reads again the texts of the members `wanted` (indexes, ascending) that
// the listing did not keep: a hard link gives an artifact the data of a
// member of another name.
void read_texts(int fd, uint64_t payload, const std::vector<size_t> &wanted,
                std::vector<member_data> *data)
{
    if (wanted.empty())
        return;
    auto in = std::make_unique<archive_in>(archive_in{fd, 0, payload, {}});
    archive_ptr a = open_payload(in.get());
    struct archive_entry *entry;
    size_t index = 0, next = 0;
    while (a != nullptr && next < wanted.size()) {
        int r = archive_read_next_header(a.get(), &entry);
        if (r != ARCHIVE_OK && r != ARCHIVE_WARN)
            return;
        if (index++ == wanted[next] && read_data(a.get(), true, &(*data)[wanted[next++]]) != 0)
            return;
    }
}

// The installed artifacts' figures from the data of their members.
void take_artifacts(int fd, uint64_t payload, std::vector<member_data> &data, pack_report *report)
{
    std::vector<size_t> unkept;
    for (const pack_artifact &a : report->judgement.artifacts) {
        const std::string folded = pack_fold_case(a.name);
        if ((folded == VERSION_ARTIFACT || a.name == MANIFEST_ARTIFACT ||
             a.name == MANIFEST_SIG_ARTIFACT) &&
            !data[a.member].kept)
            unkept.push_back(a.member);
    }
    std::sort(unkept.begin(), unkept.end());
    unkept.erase(std::unique(unkept.begin(), unkept.end()), unkept.end());
    read_texts(fd, payload, unkept, &data);
    for (const pack_artifact &a : report->judgement.artifacts) {
        const member_data &d = data[a.member];
        report->artifacts.push_back({a.name, static_cast<uint64_t>(a.size), d.sha256});
        const std::string folded = pack_fold_case(a.name);
        if (folded == VERSION_ARTIFACT) {
            pkg_version_key key;
            if (pkg_version_ini_text(d.text, &key) == 0 && key.found) {
                report->has_version = true;
                report->version_text = key.value;
                pkg_version_parse(key.value.c_str(), &report->version);
            }
        } else if (folded == MCU_IMAGE_ARTIFACT) {
            report->has_mcu_image = true;
            report->mcu_image_size = static_cast<uint64_t>(a.size);
            report->mcu_image_crc32 = d.crc;
        } else if (a.name == MANIFEST_ARTIFACT) {
            report->manifest = d.text;
        } else if (a.name == MANIFEST_SIG_ARTIFACT) {
            report->manifest_sig = d.text;
        }
    }
}

} // namespace

bool pack_refused(const pack_report &report)
{
    return std::any_of(report.findings.begin(), report.findings.end(),
                       [](const pack_finding &f) { return f.refuse; });
}

int pack_verify(const std::string &path, pack_report *report, std::string *err)
{
    *report = pack_report{};
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        *err = "cannot open '" + path + "': " + strerror(errno);
        report->findings.push_back({true, *err});
        return -1;
    }
    return pack_verify_fd(fd.get(), report, err);
}

int pack_verify_fd(int fd, pack_report *report, std::string *err)
{
    *report = pack_report{};
    auto refuse = [&](const std::string &why) {
        *err = why;
        report->findings.insert(report->findings.begin(), {true, why});
        return -1;
    };
    struct stat st;
    if (fstat(fd, &st) != 0)
        return refuse(std::string("cannot examine the package: ") + strerror(errno));
    report->package_size = static_cast<uint64_t>(st.st_size);
    if (report->package_size < PKG_FOOTER_SIZE)
        return refuse("the file has " + std::to_string(st.st_size) +
                      " bytes, too few for the 12-byte footer");
    if (report->package_size > PKG_MAX_SIZE)
        return refuse("the file has " + std::to_string(st.st_size) +
                      " bytes; the terminal takes at most " + std::to_string(PKG_MAX_SIZE));
    const uint64_t payload = report->package_size - PKG_FOOTER_SIZE;
    uint8_t footer[PKG_FOOTER_SIZE];
    if (pread(fd, footer, sizeof footer, static_cast<off_t>(payload)) !=
        static_cast<ssize_t>(sizeof footer))
        return refuse("cannot read the footer");
    pkg_metadata_t meta;
    pkg_footer_decode(footer, &meta);
    report->artifacts_bitmask = meta.artifacts_bitmask;
    report->footer_crc = meta.crc;
    report->payload_crc = PKG_CRC_START;
    if (lseek(fd, 0, SEEK_SET) != 0 || pkg_crc_fd(fd, payload, &report->payload_crc) != 0)
        return refuse(std::string("cannot read the payload: ") + strerror(errno));
    if (!sign_init())
        return refuse("libsodium cannot be used");

    std::vector<member_data> data;
    std::string unread;
    const int r = read_members(fd, payload, report, &data, &unread);
    report->judgement = pack_judge(report->members);
    report->findings = report->judgement.findings;
    // The listing itself is in doubt where the terminal's tar reads the
    // headers otherwise: a reading problem, not one the judge could find.
    std::string parted;
    if (r == ARCHIVE_EOF && !report->judgement.tar_fails) {
        parted = headers_part(fd, payload, report->members);
        if (parted.empty())
            take_artifacts(fd, payload, data, report);
    }

    std::string problems = parted;
    if (report->payload_crc != report->footer_crc) {
        char text[128];
        snprintf(text, sizeof text, "CRC mismatch: the footer says %u, the payload gives %u",
                 report->footer_crc, report->payload_crc);
        problems = text + (problems.empty() ? "" : "; " + problems);
    }
    if (r != ARCHIVE_EOF) {
        // A member beyond the limits is the judge's to name.
        const bool limited = unread.empty() && !report->findings.empty();
        problems += (problems.empty() ? "" : "; ") + (limited ? report->findings[0].text : unread);
        if (limited)
            report->findings.erase(report->findings.begin());
    }
    if (!problems.empty())
        return refuse(problems);
    return 0;
}
