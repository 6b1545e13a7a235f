/*
 * Interface changes: a scan of the configuration compares the units with those of the last scan, and what came, went or
 * changed goes to the server, a message for each kind. There are no interface events; a reload is what makes us look.
 *
 * Two marks say what changed. The whole list's mark spares the scan when nothing did; a unit's mark tells a changed
 * unit from one that is the same. Marks are settled when a scan has acted on them, so that ifl_current and the
 * configuration that the next marks compare with are always of the same reading. A scan at connect thus settles what
 * changed while there was no session, and none of that is ever announced. If that scan cannot be done, the next one
 * takes its place: it announces nothing, either.
 *
 * True between calls:
 *   - ifl_current holds what the last scan that ended well has found, in the order of the configuration;
 *   - the other three lists are empty, unless there was no memory for the queue; then they wait for the next sending;
 *   - texts in the queue are whole messages. They are tried before anything newer, but only at the next reload: the
 *     start of the channel does not send them, and the end of the session drops them.
 *
 * A scan is all or nothing. When memory runs out in the middle, what it had added to the lists is taken off again.
 */
#include "usr.sbin/keld/main/interfaces.h"

#include "platform/confdb/confdb.h"
#include "platform/text/text.h"
#include "usr.sbin/keld/main/tags.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

static const char *const interfaces_path[] = { "interfaces", "<*>", nullptr };
static const char *const units_path[] = { "unit", nullptr };

static bool baseline_due;   // the scan at connect is still to be done

/* --- one scan ---------------------------------------------------------------------------------------------------- */

struct scan {
    struct str_array *sc_found;   // what is configured now; owned
    char *sc_seen;                // an octet for each entry of ifl_current: it is configured still; owned
    int32_t sc_next;              // index in ifl_current behind the last entry met again
    int32_t sc_added, sc_changed, sc_deleted;   // entries of the lists before the scan
};

/* True if a copy of name stands at the end of the list now. */
static bool list_add(struct str_array **list, const char *name)
{
    struct str_array *grown = str_array_add(*list, name);
    if (!grown) return false;
    *list = grown;
    return grown->sa_items[grown->sa_count - 1] != nullptr;
}

static int32_t list_count(const struct str_array *list)
{
    return list ? list->sa_count : 0;
}

static void list_cut(struct str_array *list, int32_t count)
{
    while (list_count(list) > count) {
        list->sa_count--;
        free(list->sa_items[list->sa_count]);
        list->sa_items[list->sa_count] = nullptr;
    }
}

/* Index of name in ifl_current, or -1. Units mostly keep their order, so the place behind the last one found is looked
 * at before all others. A scan that finds little new thus takes time in proportion to the units, not to their
 * square. */
static int32_t index_in_current(const struct scan *scan, const char *name)
{
    if (scan->sc_next < list_count(ifl_current)) {
        const char *next = ifl_current->sa_items[scan->sc_next];
        if (next && strcmp(next, name) == 0) return scan->sc_next;
    }
    return str_array_find(ifl_current, name);
}

/* False if memory is out, here and in the functions below. */
static bool scan_unit(struct scan *scan, const char *interface, struct ddl_object *unit)
{
    char id[KELD_UNIT_ID_SIZE], name[KELD_INTERFACE_ID_SIZE + KELD_UNIT_ID_SIZE];
    (void)ddl_access_extract_id(unit, id, sizeof id);
    (void)snprintf_safe(name, sizeof name, "%s.%s", interface, id);
    if (!list_add(&scan->sc_found, name)) return false;
    int32_t index = index_in_current(scan, name);
    if (index < 0) return list_add(&ifl_added, name);
    scan->sc_seen[index] = 'y';
    scan->sc_next = index + 1;
    return !ddl_access_object_changed(unit) || list_add(&ifl_changed, name);
}

/* An interface without units is passed over. */
static bool scan_interface(struct scan *scan, struct ddl_object *interface)
{
    char id[KELD_INTERFACE_ID_SIZE];
    (void)ddl_access_extract_id(interface, id, sizeof id);
    struct ddl_object *units = ddl_access_object_find_by_name(interface, units_path, 0, 0, 0);
    struct ddl_object *unit = nullptr;
    bool good = true;
    while (good && ddl_access_visit_container(units, &unit, 0)) good = scan_unit(scan, id, unit);
    ddl_access_release(unit);
    ddl_access_release(units);
    return good;
}

static bool scan_deleted(const struct scan *scan)
{
    for (int32_t i = 0; i < list_count(ifl_current); i++) {
        const char *name = ifl_current->sa_items[i];
        if (name && scan->sc_seen[i] != 'y' && !list_add(&ifl_deleted, name)) return false;
    }
    return true;
}

static bool scan_all(struct scan *scan, struct ddl_object *list)
{
    scan->sc_seen = static_cast<char *>(calloc(static_cast<size_t>(list_count(ifl_current)) + 1, 1));   // never empty
    if (!scan->sc_seen) return false;
    struct ddl_object *interface = nullptr;
    bool good = true;
    while (good && ddl_access_visit_container(list, &interface, 0)) good = scan_interface(scan, interface);
    ddl_access_release(interface);
    return good && scan_deleted(scan);
}

static void scan_take(struct scan *scan)
{
    str_array_free(ifl_current);
    ifl_current = scan->sc_found;
    ddl_access_changes_settle();
}

static void scan_take_back(struct scan *scan)
{
    keld_event<KELD_OUT_OF_MEMORY>("attempt to identify interface changes");
    str_array_free(scan->sc_found);
    list_cut(ifl_added, scan->sc_added);
    list_cut(ifl_changed, scan->sc_changed);
    list_cut(ifl_deleted, scan->sc_deleted);
}

/* True if the scan was done. */
static bool scan_list(struct ddl_object *list)
{
    struct scan scan = { nullptr, nullptr, 0, list_count(ifl_added), list_count(ifl_changed), list_count(ifl_deleted) };
    bool done = scan_all(&scan, list);
    if (done)
        scan_take(&scan);
    else
        scan_take_back(&scan);
    free(scan.sc_seen);
    return done;
}

/* No interface is configured. */
static void scan_nothing(void)
{
    // Kept on purpose: deletions that still waited to be sent are dropped, not joined with these.
    str_array_free(ifl_deleted);
    ifl_deleted = ifl_current;
    ifl_current = nullptr;
    ddl_access_changes_settle();
}

/* Scans what the open database holds, if there is cause to. */
static void scan_configuration(bool initial)
{
    bool baseline = baseline_due;
    if (baseline)
        for (struct str_array *list : { ifl_current, ifl_deleted, ifl_added, ifl_changed }) str_array_clean(list);

    struct ddl_object *list = ddl_access_object_find_by_name(nullptr, interfaces_path, 0, 0, 0);
    if (!list) {
        scan_nothing();
        baseline_due = false;
    } else if (baseline || ddl_access_object_changed(list)) {
        if (scan_list(list)) baseline_due = false;
    }
    ddl_access_release(list);
    if (baseline && !initial)
        for (struct str_array *made_up : { ifl_deleted, ifl_added, ifl_changed }) str_array_clean(made_up);
}

void keld_config_interfaces(bool initial)
{
    baseline_due = baseline_due || initial;
    int error = ddl_access_open_db(0, "keld", nullptr, -2, 0);
    if (error) {
        ddl_access_config_error(nullptr, "Opening configuration database: %s", ddl_access_strerror(error));
        return;
    }
    scan_configuration(initial);
    error = ddl_access_close_db(0, 0);
    if (error) ddl_access_config_error(nullptr, "Close configuration database: %s", ddl_access_strerror(error));
}

/* --- messages ---------------------------------------------------------------------------------------------------- */

#define OPENING "<notification whatishappening=\"%s\">\n"
#define ENTRY "<interface><name>%s</name></interface>\n"
static constexpr char closing[] = "</notification>";
static_assert(sizeof OPENING + sizeof "deleted" + sizeof ENTRY + KELD_INTERFACE_ID_SIZE + KELD_UNIT_ID_SIZE +
                      sizeof closing <= KELD_NOTIFICATION_SIZE,
              "every message has room for one entry at least");

/* Makes text a message with as many entries, from *index on, as leave room for the closing element; *index then stands
 * behind them. */
static void compose(char *text, const char *kind, const struct str_array *names, int32_t *index)
{
    size_t at = snprintf_safe(text, KELD_NOTIFICATION_SIZE, OPENING, kind);
    for (; *index < names->sa_count; ++*index) {
        const char *name = names->sa_items[*index];
        if (!name) continue;
        size_t end = at + snprintf_safe(text + at, KELD_NOTIFICATION_SIZE - at, ENTRY, name);
        if (KELD_NOTIFICATION_SIZE - end < sizeof closing) break;   // goes first in the next message
        at = end;
    }
    (void)snprintf_safe(text + at, KELD_NOTIFICATION_SIZE - at, "%s", closing);
}

static bool send_text(const char *text)
{
    if (tkel_log(keld_sp, text) < 0) {
        keld_event<KELD_NOTIFICATION_SEND_FAIL>();
        return false;
    }
    notification_count++;
    (void)time(&last_notifi_time);
    return true;
}

static void send_queued(void)
{
    while (uintptr_t word = bp_queue_peek(keld_notify_queue)) {
        char *text = reinterpret_cast<char *>(word);
        if (!send_text(text)) return;
        (void)bp_queue_get(keld_notify_queue);
        free(text);
    }
}

static void queue_text(const char *text)
{
    char *copy = strdup(text);
    if (copy && bp_queue_put_and_grow(keld_notify_queue, reinterpret_cast<uintptr_t>(copy)) == 0) return;
    keld_event<KELD_OUT_OF_MEMORY>("queueing of a notification");
    free(copy);
}

static void send_list(const char *kind, struct str_array *names)
{
    for (int32_t index = 0; index < list_count(names);) {
        char text[KELD_NOTIFICATION_SIZE];
        compose(text, kind, names, &index);
        if (!send_text(text)) queue_text(text);
    }
    str_array_clean(names);
}

void send_notifications(struct str_array *added, struct str_array *deleted, struct str_array *changed)
{
    if (!keld_notify_queue) keld_notify_queue = bp_queue_new(KELD_NOTIFY_QUEUE_SIZE);
    if (!keld_notify_queue) {
        keld_event<KELD_OUT_OF_MEMORY>("initialization of the notification queue");
        return;
    }
    int32_t sent_before = notification_count;
    send_queued();
    // Kept on purpose: when the queue could not be sent whole, newer messages are still tried and may overtake it.
    send_list("added", added);
    send_list("deleted", deleted);
    send_list("changed", changed);
    if (notification_count == sent_before) return;
    // A notification is a sign of life as good as a keepalive.
    if (keld_arm_keepalive(keepalive) < 0) keld_event<KELD_EVLIB_FAILURE>("evResetTimer(keepalive)", strerror(errno));
}

void keld_drop_notifications(void)
{
    while (uintptr_t word = bp_queue_get(keld_notify_queue)) free(reinterpret_cast<char *>(word));
    bp_queue_free(keld_notify_queue);
    keld_notify_queue = nullptr;
}
