#include "platform/shell_words.h"

#include <cstring>

namespace
{

std::string first_word(const std::string &command, size_t *end)
{
    size_t b = command.find_first_not_of(" \t");
    if (b == std::string::npos) {
        *end = command.size();
        return {};
    }
    size_t e = command.find_first_of(" \t", b);
    if (e == std::string::npos)
        e = command.size();
    *end = e;
    return command.substr(b, e - b);
}

bool ends_with(const std::string &s, const char *suffix)
{
    size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

} // namespace

bool plat_is_quoted_safely(const std::string &text)
{
    static constexpr const char *active = ";&|`$()<>\n*?[~{}#!";
    enum { PLAIN, SINGLE, DOUBLE } state = PLAIN;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        switch (state) {
        case PLAIN:
            if (c == '\\') {
                i++;
            } else if (c == '\'') {
                state = SINGLE;
            } else if (c == '"') {
                state = DOUBLE;
            } else if (std::strchr(active, c) != nullptr) {
                return false;
            }
            break;
        case SINGLE:
            if (c == '\'')
                state = PLAIN;
            break;
        case DOUBLE:
            if (c == '\\') {
                i++;
            } else if (c == '"') {
                state = PLAIN;
            } else if (c == '$' || c == '`') {
                return false;
            }
            break;
        }
    }
    return state == PLAIN;
}

plat_cmd_t plat_classify_command(const std::string &command)
{
    size_t end = 0;
    std::string word = first_word(command, &end);

    if (word == "tar" || word == "md5sum") {
        std::string args = command.substr(end);
        // The digest command silences md5sum's errors; nothing else may redirect.
        if (ends_with(args, " 2>/dev/null"))
            args.resize(args.size() - std::strlen(" 2>/dev/null"));
        return {plat_is_quoted_safely(args) ? PLAT_CMD_RUN : PLAT_CMD_REFUSE, {}};
    }
    if (word == "mkfs.vfat") {
        size_t arg_end = 0;
        std::string rest = command.substr(end);
        std::string device = first_word(rest, &arg_end);
        if (device.empty() || !plat_is_quoted_safely(rest))
            return {PLAT_CMD_REFUSE, {}};
        return {PLAT_CMD_MKFS, device};
    }
    if (word == "echo" && command.find("| fdisk ") != std::string::npos)
        return {PLAT_CMD_FDISK, {}};
    if (word == "/etc/init.d/S42hostapd" || word == "ifconfig")
        return {PLAT_CMD_LOG_ONLY, {}};
    return {PLAT_CMD_REFUSE, {}};
}
