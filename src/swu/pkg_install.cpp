// The installation thread and its steps: listing the unpacked artifacts,
// copying them onto the eMMC card, checking every copy by its digest, the
// microcontroller update, and the card recovery between two attempts.
#include "swu/pkg_install.h"

#include "lib/st_control/st_control.h"
#include "lib/sys/swu_assert.h"
#include "lib/sys/unique_fd.h"
#include "platform/platform.h"
#include "swu/emmc_mount.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

sem_t g_install_sync_sem;
struct validation_thrd_arg g_instatll_thrd_data = {nullptr, 0, 0};

namespace
{

std::atomic<int> g_instatll_status{INSTALL_STT_IN_PROGRESS};

constexpr const char *FDISK_CMD = "echo -e \"d\no\nn\np\n1\n\n\nw\" | fdisk /dev/mmcblk0";
constexpr const char *MKFS_CMD = "mkfs.vfat /dev/mmcblk0p1";
constexpr size_t MD5_SIZE = MD5_LEN + 1;
// Per artifact: source and destination paths, source and destination digests.
constexpr size_t ARTIFACT_WORK_SIZE = 2 * (PKG_PATH_SIZE + MD5_SIZE);

// A session time-out posts the semaphore whether or not a thread ever ran, so
// it is made ready on first use rather than by the first thread.
sem_t *install_sem()
{
    static const int init_result = sem_init(&g_install_sync_sem, 0, 0);
    SWU_ASSERT(init_result == 0);
    return &g_install_sync_sem;
}

void install_sem_wait()
{
    while (sem_wait(install_sem()) != 0 && errno == EINTR) {
    }
}

bool regular_file(DIR *dir, const struct dirent *ent)
{
    if (ent->d_type != DT_UNKNOWN)
        return ent->d_type == DT_REG;
    // Some file systems leave the type to a separate query; links don't count.
    struct stat st;
    return fstatat(dirfd(dir), ent->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
}

// The base path and the artifact's name into the PKG_PATH_SIZE bytes at
// `path`. False, with `path` cleared, when they don't fit.
bool set_path(const artifact_desc_t *artifact, char *path, const char *base_path)
{
    memset(path, 0, PKG_PATH_SIZE);
    size_t base_len = strlen(base_path);
    if (base_len + artifact->fname_len >= PKG_PATH_SIZE) {
        printf("path too long: %s%s\n", base_path, artifact->fname);
        return false;
    }
    memcpy(path, base_path, base_len);
    memcpy(path + base_len, artifact->fname, artifact->fname_len);
    return true;
}

// One copy inside the kernel. It succeeds only when a single transfer moves
// the whole file: after a partial one the file is not trusted.
int os_cpy_file(const char *src, const char *dst)
{
    unique_fd src_fd(open(src, O_RDONLY | O_CLOEXEC));
    if (!src_fd.valid()) {
        perror("open src failed...\n");
        return -1;
    }
    unique_fd dst_fd(open(dst, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660));
    if (!dst_fd.valid()) {
        perror("create dst failed...\n");
        return -1;
    }
    struct stat st;
    if (fstat(src_fd.get(), &st) != 0)
        return -1;
    off_t offset = 0;
    ssize_t sent = -1;
    for (int attempt = 0; attempt < 3; attempt++) {
        sent = sendfile(dst_fd.get(), src_fd.get(), &offset, static_cast<size_t>(st.st_size));
        if (sent == st.st_size)
            break;
    }
    return sent == st.st_size ? 0 : -1;
}

// The hexadecimal MD5 digest of `file_name` into `md5sum`: 1 when all MD5_LEN
// characters were read, else 0.
int calc_file_md5(const char *file_name, char *md5sum, size_t md5_size)
{
    SWU_ASSERT(md5_size > MD5_LEN);
    memset(md5sum, 0, md5_size);
    std::string cmd = "md5sum " + pkg_shell_quote(file_name) + " 2>/dev/null";
    FILE *out = plat_popen(cmd.c_str(), "re");
    if (out == nullptr)
        return 0;
    size_t count = 0;
    int c;
    bool line_start = true;
    while (count < MD5_LEN && (c = fgetc(out)) != EOF) {
        // md5sum starts the line with a backslash when it had to escape the
        // name (a newline or backslash in it); the digest follows.
        if (line_start && c == '\\') {
            line_start = false;
            continue;
        }
        line_start = false;
        if (!isxdigit(c))
            break;
        md5sum[count++] = static_cast<char>(c);
    }
    md5sum[count] = '\0';
    plat_pclose(out);
    return count == MD5_LEN ? 1 : 0;
}

// Copies every artifact from the staging directory onto the mounted card,
// remounts the card and compares the digests of both sides. 0 when every copy
// matches; the card stays mounted.
int cpy_files_2_emmc(artifact_desc_t *art_list, uint32_t art_count)
{
    size_t block_size = static_cast<size_t>(art_count) * ARTIFACT_WORK_SIZE;
    auto *mem_block = static_cast<char *>(calloc(block_size > 0 ? block_size : 1, 1));
    if (mem_block == nullptr) {
        perror("malloc failed");
        return -1;
    }
    char *src_path = mem_block;
    char *dst_path = src_path + art_count * PKG_PATH_SIZE;
    char *src_md5 = dst_path + art_count * PKG_PATH_SIZE;
    char *dst_md5 = src_md5 + art_count * MD5_SIZE;

    std::string staging = plat_path("/tmp/pkg/");
    std::string card = plat_path("/mnt/emmc/");
    int result = 0;
    for (uint32_t i = 0; i < art_count; i++) {
        char *src = src_path + i * PKG_PATH_SIZE;
        char *dst = dst_path + i * PKG_PATH_SIZE;
        if (!set_path(&art_list[i], src, staging.c_str()) ||
            !set_path(&art_list[i], dst, card.c_str())) {
            result = -1;
            continue;
        }
        // lstat: a link with the artifact's name goes too, never its target.
        struct stat st;
        if (lstat(dst, &st) == 0 && remove(dst) != 0) {
            perror("ERROR : remove faild ");
            result = -1;
        }
        if (result == 0 && os_cpy_file(src, dst) != 0) {
            puts("os_cpy_file failed...");
            result = -1;
        }
    }
    if (result != 0) {
        free(mem_block);
        return -1;
    }

    // The digests are read back from the card as it comes up after a mount.
    if (plat_umount("/mnt/emmc/") != 0) {
        perror("umount_failed...");
        free(mem_block);
        return -1;
    }
    if (mount_emmc() != 0) {
        free(mem_block);
        return -1;
    }
    for (uint32_t i = 0; result == 0 && i < art_count; i++) {
        char *src_sum = src_md5 + i * MD5_SIZE;
        char *dst_sum = dst_md5 + i * MD5_SIZE;
        int src_ok = calc_file_md5(src_path + i * PKG_PATH_SIZE, src_sum, MD5_SIZE);
        int dst_ok = calc_file_md5(dst_path + i * PKG_PATH_SIZE, dst_sum, MD5_SIZE);
        result = src_ok && dst_ok ? memcmp(src_sum, dst_sum, MD5_SIZE) : -1;
    }
    free(mem_block);
    return result;
}

} // namespace

std::string pkg_shell_quote(const char *text)
{
    std::string quoted = "'";
    for (const char *c = text; *c != '\0'; c++) {
        if (*c == '\'')
            quoted += "'\\''";
        else
            quoted += *c;
    }
    quoted += '\'';
    return quoted;
}

int get_install_status()
{
    return g_instatll_status;
}

void set_install_status(int status)
{
    g_instatll_status = status;
}

int post_install_sem()
{
    return sem_post(install_sem());
}

int list_pkg_content(artifact_desc_t **art_list, uint32_t *art_count)
{
    SWU_ASSERT(art_list != NULL);
    SWU_ASSERT(art_count != NULL);
    *art_list = nullptr;
    *art_count = 0;
    DIR *dir = opendir(plat_path("/tmp/pkg/").c_str());
    if (dir == nullptr) {
        perror("opendir failed...");
        return -1;
    }

    uint32_t count = 0;
    while (struct dirent *ent = readdir(dir)) {
        if (!regular_file(dir, ent))
            continue;
        // A name that doesn't fit `fname` fails the installation rather than
        // installing the package without that artifact.
        if (strlen(ent->d_name) >= ARTIFACT_NAME_SIZE) {
            printf("artifact name of %zu bytes refused: at most %zu allowed\n", strlen(ent->d_name),
                   ARTIFACT_NAME_SIZE - 1);
            closedir(dir);
            return -1;
        }
        count++;
    }
    printf("file count in src dir: %u\n", count);

    auto *list =
        static_cast<artifact_desc_t *>(malloc((count > 0 ? count : 1) * sizeof(artifact_desc_t)));
    if (list == nullptr) {
        perror("malloc failed :");
        closedir(dir);
        return -2;
    }
    rewinddir(dir);
    uint32_t found = 0;
    while (struct dirent *ent = readdir(dir)) {
        if (!regular_file(dir, ent))
            continue;
        found++;
        size_t len = strlen(ent->d_name);
        if (*art_count >= count || len >= ARTIFACT_NAME_SIZE)
            continue;
        artifact_desc_t *art = &list[*art_count];
        memcpy(art->fname, ent->d_name, len + 1);
        art->fname_len = static_cast<uint32_t>(len);
        printf("copied fname: %s | name len: %u\n", art->fname, art->fname_len);
        (*art_count)++;
    }
    closedir(dir);
    if (found != count || *art_count != count) {
        printf("[ERROR in %s] : mismatching number of files", "list_pkg_content");
        free(list);
        *art_count = 0;
        return -1;
    }
    *art_list = list;
    return 0;
}

int do_pkg_install(struct validation_thrd_arg *thrd_data, artifact_desc_t *art_list,
                   uint32_t art_count)
{
    SWU_ASSERT(thrd_data != nullptr);
    int result = -1;
    if (mount_emmc() == 0) {
        struct stat st;
        if (cpy_files_2_emmc(art_list, art_count) != 0) {
            puts("cpy_files_2_emmc faild");
        } else if (check_signed_copies(plat_path("/mnt/emmc/").c_str(), art_list, art_count) != 0) {
            // reported; the microcontroller is left alone
        } else if ((thrd_data->swu_reson & SWU_REASON_KEEP_MCU) == 0 &&
                   stat(plat_path("/mnt/emmc/st.bin").c_str(), &st) == 0) {
            // The front end scans its options as a command line does, so it
            // gets writable strings ending with a null entry.
            char self[] = "self", tty[] = "-t /dev/ttyUL1", image[] = "-f /mnt/st.bin",
                 update[] = "-u";
            char *argv[] = {self, tty, image, update, nullptr};
            if (st_soft_control(4, argv) == 0) {
                puts("installing st sim ........\n");
                result = 0;
            }
        } else {
            result = 0;
        }
    }
    do_cleanup();
    return result;
}

void do_emmc_recovery()
{
    plat_system(FDISK_CMD);
    plat_system(MKFS_CMD);
}

void *pkg_install_thrd_proc(void *arg)
{
    SWU_ASSERT(arg != nullptr);
    auto *thrd_data = static_cast<struct validation_thrd_arg *>(arg);
    pthread_setname_np(pthread_self(), "swu-install");

    // No verification may act on an earlier run's verdict: the status reads
    // INSTALL_STT_IN_PROGRESS until this run's check publishes its own. (The
    // verification state sets it so as well before it creates the thread.)
    g_instatll_status = INSTALL_STT_IN_PROGRESS;
    // Signals given before this run are dropped.
    while (sem_trywait(install_sem()) == 0) {
    }

    pkg_metadata_t pkg_data = {};
    thrd_data->ret = do_pkg_validation(thrd_data->path, &pkg_data);
    if (thrd_data->ret == 0) {
        install_sem_wait();
        g_instatll_status = INSTALL_STT_INSTALLING;
        artifact_desc_t *art_list = nullptr;
        uint32_t art_count = 0;
        thrd_data->ret = list_pkg_content(&art_list, &art_count);
        if (thrd_data->ret == 0) {
            thrd_data->ret = do_pkg_install(thrd_data, art_list, art_count);
            if (thrd_data->ret != 0) {
                do_emmc_recovery();
                thrd_data->ret = do_pkg_install(thrd_data, art_list, art_count);
            }
        }
        free(art_list);
        g_instatll_status =
            thrd_data->ret == 0 ? INSTALL_STT_INSTALL_COMPLEATE : INSTALL_STT_INSTALL_FAILURE;
    }
    // The state machine signals once it has seen the verdict (or a time-out
    // does). The verdict stays published until the next run starts.
    install_sem_wait();
    return nullptr;
}
