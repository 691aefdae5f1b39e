// Host build of the platform seam: a simulation of the terminal kept in files
// under $SWU_ROOT. It never reboots, partitions, formats, mounts or takes down
// an interface of the machine it runs on. The contract is in README.md.
#include "platform/platform.h"
#include "platform/shell_words.h"

#include "lib/sys/le_bytes.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

[[noreturn]] void missing_root(const char *prog_name)
{
    fprintf(stderr,
            "%s: SWU_ROOT is not set: set it to the directory that holds the simulated "
            "terminal (host build)\n",
            prog_name);
    exit(2);
}

std::string sim_root()
{
    const char *root = getenv("SWU_ROOT");
    if (root == nullptr || root[0] == '\0')
        missing_root("swu");
    std::string r = root;
    // An absolute root keeps every path valid whatever the working directory.
    char real[PATH_MAX];
    if (realpath(root, real) != nullptr)
        r = real;
    while (r.size() > 1 && r.back() == '/')
        r.pop_back();
    return r;
}

std::string strip_slash(std::string p)
{
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

// Reads $SWU_ROOT/sim/fail/<op>: empty fails every call with EIO, "N [E]"
// fails the next N calls (with errno E) and then removes the file.
bool sim_fail(const char *op)
{
    std::string path = sim_root() + "/sim/fail/" + op;
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr)
        return false;
    long count = -1;
    int err = EIO;
    int fields = fscanf(f, "%ld %d", &count, &err);
    fclose(f);
    if (fields < 1) {
        errno = EIO;
        return true;
    }
    if (count <= 0) {
        unlink(path.c_str());
        return false;
    }
    if (count == 1) {
        unlink(path.c_str());
    } else if (FILE *w = fopen(path.c_str(), "we"); w != nullptr) {
        fprintf(w, "%ld %d\n", count - 1, err);
        fclose(w);
    }
    errno = err;
    return true;
}

// The mount point's own directory waits here while a partition covers it.
std::string covered_path(const std::string &mount_point)
{
    std::string rel = mount_point.substr(sim_root().size());
    return sim_root() + "/sim/covered" + rel;
}

bool is_simulated_mount(const std::string &mount_point)
{
    struct stat st;
    return lstat(mount_point.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

void empty_directory(const std::string &dir)
{
    std::error_code ec;
    fs::remove_all(dir, ec);
    fs::create_directories(dir, ec);
}

} // namespace

bool plat_is_simulation()
{
    return true;
}

void plat_require_root(const char *prog_name)
{
    const char *root = getenv("SWU_ROOT");
    if (root == nullptr || root[0] == '\0')
        missing_root(prog_name);
}

std::string plat_path(const char *abs_path)
{
    if (abs_path == nullptr || abs_path[0] != '/')
        return abs_path == nullptr ? std::string() : std::string(abs_path);
    return sim_root() + abs_path;
}

int plat_open(const char *abs_path, int flags, mode_t mode)
{
    if (sim_fail("open"))
        return -1;
    return open(plat_path(abs_path).c_str(), flags, mode);
}

ssize_t plat_read(int fd, void *buf, size_t count)
{
    if (sim_fail("read"))
        return -1;
    return read(fd, buf, count);
}

ssize_t plat_write(int fd, const void *buf, size_t count)
{
    if (sim_fail("write"))
        return -1;
    return write(fd, buf, count);
}

// The register file holds three little-endian u32: initiate-update,
// error-boot, reboot mode.
int plat_reserve(int fd, off_t len)
{
    if (sim_fail("reserve"))
        return -1;
    int err = posix_fallocate(fd, 0, len);
    if (err != 0) {
        errno = err;
        return -1;
    }
    return 0;
}

int plat_misc_request(int fd, unsigned long request, uint32_t *value)
{
    if (sim_fail("ioctl"))
        return -1;
    uint8_t b[4];
    off_t offset;
    switch (request) {
    case PLAT_MISC_GET_INITIATE_UPDATE:
        offset = 0;
        break;
    case PLAT_MISC_GET_ERR_BOOT:
        offset = 4;
        break;
    case PLAT_MISC_SET_REBOOT_MODE:
        le_put32(b, *value);
        if (pwrite(fd, b, 4, 8) != 4) {
            errno = errno ? errno : EIO;
            return -1;
        }
        return 0;
    default:
        errno = ENOTTY;
        return -1;
    }
    ssize_t n = pread(fd, b, 4, offset);
    if (n != 4) {
        if (n >= 0)
            errno = EIO;
        return -1;
    }
    *value = le_get32(b);
    return 0;
}

int plat_mtd_erase(int fd, uint32_t start, uint32_t length)
{
    if (sim_fail("erase"))
        return -1;
    static const std::string erased(65536, '\xFF');
    uint64_t off = start;
    uint64_t end = static_cast<uint64_t>(start) + length;
    while (off < end) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(erased.size(), end - off));
        ssize_t w = pwrite(fd, erased.data(), n, static_cast<off_t>(off));
        if (w <= 0) {
            if (w == 0)
                errno = EIO;
            return -1;
        }
        off += static_cast<uint64_t>(w);
    }
    return 0;
}

int plat_reboot()
{
    if (sim_fail("reboot"))
        return -1;
    std::string dir = sim_root() + "/var/log";
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (FILE *log = fopen((dir + "/reboot.log").c_str(), "ae"); log != nullptr) {
        char stamp[32] = "";
        time_t now = time(nullptr);
        struct tm tm_now;
        if (localtime_r(&now, &tm_now) != nullptr)
            strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm_now);
        fprintf(log, "%s restart requested by pid %d\n", stamp, static_cast<int>(getpid()));
        fclose(log);
    }
    // A real restart ends the process without unwinding; keep what was printed.
    fflush(nullptr);
    _exit(0);
}

int plat_mount(const char *source, const char *target, const char *fstype, unsigned long flags,
               const void *data)
{
    (void)flags;
    (void)data;
    if (sim_fail("mount"))
        return -1;
    std::string device = strip_slash(plat_path(source));
    std::string mount_point = strip_slash(plat_path(target));
    struct stat st;
    if (stat(device.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        errno = ENOENT;
        return -1;
    }
    if (fstype == nullptr || strcmp(fstype, "vfat") != 0) {
        errno = ENODEV;
        return -1;
    }
    if (lstat(mount_point.c_str(), &st) != 0)
        return -1;
    if (S_ISLNK(st.st_mode)) {
        errno = EBUSY;
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    std::string covered = covered_path(mount_point);
    std::error_code ec;
    fs::create_directories(fs::path(covered).parent_path(), ec);
    fs::remove_all(covered, ec);
    if (rename(mount_point.c_str(), covered.c_str()) != 0)
        return -1;
    if (symlink(device.c_str(), mount_point.c_str()) != 0) {
        int saved = errno;
        rename(covered.c_str(), mount_point.c_str());
        errno = saved;
        return -1;
    }
    return 0;
}

int plat_umount(const char *target)
{
    if (sim_fail("umount"))
        return -1;
    std::string mount_point = strip_slash(plat_path(target));
    if (!is_simulated_mount(mount_point)) {
        errno = EINVAL;
        return -1;
    }
    if (unlink(mount_point.c_str()) != 0)
        return -1;
    std::string covered = covered_path(mount_point);
    if (rename(covered.c_str(), mount_point.c_str()) != 0)
        mkdir(mount_point.c_str(), 0777);
    return 0;
}

int plat_statfs(const char *abs_path, struct statfs *buf)
{
    if (sim_fail("statfs"))
        return -1;
    std::string path = strip_slash(plat_path(abs_path));
    if (statfs(path.c_str(), buf) != 0)
        return -1;
    buf->f_type = is_simulated_mount(path) ? PLAT_MSDOS_MAGIC : PLAT_TMPFS_MAGIC;
    if (FILE *f = fopen((sim_root() + "/sim/fstype").c_str(), "re"); f != nullptr) {
        char text[32] = "";
        if (fgets(text, sizeof text, f) != nullptr)
            buf->f_type = strtol(text, nullptr, 0);
        fclose(f);
    }
    return 0;
}

// Flushing the host's file systems would only slow the tests down.
void plat_sync() {}

int plat_system(const char *command)
{
    fflush(stdout);
    plat_cmd_t cmd = plat_classify_command(command);
    switch (cmd.kind) {
    case PLAT_CMD_RUN:
        return system(command);
    case PLAT_CMD_FDISK:
        // A new partition table: the old partition's files are gone.
        empty_directory(strip_slash(plat_path("/dev/mmcblk0p1")));
        printf("[sim] fdisk: new partition table on /dev/mmcblk0\n");
        return 0;
    case PLAT_CMD_MKFS: {
        std::string device = cmd.argument;
        if (device.size() >= 2 && device.front() == '\'' && device.back() == '\'')
            device = device.substr(1, device.size() - 2);
        empty_directory(strip_slash(plat_path(device.c_str())));
        printf("[sim] mkfs.vfat: empty file system on %s\n", device.c_str());
        return 0;
    }
    case PLAT_CMD_LOG_ONLY:
        printf("[sim] not run: %s\n", command);
        fflush(stdout);
        return 0;
    case PLAT_CMD_REFUSE:
        break;
    }
    printf("[sim] refused: %s\n", command);
    fflush(stdout);
    return 127 << 8;
}

FILE *plat_popen(const char *command, const char *mode)
{
    fflush(stdout);
    if (plat_classify_command(command).kind == PLAT_CMD_RUN)
        return popen(command, mode);
    printf("[sim] refused: %s\n", command);
    fflush(stdout);
    // Behave like a shell whose command could not be found.
    return popen("exit 127", mode);
}

int plat_pclose(FILE *stream)
{
    return pclose(stream);
}
