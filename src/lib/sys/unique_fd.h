// Ownership of a descriptor and of a memory mapping: each is released once,
// on every way out of the scope that holds it. Releasing keeps errno, so a
// failure can still be reported after the cleanup has run.
#pragma once

#include <cerrno>
#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

class unique_fd
{
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor held, if any, and takes `fd`.
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

class unique_map
{
  public:
    unique_map() = default;
    // Takes a mapping of `len` bytes at `addr`; MAP_FAILED and null hold none.
    unique_map(void *addr, size_t len) : addr_(addr == MAP_FAILED ? nullptr : addr), len_(len) {}
    unique_map(unique_map &&other) noexcept
        : addr_(std::exchange(other.addr_, nullptr)), len_(std::exchange(other.len_, 0))
    {
    }
    unique_map &operator=(unique_map &&other) noexcept
    {
        reset();
        addr_ = std::exchange(other.addr_, nullptr);
        len_ = std::exchange(other.len_, 0);
        return *this;
    }
    ~unique_map() { reset(); }

    void *get() const { return addr_; }
    size_t size() const { return len_; }
    void reset()
    {
        if (addr_ != nullptr) {
            const int saved = errno;
            ::munmap(addr_, len_);
            errno = saved;
        }
        addr_ = nullptr;
        len_ = 0;
    }

  private:
    void *addr_ = nullptr;
    size_t len_ = 0;
};
