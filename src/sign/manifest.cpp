#include "sign/manifest.h"

#include "lib/sys/unique_fd.h"

#include <sodium.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <unistd.h>

namespace
{

std::string to_hex(const uint8_t *bytes, size_t size)
{
    std::string hex(size * 2 + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), bytes, size);
    hex.pop_back();
    return hex;
}

bool read_file(const std::string &path, std::string *out, size_t limit)
{
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return false;
    out->clear();
    char buf[4096];
    for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) != 0;) {
        if (n < 0 || out->size() + static_cast<size_t>(n) > limit)
            return false;
        out->append(buf, static_cast<size_t>(n));
    }
    return true;
}

bool write_file(const std::string &path, const std::string &text, mode_t mode)
{
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    return fd.valid() && write(fd.get(), text.data(), text.size()) == ssize_t(text.size());
}

} // namespace

bool sign_init()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

int sign_keygen(const std::string &secret_path, std::string *err)
{
    uint8_t pk[SIGN_PUBLIC_KEY_SIZE], sk[SIGN_SECRET_KEY_SIZE];
    if (!sign_init() || crypto_sign_keypair(pk, sk) != 0) {
        *err = "cannot make a key pair";
        return -1;
    }
    const bool written = write_file(secret_path, to_hex(sk, sizeof sk) + "\n", 0600) &&
                         write_file(secret_path + ".pub", to_hex(pk, sizeof pk) + "\n", 0644);
    sodium_memzero(sk, sizeof sk);
    if (!written) {
        *err = "cannot write '" + secret_path + "': " + strerror(errno);
        return -1;
    }
    return 0;
}

int sign_read_key(const std::string &path, size_t size, std::vector<uint8_t> *key, std::string *err)
{
    std::string hex;
    if (!read_file(path, &hex, 4096)) {
        *err = "cannot read the key '" + path + "'";
        return -1;
    }
    key->assign(size, 0);
    size_t got = 0;
    if (sodium_hex2bin(key->data(), size, hex.data(), hex.size(), " \n\r", &got, nullptr) != 0 ||
        got != size) {
        *err = "'" + path + "' does not hold a key of " + std::to_string(size) + " bytes";
        return -1;
    }
    return 0;
}

std::string sign_sha256(const void *data, size_t size)
{
    sign_init();
    uint8_t hash[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(hash, static_cast<const uint8_t *>(data), size);
    return to_hex(hash, sizeof hash);
}

namespace
{

// Size and SHA-256 of the file at `path`, read to its end (no stat: a 32-bit
// build can't stat a file with a 64-bit inode number). False for anything
// but a readable file, a link included.
bool file_digest(const std::string &path, uint64_t *size, std::string *sha256)
{
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() || !sign_init())
        return false;
    crypto_hash_sha256_state state;
    crypto_hash_sha256_init(&state);
    uint8_t buf[65536];
    *size = 0;
    for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) != 0;) {
        if (n < 0)
            return false;
        crypto_hash_sha256_update(&state, buf, static_cast<size_t>(n));
        *size += static_cast<uint64_t>(n);
    }
    uint8_t hash[crypto_hash_sha256_BYTES];
    crypto_hash_sha256_final(&state, hash);
    *sha256 = to_hex(hash, sizeof hash);
    return true;
}

} // namespace

std::string sign_file_sha256(const std::string &path)
{
    uint64_t size = 0;
    std::string sha256;
    return file_digest(path, &size, &sha256) ? sha256 : "";
}

namespace
{

constexpr char VERSION_LINE[] = "version ";
constexpr char DOWNGRADE_LINE[] = "downgrade";

} // namespace

std::string manifest_text(std::vector<manifest_entry> entries, const manifest_package &package)
{
    std::sort(entries.begin(), entries.end(),
              [](const manifest_entry &a, const manifest_entry &b) { return a.name < b.name; });
    std::string text = VERSION_LINE + std::to_string(package.version[0]) + "." +
                       std::to_string(package.version[1]) + "." +
                       std::to_string(package.version[2]) + "\n";
    if (package.downgrade)
        text += std::string(DOWNGRADE_LINE) + "\n";
    for (const manifest_entry &e : entries)
        text += e.sha256 + " " + std::to_string(e.size) + " " + e.name + "\n";
    return text;
}

manifest_package manifest_package_of(const std::string &text)
{
    manifest_package package;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(VERSION_LINE, 0) == 0) {
            unsigned v[3] = {};
            sscanf(line.c_str() + strlen(VERSION_LINE), "%u.%u.%u", &v[0], &v[1], &v[2]);
            for (int i = 0; i < 3; i++)
                package.version[i] = static_cast<uint16_t>(v[i]);
        } else if (line == DOWNGRADE_LINE) {
            package.downgrade = true;
        }
    }
    return package;
}

bool manifest_allows(const manifest_package &package, const uint16_t installed[3])
{
    return package.downgrade || !std::lexicographical_compare(package.version, package.version + 3,
                                                              installed, installed + 3);
}

std::string manifest_sign(const std::string &text, const std::vector<uint8_t> &sk)
{
    std::string sig(SIGN_SIGNATURE_SIZE, '\0');
    if (!sign_init() || sk.size() != SIGN_SECRET_KEY_SIZE)
        return "";
    crypto_sign_detached(reinterpret_cast<uint8_t *>(sig.data()), nullptr,
                         reinterpret_cast<const uint8_t *>(text.data()), text.size(), sk.data());
    return sig;
}

int manifest_check(const std::string &text, const std::string &sig, const std::vector<uint8_t> &pk,
                   const std::vector<manifest_entry> &files, std::string *why)
{
    if (!sign_init() || pk.size() != SIGN_PUBLIC_KEY_SIZE) {
        *why = "no usable public key";
        return -1;
    }
    if (sig.size() != SIGN_SIGNATURE_SIZE ||
        crypto_sign_verify_detached(reinterpret_cast<const uint8_t *>(sig.data()),
                                    reinterpret_cast<const uint8_t *>(text.data()), text.size(),
                                    pk.data()) != 0) {
        *why = "the manifest's signature does not verify with the trusted key";
        return -1;
    }
    std::map<std::string, manifest_entry> listed;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(VERSION_LINE, 0) == 0 || line == DOWNGRADE_LINE)
            continue;
        std::istringstream fields(line);
        manifest_entry e;
        if (fields >> e.sha256 >> e.size && std::getline(fields >> std::ws, e.name))
            listed[e.name] = e;
    }
    for (const manifest_entry &f : files) {
        if (f.name == MANIFEST_ARTIFACT || f.name == MANIFEST_SIG_ARTIFACT)
            continue;
        auto it = listed.find(f.name);
        if (it == listed.end()) {
            *why = "artifact '" + f.name + "' is not in the manifest";
            return -1;
        }
        if (it->second.size != f.size || it->second.sha256 != f.sha256) {
            *why = "artifact '" + f.name + "' differs from the manifest";
            return -1;
        }
        listed.erase(it);
    }
    if (!listed.empty()) {
        *why = "artifact '" + listed.begin()->first + "' of the manifest is missing";
        return -1;
    }
    return 0;
}

int manifest_check_dir(const std::string &dir, const std::vector<uint8_t> &pk, std::string *why,
                       std::string *text, std::string *sig)
{
    std::string read_text, read_sig;
    if (!read_file(dir + "/" + MANIFEST_ARTIFACT, &read_text, 1 << 20) ||
        !read_file(dir + "/" + MANIFEST_SIG_ARTIFACT, &read_sig, 4096)) {
        *why = "the package is unsigned";
        return -1;
    }
    std::vector<manifest_entry> files;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        *why = "cannot read the unpacked package";
        return -1;
    }
    // readdir64: a 32-bit build's readdir fails on a 64-bit inode number.
    while (struct dirent64 *ent = readdir64(d)) {
        manifest_entry e{ent->d_name, 0, ""};
        if ((ent->d_type == DT_REG || ent->d_type == DT_UNKNOWN) &&
            file_digest(dir + "/" + e.name, &e.size, &e.sha256))
            files.push_back(e);
    }
    closedir(d);
    if (manifest_check(read_text, read_sig, pk, files, why) != 0)
        return -1;
    if (text != nullptr)
        *text = read_text;
    if (sig != nullptr)
        *sig = read_sig;
    return 0;
}

int manifest_check_files(const std::string &dir, const std::vector<std::string> &names,
                         const std::string &text, const std::string &sig,
                         const std::vector<uint8_t> &pk, std::string *why)
{
    std::vector<manifest_entry> files;
    for (const std::string &name : names) {
        // The manifest's own copies must be the manifest that verified.
        if (name == MANIFEST_ARTIFACT || name == MANIFEST_SIG_ARTIFACT) {
            std::string copy;
            if (!read_file(dir + "/" + name, &copy, 1 << 20) ||
                copy != (name == MANIFEST_ARTIFACT ? text : sig)) {
                *why = "artifact '" + name + "' differs from the manifest";
                return -1;
            }
            continue;
        }
        manifest_entry e{name, 0, ""};
        if (!file_digest(dir + "/" + name, &e.size, &e.sha256)) {
            *why = "artifact '" + name + "' cannot be read";
            return -1;
        }
        files.push_back(e);
    }
    return manifest_check(text, sig, pk, files, why);
}
