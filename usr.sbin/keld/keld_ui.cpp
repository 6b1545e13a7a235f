/*
 * Show command: the menu, the tags, and the document on the connection.
 *
 * The document is built from the core's globals alone, with the time taken once, so that its elapsed times fit
 * together. "connecting" is all that lies between the choice of a server and the session: a wait for the next attempt
 * and an attempt that stalled look the same, because the server stays chosen. When the server was last heard is asked
 * for in each of these states; without a session there is nothing to tell.
 *
 * Elements are named by row of odl_kel_tags; enum kel_tag has the rows' numbers, in their order.
 */
#include "usr.sbin/keld/keld_ui.h"

#include "platform/log/log.h"
#include "platform/mgmt/ms_server.h"
#include "platform/text/time_text.h"
#include "usr.sbin/keld/main/keld.h"

#include <arpa/inet.h>
#include <errno.h>
#include <inttypes.h>
#include <iterator>

static const char insist_unit[] = "usr.sbin/keld/keld_ui";
enum { INSIST_SOCK_LINE = 161 };

/* --- menu ------------------------------------------------------------------------------------------------------- */

enum { VERSION_BRIEF = 1, VERSION_DETAIL = 2, VERSION_EXTENSIVE = 3 };

static const struct menu_row version_menu[] = {
    { "brief", nullptr, VERSION_BRIEF, nullptr, xml_show_daemon_version },
    { "detail", nullptr, VERSION_DETAIL, nullptr, xml_show_daemon_version },
    { "extensive", nullptr, VERSION_EXTENSIVE, nullptr, xml_show_daemon_version },
    {},
};

static const struct menu_row services_menu[] = {
    { "service-deployment", "KEL", 0, nullptr, xml_show_connection },
    {},
};

static const struct menu_row system_menu[] = {
    { "services", "service applications", 0, services_menu, nullptr },
    {},
};

static const struct menu_row show_menu[] = {
    { "version", "software version", 0, version_menu, nullptr },
    { "system", "show system", 0, system_menu, nullptr },
    {},
};

const struct menu_row master_menu[] = {
    { "show", "show commands", 0, show_menu, nullptr },
    {},
};

/* --- tags ------------------------------------------------------------------------------------------------------- */

enum kel_tag {
    TAG_NONE, TAG_ADDRESS, TAG_CONNECTION_STATUS, TAG_DATE_TIME, TAG_ELAPSED_TIME, TAG_INTERVAL, TAG_QUILLON_ROOT_TAG,
    TAG_KEEPALIVE_COUNT, TAG_KEEPALIVE_INFORMATION, TAG_NOTIFICATION_COUNT, TAG_NOTIFICATION_INFORMATION,
    TAG_PEER_INFORMATION, TAG_PORT, TAG_KEL_INFORMATION, TAG_STATE, TAG_UNCONFIGURED, TAGS
};

const struct odl_tag odl_kel_tags[] = {
    { "NONE", 0 },
    { "address", ODL_TEXT },
    { "connection-status", ODL_CONTAINER },
    { "date-time", ODL_TEXT },
    { "elapsed-time", ODL_NUMBER },   // the number is in its attribute
    { "interval", ODL_NUMBER },
    { "quillon-root-tag", ODL_CONTAINER },
    { "keepalive-count", ODL_NUMBER },
    { "keepalive-information", ODL_CONTAINER },
    { "notification-count", ODL_NUMBER },
    { "notification-information", ODL_CONTAINER },
    { "peer-information", ODL_CONTAINER },
    { "port", ODL_NUMBER },
    { "kel-information", ODL_CONTAINER },
    { "state", ODL_TEXT },
    { "unconfigured", ODL_EMPTY },
    { nullptr, 0 },
};
static_assert(std::size(odl_kel_tags) == TAGS + 1);

/* --- the server's hooks ----------------------------------------------------------------------------------------- */

int keld_ui_init(evContext ctx)
{
    xml_set_send_method(ms_peer_send_line);
    xml_set_get_method(mgmt_sock_get_xml);
    xml_set_eof_method(keld_ui_eof);
    return ms_init(ctx, "keld", master_menu, 0);
}

int keld_ui_eof(struct mgmt_sock *msp)
{
    if (!msp) {
        errno = EINVAL;
        return 1;
    }
    if (!msp->ms_fbp) {
        logging_insist(insist_unit, "mgmt_sock_valid", INSIST_SOCK_LINE, "msp->ms_fbp != NULL");
        return 1;   // there is no flags octet to look at, and nothing can be read
    }
    return msp->ms_fbp->fb_flags & FBUF_EOF;
}

/* --- documents -------------------------------------------------------------------------------------------------- */

int xml_show_daemon_version(struct mgmt_sock *msp, const struct menu_row *row)
{
    (void)xml_show_version(msp, nullptr, row->mn_argument > VERSION_BRIEF);
    return 0;
}

static void open_container(struct mgmt_sock *msp, enum kel_tag tag)
{
    (void)xml_send_open(msp, &odl_kel_tags[tag], XML_NEWLINE, nullptr, 0);
}

static void close_container(struct mgmt_sock *msp, enum kel_tag tag)
{
    (void)xml_send_close(msp, &odl_kel_tags[tag], XML_NEWLINE);
}

static void show_text(struct mgmt_sock *msp, enum kel_tag tag, const char *text)
{
    (void)xml_send_all(msp, &odl_kel_tags[tag], XML_ESCAPE, "%s", text);
}

static void show_number(struct mgmt_sock *msp, enum kel_tag tag, int32_t number)
{
    (void)xml_send_all(msp, &odl_kel_tags[tag], XML_ESCAPE, "%" PRId32, number);
}

static void show_time(struct mgmt_sock *msp, enum kel_tag tag, time_t seconds, const char *text)
{
    (void)xml_send_open(msp, &odl_kel_tags[tag], 0, xml_attr_seconds(seconds), 0);
    (void)xml_jxo_data(msp, XML_ESCAPE, "%s", text);
    (void)xml_send_close(msp, &odl_kel_tags[tag], XML_NEWLINE);
}

void xml_show_times(struct mgmt_sock *msp, const time_t *date, const time_t *elapsed)
{
    if (date) show_time(msp, TAG_DATE_TIME, *date, tarne_time_isostr(date));
    if (elapsed) show_time(msp, TAG_ELAPSED_TIME, *elapsed, tarne_time_diffstr(elapsed));
}

/* The time that has passed since then, if it has happened at all. */
static void show_since(struct mgmt_sock *msp, time_t now, time_t then)
{
    if (then <= 0) return;
    time_t elapsed = now - then;
    xml_show_times(msp, nullptr, &elapsed);
}

static void show_status(struct mgmt_sock *msp, bool connected)
{
    open_container(msp, TAG_CONNECTION_STATUS);
    show_text(msp, TAG_STATE, connected ? "connected" : "connecting");
    show_text(msp, TAG_ADDRESS, inet_ntoa({ current_server.ks_addr }));
    show_number(msp, TAG_PORT, current_server.ks_port);
    if (connected) xml_show_times(msp, &last_conn_time, nullptr);
    close_container(msp, TAG_CONNECTION_STATUS);
}

static void show_session(struct mgmt_sock *msp, time_t now)
{
    open_container(msp, TAG_KEEPALIVE_INFORMATION);
    show_number(msp, TAG_INTERVAL, keepalive);
    show_number(msp, TAG_KEEPALIVE_COUNT, keepalive_count);
    show_since(msp, now, last_ka_time);
    close_container(msp, TAG_KEEPALIVE_INFORMATION);

    open_container(msp, TAG_NOTIFICATION_INFORMATION);
    show_number(msp, TAG_NOTIFICATION_COUNT, notification_count);
    show_since(msp, now, last_notifi_time);
    close_container(msp, TAG_NOTIFICATION_INFORMATION);
}

static void show_server(struct mgmt_sock *msp, time_t now)
{
    if (current_server.ks_addr == 0) {
        (void)xml_send_open(msp, &odl_kel_tags[TAG_UNCONFIGURED], XML_EMPTY | XML_NEWLINE, nullptr, 0);
        return;
    }
    bool connected = last_conn_time >= 1;
    show_status(msp, connected);
    if (connected) show_session(msp, now);
}

int xml_show_connection(struct mgmt_sock *msp, const struct menu_row *)
{
    time_t now = time(nullptr);
    const char *name = xml_attr_xmlns(KELD_UI_NAMESPACE);
    (void)xml_send_open(msp, &odl_kel_tags[TAG_KEL_INFORMATION], XML_NEWLINE, name, 0);
    show_server(msp, now);
    if (last_rcvd_time > 0) {
        open_container(msp, TAG_PEER_INFORMATION);
        show_since(msp, now, last_rcvd_time);
        close_container(msp, TAG_PEER_INFORMATION);
    }
    close_container(msp, TAG_KEL_INFORMATION);
    return 0;
}
