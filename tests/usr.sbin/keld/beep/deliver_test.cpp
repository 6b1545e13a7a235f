// Delivery: joining frames to messages, one MSG at a time, and replies matched with what was sent.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

class deliver : public engine {};

static void put(struct bp_queue *queue, char type, int32_t msgno, char more, const std::string &text)
{
    auto *frame = frame_new(type, 1, msgno, more, static_cast<int32_t>(text.size()), -1, text.data());
    ASSERT_EQ(bp_queue_put_and_grow(queue, reinterpret_cast<uintptr_t>(frame)), 0);
}

/* Frees the frame. "-" for null. */
static std::string taken(struct beep_frame *frame)
{
    if (!frame) return "-";
    std::string text = frame->bf_type + std::to_string(frame->bf_msgno) + frame->bf_more + " " +
                       std::string(frame->bf_data, static_cast<size_t>(frame->bf_size));
    frame_free(frame);
    return text;
}

// A pass takes 50 frames; one that fills up with the queue's last frame loses an unfinished message.
TEST_F(deliver, messages_of_many_frames)
{
    static const struct {
        int count;
        char last_more;
        bool whole;
        int32_t left;       // frames in the queue afterwards
    } rows[] = {
        { 1, '.', true, 0 },   { 2, '.', true, 0 },   { 49, '.', true, 0 },  { 50, '.', true, 0 },
        { 51, '.', true, 0 },  { 99, '.', true, 0 },  { 100, '.', true, 0 }, { 1, '*', false, 1 },
        { 49, '*', false, 49 }, { 50, '*', false, 0 }, { 51, '*', false, 2 }, { 99, '*', false, 0 },
        { 100, '*', false, 2 }, { 2, 'x', false, 2 },
    };
    struct bp_queue *queue = bp_queue_new(2);
    EXPECT_EQ(taken(frame_aggregate(queue, 1)), "-");
    for (const auto &row : rows) {
        std::string text;
        for (int i = 0; i < row.count; i++) {
            std::string octet(1, static_cast<char>('0' + i % 64));
            put(queue, 'M', 4, i + 1 < row.count ? '*' : row.last_more, octet);
            text += octet;
        }
        EXPECT_EQ(taken(frame_aggregate(queue, 1)), row.whole ? "M4. " + text : "-") << row.count << row.last_more;
        EXPECT_EQ(bp_queue_len(queue), row.left) << row.count << row.last_more;
        if (row.left == 0 || row.last_more != '*') {
            while (auto *frame = frame_get(queue)) frame_free(frame);
            continue;
        }
        put(queue, 'M', 4, '.', "!");   // what was put back is whole with the next frame
        EXPECT_EQ(taken(frame_aggregate(queue, 1)), "M4. " + text + "!") << row.count << row.last_more;
    }
    (void)traced();

    for (const char *text : { "a", "b" }) put(queue, 'R', 1, '*', text);
    EXPECT_EQ(taken(frame_aggregate(queue, 0)), "R1* ab");
    put(queue, 'A', 1, '.', "a");
    EXPECT_EQ(taken(frame_aggregate(queue, 1)), "A1. a");
    EXPECT_EQ(insisted(), "0 usr.sbin/keld/beep:beep_frame_aggregate_internal:2727: insist "
                          "'msg_type != BEEP_MSGTYPE_ANS' failed");
    for (char type : { 'M', 'R' }) {   // both frames are lost when the head is another message's
        put(queue, 'R', 1, '.', "a");
        EXPECT_EQ(taken(beep_frame_aggregate_internal(queue, frame_new(type, 1, 2, '*', 0, -1, ""), 1)), "-");
        EXPECT_EQ(traced(), std::string("frame_aggregate: head frame 2 type '") + type +
                                "', first frame in queue 1 type 'R'");
    }
    frame_queue_free(queue);
}

// Frames of one MSG as they come, each text ending with its mark, and what pro_frame gets.
TEST_F(deliver, first_frame_holds_the_mime_header)
{
    static const struct { std::vector<std::string> frames; std::string heard; } rows[] = {
        { { "Content-Type: a/b\r\n\r\n<a>*", "</a>." }, "1:M0* Content-Type: a/b\r\n\r\n<a>|1:M0. </a>" },
        { { "Con*", "tent-Type: a/b\r\n\r*", "\n<a>*", "</a>." }, "1:M0* Content-Type: a/b\r\n\r\n<a>|1:M0. </a>" },
        { { "C*", "x*", "y." }, "1:M0* Cx|1:M0. y" },                  // a match as far as it goes; then it is none
        { { "C*", "ontent-Type: a/b." }, "1:M0. Content-Type: a/b" },
        { { "Content-Type: \r\n\r\n*", "x." }, "1:M0. Content-Type: \r\n\r\nx" },      // too short to be whole
        { { "a*", "Content-Type: *", "b." }, "1:M0* a|1:M0* Content-Type: |1:M0. b" }, // only the first frame counts
    };
    for (const auto &row : rows) {
        ready();
        add(1, ROW_FRAME);
        for (const auto &text : row.frames)
            hear(std::string("MSG 1 0 ") + text.back(), text.substr(0, text.size() - 1));
        EXPECT_EQ(heard(), row.heard) << row.frames[0];
    }

    struct beep_channel *channel = add(2, ROW_FRAME);
    auto *first = frame_new('M', 2, 5, '*', 3, 9, "Con");
    put(channel->bc_in, 'M', 6, '.', "x");
    EXPECT_EQ(beep_frame_reassemble(channel, &first), 1);
    EXPECT_EQ(taken(first), "M6. x");
    EXPECT_EQ(traced(), "ERROR: reassembly failed for frame 5, type=M");
}

TEST_F(deliver, one_msg_at_a_time)
{
    ready();
    struct beep_channel *channel = add(1, ROW_MESSAGE);
    feed("MSG 1 5 . 0 1\r\naEND\r\nMSG 1 6 . 1 1\r\nbEND\r\nMSG 1 5 . 2 1\r\ncEND\r\nMSG 1 7 x 3 1\r\ndEND\r\n"
         "MSG 1 8 . 4 1\r\neEND\r\n");
    EXPECT_EQ(heard(), "1:M5. a");
    ASSERT_EQ(reply(1, 5, '*', "one"), 0);
    run();
    EXPECT_EQ(heard(), "");
    ASSERT_EQ(reply(1, -1, '.', "two"), 0);
    run();
    EXPECT_EQ(heard(), "1:M6. b");
    struct beep_diagnostic why = { 500, nullptr };
    ASSERT_EQ(beep_send_err(session, 1, 6, &why), 0);   // lets the late MSG 5 in, and 7 behind it, which is never whole
    converse({ { KELD, "RPY 1 5 *", "one" }, { KELD, "RPY 1 5 .", "two" },
               { KELD, "ERR 1 6 .", MIME "<error code='500' />" } });
    EXPECT_EQ(heard(), "1:M5. c");
    ASSERT_EQ(reply(1, 5, '.', ""), 0);
    run();
    EXPECT_EQ(heard(), "");
    EXPECT_EQ(channel->bc_pending, 7u);
    EXPECT_EQ(bp_queue_len(channel->bc_in), 2);
}

TEST_F(deliver, replies_go_with_what_was_sent)
{
    ready();
    struct beep_channel *channel = add(1, ROW_MESSAGE);
    for (int i = 0; i < 4; i++) ASSERT_EQ(send(1, std::to_string(i)), 0);
    static const struct { const char *head, *heard, *traced; int32_t left; } rows[] = {
        { "RPY 1 9 .", "", "channel 1: received reply to unsent or completely answered message 9, discarded", 4 },
        { "RPY 1 0 .", "1:R0. x", "", 3 },
        { "ERR 1 2 .", "1:E2. x", "channel 1: more than 1 MSG removed", 1 },
        { "RPY 1 3 .", "1:R3. x", "", 0 },
    };
    for (const auto &row : rows) {
        hear(row.head);
        EXPECT_EQ(heard(), row.heard) << row.head;
        EXPECT_EQ(traced(), row.traced) << row.head;
        EXPECT_EQ(bp_queue_len(channel->bc_sent_msgnos), row.left) << row.head;
    }

    // number 0 reads as the queue's end: an answer to 1 takes 0 away and leaves 1, which can be answered again
    ready();
    channel = add(1, ROW_FRAME);
    for (int i = 0; i < 2; i++) ASSERT_EQ(send(1, ""), 0);
    feed("RPY 1 1 * 0 1\r\naEND\r\n");
    EXPECT_EQ(bp_queue_len(channel->bc_sent_msgnos), 2);
    feed("RPY 1 1 . 1 1\r\nbEND\r\nRPY 1 1 . 2 1\r\ncEND\r\nRPY 1 0 . 3 1\r\ndEND\r\n");
    EXPECT_EQ(heard(), "1:R1* a|1:R1. b|1:R1. c");
    EXPECT_EQ(bp_queue_len(channel->bc_sent_msgnos), 0);
}
