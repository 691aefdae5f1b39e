// The one way tests start programs: a child with its own working directory,
// its standard output and error read through a pseudo-terminal (so that its
// stdio buffers by line, as on a console) and kept in memory, waited for with
// a deadline, and stopped at the end of the test at the latest. run_to_end()
// runs a command to its end and collects what it wrote.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

// How often `needle` occurs in `text`, without overlaps.
inline size_t occurrences(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; at += needle.size())
        n++;
    return n;
}

class TestProcess
{
  public:
    TestProcess() = default;
    ~TestProcess() { stop(); }
    TestProcess(const TestProcess &) = delete;
    TestProcess &operator=(const TestProcess &) = delete;

    // Starts `argv` (argv[0] a path, or a name looked up in PATH) in `cwd`
    // with the test's environment. False when it could not start.
    bool start(const std::vector<std::string> &argv, const std::string &cwd)
    {
        int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128];
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
            ptsname_r(master, name, sizeof(name)) != 0)
            return false;
        int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave < 0)
            return false;
        struct termios t;
        tcgetattr(slave, &t);
        cfmakeraw(&t); // keep the text as written: no "\r\n"
        tcsetattr(slave, TCSANOW, &t);

        // Everything the child needs is prepared before fork: the test
        // process has threads, so the child may only exec.
        std::vector<std::string> args = argv;
        std::vector<char *> cargv;
        for (auto &a : args)
            cargv.push_back(a.data());
        cargv.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0)
            return false;
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive a crashed test
            setpgid(0, 0);
            dup2(slave, 0);
            dup2(slave, 1);
            dup2(slave, 2);
            if (chdir(cwd.c_str()) != 0)
                _exit(126);
            execvp(cargv[0], cargv.data());
            _exit(127);
        }
        close(slave);
        master_ = master;
        reader_ = std::thread([this] { read_output(); });
        return true;
    }

    bool ended()
    {
        if (pid_ > 0 && !ended_ && waitpid(pid_, &status_, WNOHANG) == pid_)
            ended_ = true;
        return ended_;
    }
    // The exit code, or -1 while running or after a signal.
    int exit_code() { return ended() && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

    // False when it still runs at the deadline.
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

    // Asks the process to end, then kills it and whatever it started (which
    // would hold the terminal open); collects its output.
    void stop()
    {
        if (pid_ > 0 && !ended()) {
            kill(pid_, SIGTERM);
            if (!wait_end(std::chrono::seconds(3))) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status_, 0);
                ended_ = true;
            }
        }
        if (pid_ > 0)
            kill(-pid_, SIGKILL);
        pid_ = -1;
        if (reader_.joinable())
            reader_.join();
        if (master_ >= 0)
            close(master_);
        master_ = -1;
    }

    std::string output() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return output_;
    }

    size_t count(const std::string &needle) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return occurrences(needle);
    }

    // Waits until `needle` has appeared `times` times in the output.
    bool wait_output(const std::string &needle, std::chrono::milliseconds timeout,
                     size_t times = 1) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return occurrences(needle) >= times; });
    }

  private:
    size_t occurrences(const std::string &needle) const { return ::occurrences(output_, needle); }

    // Runs until every holder of the terminal's other side has closed it.
    void read_output()
    {
        char buf[4096];
        for (;;) {
            ssize_t n = read(master_, buf, sizeof(buf));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                output_.append(buf, static_cast<size_t>(n));
            }
            changed_.notify_all();
        }
    }

    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = 0;
    int master_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::string output_;
};

struct run_result {
    int exit_code = -1; // -1: did not end in time, or ended by a signal
    std::string out;    // standard output (with `tty`: everything)
    std::string err;    // standard error
};

// Runs `argv` in `cwd` to its end. With `tty` its output goes to a terminal;
// otherwise standard output goes to a file in `cwd`, read back, and standard
// input is /dev/null.
inline run_result run_to_end(const std::vector<std::string> &argv, const std::string &cwd,
                             bool tty = false,
                             std::chrono::milliseconds timeout = std::chrono::seconds(90))
{
    run_result r;
    std::vector<std::string> args = argv;
    const std::string out_file = cwd + "/.run-stdout";
    if (!tty)
        args.insert(
            args.begin(),
            {"/bin/sh", "-c", "out=$1; shift; exec \"$@\" >\"$out\" </dev/null", "sh", out_file});
    TestProcess p;
    if (!p.start(args, cwd)) {
        ADD_FAILURE() << "cannot start " << argv[0];
        return r;
    }
    EXPECT_TRUE(p.wait_end(timeout)) << argv[0] << " still ran after " << timeout.count() << " ms";
    r.exit_code = p.exit_code();
    p.stop();
    if (tty) {
        r.out = p.output();
    } else {
        std::ifstream in(out_file, std::ios::binary);
        r.out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        r.err = p.output();
    }
    return r;
}
