// Runs swu-client (or another program) as a test's child process and
// collects its exit code and output.
#pragma once

#include "support/process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

struct cli_result {
    int exit_code = -1;  // -1: did not end in time, or ended by a signal
    std::string out;     // standard output
    std::string err;     // standard error (with `tty`: everything)
    nlohmann::json json; // standard output parsed, when it is JSON
};

// Runs `args` (args[0] a path) in `cwd`. With `tty` its standard output and
// error are a terminal; otherwise standard output goes to a file and is read
// back. `log` collects what it wrote.
inline cli_result run_program(const std::vector<std::string> &args, const std::string &cwd,
                              const std::string &log, bool tty = false,
                              std::chrono::milliseconds timeout = std::chrono::seconds(90))
{
    cli_result r;
    TestProcess p;
    std::vector<std::string> argv = args;
    const std::string out_file = log + ".stdout";
    if (!tty)
        argv.insert(
            argv.begin(),
            {"/bin/sh", "-c", "out=$1; shift; exec \"$@\" >\"$out\" </dev/null", "sh", out_file});
    if (!p.start(argv, cwd, log)) {
        ADD_FAILURE() << "cannot start " << args[0];
        return r;
    }
    const bool ended = p.wait_end(timeout);
    p.stop();
    EXPECT_TRUE(ended) << args[0] << " still ran after " << timeout.count() << " ms";
    if (ended && WIFEXITED(p.exit_status()))
        r.exit_code = WEXITSTATUS(p.exit_status());
    if (tty) {
        r.out = p.output();
    } else {
        std::ifstream in(out_file, std::ios::binary);
        r.out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        r.err = p.output();
    }
    r.json = nlohmann::json::parse(r.out, nullptr, false);
    return r;
}

// Runs a command to its end without a shell; its exit status, or -1.
inline int run_command(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    std::vector<std::string> copy = args;
    for (auto &a : copy)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    int st = 0;
    if (waitpid(pid, &st, 0) != pid || !WIFEXITED(st))
        return -1;
    return WEXITSTATUS(st);
}

inline std::string client_bin()
{
    return SWU_BIN_DIR "/swu-client";
}
