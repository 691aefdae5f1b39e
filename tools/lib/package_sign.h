// Signing a package: its manifest and the manifest's signature, added as two
// more artifacts (sign/manifest.h).
#pragma once

#include "lib/package_write.h"

#include <cstdint>
#include <string>
#include <vector>

// Adds the signed manifest of `members` (regular files) to them, signed with
// the secret key `sk`. It states the version of the version file among them
// (0.0.0 without one), and with `downgrade` lets a terminal that holds a newer
// version install it. 0, or -1 with the reason in *err.
int pack_sign(std::vector<pack_member> *members, const std::vector<uint8_t> &sk, bool downgrade,
              std::string *err);
