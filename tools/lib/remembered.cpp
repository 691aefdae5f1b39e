#include "lib/remembered.h"

#include "lib/sys/unique_fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

std::string swuc_state_file(const char *kind, const remembered_terminal &t)
{
    std::filesystem::path dir;
    if (const char *x = getenv("XDG_STATE_HOME"); x != nullptr && *x != '\0')
        dir = x;
    else if (const char *h = getenv("HOME"); h != nullptr && *h != '\0')
        dir = std::filesystem::path(h) / ".local/state";
    else
        return {};
    char addr[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &t.address.sin_addr, addr, sizeof addr);
    // The identity is the terminal's own text: hex keeps it out of the path.
    std::string id;
    for (unsigned char c : t.identity) {
        static const char digits[] = "0123456789abcdef";
        id += digits[c >> 4];
        id += digits[c & 15];
    }
    return (dir / "swu-client" /
            (std::string(kind) + "-" + addr + "-" + std::to_string(ntohs(t.address.sin_port)) +
             "-" + (id.empty() ? "unknown" : id)))
        .string();
}

bool swuc_state_read(const std::string &path, std::string *text)
{
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<size_t>(st.st_size) > SWUC_STATE_CAP)
        return false;
    text->assign(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < text->size()) {
        ssize_t n = read(fd.get(), text->data() + got, text->size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    text->resize(got);
    return true;
}

bool swuc_state_write(const std::string &path, const std::string &text, bool append)
{
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    struct stat st;
    if (append && lstat(path.c_str(), &st) == 0 &&
        static_cast<size_t>(st.st_size) + text.size() <= SWUC_STATE_CAP)
        flags |= O_APPEND;
    else
        flags |= O_TRUNC;
    unique_fd fd(open(path.c_str(), flags, 0600));
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    return write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void swuc_remember_ports(const remembered_terminal &t, uint16_t rx, uint16_t stream)
{
    const std::string f = swuc_state_file("session", t);
    if (!f.empty())
        swuc_state_write(f, std::to_string(rx) + " " + std::to_string(stream) + "\n", false);
}

bool swuc_recall_ports(const remembered_terminal &t, uint16_t *rx, uint16_t *stream)
{
    std::string text;
    const std::string f = swuc_state_file("session", t);
    if (f.empty() || !swuc_state_read(f, &text))
        return false;
    std::istringstream in(text);
    unsigned a = 0, b = 0;
    if (!(in >> a >> b) || a == 0 || a > 65535 || b > 65535)
        return false;
    *rx = static_cast<uint16_t>(a);
    *stream = static_cast<uint16_t>(b);
    return true;
}

void swuc_remember_name(const remembered_terminal &t, const std::string &name, uint64_t size,
                        uint32_t crc)
{
    const std::string f = swuc_state_file("names", t);
    if (!f.empty() && !name.empty())
        swuc_state_write(f, name + " " + std::to_string(size) + " " + std::to_string(crc) + "\n",
                         true);
}

bool swuc_name_carried_another(const remembered_terminal &t, const std::string &name, uint64_t size,
                               uint32_t crc)
{
    std::string text;
    const std::string f = swuc_state_file("names", t);
    if (f.empty() || !swuc_state_read(f, &text))
        return false;
    std::istringstream in(text);
    std::string n;
    uint64_t sz = 0;
    uint32_t c = 0;
    while (in >> n >> sz >> c)
        if (n == name && (sz != size || c != crc))
            return true;
    return false;
}
