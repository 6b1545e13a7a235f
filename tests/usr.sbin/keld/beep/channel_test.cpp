// Channels and sessions: how they start and close from either side, as conversations.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <errno.h>

#define UNPARSABLE "received unparsable frame on channel 0, discarded"
#define ERROR(code) MIME "<error code='" code "' />"
#define ERROR_TEXT(code, text) MIME "<error code='" code "' >" text "</error>"
#define OFFER(number) MIME "<start number='" number "'>\n<profile uri='urn:message' /></start>"
#define CLOSE(number) MIME "<close number='" number "' code='200' />"

class channels : public engine {};

TEST_F(channels, greetings_toggle_the_session)
{
    open();
    EXPECT_EQ(beep_channel_start(session, table, 1, nullptr), -1);
    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 1);
    for (char wanted : { 'R', 'S', 'R', 'S' }) {
        converse({ { PEER, "RPY 0 0 .", "<greeting/>" } });
        EXPECT_EQ(status(), wanted);
        EXPECT_EQ(heard(), wanted == 'R' ? "greeting" : "");
    }
    converse({ { PEER, "MSG 0 7 .", "<start number='2'><profile uri='urn:message'/></start>" },   // taken in any status
               { KELD, "RPY 0 7 .", MIME "<profile uri='urn:message' />" } });
    (void)traced();
    end();
    EXPECT_EQ(traced(), "session_delete: not all channels are gone|channel 0 deleted|channel 2 deleted");
}

TEST_F(channels, started_from_here)
{
    const char *piggyback[] = { "hi" };
    auto start = [&](const char *const *with) { return beep_channel_start(session, &table[ROW_MESSAGE], 1, with); };
    ready();
    EXPECT_EQ(beep_channel_start(session, table, 0, nullptr), -1);
    EXPECT_EQ(start(piggyback), 1);
    EXPECT_EQ(start(nullptr), 3);
    EXPECT_EQ(start(nullptr), 5);
    EXPECT_EQ(send(1, "early"), -1);
    converse({
        { KELD, "MSG 0 1 .", MIME "<start number='1'>\n<profile uri='urn:message' ><![CDATA[hi]]></profile></start>" },
        { KELD, "MSG 0 2 .", OFFER("3") }, { KELD, "MSG 0 3 .", OFFER("5") },
        { PEER, "RPY 0 2 .", "<profile uri='urn:message'/>" },              // out of order: dropped
        { PEER, "RPY 0 1 .", "<profile uri='urn:frame'>yes.</profile>" },   // not what was offered, but in the table
        { PEER, "ERR 0 2 .", "<error code='521'>no</error>" }, { PEER, "ERR 0 3 .", "<error code='550'/>" },
    });
    EXPECT_EQ(heard(), "confirm 1 yes|fail 521 no|fail 550 ");
    EXPECT_EQ(beep_find_channel(session, 1)->bc_role, BEEP_ROLE_INITIATOR);
    EXPECT_EQ(send(1, "late"), 0);

    EXPECT_EQ(start(nullptr), 5);   // only the number given out last comes back
    profile.accept = false;
    converse({ { KELD, "MSG 0 4 .", OFFER("5") }, { KELD, "MSG 1 0 .", "late" },
               { PEER, "RPY 0 4 .", "<profile uri='urn:message'/>" } });
    EXPECT_EQ(heard(), "confirm 5|stop 5");
    EXPECT_FALSE(beep_find_channel(session, 5));
    EXPECT_EQ(start(nullptr), 7);
    (void)traced();
    converse({ { KELD, "MSG 0 5 .", OFFER("7") }, { PEER, "RPY 0 5 .", "<profile uri='urn:other'/>" } });
    EXPECT_EQ(traced(), "channel_start_confirm: no support for profile 'urn:other'");
}

TEST_F(channels, started_by_the_peer)
{
    static const struct {
        std::string start;
        bool accept;
        const char *head;
        std::string answer;
        const char *heard;
    } rows[] = {
        { "<start number='2'><profile uri='urn:x'/><profile uri='urn:message'>pig.</profile></start>", true,
          "RPY 0 3 .", MIME "<profile uri='urn:message' ><![CDATA[back]]></profile>", "indicate 2 pig" },
        { "<start number='2'><profile uri='urn:x'/></start>", true, "ERR 0 3 .", ERROR("521"), "" },
        { "<start number='2'><profile uri='urn:frame'/><profile uri='urn:message'/></start>", false, "ERR 0 3 .",
          ERROR("521"), "indicate 2|indicate 2" },
        { "<start number='2'/>", true, "ERR 0 3 .", ERROR("553"), "" },
        { "<close number='7' code='200'/>", true, "ERR 0 3 .", ERROR_TEXT("553", "non-existant channel"), "" },
    };
    for (const auto &row : rows) {
        ready();
        profile.accept = row.accept;
        profile.piggyback = "back";
        converse({ { PEER, "MSG 0 3 .", row.start }, { KELD, row.head, row.answer } });
        EXPECT_EQ(heard(), row.heard) << row.start;
        EXPECT_EQ(beep_find_channel(session, 2) != nullptr, row.head[0] == 'R') << row.start;
    }
}

TEST_F(channels, any_number_and_a_number_in_use)
{
    ready('L');
    converse({ { PEER, "MSG 0 1 .", "<start number='65535'><profile uri='urn:message'/></start>" },
               { KELD, "RPY 0 1 .", MIME "<profile uri='urn:message' />" }, { PEER, "MSG 65535 0 .", "x" } });
    EXPECT_FALSE(beep_find_channel(session, 65534) || beep_find_channel(session, 2));
    ASSERT_EQ(reply(65535, 0, '.', "y"), 0);
    converse({ { KELD, "RPY -1 0 .", "y" },
               { PEER, "MSG 0 2 .", "<start number='65535'><profile uri='urn:frame'/></start>" },
               { KELD, "RPY 0 2 .", MIME "<profile uri='urn:frame' />" } });
    EXPECT_EQ(heard(), "indicate 65535|65535:M0. x|indicate 65535");

    io.full_at = io.out.size() + 17;   // the one that loses its number may be half written
    ASSERT_EQ(send(65535, "hello"), 0);
    run();
    hear("MSG 0 3 .", "<start number='65535'><profile uri='urn:message'/></start>");
    io.full_at = SIZE_MAX;
    run();
    EXPECT_EQ(written().substr(0, 34), "MSG -1 0 . 0 5\r\nhelloEND\r\nRPY 0 3 ");
    end();
    EXPECT_EQ(heard(), "indicate 65535|stop 65535|stop 65535|stop 65535");   // all go with the session
}

TEST_F(channels, closed_by_the_peer_once_idle)
{
    ready();
    for (uint16_t number : { 1, 2, 3, 4 }) add(number, ROW_MESSAGE);
    converse({ { PEER, "MSG 1 0 .", "work" }, { PEER, "MSG 0 1 .", "<close number='1' code='200'>so</close>" },
               { PEER, "MSG 0 2 .", "<close number='2' code='200'/>" } });   // waits behind the first
    EXPECT_EQ(heard(), "1:M0. work");
    EXPECT_EQ(send(1, "x"), -1);
    EXPECT_EQ(traced(), "Closing channel 1: code=200 message=so|beep_send_msg: channel 1 is not ready");
    ASSERT_EQ(reply(1, 0, '.', "done"), 0);
    converse({ { KELD, "RPY 1 0 .", "done" }, { KELD, "RPY 0 1 .", "<ok/>" }, { KELD, "RPY 0 2 .", "<ok/>" } });
    EXPECT_EQ(heard(), "stop 1|stop 2");

    ASSERT_EQ(send(4, "question"), 0);   // and the whole session
    converse({ { KELD, "MSG 4 0 .", "question" }, { PEER, "MSG 0 3 .", "<close code='200'>bye</close>" } });
    EXPECT_NE(traced().find("Closing channel 0: code=200 message=bye|channel 3 deleted"
                            "|session_stop_indicate: channel 4 is still busy"), std::string::npos);
    converse({ { PEER, "RPY 4 0 ." }, { KELD, "RPY 0 3 .", "<ok/>" } });   // nothing written: the delivery ends it
    EXPECT_EQ(heard(), "stop 3|4:R0. |stop 4");
    EXPECT_EQ(status(), BEEP_STATE_READY);   // it is over with the stream
}

TEST_F(channels, close_from_here_is_never_confirmed_by_ok)
{
    ready();
    for (uint16_t number : { 1, 2 }) add(number, ROW_MESSAGE);
    ASSERT_EQ(send(1, ""), 0);
    for (uint16_t number : { 0, 9, 1 }) EXPECT_EQ(beep_channel_stop(session, number, 200, nullptr), 1);
    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 1);
    EXPECT_EQ(beep_channel_stop(session, 2, 200, nullptr), 0);
    EXPECT_EQ(beep_channel_stop(session, 2, 200, nullptr), 1);
    EXPECT_EQ(traced(), "channel_stop: could not find channel 9|channel_stop: all MSG not ack-ed yet"
                        "|stop_session: MSG not ack-ed yet on channel 1|channel_stop: channel is not ready");
    EXPECT_EQ(beep_channel_start(session, &table[ROW_MESSAGE], 1, nullptr), 1);
    converse({ { KELD, "MSG 0 1 .", CLOSE("2") }, { KELD, "MSG 1 0 ." }, { KELD, "MSG 0 2 .", OFFER("1") },
               { PEER, "MSG 0 1 .", "<close number='2' code='200'/>" },
               { KELD, "ERR 0 1 .", ERROR_TEXT("451", "channel is already being closed") },
               { PEER, "RPY 0 1 .", "<ok/>" },
               { PEER, "RPY 0 2 .", "<profile uri='urn:message'/>" } });   // the unmatched <close> stands before it
    EXPECT_EQ(traced(), UNPARSABLE "|" UNPARSABLE);
    EXPECT_EQ(beep_find_channel(session, 2)->bc_state, BEEP_STATE_CLOSING);
    EXPECT_EQ(heard(), "");
}

TEST_F(channels, close_from_here_confirmed_or_refused)
{
    ready();
    add(1, ROW_MESSAGE);
    struct beep_channel *channel = add(2, ROW_MESSAGE);
    EXPECT_EQ(beep_channel_stop(session, 1, 200, "bye"), 0);
    EXPECT_EQ(beep_channel_stop(session, 2, 200, nullptr), 0);
    feed("MSG 2 4 . 0 1\r\nxEND\r\nMSG 2 5 . 1 1\r\nyEND\r\n");
    ASSERT_EQ(bp_queue_put(channel->bc_sent_msgnos, 3), 0);
    converse({ { KELD, "MSG 0 1 .", MIME "<close number='1' code='200' >bye</close>" },
               { KELD, "MSG 0 2 .", CLOSE("2") },
               { PEER, "ERR 0 1 .", "<error code='550'>busy</error>" }, { PEER, "RPY 0 2 .", "<close code='200'/>" } });
    EXPECT_EQ(traced(), "cannot close channel 1: [550] busy|channel_stop_confirm: violation - received MSG pending ack"
                        "|channel_stop_confirm: incoming queue is not empty"
                        "|channel_stop_confirm: violation - all sent MSG not ack-ed|channel 2 deleted");
    EXPECT_EQ(beep_find_channel(session, 1)->bc_state, BEEP_STATE_READY);

    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 0);
    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 1);
    EXPECT_EQ(beep_channel_stop(session, 1, 200, nullptr), 1);
    EXPECT_EQ(traced(), "session_stop: session not ready|channel_stop: session is not ready");
    converse({ { KELD, "MSG 0 3 .", CLOSE("0") }, { PEER, "ERR 0 3 .", "<error code='550'/>" } });
    EXPECT_EQ(status(), BEEP_STATE_READY);
    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 0);
    converse({ { KELD, "MSG 0 4 .", CLOSE("0") }, { PEER, "RPY 0 4 .", "<close code='200'/>" } });
    EXPECT_EQ(status(), BEEP_STATE_ENDED);
    EXPECT_EQ(closed_calls, 1);
    EXPECT_EQ(heard(), "2:M4. x|stop 2|stop 1");
    EXPECT_EQ(beep_session_stop(session, 200, nullptr), 1);
}

// The octets of a half-written frame go out whole when its channel goes, or are let go with the session.
TEST_F(channels, dropped_with_a_frame_half_written)
{
    const std::string whole = "RPY 1 0 . 0 16\r\n0123456789abcdefEND\r\n";
    for (size_t cut : { 5, 20, 30, 33, -5, -20, -33 }) {
        bool ends = cut > whole.size();
        ready();
        add(1, ROW_MESSAGE);
        converse({ { PEER, "MSG 1 0 .", "x" } });
        EXPECT_EQ(beep_channel_stop(session, 1, 200, nullptr), 0);
        converse({ { KELD, "MSG 0 1 .", CLOSE("1") } });
        io.full_at = io.out.size() + (ends ? -cut : cut);
        ASSERT_EQ(reply(1, 0, '.', "0123456789abcdef"), 0);
        run();
        hear("RPY 0 1 .", "<close code='200'/>");
        EXPECT_FALSE(beep_find_channel(session, 1));
        if (ends) io.write_error = EPIPE;
        io.full_at = SIZE_MAX;
        run();
        EXPECT_EQ(closed_calls, ends);
        EXPECT_EQ(written().substr(0, whole.size()), whole.substr(0, ends ? -cut : whole.size())) << cut;
    }
}
