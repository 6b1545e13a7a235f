/*
 * Event tags: what the daemon tells an operator, one row for each event.
 *
 * A row holds everything about an event but its values: the severity, the format that begins with the tag, and the
 * attribute names, one for each conversion of the format. keld_event<KELD_X>(values...) logs it. The compiler checks
 * that the number of values fits the row, and their types against the format.
 */
#pragma once

#include "platform/log/log.h"

#include <iterator>
#include <string_view>

enum keld_tag {   // slots of errmsg_keld_tags
    KELD_TAG_FIRST,
    KELD_BEEP_FIN_FAIL,
    KELD_BEEP_INIT_FAIL,
    KELD_CHANNEL_START_FAIL,
    KELD_CONNECT_FAIL,
    KELD_DAEMONIZE_FAIL,
    KELD_EVLIB_FAILURE,
    KELD_KEEPALIVES_MISSED,
    KELD_KEEPALIVE_SEND_FAIL,
    KELD_MGMT_DAEMON_FAIL,
    KELD_MGMT_SOCKET_IO,
    KELD_NOTIFICATION_SEND_FAIL,
    KELD_OUT_OF_MEMORY,
    KELD_PID_FILE_UPDATE,
    KELD_PRIVATIZE_FAIL,
    KELD_SOCKET_FAILURE,
    KELD_TAG_LAST,
    KELD_TAG_SLOTS
};

struct keld_tag_row {
    keld_tag kt_slot;
    int kt_severity;                   // syslog level
    const char *kt_tag;                // null in the two slots that no event uses
    const char *kt_format;
    const char *kt_attributes[3];      // null-terminated
};

/* In alphabetical order of the tags. The first and the last slot are fences without a tag. */
inline constexpr keld_tag_row errmsg_keld_tags[] = {
    { KELD_TAG_FIRST, 0, nullptr, nullptr, {} },
    { KELD_BEEP_FIN_FAIL, 5, "KELD_BEEP_FIN_FAIL", "KELD_BEEP_FIN_FAIL: Graceful close of BEEP session failed", {} },
    { KELD_BEEP_INIT_FAIL, 3, "KELD_BEEP_INIT_FAIL", "KELD_BEEP_INIT_FAIL: BEEP initialization failed", {} },
    { KELD_CHANNEL_START_FAIL, 3, "KELD_CHANNEL_START_FAIL",
      "KELD_CHANNEL_START_FAIL: Notification channel could not be started (%d): %s", { "error-code", "message" } },
    { KELD_CONNECT_FAIL, 5, "KELD_CONNECT_FAIL", "KELD_CONNECT_FAIL: Connection to KEL server failed: %s",
      { "message" } },
    { KELD_DAEMONIZE_FAIL, 0, "KELD_DAEMONIZE_FAIL",
      "KELD_DAEMONIZE_FAIL: Aborting, unable to run in the background as a daemon: %s", { "error-message" } },
    { KELD_EVLIB_FAILURE, 3, "KELD_EVLIB_FAILURE", "KELD_EVLIB_FAILURE: %s: %s",
      { "function-name", "error-message" } },
    { KELD_KEEPALIVES_MISSED, 5, "KELD_KEEPALIVES_MISSED",
      "KELD_KEEPALIVES_MISSED: No server keepalives received for three intervals", {} },
    { KELD_KEEPALIVE_SEND_FAIL, 5, "KELD_KEEPALIVE_SEND_FAIL", "KELD_KEEPALIVE_SEND_FAIL: Unable to send keepalive",
      {} },
    { KELD_MGMT_DAEMON_FAIL, 3, "KELD_MGMT_DAEMON_FAIL", "KELD_MGMT_DAEMON_FAIL: This should not happen: %s",
      { "message" } },
    { KELD_MGMT_SOCKET_IO, 3, "KELD_MGMT_SOCKET_IO", "KELD_MGMT_SOCKET_IO: management daemon I/O failure: %s",
      { "reason" } },
    { KELD_NOTIFICATION_SEND_FAIL, 7, "KELD_NOTIFICATION_SEND_FAIL",
      "KELD_NOTIFICATION_SEND_FAIL: Unable to send notification", {} },
    { KELD_OUT_OF_MEMORY, 3, "KELD_OUT_OF_MEMORY", "KELD_OUT_OF_MEMORY: Insufficient memory during %s",
      { "operation" } },
    { KELD_PID_FILE_UPDATE, 3, "KELD_PID_FILE_UPDATE",
      "KELD_PID_FILE_UPDATE: Unable to update process PID file: %s", { "error-message" } },
    { KELD_PRIVATIZE_FAIL, 3, "KELD_PRIVATIZE_FAIL", "KELD_PRIVATIZE_FAIL: %s: %s", { "action", "message" } },
    { KELD_SOCKET_FAILURE, 3, "KELD_SOCKET_FAILURE", "KELD_SOCKET_FAILURE: %s failed: %s",
      { "operation", "error-message" } },
    { KELD_TAG_LAST, 0, nullptr, nullptr, {} },
};

/* Every row stands at its slot, begins its format with its tag, and follows its predecessor in the alphabet. */
consteval bool keld_tags_are_in_order()
{
    std::string_view former;
    for (int slot = 0; slot < KELD_TAG_SLOTS; slot++) {
        const keld_tag_row &row = errmsg_keld_tags[slot];
        if (row.kt_slot != slot) return false;
        if (slot == KELD_TAG_FIRST || slot == KELD_TAG_LAST) continue;
        std::string_view tag = row.kt_tag;
        if (tag <= former || !std::string_view(row.kt_format).starts_with(tag)) return false;
        former = tag;
    }
    return true;
}
static_assert(std::size(errmsg_keld_tags) == KELD_TAG_SLOTS && keld_tags_are_in_order());

consteval int keld_tag_attributes(keld_tag tag)
{
    int count = 0;
    while (errmsg_keld_tags[tag].kt_attributes[count]) count++;
    return count;
}

// The format is a constant of the row, and g++ checks the values against it; clang does not see that far.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
/* Logs the event with one value for each of its attributes, in their order. Keeps errno. */
template <keld_tag tag, class... Values> static inline void keld_event(Values... values)
{
    static_assert(sizeof...(values) == keld_tag_attributes(tag));
    constexpr const char *format = errmsg_keld_tags[tag].kt_format;
    logging_event(errmsg_keld_tags[tag].kt_severity, errmsg_keld_tags[tag].kt_tag, errmsg_keld_tags[tag].kt_attributes,
                  format, values...);
}
#pragma GCC diagnostic pop
