// Memory: a conversation survives the failure of any one allocation, and in its stride needs one for each frame.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <string.h>

class beep_memory : public engine
{
public:
    void whole_conversation();
};

/* Up, a start from each side, messages both ways on both kinds of channel, closes both ways. Results are not looked at. */
void beep_memory::whole_conversation()
{
    const char *piggyback[] = { "offer" };
    struct beep_diagnostic why = { 500, nullptr };
    io = {};
    peer_seqnos.clear();
    session = beep_session_new(fds[0], ctx, 'I', table, ROW_COUNT, wire_read, wire_write, &io);
    if (!session) return;

    beep_set_session_close_cb(session, [](struct beep_session *) {});
    hear("RPY 0 0 .", MIME "<greeting><profile uri='urn:frame'/></greeting>");
    (void)!beep_channel_start(session, &table[ROW_MESSAGE], 1, piggyback);
    hear("RPY 0 1 .", "<profile uri='urn:message'>started.</profile>");
    (void)!beep_channel_start(session, &table[ROW_MESSAGE], 1, nullptr);
    hear("ERR 0 2 .", "<error code='521'>no &amp; no</error>");
    hear("MSG 0 1 .", "<start number='2'><profile uri='u'/><profile uri='urn:frame'>start.</profile></start>");
    (void)!send(1, "question");
    hear("RPY 1 0 .", "a single answer");
    hear("MSG 1 0 .", "first of their questions");
    (void)!reply(1, 0, '.', "answer");
    hear("MSG 2 0 *", "second of their questions");
    hear("MSG 2 0 .", "end of second question");
    (void)!beep_send_err(session, 2, 0, &why);
    hear("MSG 0 2 .", "<close number='2' code='200'>thanks</close>");
    (void)!beep_channel_stop(session, 1, 200, "enough");
    hear("RPY 0 3 .", "<close code='200'/>");
    (void)!beep_session_stop(session, 200, nullptr);
    hear("ERR 0 4 .", "<error code='550'>no, you</error>");
    hear("MSG 0 3 .", "<close code='200'/>");
    end();
}

TEST_F(beep_memory, any_one_allocation_may_fail)
{
    long fail_at = 0, counted;
    keld_dtf_options.dtf_level = DTF_LEVEL_OFF;
    do {
        profile = {};
        profile.piggyback = "reply";
        memory = { true, true, 0, ++fail_at };
        whole_conversation();
        counted = memory.count;
        memory = {};
        printed();

        long kept = 0;   // channels that a profile took, less those that it was told the end of
        for (const auto &line : profile.heard) kept += line[0] == 'i' || line[0] == 'c' ? 1 : line[0] == 's' ? -1 : 0;
        ASSERT_EQ(kept, 0) << "allocation " << fail_at;
        ASSERT_EQ(insisted(), "") << "allocation " << fail_at;
    } while (counted >= fail_at);
    EXPECT_GT(fail_at, 500);
    EXPECT_EQ(heard(), "greeting|confirm 1 started|fail 521 no & no|indicate 2 start|1:R0. a single answer"
                       "|1:M0. first of their questions|2:M0* second of their questions|2:M0. end of second question"
                       "|stop 2|stop 1");
}

TEST_F(beep_memory, one_allocation_for_each_frame_and_message)
{
    enum { ROUNDS = 100 };
    ready();
    add(1, ROW_MESSAGE), add(2, ROW_FRAME);
    keld_dtf_options.dtf_level = DTF_LEVEL_OFF;
    feed("SEQ 1 0 99999\r\nSEQ 2 0 99999\r\n");
    long counts[3] = {};
    for (int round = 0; round <= ROUNDS; round++) {
        std::string number = std::to_string(round);
        memory = { round > 0, false, 0, 0 };   // the first round fills the loop's pools and makes the SEQs
        ASSERT_EQ(send(1, "question"), 0);
        run();
        counts[0] += memory.count, memory.count = 0;
        hear("RPY 1 " + number + " .", "answer");
        counts[1] += memory.count, memory.count = 0;
        profile.echo = true;
        hear("MSG 2 " + number + " .", "question");
        profile.echo = false;
        counts[2] += memory.count;
    }
    memory = {};
    EXPECT_EQ(counts[0], ROUNDS);       // the message
    EXPECT_EQ(counts[1], ROUNDS);       // the frame; its SEQ is the one before it
    EXPECT_EQ(counts[2], 2 * ROUNDS);   // the frame and the answer
}
