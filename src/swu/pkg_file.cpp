#include "swu/pkg_file.h"

#include "lib/sys/swu_assert.h"
#include "proto/codes.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
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
    return 0;
}

void pkg_file_write(char *pkg_file, uint64_t offset, const void *payload, size_t len)
{
    SWU_ASSERT(offset + len <= g_pkg_map_len);
    memcpy(pkg_file + offset, payload, len);
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
