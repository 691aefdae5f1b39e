#include "lib/package_write.h"

#include "common/printable.h"
#include "lib/sys/unique_fd.h"
#include "proto/package.h"

#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
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

std::string base_name(const std::string &path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    size_t slash = p.find_last_of('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

} // namespace

int pack_collect_files(const std::vector<std::string> &paths, std::vector<pack_member> *members,
                       std::vector<pack_listed> *listing, std::string *err)
{
    for (const std::string &path : paths) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0) {
            *err = "cannot read artifact '" + path + "': " + strerror(errno);
            return -1;
        }
        if (!S_ISREG(st.st_mode)) {
            *err = "artifact '" + path + "' is not a regular file";
            return -1;
        }
        pack_member m;
        m.name = base_name(path);
        if (m.name == "." || m.name == "..") {
            *err = "artifact '" + path + "' has no file name";
            return -1;
        }
        for (const pack_member &earlier : *members)
            if (earlier.name == m.name) {
                *err = "two artifacts named '" + printable(m.name) + "'";
                return -1;
            }
        m.source = path;
        members->push_back(m);
        listing->push_back({m.name, PACK_FILE, st.st_size, "", false});
    }
    return 0;
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
