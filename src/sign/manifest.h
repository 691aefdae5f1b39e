// Signed packages. A signed package carries two more artifacts at the top
// of its archive: the manifest and its detached Ed25519 signature (64 bytes).
// The manifest starts with the line "version X.Y.Z", the package's version,
// and a line "downgrade" when it was signed to replace a newer version; then
// one line "<sha256 hex> <size> <name>" per artifact, sorted by name. Keys are
// kept as hexadecimal text: 64 bytes for a secret key, 32 for a public one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr char MANIFEST_ARTIFACT[] = "swu-manifest";
inline constexpr char MANIFEST_SIG_ARTIFACT[] = "swu-manifest.sig";
inline constexpr size_t SIGN_SECRET_KEY_SIZE = 64;
inline constexpr size_t SIGN_PUBLIC_KEY_SIZE = 32;
inline constexpr size_t SIGN_SIGNATURE_SIZE = 64;

struct manifest_entry {
    std::string name;
    uint64_t size = 0;
    std::string sha256; // hexadecimal
};

// Readies the library (libsodium); false when it can't be used.
bool sign_init();

// Writes a new key pair: the secret key to `secret_path`, the public key to
// `secret_path` + ".pub". 0, or -1 with the reason in *err.
int sign_keygen(const std::string &secret_path, std::string *err);
// Reads a key file of `size` bytes. 0, or -1 with the reason in *err.
int sign_read_key(const std::string &path, size_t size, std::vector<uint8_t> *key,
                  std::string *err);

// SHA-256 of a file, hexadecimal; "" when it can't be read.
std::string sign_file_sha256(const std::string &path);
std::string sign_sha256(const void *data, size_t size);

// What a manifest says of the package as a whole. A manifest without a
// version line stands for version 0.0.0.
struct manifest_package {
    uint16_t version[3] = {};
    bool downgrade = false; // may replace a newer installed version
};

// The manifest's text for this package and these artifacts (sorted by name).
std::string manifest_text(std::vector<manifest_entry> entries, const manifest_package &package);
// The package lines of a manifest's text.
manifest_package manifest_package_of(const std::string &text);
// True when `package` may replace the installed version `installed`: it is
// not older, or it was signed as a downgrade.
bool manifest_allows(const manifest_package &package, const uint16_t installed[3]);
// The detached signature of `text` with the secret key `sk`.
std::string manifest_sign(const std::string &text, const std::vector<uint8_t> &sk);

// Checks the artifacts of an unpacked package, `files` (everything at the
// top of its archive, the manifest and its signature included), against the
// signed manifest: signature by `pk`, every artifact listed with its size and
// hash, nothing listed missing. 0, or -1 with the reason in *why.
int manifest_check(const std::string &text, const std::string &sig, const std::vector<uint8_t> &pk,
                   const std::vector<manifest_entry> &files, std::string *why);
// The same for a directory holding the unpacked package's regular files. On
// success *text and *sig (when not null) hold the manifest that verified.
int manifest_check_dir(const std::string &dir, const std::vector<uint8_t> &pk, std::string *why,
                       std::string *text = nullptr, std::string *sig = nullptr);
// The same for the files `names` in `dir`, checked against a manifest read
// before (copies of a package's artifacts, made after its check); copies of
// the manifest and its signature must equal `text` and `sig`.
int manifest_check_files(const std::string &dir, const std::vector<std::string> &names,
                         const std::string &text, const std::string &sig,
                         const std::vector<uint8_t> &pk, std::string *why);
