// The console's HTTP server: the page built into the program, the JSON API
// under /api/ and the live state as Server-Sent Events.
//
// Every request must name this server in its Host header (a DNS rebinding
// page names its own), may come only from this server's own origin, and when
// the console listens beyond loopback must carry the token printed at start.
// The browser reaches no file but the packages in the one directory given
// and the uploads it made itself.
#pragma once

#include "console_state.h"

#include <functional>
#include <string>

struct console_config {
    std::string host = "127.0.0.1";
    int port = 8080;
    std::string packages_dir;
    std::string uploads_dir; // the console's own, made at start
    std::string token;       // "" on loopback: none asked for
};

// Binds the address, calls `ready` (false: give up), prints the address to
// open and serves until stop_console(); 0, or 1 when it could not listen or
// `ready` failed (the reason printed).
int run_console(const console_config &cfg, console_state *state, console_backend *backend,
                const std::function<bool()> &ready);
void stop_console();

// Whether `host` is a loopback address, where no token is needed.
bool console_loopback(const std::string &host);
// A fresh random token (hex).
std::string console_token();
