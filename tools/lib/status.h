// The terminal's status report: its JSON text read into fields. The text
// comes off the network, so anything that is not a whole report is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// One status report, decoded. The stage and status codes are those of
// proto/codes.h.
struct swuc_status {
    unsigned battery_status = 0;
    unsigned status_code = 0;
    std::string status_message;
    unsigned stage_code = 0;
    std::string stage_description;
    unsigned stage_progress = 0;
    unsigned stage_complete = 0;
    std::string text; // the report as received
};

// Decodes the report text (`len` bytes, no terminator needed). 0, or -1 when
// it is not a JSON object holding every field with its type.
int swuc_parse_status(const char *text, size_t len, swuc_status *out);

// Decodes a whole status response datagram. 0, or -1 when it is anything
// else or its report does not parse.
int swuc_decode_status(const uint8_t *buf, size_t len, swuc_status *out);

// A status report in words: "<stage description> (stage N, status M: text)".
std::string describe_status(const swuc_status &st);
