// Running the project's programs from a test, their output kept in a file.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

// Runs a program, its output going to `log` (or inherited when empty); its pid.
inline pid_t spawn_program(const std::vector<std::string> &args, const std::string &log)
{
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!log.empty()) {
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Runs a program to its end: its exit status (-1 if it did not exit) and output.
inline int run_program(const std::vector<std::string> &args, const std::string &log,
                       std::string *output)
{
    std::remove(log.c_str());
    pid_t pid = spawn_program(args, log);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    std::ifstream in(log);
    *output = {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
