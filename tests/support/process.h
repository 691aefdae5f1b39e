// A program run by a test: started with its own working directory, its
// standard output and error read through a pseudo-terminal (so that the
// program's stdio buffers by line, as on a console) and kept in memory and in
// a log file, waited for with a deadline, and stopped at the end of the test
// at the latest.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

class TestProcess
{
  public:
    TestProcess() = default;
    ~TestProcess() { stop(); }
    TestProcess(const TestProcess &) = delete;
    TestProcess &operator=(const TestProcess &) = delete;

    // Starts `argv` (argv[0] a path) in `cwd` with the test's environment;
    // its output is appended to `log_path`. False when it could not start.
    bool start(const std::vector<std::string> &argv, const std::string &cwd,
               const std::string &log_path)
    {
        int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
            return false;
        char name[128];
        if (ptsname_r(master, name, sizeof(name)) != 0)
            return false;
        int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave < 0)
            return false;
        struct termios t;
        tcgetattr(slave, &t);
        cfmakeraw(&t); // keep the text as written: no "\r\n"
        tcsetattr(slave, TCSANOW, &t);
        log_ = fopen(log_path.c_str(), "a");

        // Everything the child needs is prepared before fork: the test
        // process has threads, so the child may only exec.
        std::vector<std::string> args = argv;
        std::vector<char *> cargv;
        for (auto &a : args)
            cargv.push_back(a.data());
        cargv.push_back(nullptr);
        std::string dir = cwd;

        pid_ = fork();
        if (pid_ < 0)
            return false;
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive a crashed test
            setpgid(0, 0);
            dup2(slave, 0);
            dup2(slave, 1);
            dup2(slave, 2);
            if (chdir(dir.c_str()) != 0)
                _exit(126);
            execve(cargv[0], cargv.data(), environ);
            _exit(127);
        }
        close(slave);
        master_ = master;
        reader_ = std::thread([this] { read_output(); });
        return true;
    }

    pid_t pid() const { return pid_; }

    // True once the process has ended (its status is then in exit_status()).
    bool ended()
    {
        reap(false);
        return ended_;
    }
    // The wait status of the ended process.
    int exit_status() const { return status_; }

    // Waits for the end of the process; false when it still runs at the
    // deadline.
    bool wait_end(std::chrono::milliseconds timeout)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!ended()) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    // Asks the process to end, then kills it; collects its output.
    void stop()
    {
        if (pid_ > 0 && !ended()) {
            kill(pid_, SIGTERM);
            if (!wait_end(std::chrono::seconds(3))) {
                kill(pid_, SIGKILL);
                reap(true);
            }
        }
        // Whatever the program started and left behind (its own group)
        // would hold the terminal open.
        if (pid_ > 0 && !group_stopped_)
            kill(-pid_, SIGKILL);
        group_stopped_ = true;
        if (reader_.joinable())
            reader_.join();
        if (master_ >= 0)
            close(master_);
        master_ = -1;
        if (log_ != nullptr)
            fclose(log_);
        log_ = nullptr;
    }

    std::string output() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return output_;
    }

    size_t count(const std::string &needle) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t n = 0;
        for (size_t at = output_.find(needle); at != std::string::npos;
             at = output_.find(needle, at + needle.size()))
            n++;
        return n;
    }

    // Waits until `needle` has appeared `times` times in the output.
    bool wait_output(const std::string &needle, std::chrono::milliseconds timeout,
                     size_t times = 1) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        auto seen = [&] {
            size_t n = 0;
            for (size_t at = output_.find(needle); at != std::string::npos && n < times;
                 at = output_.find(needle, at + needle.size()))
                n++;
            return n >= times;
        };
        return changed_.wait_for(lock, timeout, seen);
    }

  private:
    void reap(bool block)
    {
        if (pid_ <= 0 || ended_)
            return;
        int st = 0;
        pid_t r = waitpid(pid_, &st, block ? 0 : WNOHANG);
        if (r == pid_) {
            ended_ = true;
            status_ = st;
        }
    }

    // Runs until every holder of the terminal's other side has closed it
    // (the program and whatever it started).
    void read_output()
    {
        char buf[4096];
        for (;;) {
            ssize_t n = read(master_, buf, sizeof(buf));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            if (log_ != nullptr) {
                fwrite(buf, 1, static_cast<size_t>(n), log_);
                fflush(log_);
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                output_.append(buf, static_cast<size_t>(n));
            }
            changed_.notify_all();
        }
    }

    pid_t pid_ = -1;
    bool ended_ = false;
    bool group_stopped_ = false;
    int status_ = 0;
    int master_ = -1;
    FILE *log_ = nullptr;
    std::thread reader_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::string output_;
};
