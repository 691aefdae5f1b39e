// swu-logcap: runs a program with its output in a size-bounded log.
//
//   swu-logcap FILE KIB PROGRAM [ARG...]
//
// The program replaces this process (exec), so it keeps the pid that an init
// script's pid file names. A child copies the program's standard output and
// error to FILE; once FILE holds KIB KiB it becomes FILE.0 (replacing the one
// before) and FILE starts again. The log so never takes much more than twice
// KIB on the card, however much the program prints. The copy never makes the
// program wait on the card: when FILE can't be written the output is dropped.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace
{

int open_log(const std::string &file, int flags)
{
    return open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
}

// Copies `in` to `out`, the open log `file`, until every writer has closed
// the pipe.
void copy_bounded(int in, int out, const std::string &file, off_t cap)
{
    // The program's last words come after its stop signal: the copy goes on
    // until the pipe ends.
    signal(SIGTERM, SIG_IGN);
    signal(SIGINT, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    off_t size = out >= 0 ? lseek(out, 0, SEEK_END) : 0;
    static char buf[65536];
    for (;;) {
        ssize_t n = read(in, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        if (out < 0 || size >= cap) {
            if (out >= 0) {
                close(out);
                rename(file.c_str(), (file + ".0").c_str());
            }
            out = open_log(file, O_TRUNC);
            size = 0;
        }
        for (ssize_t done = 0; out >= 0 && done < n;) {
            ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                break; // a full card drops the output
            done += w;
            size += w;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    char *end = nullptr;
    const unsigned long kib = argc >= 4 ? strtoul(argv[2], &end, 10) : 0;
    if (argc < 4 || end == argv[2] || *end != '\0' || kib == 0) {
        fprintf(stderr, "usage: swu-logcap FILE KIB PROGRAM [ARG...]\n");
        return 2;
    }
    // Opened before the program starts, so that the log is there when it runs.
    const int log_fd = open_log(argv[1], O_APPEND);
    int pipe_fd[2];
    if (pipe2(pipe_fd, O_CLOEXEC) != 0) {
        perror("swu-logcap: pipe");
        return 1;
    }
    const pid_t copier = fork();
    if (copier < 0) {
        perror("swu-logcap: fork");
        return 1;
    }
    if (copier == 0) {
        close(pipe_fd[1]);
        copy_bounded(pipe_fd[0], log_fd, argv[1], static_cast<off_t>(kib) * 1024);
        _exit(0);
    }
    close(pipe_fd[0]);
    if (dup2(pipe_fd[1], STDOUT_FILENO) < 0 || dup2(pipe_fd[1], STDERR_FILENO) < 0)
        return 1;
    close(pipe_fd[1]);
    execvp(argv[3], argv + 3);
    perror("swu-logcap: exec");
    return 127;
}
