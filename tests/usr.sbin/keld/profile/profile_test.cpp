// The notification profile's two readers by rows: the keepalive interval of a confirmation, the redirect in a message.
#include "usr.sbin/keld/notification-profile.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

static int replies;   // empty final replies to whichever MSG is being answered

extern "C" decltype(beep_send_rpy) __wrap_beep_send_rpy;
int __wrap_beep_send_rpy(struct beep_session *, uint16_t, int32_t msgno, char more, const struct iovec *, int count)
{
    replies += msgno == -1 && more == '.' && count == 0;
    return 0;
}

/* The profile is driven through its row, as the engine does it. */
static struct beep_profile profile_row()
{
    struct beep_profile row = {};
    tkel_pro_init(&row);
    return row;
}

/* The block is exactly the text's octets, so that a read beyond its end is caught. */
static void confirm(const std::string &text)
{
    std::vector<char> block(text.begin(), text.end());
    EXPECT_EQ(profile_row().pro_start_confirm(block.data(), static_cast<int32_t>(block.size()), nullptr), 1);
}

static void message(char type, const std::string &text)
{
    struct beep_frame *frame = frame_new(type, 1, 0, '.', static_cast<int32_t>(text.size()), -1, text.data());
    profile_row().pro_message(nullptr, nullptr, frame);
    frame_free(frame);
}

TEST(profile, interval_is_a_third_of_what_the_server_states)
{
    static const struct { std::string piggyback; int32_t interval; } rows[] = {
        { "<keepalive>30</keepalive>", 10 },
        { "<![CDATA[<keepalive> 36", 12 },              // no closing tag, no terminator
        { "<keepalive>0x1e</keepalive>", 10 },
        { "<keepalive>036</keepalive>", 10 },           // octal
        { "<keepalive>2147483647</keepalive>", 715827882 },
        { "<keepalive>2147483648</keepalive>", 15 },    // beyond a 32-bit long
        { "<keepalive>1</keepalive>", 0 },
        { "<keepalive>0</keepalive>", 15 },
        { "<keepalive>abc</keepalive>", 15 },
        { "<keepaliv", 15 },
        { std::string("<a/>\0<keepalive>30", 19), 15 }, // the text ends at the first zero octet
        { "", 15 },                                     // no piggyback at all
    };
    for (const auto &row : rows) {
        keepalive = -1;
        confirm(row.piggyback);
        EXPECT_EQ(keepalive, row.interval) << row.piggyback;
    }
}

TEST(profile, redirect_by_rows)
{
    static const struct { const char *text, *address; uint16_t port; } rows[] = {
        { "<redirect><address>192.0.2.1</address><port>4000</port></redirect>", "192.0.2.1", 4000 },
        { "Content-Type: application/beep+xml\r\n\r\n<x/><redirect>\n\t <address>192.0.2.2</address>\n"
          "<port>4001</port>\n</redirect>trailing", "192.0.2.2", 4001 },
        { "<redirect><address>192.0.2.3</address><port>010</port></redirect>", "192.0.2.3", 8 },   // octal
        { "<redirect><address>192.0.2.4</address><port>70000</port></redirect>", "192.0.2.4", 4464 },
        { "<redirect><address>192.0.2.5</address><port>4294967296</port></redirect>", "192.0.2.5", 3333 },
        { "<redirect><address>192.0.2.7</address>p</port></redirect>", "192.0.2.7", 3333 },   // brackets: a set
        { "<redirect><address>192.0.2.8</address></redirect>", nullptr, 0 },
        { "<redirect><address>1.2.3.4.5</address><port>7</port></redirect>", nullptr, 0 },
        { "", nullptr, 0 },
    };
    for (const auto &row : rows) {
        replies = 0;
        message('M', row.text);
        EXPECT_EQ(replies, 1) << row.text;
        struct keld_server server = {};
        EXPECT_EQ(redirect_get_and_reset(&server), row.address ? &server : nullptr) << row.text;
        EXPECT_EQ(server.ks_addr, row.address ? inet_addr(row.address) : 0) << row.text;
        EXPECT_EQ(server.ks_port, row.port) << row.text;
        EXPECT_EQ(redirect_get_and_reset(&server), nullptr) << "used once";
    }
    message('M', "<redirect><address>" + std::string(2000, '1') + "</address><port>1</port></redirect>");
    EXPECT_EQ(redirect_get_and_reset(nullptr), nullptr) << "longer than any address";
}

TEST(profile, a_pending_redirect_stays_until_it_is_used_or_the_channel_confirmed)
{
    message('M', "<redirect><address>192.0.2.1</address><port>4000</port></redirect>");
    message('M', "<redirect><address>1.2.3.4.5</address><port>7</port></redirect>");   // refused, but for its port
    struct keld_server server = {};
    ASSERT_EQ(redirect_get_and_reset(&server), &server);
    EXPECT_EQ(server.ks_addr, inet_addr("192.0.2.1"));
    EXPECT_EQ(server.ks_port, 7);

    message('M', "<redirect><address>192.0.2.1</address><port>4000</port></redirect>");
    confirm("<keepalive>30");
    EXPECT_EQ(redirect_get_and_reset(&server), nullptr);

    replies = 0;
    last_rcvd_time = 0;
    message('R', "<redirect><address>192.0.2.1</address><port>4000</port></redirect>");
    EXPECT_NE(last_rcvd_time, 0) << "an answer is a sign of life, and nothing else";
    EXPECT_EQ(replies, 0);
    EXPECT_EQ(redirect_get_and_reset(&server), nullptr);
}
