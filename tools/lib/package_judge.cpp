#include "lib/package_judge.h"

#include "common/printable.h"

#include <cctype>
#include <cstring>
#include <map>
#include <memory>

namespace
{

// A path whose resolution follows more links than this fails as the
// kernel's does (ELOOP).
constexpr int LINK_FOLLOW_MAX = 40;
// The longest name of one directory entry.
constexpr size_t NAME_MAX_BYTES = 255;

struct node;
using node_ptr = std::shared_ptr<node>;

// An entry of the simulated staging directory. Hard links share one node.
struct node : std::enable_shared_from_this<node> {
    node(pack_kind k, node *up = nullptr) : kind(k), parent(up) {}
    pack_kind kind;                          // PACK_FILE, PACK_DIR, PACK_SYMLINK or PACK_OTHER
    std::map<std::string, node_ptr> entries; // of a directory
    node *parent;                            // of a directory; null above the top
    std::string target;                      // of a symbolic link
    size_t member = 0;                       // whose data a file holds
    int64_t size = 0;
};

// The name as BusyBox tar uses it: leading '/' and "../", and everything up
// to the last "/../", removed.
std::string strip_unsafe_prefix(const std::string &name)
{
    size_t at = 0;
    for (;;) {
        if (at < name.size() && name[at] == '/') {
            at++;
            continue;
        }
        if (name.compare(at, 3, "../") == 0) {
            at += 3;
            continue;
        }
        size_t inner = name.find("/../", at);
        if (inner == std::string::npos)
            break;
        at = inner + 4;
    }
    return name.substr(at);
}

std::vector<std::string> split(const std::string &path)
{
    std::vector<std::string> parts;
    size_t at = 0;
    while (at <= path.size()) {
        size_t slash = std::min(path.find('/', at), path.size());
        if (slash > at)
            parts.push_back(path.substr(at, slash - at));
        at = slash + 1;
    }
    return parts;
}

// How a member is shown: its stripped name without "./" or trailing slashes.
std::string shown_name(const std::string &name)
{
    std::string path = strip_unsafe_prefix(name);
    while (path.compare(0, 2, "./") == 0)
        path.erase(0, 2);
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    std::string shown(1, '\'');
    shown.append(printable(path)).push_back('\'');
    return shown;
}

// The staging directory as the members leave it. Each operation fails as the
// system call BusyBox tar makes would, with the reason in why_.
class staging
{
  public:
    staging() : top_(std::make_shared<node>(PACK_DIR)) {}

    node *top() const { return top_.get(); }
    const std::string &why() const { return why_; }

    // The entry `parts` names, the last one followed when it is a link.
    node_ptr lookup(node *from, const std::vector<std::string> &parts, bool follow_last)
    {
        links_followed_ = 0;
        return walk(from, parts, follow_last);
    }

    // mkdir -p, stopping quietly where it can't go on, as tar does for the
    // directories leading to a member.
    void make_dirs(const std::vector<std::string> &parts)
    {
        node *at = top();
        for (const std::string &part : parts) {
            if (part.size() > NAME_MAX_BYTES)
                return;
            if (part == ".")
                continue;
            if (part == "..") {
                if (at->parent == nullptr)
                    return;
                at = at->parent;
                continue;
            }
            auto it = at->entries.find(part);
            if (it == at->entries.end()) {
                auto dir = std::make_shared<node>(PACK_DIR, at);
                at->entries.emplace(part, dir);
                at = dir.get();
                continue;
            }
            std::string saved = why_;
            node_ptr next = lookup(at, {part}, true);
            why_ = saved;
            if (next == nullptr || next->kind != PACK_DIR)
                return;
            at = next.get();
        }
    }

    // The directory that holds the last of `parts`, and that name.
    node *parent_of(const std::vector<std::string> &parts, std::string *last)
    {
        if (parts.empty()) {
            fail("no file name");
            return nullptr;
        }
        *last = parts.back();
        if (last->size() > NAME_MAX_BYTES) {
            fail("file name too long");
            return nullptr;
        }
        node_ptr dir =
            lookup(top(), std::vector<std::string>(parts.begin(), parts.end() - 1), true);
        if (dir != nullptr && dir->kind != PACK_DIR)
            dir = fail("not a directory");
        return dir.get();
    }

    // Removes what is in the way of a new entry; only a missing one is fine.
    bool unlink_old(const std::vector<std::string> &parts)
    {
        std::string last;
        node *dir = parent_of(parts, &last);
        if (dir == nullptr)
            return why_ == "no such file or directory";
        if (last == "." || last == "..")
            return fail("is a directory") != nullptr;
        auto it = dir->entries.find(last);
        if (it == dir->entries.end())
            return true;
        if (it->second->kind == PACK_DIR)
            return fail("is a directory") != nullptr;
        dir->entries.erase(it);
        return true;
    }

    // Creates `entry` under the name `parts`, which must be free. Returns the
    // directory it went into.
    node *create(const std::vector<std::string> &parts, node_ptr entry)
    {
        std::string last;
        node *dir = parent_of(parts, &last);
        if (dir == nullptr)
            return nullptr;
        if (last == "." || last == ".." || dir->entries.count(last) != 0) {
            fail("file exists");
            return nullptr;
        }
        if (entry->kind == PACK_DIR)
            entry->parent = dir;
        dir->entries.emplace(last, std::move(entry));
        return dir;
    }

  private:
    // As the kernel resolves a path: every link followed on the way counts
    // toward one limit.
    node_ptr walk(node *from, const std::vector<std::string> &parts, bool follow_last)
    {
        node_ptr at = from->shared_from_this();
        for (size_t i = 0; i < parts.size(); i++) {
            const std::string &part = parts[i];
            const bool last = i + 1 == parts.size();
            if (at->kind != PACK_DIR)
                return fail("not a directory");
            if (part.size() > NAME_MAX_BYTES)
                return fail("file name too long");
            if (part == ".")
                continue;
            if (part == "..") {
                if (at->parent == nullptr)
                    return fail("outside the staging directory");
                at = at->parent->shared_from_this();
                continue;
            }
            auto it = at->entries.find(part);
            if (it == at->entries.end())
                return fail("no such file or directory");
            node_ptr next = it->second;
            if (next->kind == PACK_SYMLINK && (!last || follow_last)) {
                if (++links_followed_ > LINK_FOLLOW_MAX)
                    return fail("too many levels of symbolic links");
                if (next->target.empty() || next->target[0] == '/')
                    return fail("a link out of the staging directory");
                next = walk(at.get(), split(next->target), true);
                if (next == nullptr)
                    return nullptr;
            }
            at = next;
        }
        return at;
    }

    node_ptr fail(const char *why)
    {
        why_ = why;
        return nullptr;
    }

    node_ptr top_;
    std::string why_;
    int links_followed_ = 0;
};

struct deferred_link {
    bool hard;
    size_t member;
    std::vector<std::string> name;
    std::string target;
};

struct placed {
    node *dir = nullptr; // where the member's entry went; null: nowhere
    std::string last;
};

// Replays the members into `dir`. "" when tar gets through, else why not.
std::string replay(const std::vector<pack_listed> &members, staging *dir,
                   std::vector<placed> *where)
{
    std::vector<deferred_link> links;
    auto failed = [&](size_t i, const char *what) {
        return std::string(what) + " " + shown_name(members[i].name) + ": " + dir->why();
    };
    for (size_t i = 0; i < members.size(); i++) {
        const pack_listed &m = members[i];
        const std::vector<std::string> parts = split(strip_unsafe_prefix(m.name));
        if (m.kind == PACK_DIR) {
            dir->make_dirs(parts); // an entry in the way stays, quietly
            continue;
        }
        if (parts.size() > 1)
            dir->make_dirs({parts.begin(), parts.end() - 1});
        // A hard link to its own (stripped) name is passed over rather than
        // removed.
        if (m.kind == PACK_HARDLINK && m.link == strip_unsafe_prefix(m.name))
            continue;
        if (!dir->unlink_old(parts))
            return failed(i, "can't remove the old");
        node_ptr entry;
        switch (m.kind) {
        case PACK_HARDLINK:
            links.push_back({true, i, parts, m.link});
            continue;
        case PACK_SYMLINK:
            if (!m.link.empty() && (m.link[0] == '/' || m.link.find("..") != std::string::npos)) {
                links.push_back({false, i, parts, m.link});
                continue;
            }
            entry = std::make_shared<node>(PACK_SYMLINK);
            entry->target = m.link;
            break;
        default:
            entry = std::make_shared<node>(m.kind);
            entry->member = i;
            entry->size = m.size;
            break;
        }
        (*where)[i].dir = dir->create(parts, entry);
        if ((*where)[i].dir == nullptr)
            return failed(i, "can't create");
        (*where)[i].last = parts.back();
    }
    for (const deferred_link &l : links) {
        node_ptr entry;
        if (!l.hard) {
            entry = std::make_shared<node>(PACK_SYMLINK);
            entry->target = l.target;
        } else if (!l.target.empty() && l.target[0] == '/') {
            return "hard link " + shown_name(members[l.member].name) +
                   " points outside the package";
        } else {
            entry = dir->lookup(dir->top(), split(l.target), false);
            if (entry == nullptr)
                return failed(l.member, "can't link");
            if (entry->kind == PACK_DIR)
                return "hard link " + shown_name(members[l.member].name) + " points to a directory";
        }
        (*where)[l.member].dir = dir->create(l.name, entry);
        if ((*where)[l.member].dir == nullptr)
            return failed(l.member, "can't link");
        (*where)[l.member].last = l.name.back();
    }
    return "";
}

// Refusals that hold whatever the order of the members.
void judge_sizes(const std::vector<pack_listed> &members, std::vector<pack_finding> *found)
{
    uint64_t total = 0;
    for (const pack_listed &m : members) {
        if (m.sparse) {
            found->push_back({true, shown_name(m.name) +
                                        " is a sparse file, which the terminal's tar can't "
                                        "unpack"});
            return;
        }
        total += pack_member_bytes(m);
        if (total > PACK_UNPACKED_MAX) {
            found->push_back({true, "the archive unpacks to more than " +
                                        std::to_string(PACK_UNPACKED_MAX) +
                                        " bytes, more than the terminal's staging directory "
                                        "and card are made for"});
            return;
        }
    }
}

void judge_artifacts(const std::vector<pack_artifact> &artifacts, std::vector<pack_finding> *found)
{
    std::map<std::string, std::string> folded_names;
    for (const pack_artifact &a : artifacts) {
        std::string shown(1, '\'');
        shown.append(printable(a.name)).push_back('\'');
        std::string problem = pack_name_problem(a.name);
        if (!problem.empty()) {
            found->push_back({true, "artifact " + shown + ": " + problem});
            continue;
        }
        const std::string folded = pack_fold_case(a.name);
        auto [it, added] = folded_names.emplace(folded, a.name);
        if (!added)
            found->push_back({true, "artifacts '" + printable(it->second) + "' and " + shown +
                                        " would be one file on the card's FAT file system"});
        if (folded != MCU_IMAGE_ARTIFACT)
            continue;
        if (a.size == 0)
            found->push_back({true, shown + " is empty: the microcontroller's application would "
                                            "be erased with nothing to write in its place"});
        else if (static_cast<uint64_t>(a.size) > MCU_APP_AREA_SIZE)
            found->push_back({true, shown + " has " + std::to_string(a.size) +
                                        " bytes, more than the microcontroller's application "
                                        "area of " +
                                        std::to_string(MCU_APP_AREA_SIZE)});
    }
}

void warn_unused(const std::vector<pack_listed> &members, const std::vector<placed> &where,
                 node *top, std::vector<pack_finding> *found)
{
    for (size_t i = 0; i < members.size(); i++) {
        const pack_listed &m = members[i];
        const std::string shown = shown_name(m.name);
        if (m.kind == PACK_DIR) {
            if (shown != "''" && shown != "'.'")
                found->push_back({false, shown + " is a directory: the terminal installs only "
                                                 "regular files"});
            continue;
        }
        if (m.kind == PACK_SYMLINK || m.kind == PACK_OTHER) {
            found->push_back({false, shown + " is a " + pack_kind_name(m.kind) +
                                         ": the terminal installs only regular files"});
            continue;
        }
        const placed &p = where[i];
        if (p.dir != top) {
            found->push_back({false, shown + " is not at the top of the archive: the terminal "
                                             "ignores it"});
            continue;
        }
        auto it = top->entries.find(p.last);
        if (it == top->entries.end() || it->second->kind != PACK_FILE)
            found->push_back({false, shown + " is not a regular file once unpacked: the "
                                             "terminal ignores it"});
        else if (m.kind == PACK_FILE && it->second->member != i)
            found->push_back({false, shown + " is replaced by a later member of the same name"});
    }
}

} // namespace

const char *pack_kind_name(pack_kind kind)
{
    switch (kind) {
    case PACK_FILE:
        return "file";
    case PACK_DIR:
        return "directory";
    case PACK_SYMLINK:
        return "symbolic link";
    case PACK_HARDLINK:
        return "hard link";
    case PACK_OTHER:
        return "special file";
    }
    return "?";
}

uint64_t pack_member_bytes(const pack_listed &m)
{
    return 512 + (m.size > 0 ? static_cast<uint64_t>(m.size) : 0);
}

std::string pack_fold_case(std::string name)
{
    for (char &c : name)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return name;
}

std::string pack_name_problem(const std::string &name)
{
    if (name.empty() || name == "." || name == "..")
        return "'" + name + "' is not a file name";
    if (name.size() > ARTIFACT_NAME_MAX_LEN)
        return "the name has " + std::to_string(name.size()) +
               " bytes; the terminal takes at most " + std::to_string(ARTIFACT_NAME_MAX_LEN);
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F)
            return "the name holds a control character, which the card's FAT file system can't "
                   "hold";
        if (c >= 0x80)
            return "the name holds a non-ASCII byte; the card is mounted without a character set, "
                   "so it would not keep the name as given";
        if (strchr("\"*/:<>?\\|", c) != nullptr)
            return std::string("the name holds '") + static_cast<char>(c) +
                   "', which the card's FAT file system can't hold";
    }
    if (name.back() == '.' || name.back() == ' ')
        return "the card's FAT file system drops a trailing dot or blank from a name";
    return "";
}

pack_judgement pack_judge(const std::vector<pack_listed> &members)
{
    pack_judgement j;
    judge_sizes(members, &j.findings);
    if (!j.findings.empty()) {
        j.tar_fails = true;
        return j;
    }
    staging dir;
    std::vector<placed> where(members.size());
    std::string why = replay(members, &dir, &where);
    if (!why.empty()) {
        j.tar_fails = true;
        j.findings.push_back({true, "the terminal's tar fails on this archive (" + why +
                                        "), so the terminal would refuse the package"});
        return j;
    }
    for (const auto &[name, entry] : dir.top()->entries)
        if (entry->kind == PACK_FILE)
            j.artifacts.push_back({name, entry->size, entry->member});
    judge_artifacts(j.artifacts, &j.findings);
    warn_unused(members, where, dir.top(), &j.findings);
    return j;
}

std::vector<pack_finding> pack_review(const std::vector<pack_listed> &members)
{
    return pack_judge(members).findings;
}
