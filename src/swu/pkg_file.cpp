#include "swu/pkg_file.h"

#include "lib/sys/swu_assert.h"
#include "platform/platform.h"
#include "proto/codes.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

char g_pkg_name[PKG_NAME_SIZE];
int g_pkg_fd = 0;
uint32_t g_pkg_size = 0;

namespace
{

// Length of the current mapping, kept apart from g_pkg_size so that the unmap
// always matches the map.
size_t g_pkg_map_len = 0;
// End of the part of the mapping already made writable ahead of the copies.
size_t g_pkg_populated = 0;

// Page by page, a fresh mapping costs a fault for every page written. A
// chunk ahead is made writable in one call instead; a kernel without the
// call, or one that fails it, leaves the copies to fault as before.
void populate_ahead(char *pkg_file, uint64_t end)
{
#ifdef MADV_POPULATE_WRITE
    constexpr size_t CHUNK = 512 * 1024;
    if (end <= g_pkg_populated)
        return;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t from = g_pkg_populated / page * page;
    const size_t to = std::min(g_pkg_map_len, static_cast<size_t>(end) + CHUNK);
    g_pkg_populated = to;
    madvise(pkg_file + from, to - from, MADV_POPULATE_WRITE);
#else
    (void)pkg_file;
    (void)end;
#endif
}

// Where a SIGBUS raised by a packet's copy returns to; null outside a copy.
thread_local sigjmp_buf *volatile g_copy_guard = nullptr;
struct sigaction g_prev_sigbus;

void on_sigbus(int sig, siginfo_t *info, void *ctx)
{
    if (sigjmp_buf *guard = g_copy_guard; guard != nullptr)
        siglongjmp(*guard, 1);
    // Not ours: whatever handled SIGBUS before takes it.
    if (g_prev_sigbus.sa_flags & SA_SIGINFO) {
        g_prev_sigbus.sa_sigaction(sig, info, ctx);
        return;
    }
    if (g_prev_sigbus.sa_handler != SIG_DFL && g_prev_sigbus.sa_handler != SIG_IGN) {
        g_prev_sigbus.sa_handler(sig);
        return;
    }
    signal(SIGBUS, SIG_DFL);
    raise(SIGBUS);
}

void unmap(char **pkg_file)
{
    if (*pkg_file != nullptr)
        munmap(*pkg_file, g_pkg_map_len);
    *pkg_file = nullptr;
    g_pkg_map_len = 0;
}

} // namespace

void pkg_file_set_size(uint64_t fsize)
{
    g_pkg_size = static_cast<uint32_t>(fsize);
}

int pkg_file_create(const char *name, size_t len)
{
    SWU_ASSERT(len < PKG_NAME_SIZE);
    memset(g_pkg_name, 0, sizeof(g_pkg_name));
    memcpy(g_pkg_name, name, len);

    // A link planted under the name must not redirect the package elsewhere.
    int fd = open(g_pkg_name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0755);
    if (fd == 0) {
        // Started with standard input closed: 0 stands for "no file" here.
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        close(fd);
        fd = moved;
    }
    if (fd < 1) {
        perror("file openning failed\n");
        return SWU_STAGE_CODE_FS_FAILURE;
    }
    g_pkg_fd = fd;

    if (g_pkg_size > 0 && lseek(g_pkg_fd, static_cast<off_t>(g_pkg_size) - 1, SEEK_SET) < 0) {
        perror("failed reserving memory\n");
        return SWU_STAGE_CODE_MEM_ALLOC_FAILURE;
    }
    const char zero = 0;
    if (write(g_pkg_fd, &zero, 1) != 1) {
        perror("failed write / reserving memory\n");
        return SWU_STAGE_CODE_MEM_ALLOC_FAILURE;
    }
    // The seek and write leave a sparse file where the file system allows
    // one; a disk that fills up later would then fail a packet's copy through
    // the mapping with SIGBUS. Every block is taken now instead.
    if (g_pkg_size > 0 && plat_reserve(g_pkg_fd, static_cast<off_t>(g_pkg_size)) != 0) {
        perror("failed reserving memory\n");
        return SWU_STAGE_CODE_MEM_ALLOC_FAILURE;
    }
    return 0;
}

int pkg_file_map(char **pkg_file)
{
    SWU_ASSERT(pkg_file != NULL);
    if (*pkg_file != nullptr)
        return 0;
    if (g_pkg_fd <= 0)
        return -1;
    void *map = mmap(nullptr, g_pkg_size, PROT_READ | PROT_WRITE, MAP_SHARED, g_pkg_fd, 0);
    if (map == MAP_FAILED) {
        perror("mmap_failed");
        return -1;
    }
    *pkg_file = static_cast<char *>(map);
    g_pkg_map_len = g_pkg_size;
    g_pkg_populated = 0;
    return 0;
}

int pkg_file_write(char *pkg_file, uint64_t offset, const void *payload, size_t len)
{
    SWU_ASSERT(offset + len <= g_pkg_map_len);
    // A card that fails to read or write a page, or a file cut short behind
    // the mapping, raises SIGBUS inside the copy: the copy is abandoned and
    // the packet counts as not written, rather than the daemon dying.
    static std::once_flag installed;
    std::call_once(installed, [] {
        struct sigaction sa = {};
        sa.sa_sigaction = on_sigbus;
        // Left by a jump, the handler must not leave SIGBUS blocked: the copy
        // does not save the signal mask, which would cost a system call per
        // packet.
        sa.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGBUS, &sa, &g_prev_sigbus);
    });
    sigjmp_buf here;
    if (sigsetjmp(here, 0) != 0) {
        g_copy_guard = nullptr;
        fprintf(stderr, "package write failed at offset %llu\n",
                static_cast<unsigned long long>(offset));
        return -1;
    }
    populate_ahead(pkg_file, offset + len);
    g_copy_guard = &here;
    memcpy(pkg_file + offset, payload, len);
    g_copy_guard = nullptr;
    return 0;
}

void pkg_file_close(char **pkg_file)
{
    SWU_ASSERT(pkg_file != NULL);
    unmap(pkg_file);
    if (g_pkg_fd > 0)
        close(g_pkg_fd);
    g_pkg_fd = 0;
}

int pkg_file_remove()
{
    return unlink(g_pkg_name);
}

int cleanup_pkg_file()
{
    if (g_pkg_fd > 0)
        close(g_pkg_fd);
    g_pkg_fd = 0;
    int ret = pkg_file_remove();
    memset(g_pkg_name, 0, sizeof(g_pkg_name));
    return ret;
}

void release_pkg_file(char **pkg_file)
{
    SWU_ASSERT(pkg_file != NULL);
    unmap(pkg_file);
    if (g_pkg_fd > 0)
        cleanup_pkg_file();
    g_pkg_size = 0;
}
