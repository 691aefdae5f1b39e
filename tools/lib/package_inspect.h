// Reading an update package as the terminal will: its footer and CRC, its
// archive's members, and what the judge makes of them (package_judge.h).
#pragma once

#include "lib/package_judge.h"
#include "proto/version.h"
#include "sign/manifest.h"

#include <cstdint>
#include <string>
#include <vector>

// Largest version file or manifest read from a package.
inline constexpr size_t PACK_TEXT_MAX = 1 << 20;

struct pack_report {
    uint64_t package_size = 0;
    uint32_t artifacts_bitmask = 0;
    uint32_t footer_crc = 0;
    uint32_t payload_crc = 0;
    std::vector<pack_listed> members; // as far as they were read
    pack_judgement judgement;
    // The judge's findings, behind a refusal of the package's integrity (footer,
    // CRC, archive) when it has none.
    std::vector<pack_finding> findings;
    bool has_version = false;   // the version file holds a "[pkg_data]" "version" key
    std::string version_text;   // that key's value as written
    pkg_version_t version;      // and as the terminal reads it
    bool has_mcu_image = false; // st.bin, in any case
    uint64_t mcu_image_size = 0;
    uint32_t mcu_image_crc32 = 0;          // crc32_std
    std::vector<manifest_entry> artifacts; // what the terminal installs, hashed
    std::string manifest, manifest_sig;    // of a signed package
};

// True when a finding refuses the package.
bool pack_refused(const pack_report &report);

// Reads the package at `path` (or open on `fd`) without changing it. 0 when
// the footer's CRC matches and the archive reads to its end within the
// judge's limits; -1 with the reason in *err otherwise. *report holds what
// was found either way, the judge's findings included.
int pack_verify(const std::string &path, pack_report *report, std::string *err);
int pack_verify_fd(int fd, pack_report *report, std::string *err);
