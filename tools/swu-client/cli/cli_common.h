// What the commands of swu-client share: addresses, the result line or JSON
// object each command ends with, sessions from the command line's ports, and
// listening for advertisements.
#pragma once

#include "client_commands.h"
#include "lib/discovery.h"
#include "lib/remembered.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

int resolve_local(const client_options &o, in_addr_t *addr);
// "HOST" or "HOST:PORT", PORT defaulting to the terminal's protocol port.
int resolve_terminal(const std::string &host_port, sockaddr_in *out, std::string *err);
std::string addr_text(const sockaddr_in &sa);
// "update requested, error boot", or "none".
std::string reason_text(unsigned bits);

// Terminals may send any bytes: invalid UTF-8 is replaced, not thrown at.
void print_json(const nlohmann::json &j);
void error_line(const std::string &host, const std::string &message);
// Prints the command's result (JSON, or the message of a failure) and
// returns `code`.
int finish(const client_options &o, const std::string &host, nlohmann::json j, int code,
           const std::string &message);
// With -v: how many datagrams the command dropped for not being the
// terminal's.
void note_foreign(const client_options &o, const std::string &host, uint64_t foreign);

// Opens a session to `terminal` from the given ports; with `recall`, an
// unset rx port becomes the last session's with `t` when that port is free.
int open_session(swuc_session *s, const client_options &o, const remembered_terminal &t,
                 bool recall, std::string *err);

// Every terminal heard in `timeout_s`, the latest advertisement of each.
std::vector<swuc_advert> listen_for(const client_options &o, double timeout_s, std::string *err);
// Waits at most `timeout_s` for the advertisement of the terminal at
// `terminal` (its address and protocol port).
bool find_advert(const client_options &o, const sockaddr_in &terminal, double timeout_s,
                 swuc_advert *found);
// The terminal at `terminal` as the remembered state knows it: its identity
// from its advertisement, when one comes within `timeout_s`.
inline constexpr double IDENTIFY_SECONDS = 3.5; // a little over an advertisement period
remembered_terminal identify(const client_options &o, const sockaddr_in &terminal,
                             double timeout_s);

// Reboot (`reboot`) or error acknowledgement: one header-only request,
// confirmed by its response, which the terminal sends to the rx port of its
// session.
int end_request(const client_options &o, const std::string &host, bool reboot);

// The update's parameters from the command line's.
update_params make_params(const client_options &o, const sockaddr_in &terminal,
                          const std::string &package, const update_params &u);
// "updated in 0:07 (stream 1.5 MiB at 812 KiB/s), rebooting".
std::string summary(const update_outcome &out);
