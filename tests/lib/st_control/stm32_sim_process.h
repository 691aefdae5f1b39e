// Runs stm32-sim for one test: started from the build's bin directory on the
// test's own simulation root, verbose, its output kept in sim/sim.log there,
// and stopped again at the end.
#pragma once

#include "lib/st_control/stm_com/zynq_st_uart_prot.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

class Stm32Sim
{
  public:
    Stm32Sim(const SimRoot &root, std::vector<std::string> args) : root_(root)
    {
        root_.mkdir("sim");
        args.insert(args.begin(), {SWU_BIN_DIR "/stm32-sim", "-v"});
        std::string log = root_.path("sim/sim.log");
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM); // never outlive a crashed test
            int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(out, 2);
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        for (int k = 0; k < 1000 && !std::filesystem::is_symlink(root_.path("dev/ttyUL1")); k++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(std::filesystem::is_symlink(root_.path("dev/ttyUL1"))) << this->log();
    }
    ~Stm32Sim()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    Stm32Sim(const Stm32Sim &) = delete;
    Stm32Sim &operator=(const Stm32Sim &) = delete;

    std::string log() const { return root_.read("sim/sim.log"); }

    size_t count(const std::string &needle) const
    {
        std::string text = log();
        size_t n = 0;
        for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
            n++;
        return n;
    }

    // Frames that get no answer may be logged a moment after the command
    // returned.
    bool wait_for(const std::string &needle, size_t times = 1) const
    {
        for (int k = 0; k < 200 && count(needle) < times; k++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return count(needle) >= times;
    }

    // The line as the terminal software opens and sets it up.
    int open_line() const
    {
        int fd = open(root_.path("dev/ttyUL1").c_str(), O_RDWR | O_NOCTTY | O_SYNC);
        if (fd >= 0)
            stm_init_uart(fd);
        return fd;
    }

  private:
    const SimRoot &root_;
    pid_t pid_ = -1;
};
