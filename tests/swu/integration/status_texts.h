// The status reports the terminal sends, character for character, in the
// situations the integration tests bring about.
#pragma once

#include <string_view>

// Connected, waiting for a stream.
inline constexpr std::string_view STT_CONNECTED =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":1,"stage_description":"Terminal is in update mode, connected...","stage_progress":0,"stage_complete":0})";
static_assert(STT_CONNECTED.size() == 209);

inline constexpr std::string_view STT_STREAMING =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":2,"stage_description":"Terminal is receiving update stream...","stage_progress":0,"stage_complete":0})";

inline constexpr std::string_view STT_VERIFYING =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":3,"stage_description":"Terminal verifiying upgrade package...","stage_progress":0,"stage_complete":1})";

inline constexpr std::string_view STT_UPGRADING =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":4,"stage_description":"Terminal in upgradded to new version...","stage_progress":0,"stage_complete":1})";

inline constexpr std::string_view STT_FINISHED =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":6,"stage_description":"Terminal is rebooting...","stage_progress":0,"stage_complete":1})";

// Error state after a refused stream request (size, name length, name).
inline constexpr std::string_view STT_ERROR_INVALID_REQUEST =
    R"({"battery_status":80,"status_code":1,"status_message":"invalid stream request...","stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue","stage_progress":0,"stage_complete":0})";

// Error state after a stream end with missing packets.
inline constexpr std::string_view STT_ERROR_MISSING_PACKETS =
    R"({"battery_status":80,"status_code":2,"status_message":"invalid stream, some packets are missing...","stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue","stage_progress":0,"stage_complete":0})";
static_assert(STT_ERROR_MISSING_PACKETS.size() == 262);

// Error state after the package file could not be reserved (3) or created (4).
inline constexpr std::string_view STT_ERROR_NO_MEMORY =
    R"({"battery_status":80,"status_code":3,"status_message":"NULL","stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue","stage_progress":0,"stage_complete":0})";
inline constexpr std::string_view STT_ERROR_FS_FAILURE =
    R"({"battery_status":80,"status_code":4,"status_message":"NULL","stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue","stage_progress":0,"stage_complete":0})";

// Error state after a complete stream whose package failed its check or
// installation.
inline constexpr std::string_view STT_ERROR_AFTER_STREAM =
    R"({"battery_status":80,"status_code":0,"status_message":"operation compleated successfully...","stage_code":5,"stage_description":"Terminal encountered a major error, returning to initial state, re-connect to continue","stage_progress":0,"stage_complete":1})";
