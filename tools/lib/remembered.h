// What the client keeps about a terminal between commands, in files under
// $XDG_STATE_HOME/swu-client (or ~/.local/state/swu-client): the last
// session's ports, and every name a package was announced under. Each file
// belongs to one terminal, named by its address and its identity, so a
// terminal that takes over another's address meets none of its state.
// Files are never opened through a symbolic link, and one larger than
// SWUC_STATE_CAP is not read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <string>

inline constexpr size_t SWUC_STATE_CAP = 64 * 1024;

struct remembered_terminal {
    sockaddr_in address = {};
    std::string identity; // as advertised; "" when not heard
};

// The file of `kind` ("session", "names") for `t`; "" when there is no state
// directory (neither XDG_STATE_HOME nor HOME is set).
std::string swuc_state_file(const char *kind, const remembered_terminal &t);

// Reads a state file whole: false when it is missing, a symbolic link, not
// a regular file, or larger than the cap.
bool swuc_state_read(const std::string &path, std::string *text);
// Writes (or with `append`, adds to) a state file, making its directory;
// false when it can't, or when the file is a symbolic link. An append that
// would pass the cap starts the file afresh with `text`.
bool swuc_state_write(const std::string &path, const std::string &text, bool append);

// The rx and stream ports of the last session with `t`: the terminal answers
// reboot, error and status requests only to the rx port of the session it
// remembers.
void swuc_remember_ports(const remembered_terminal &t, uint16_t rx, uint16_t stream);
bool swuc_recall_ports(const remembered_terminal &t, uint16_t *rx, uint16_t *stream);

// The terminal keeps a file under every name a package was announced under,
// and checks a later package sent under that name against the old file's
// tail: what was sent under which name, with the package's size and CRC.
void swuc_remember_name(const remembered_terminal &t, const std::string &name, uint64_t size,
                        uint32_t crc);
// True when `name` carried a package of another size or CRC to `t` before.
bool swuc_name_carried_another(const remembered_terminal &t, const std::string &name, uint64_t size,
                               uint32_t crc);
