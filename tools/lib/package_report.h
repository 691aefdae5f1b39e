// The one report of a package, shared by "swu-pack verify" and
// "swu-client check": readable text, or a JSON object.
#pragma once

#include "lib/package_inspect.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

// The readable report of the package `file`, ending with its verdict.
void pack_report_text(FILE *out, const std::string &file, const pack_report &r);

// The same as a JSON object: "size", "artifacts_bitmask", "footer_crc",
// "payload_crc", "members", "artifacts", "findings", "version", "st_bin",
// "signed" and "result" ("ok" or "refused").
nlohmann::json pack_report_json(const pack_report &r);
