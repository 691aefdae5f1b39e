// swu-console: the technician's console, a page in the browser that shows
// every terminal heard and rolls a package out with live progress.
#include "console_server.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

void on_signal(int)
{
    stop_console();
}

// "ADDR:PORT" into its parts; false when it is not one.
bool split_listen(const std::string &text, console_config *cfg)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    char *end = nullptr;
    const long port = strtol(text.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535)
        return false;
    cfg->host = text.substr(0, colon);
    cfg->port = static_cast<int>(port);
    return true;
}

bool join_netns(const std::string &path, std::string *err)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        *err = "cannot join the network namespace " + path + ": " + strerror(errno);
        if (fd >= 0)
            close(fd);
        return false;
    }
    close(fd);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"swu-console: a page in the browser that shows the terminals heard and updates "
                 "them.\nOpen the address it prints. Closing the page never stops an update."};
    std::string listen = "127.0.0.1:8080", local;
    console_config cfg;
    app.add_option("--listen", listen,
                   "ADDR:PORT to serve on; any address but loopback requires the token printed "
                   "at start")
        ->capture_default_str();
    app.add_option("--packages", cfg.packages_dir,
                   "the directory of packages the page may choose from (the only one it reaches)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--local", local,
                   "local IPv4 address to send from and to join the advertisement group on");
    std::string netns;
    app.add_option("--netns", netns,
                   "reach the terminals in this network namespace (a /proc/PID/ns/net path), "
                   "while the page is served where the console started");
    CLI11_PARSE(app, argc, argv);
    if (!split_listen(listen, &cfg)) {
        fprintf(stderr, "swu-console: --listen takes ADDR:PORT, not '%s'\n", listen.c_str());
        return 2;
    }
    // Requests must name the address they were sent to, so it must be one.
    if (cfg.host == "0.0.0.0") {
        fprintf(stderr, "swu-console: --listen needs the address the browser will use, not "
                        "0.0.0.0\n");
        return 2;
    }
    if (!console_loopback(cfg.host))
        cfg.token = console_token();

    // Uploads stay in a directory of the console's own, gone at its end.
    char tmpl[] = "/tmp/swu-console.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("swu-console: mkdtemp");
        return 1;
    }
    cfg.uploads_dir = tmpl;

    console_backend backend(local);
    console_state state(&backend);
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    signal(SIGPIPE, SIG_IGN);
    // The page's socket is bound first; every later socket and thread
    // (discovery, sessions, the server's workers) lives in the terminals'
    // namespace.
    const int rc = run_console(cfg, &state, &backend, [&] {
        std::string err;
        if (!netns.empty() && !join_netns(netns, &err)) {
            fprintf(stderr, "swu-console: %s\n", err.c_str());
            return false;
        }
        if (!state.start(&err)) {
            fprintf(stderr, "swu-console: %s\n", err.c_str());
            return false;
        }
        return true;
    });
    if (state.rollout_running())
        fprintf(stderr, "swu-console: ending when the running rollout ends\n");
    state.stop();
    std::error_code ec;
    std::filesystem::remove_all(cfg.uploads_dir, ec);
    return rc;
}
