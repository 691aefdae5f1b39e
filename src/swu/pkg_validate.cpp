// Integrity check and unpacking of a received update package.
#include "swu/pkg_install.h"

#include "lib/sys/swu_assert.h"
#include "lib/sys/unique_fd.h"
#include "platform/platform.h"
#include "sign/manifest.h"
#include "swu/self_adv.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

// With this public key in place the terminal installs signed packages only.
constexpr char TRUSTED_KEY_FILE[] = "/etc/swu/trusted.pub";

// The manifest the package in the staging directory was accepted with; the
// card's copies are checked against it, not against the staged files, which
// may have changed since. Used by the installation thread only.
struct accepted_manifest {
    bool valid = false;
    std::string text, sig;
    std::vector<uint8_t> pk;
} g_accepted;

// Anything at the key's path (a dangling link or a link loop included) asks
// for signed packages: signing must never fall silently open.
bool signing_required()
{
    struct stat st;
    return lstat(plat_path(TRUSTED_KEY_FILE).c_str(), &st) == 0 || errno != ENOENT;
}

// Removes from the staging directory everything but the regular files at its
// top. A link or directory left by an earlier package would otherwise let
// this package's members be written through it, outside the directory (tar
// follows a link that is already on disk). Leftover names that can never be
// artifacts go too, so they can't block later packages. The regular files
// stay: they count as artifacts of this run. False when something stayed.
bool purge_staging(const std::string &staging)
{
    DIR *dir = opendir(staging.c_str());
    if (dir == nullptr)
        return false;
    std::vector<std::string> doomed;
    while (struct dirent *ent = readdir(dir)) {
        if (strcmp(ent->d_name, ".") == 0 || strcmp(ent->d_name, "..") == 0)
            continue;
        struct stat st;
        if (fstatat(dirfd(dir), ent->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && strlen(ent->d_name) < ARTIFACT_NAME_SIZE)
            continue;
        doomed.push_back(staging + ent->d_name);
    }
    closedir(dir);
    bool purged = true;
    for (const std::string &path : doomed) {
        std::error_code ec; // remove_all removes a link itself, never its target
        std::filesystem::remove_all(path, ec);
        if (ec) {
            printf("can't remove %s: %s\n", path.c_str(), ec.message().c_str());
            purged = false;
        }
    }
    return purged;
}

// With signing on the staging directory is made afresh for each package and
// owned by the service: whatever was at its path goes (a link itself, never
// its target), and a directory only the service can write takes its place.
// /tmp is sticky, so nobody else can swap it afterwards. 0 or -1.
int own_staging(const std::string &staging)
{
    const std::string dir = staging.substr(0, staging.find_last_not_of('/') + 1);
    std::error_code ec; // remove_all removes a link itself, never its target
    std::filesystem::remove_all(dir, ec);
    if (ec) {
        printf("can't remove %s: %s\n", dir.c_str(), ec.message().c_str());
        return -1;
    }
    if (mkdir(dir.c_str(), 0700) != 0)
        return -1;
    unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || st.st_uid != geteuid()) {
        errno = EPERM;
        return -1;
    }
    return 0;
}

} // namespace

int extract_footer(pkg_metadata_t *pkg_data, int fd, off_t fsize)
{
    SWU_ASSERT(pkg_data != nullptr);
    off_t footer_at = fsize - static_cast<off_t>(PKG_FOOTER_SIZE);
    off_t at = lseek(fd, footer_at, SEEK_SET);
    if (at < 0 || at != footer_at) {
        perror("file seek failed");
        return -1;
    }

    uint8_t raw[PKG_FOOTER_SIZE];
    if (plat_read(fd, raw, sizeof raw) != static_cast<ssize_t>(sizeof raw)) {
        perror("file read failed");
        return -1;
    }
    pkg_footer_decode(raw, pkg_data);
    printf("[pkg data]  ->artifacts_bitmask: 0x%X, ->crc:%u\n", pkg_data->artifacts_bitmask,
           pkg_data->crc);

    if (ftruncate(fd, footer_at) != 0) {
        perror("file truncate failed");
        return -1;
    }
    if (lseek(fd, 0, SEEK_SET) != 0) {
        perror("file seek failed");
        return -1;
    }
    return 0;
}

int check_pkg_crc(const char *path, pkg_metadata_t *pkg_data)
{
    SWU_ASSERT(path != nullptr);
    SWU_ASSERT(pkg_data != nullptr);

    // Descriptor 0 is a valid one when the service runs with stdin closed.
    unique_fd fd(open(path, O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        perror("open pkg failed");
        return -1;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        perror("fstat failed");
        return -1;
    }
    if (extract_footer(pkg_data, fd.get(), st.st_size) != 0) {
        perror("invalid footer");
        set_install_status(INSTALL_STT_CRC_ERROR);
        return -1;
    }

    int result = -1;
    uint32_t crc = PKG_CRC_START;
    uint64_t payload_size = static_cast<uint64_t>(st.st_size) - PKG_FOOTER_SIZE;
    if (pkg_crc_fd(fd.get(), payload_size, &crc) != 0) {
        perror("read failed");
        set_install_status(INSTALL_STT_CRC_ERROR);
    } else if (crc == pkg_data->crc) {
        printf("[success] extracted metadata crc: %u | calculated truncated pkg crc "
               "%u..............\n",
               pkg_data->crc, crc);
        set_install_status(INSTALL_STT_CRC_OK);
        result = 0;
    } else {
        printf("[failure] extracted metadata crc: %u | calculated truncated pkg crc "
               "%u..............\n",
               pkg_data->crc, crc);
        fflush(stdout);
        perror("invalid crc");
        set_install_status(INSTALL_STT_CRC_ERROR);
    }
    return result;
}

int do_extract_pkg(const char *path)
{
    SWU_ASSERT(path != nullptr);
    std::string staging = plat_path("/tmp/pkg/");
    if (signing_required()) {
        if (own_staging(staging) != 0) {
            perror("mkdir faild....\n");
            return -1;
        }
    } else {
        struct stat st;
        if (stat(staging.c_str(), &st) != 0 && mkdir(staging.c_str(), 0777) != 0) {
            perror("mkdir faild....\n");
            return -1;
        }
        if (!purge_staging(staging)) {
            perror("extract cmd failed");
            return -1;
        }
    }

    // The package path and the staging directory are quoted, so no name
    // reaches the shell as anything but one argument.
    // A name starting with '-' would reach tar as an option, and "-" alone as
    // its standard input: it goes as a path of the working directory.
    const std::string pkg_arg = path[0] == '-' ? "./" + std::string(path) : std::string(path);
    std::string quoted_pkg = pkg_shell_quote(pkg_arg.c_str());
    std::string quoted_dir = pkg_shell_quote(staging.c_str());
    std::string pkg_extract_cmd(sizeof PKG_UNPACK_CMD + quoted_pkg.size() + quoted_dir.size(),
                                '\0');
    int len = snprintf(pkg_extract_cmd.data(), pkg_extract_cmd.size(), PKG_UNPACK_CMD,
                       quoted_pkg.c_str(), quoted_dir.c_str());
    pkg_extract_cmd.resize(len > 0 ? static_cast<size_t>(len) : 0);
    if (plat_system(pkg_extract_cmd.c_str()) != 0) {
        perror("extract cmd failed");
        return -1;
    }
    return 0;
}

namespace
{

// The unpacked package against its signed manifest, when the terminal holds a
// trusted key; before anything touches the card or the microcontroller. A
// package older than the installed version needs a manifest signed as a
// downgrade, so that an old signed package can't be replayed.
bool signature_accepted()
{
    g_accepted = accepted_manifest{};
    if (!signing_required())
        return true;
    accepted_manifest m;
    std::string why;
    if (sign_read_key(plat_path(TRUSTED_KEY_FILE), SIGN_PUBLIC_KEY_SIZE, &m.pk, &why) != 0 ||
        manifest_check_dir(plat_path("/tmp/pkg"), m.pk, &why, &m.text, &m.sig) != 0) {
        printf("package refused, signature check failed: %s\n", why.c_str());
        fflush(stdout);
        return false;
    }
    const manifest_package package = manifest_package_of(m.text);
    uint16_t installed[3] = {0, 0, 0};
    get_curr_ver(installed, 3);
    if (!manifest_allows(package, installed)) {
        printf("package refused: version %u.%u.%u is older than the installed %u.%u.%u and not "
               "signed as a downgrade\n",
               package.version[0], package.version[1], package.version[2], installed[0],
               installed[1], installed[2]);
        fflush(stdout);
        return false;
    }
    printf("package signature verified\n");
    m.valid = true;
    g_accepted = m;
    return true;
}

} // namespace

int do_pkg_validation(const char *path, pkg_metadata_t *pkg_data)
{
    if (check_pkg_crc(path, pkg_data) != 0)
        return -1;
    if (do_extract_pkg(path) == 0 && signature_accepted()) {
        set_install_status(INSTALL_STT_ARTIFACT_OK);
        return 0;
    }
    set_install_status(INSTALL_STT_ARTIFACT_ERROR);
    return -1;
}

int check_signed_copies(const char *dir, const artifact_desc_t *art_list, uint32_t art_count)
{
    SWU_ASSERT(dir != nullptr);
    if (!g_accepted.valid && !signing_required())
        return 0;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < art_count; i++)
        names.emplace_back(art_list[i].fname, art_list[i].fname_len);
    std::string why = "no accepted manifest";
    if (g_accepted.valid &&
        manifest_check_files(dir, names, g_accepted.text, g_accepted.sig, g_accepted.pk, &why) == 0)
        return 0;
    printf("installation refused, the card's copy differs from the signed package: %s\n",
           why.c_str());
    fflush(stdout);
    // Not one byte that failed the check stays on the card.
    for (const std::string &name : names)
        unlink((std::string(dir) + "/" + name).c_str());
    return -1;
}
