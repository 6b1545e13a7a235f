// Show command: the documents for each state of the core, and the tables they come from.
#include "platform/log/log.h"
#include "usr.sbin/keld/keld_ui.h"
#include "usr.sbin/keld/main/keld.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>

using std::string;

enum : time_t { NOW_S = 1700000000 };
static string document;

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only
#pragma GCC diagnostic ignored "-Wformat-nonliteral"       // of what is logged
extern "C" time_t time(time_t *) noexcept
{
    return NOW_S;
}

static int catch_line(struct mgmt_sock *, const char *line)
{
    document += line;
    return 0;
}

static const string opening = "<kel-information xmlns=\"" KELD_URI_BASE "/tarne/" KELD_RELEASE "/tarne-kel\">";
static const string connecting = "<connection-status><state>connecting</state><address>192.0.2.10</address>"
                                 "<port>65535</port></connection-status>";
static const string connected =
    "<connection-status><state>connected</state><address>192.0.2.10</address><port>65535</port>"
    "<date-time seconds=\"1699999900\">2023-11-14 22:11:40 UTC</date-time></connection-status>"
    "<keepalive-information><interval>20</interval><keepalive-count>";

TEST(show, connection_in_each_state)
{
    setenv("TZ", "UTC", 1);
    const struct {
        const char *address;
        time_t connected, keepalive, notification, received;
        int32_t keepalives, notifications;
        string body;
    } rows[] = {
        { "0.0.0.0", 0, 0, 0, 0, 0, 0, "<unconfigured/>" },
        { "0.0.0.0", NOW_S, NOW_S, NOW_S, NOW_S - 90061, 7, 7,
          "<unconfigured/>"
          "<peer-information><elapsed-time seconds=\"90061\">1d 01:01:01</elapsed-time></peer-information>" },
        { "192.0.2.10", -1, NOW_S, NOW_S, 0, 7, 7, connecting },
        { "192.0.2.10", NOW_S - 100, 0, 0, 0, 0, 0,
          connected + "0</keepalive-count></keepalive-information><notification-information>"
                      "<notification-count>0</notification-count></notification-information>" },
        { "192.0.2.10", NOW_S - 100, NOW_S - 65, NOW_S + 5, NOW_S, 2147483647, 2,   // the clock was set back
          connected + "2147483647</keepalive-count><elapsed-time seconds=\"65\">00:01:05</elapsed-time>"
                      "</keepalive-information><notification-information><notification-count>2</notification-count>"
                      "<elapsed-time seconds=\"-5\">-00:00:05</elapsed-time></notification-information>"
                      "<peer-information><elapsed-time seconds=\"0\">00:00:00</elapsed-time></peer-information>" },
    };
    xml_set_send_method(catch_line);
    keepalive = 20;
    current_server.ks_port = 65535;
    for (const auto &row : rows) {
        document.clear();
        current_server.ks_addr = inet_addr(row.address);
        last_conn_time = row.connected;
        last_ka_time = row.keepalive;
        last_notifi_time = row.notification;
        last_rcvd_time = row.received;
        keepalive_count = row.keepalives;
        notification_count = row.notifications;
        EXPECT_EQ(xml_show_connection(nullptr), 0);
        EXPECT_EQ(document, opening + row.body + "</kel-information>");
    }
}

/* The document of every command of the menu, as it is typed. */
static void walk(const struct menu_row *row, const string &before, std::map<string, string> *documents)
{
    for (; row && row->mn_keyword; row++) {
        EXPECT_NE(row->mn_child == nullptr, row->mn_handler == nullptr) << row->mn_keyword;
        walk(row->mn_child, before + row->mn_keyword + " ", documents);
        if (!row->mn_handler) continue;
        document.clear();
        EXPECT_EQ(row->mn_handler(nullptr, row), 0);
        (*documents)[before + row->mn_keyword] = document;
    }
}

TEST(show, commands_of_the_menu)
{
    std::map<string, string> documents;
    xml_set_send_method(catch_line);
    walk(master_menu, "", &documents);
    string brief = documents["show version brief"], detail = documents["show version detail"];
    EXPECT_EQ(documents["show version extensive"], detail);
    EXPECT_NE(brief.find("<release>" KELD_RELEASE "</release>"), string::npos);
    EXPECT_EQ(brief.find("<compiler>"), string::npos);
    EXPECT_NE(detail.find("<compiler>"), string::npos);
    EXPECT_TRUE(documents["show system services service-deployment"].starts_with(opening));

    std::ifstream completion(string(getenv("KELD_SOURCE")) + "/tools/keldctl/keldctl.bash");
    for (string line; std::getline(completion, line);)
        EXPECT_EQ(documents.erase(line), line.starts_with("show ") ? 1u : 0u) << line;
    EXPECT_TRUE(documents.empty()) << documents.begin()->first << " is not completed";
}

static string insisted;

TEST(show, end_of_file)
{
    struct fbuf buffer = {};
    struct mgmt_sock sock = {};
    sock.ms_fbp = &buffer;
    EXPECT_EQ(keld_ui_eof(&sock), 0);
    buffer.fb_flags = 0xff;
    EXPECT_EQ(keld_ui_eof(&sock), 1);
    errno = 0;
    EXPECT_EQ(keld_ui_eof(nullptr), 1);
    EXPECT_EQ(errno, EINVAL);
    logging_register_logfunc([](int severity, const char *, const char *const *, const char *format, va_list args) {
        char text[200];
        vsnprintf(text, sizeof text, format, args);
        insisted = std::to_string(severity) + " " + text;
    });
    sock.ms_fbp = nullptr;
    EXPECT_EQ(keld_ui_eof(&sock), 1);
    EXPECT_EQ(insisted, "0 usr.sbin/keld/keld_ui:mgmt_sock_valid:161: insist 'msp->ms_fbp != NULL' failed");
}
