#include "lib/status.h"

#include "proto/protocol.h"

#include <nlohmann/json.hpp>

#include <type_traits>

namespace
{

template <typename T> bool get_field(const nlohmann::json &j, const char *key, T *out)
{
    auto it = j.find(key);
    if (it == j.end())
        return false;
    if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string())
            return false;
    } else {
        // The fields are small counters: a value that does not fit is no
        // report, not a wrapped number.
        if (!it->is_number_unsigned() || it->get<uint64_t>() > UINT32_MAX)
            return false;
    }
    *out = it->get<T>();
    return true;
}

} // namespace

int swuc_parse_status(const char *text, size_t len, swuc_status *out)
{
    nlohmann::json j = nlohmann::json::parse(text, text + len, nullptr, false);
    if (j.is_discarded() || !j.is_object())
        return -1;
    swuc_status st;
    if (!get_field(j, "battery_status", &st.battery_status) ||
        !get_field(j, "status_code", &st.status_code) ||
        !get_field(j, "status_message", &st.status_message) ||
        !get_field(j, "stage_code", &st.stage_code) ||
        !get_field(j, "stage_description", &st.stage_description) ||
        !get_field(j, "stage_progress", &st.stage_progress) ||
        !get_field(j, "stage_complete", &st.stage_complete))
        return -1;
    st.text.assign(text, len);
    *out = std::move(st);
    return 0;
}

int swuc_decode_status(const uint8_t *buf, size_t len, swuc_status *out)
{
    status_response_t rsp;
    if (proto_get_opcode(buf, len) != STATUS_RSPNS || proto_decode_status_response(buf, len, &rsp))
        return -1;
    return swuc_parse_status(rsp.buffer, rsp.buffer_len, out);
}

std::string describe_status(const swuc_status &st)
{
    return st.stage_description + " (stage " + std::to_string(st.stage_code) + ", status " +
           std::to_string(st.status_code) + ": " + st.status_message + ")";
}
