/*
 * Memory: the pointer queue; a conversation survives the failure of any one allocation, and in its
 * stride needs one for each frame.
 */
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

TEST(bp_queue, keeps_order_through_full_rings_and_growth)
{
    EXPECT_FALSE(bp_queue_new(1));
    for (long fail_at : { 0, 3 }) {                     // the third fails, when two of the four places are there
        struct bp_queue *queue = bp_queue_new(4);
        std::deque<uintptr_t> model = { 2, 3, 4, 5 };   // the oldest in mid-ring
        memory = { true, false, 0, fail_at };
        EXPECT_EQ(bp_queue_put(queue, 1), 0);
        EXPECT_EQ(bp_queue_get(queue), 1u);
        for (uintptr_t value : model) EXPECT_EQ(bp_queue_put_and_grow(queue, value), 0);
        EXPECT_EQ(bp_queue_put(queue, 6), 1);
        EXPECT_EQ(memory.count, 0);
        EXPECT_EQ(bp_queue_put_and_grow(queue, 6) != 0, fail_at > 0);
        EXPECT_EQ(queue->capacity, fail_at ? 6 : 8);
        while (bp_queue_len(queue) < queue->capacity) EXPECT_EQ(bp_queue_put(queue, 7), 0);
        for (uintptr_t value : model) EXPECT_EQ(bp_queue_get(queue), value);
        EXPECT_EQ(bp_queue_get(queue), fail_at ? 7u : 6u);
        memory = {};
        bp_queue_free(queue);
    }
}

// A stored zero reads as the end, and goes uncounted.
TEST(bp_queue, removes_up_to_an_entry)
{
    static const struct { std::vector<uintptr_t> put; uintptr_t till; int removed, left; uintptr_t head; } rows[] = {
        { { 5, 2, 3 }, 2, 2, 1, 3 }, { { 3 }, 9, 1, 0, 0 }, { {}, 9, 0, 0, 0 },
        { { 0, 1 }, 1, 0, 1, 1 }, { { 1, 0, 2 }, 2, 1, 1, 2 },
    };
    for (const auto &row : rows) {
        struct bp_queue *queue = bp_queue_new(4);
        for (uintptr_t value : row.put) EXPECT_EQ(bp_queue_put(queue, value), 0);
        EXPECT_EQ(bp_queue_find(queue, 6), 0);
        EXPECT_EQ(bp_queue_get_till(queue, row.till), row.removed);
        EXPECT_EQ(bp_queue_len(queue), row.left);
        EXPECT_EQ(bp_queue_peek(queue), row.head);
        bp_queue_free(queue);
    }
}

class beep_memory : public engine
{
public:
    void whole_conversation();
};

/* Up, a start from each side, messages both ways on both kinds of channel, closes both ways. Results are not looked
 * at. */
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
    add(1, ROW_MESSAGE);
    add(2, ROW_FRAME);
    keld_dtf_options.dtf_level = DTF_LEVEL_OFF;
    feed("SEQ 1 0 99999\r\nSEQ 2 0 99999\r\n");
    long counts[3] = {};
    for (int round = 0; round <= ROUNDS; round++) {
        std::string number = std::to_string(round);
        memory = { round > 0, false, 0, 0 };   // the first round fills the loop's pools and makes the SEQs
        ASSERT_EQ(send(1, "question"), 0);
        run();
        counts[0] += std::exchange(memory.count, 0);
        hear("RPY 1 " + number + " .", "answer");
        counts[1] += std::exchange(memory.count, 0);
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
