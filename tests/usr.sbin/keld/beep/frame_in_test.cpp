// Frame input: header lines, the stream in pieces, what a desynchronised peer gets, and the window offered.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <errno.h>

#include <random>

#define INSIST(function, line, expression) \
    "0 usr.sbin/keld/beep:" function ":" #line ": insist '" expression "' failed"
#define STUCK INSIST("handle_read_event", 1632, "status == FALSE")
#define UNKNOWN "parse error: unknown frame type, discard the line"
#define REFUSED(channel) "ERROR: Received NUL or ANS|ERROR: got invalid frame on channel " channel ", discarded"

class frame_in : public engine {};
static const struct wire::piece AGAIN = { "", EAGAIN };

// Each row is fed at once to a fresh channel 1, which gives its profile every frame.
TEST_F(frame_in, header_lines_taken_and_thrown_away)
{
    static const std::string pad(BEEP_HEADER_MAX - 15, ' ');
    static const struct { std::string octets, heard, traced; } rows[] = {
        { "MSG 1 0 . 0 3\r\nabcEND\r\n", "1:M0. abc", "" },
        // any five octets are a trailer
        { "MSG 1 0 . 0 3\r\nabcENDXXMSG 1 0 . 3 0\r\n\r\n\r\n.", "1:M0. abc|1:M0. ", "" },
        { "MSG  +1\t-0 .+0 0003\r\nabcEND\r\n", "1:M0. abc", "" },
        { "MSG 65537 0 . 4294967296 4294967299\r\nabcEND\r\n", "1:M0. abc", "" },             // cut to their widths
        { "MSG 1 0 . 0\r\n3abEND\r\n", "1:M0. 3ab", "" },                              // size from behind the line
        { "MSG 1 0 x 0 3\r\nabcEND\r\n", "1:M0x abc", "" },
        { "MSG 1 0 . 0 3" + pad + "\r\nabcEND\r\n", "1:M0. abc", "" },                        // 80 octets
        { "MSG 1 0 . 0 3 " + pad + "\r\nabcEND\r\n", "", "header line too long, discarded|" UNKNOWN },
        { "msg 1 0 . 0 3\r\n\r\nMSG1 0 . 0 3\r\nMSG\t1 0 . 0 3\r\nMSG 1 0 . 0 0\r\nEND\r\n", "1:M0. ",
          UNKNOWN "|" UNKNOWN "|" UNKNOWN "|" UNKNOWN },
        { "MSG 1 0 . 0\r\n", "", "parse error: cannot parse header, discard the line" },
        { "MSG 1 0 . 0 -1\r\n", "", "parse error: received frame with negative size, discard the line" },
        { "MSG 1 -1 . 0 3\r\nabcEND\r\n", "", "handle_frame_non0: MSG frame -1 discarded" },   // the mark of none
        { "MSG 9 0 . 777 3\r\nabcEND\r\n", "", "ERROR: got frame for non-existant channel 9, discarded" },
        // refused frames move the sequence number on
        { "ANS 1 0 . 0 3 7\r\nabcEND\r\nMSG 1 0 . 3 1\r\nxEND\r\n", "1:M0. x", REFUSED("1") },
        { "NUL 1 0 . 0 0\r\nEND\r\nMSG 1 0 . 0 1\r\nxEND\r\n", "1:M0. x", REFUSED("1") },
        { "MSG 1 0 * 0 1\r\naEND\r\nRPY 1 0 . 1 1\r\nbEND\r\nMSG 1 0 . 2 1\r\ncEND\r\n", "1:M0* a|1:M0. c",
          "Received message of mixed type|ERROR: got invalid frame on channel 1, discarded" },
        { "MSG 1 0 * 0 1\r\naEND\r\nMSG 1 1 . 1 1\r\nbEND\r\nMSG 1 0 . 2 1\r\ncEND\r\n", "1:M0* a|1:M0. c",
          "ERROR: Received message of mixed number|ERROR: got invalid frame on channel 1, discarded" },
        { "SEQ 9 0 0\r\nSEQ 1 0\r\n", "",
          "WARNING: got SEQ for non-existant channel 9, ignored|parse error: cannot parse SEQ, discard the line" },
    };
    for (const auto &row : rows) {
        ready();
        add(1, ROW_FRAME);
        feed(row.octets);
        EXPECT_EQ(heard(), row.heard) << row.octets;
        EXPECT_EQ(traced(), row.traced) << row.octets;
        EXPECT_EQ(session->bs_hdr_end, session->bs_hdr) << row.octets;
    }
}

// Behind the last octets held stands what the line before left there, up to the zero of the last read.
TEST_F(frame_in, numbers_of_a_short_line_come_from_the_one_before)
{
    ready();
    add(1, ROW_FRAME);
    io.in = { { "MSG 1 0 . 0 3\r\n5bcEND\r\nMSG 1 0 . 3\r\n", 0 }, AGAIN, { "helloEND\r\n", 0 } };
    run();
    EXPECT_EQ(heard(), "1:M0. 5bc|1:M0. hello");

    io.in = { { "SEQ 1 0 0\r\nSEQ 1 0\n", 0 }, AGAIN, { "", 0 } };   // but no line ends there
    run();
    EXPECT_EQ(insisted(), STUCK);
}

TEST_F(frame_in, seq_sets_the_limit_as_it_comes)
{
    ready();
    struct beep_channel *channel = add(1, ROW_FRAME);
    feed("SEQ 1 10 20\r\n");
    EXPECT_EQ(channel->bc_tx_limit, 30u);
    feed("SEQ 65537 4294967295 2 x\r\n");
    EXPECT_EQ(channel->bc_tx_limit, 1u);
    feed("SEQ 1 -1 -6\r\n");
    EXPECT_EQ(channel->bc_tx_limit, -7u);
}

// What is not consumed is parsed again, without a turn of the loop, until octets fill the buffer.
TEST_F(frame_in, desynchronised_peer_is_heard_out_and_given_up)
{
    static const struct { std::string line, reason; } rows[] = {
        { "MSG 1 0 . 5 3\r\n", "ERROR: Frame received with unexpected sequence number" },
        { "MSG 1 0 . 0 3\n", "ERROR: incomplete header line" },
        { std::string("MSG 1 0 . \0 3\r\n", 15), "ERROR: incomplete header line" },
    };
    for (const auto &row : rows) {
        ready();
        add(1, ROW_FRAME);
        io.in = { { row.line, 0 }, AGAIN, AGAIN, { std::string(BEEP_HEADER_MAX, '.'), 0 } };
        while (io.in.size() == 4) ASSERT_GE(evTurn(ctx, 0), 0);
        EXPECT_EQ(closed_calls, 1);   // once begun, it ends in the same turn
        EXPECT_EQ(traced().find(row.reason + "|" + row.reason + "|" + row.reason + "|" + row.reason +
                                "|Read: unexpected EOF"), 0u) << row.line;
        EXPECT_EQ(insisted(), STUCK "|" STUCK "|" STUCK "|" STUCK);
    }

    // a CR LF that comes in time ends the line after all
    ready();
    add(1, ROW_FRAME);
    io.in = { { "MSG 1 0 . 0 3\n", 0 }, AGAIN, { "zzz\r\nabcEND\r\n", 0 } };
    run();
    EXPECT_EQ(heard(), "1:M0. abc");
    EXPECT_EQ(insisted(), STUCK "|" STUCK);
}

TEST_F(frame_in, ends_of_the_stream)
{
    for (int error : { 0, ECONNRESET }) {
        ready();
        add(1, ROW_MESSAGE);
        if (error) beep_set_session_close_cb(session, nullptr);
        io.in = { { "MSG 1 0 * 0 3\r\nabcEND\r\nMSG 1 0 . 3 9\r\nabc", 0 }, AGAIN, { "", error } };
        run();
        std::string end = error ? "Read error: Connection reset by peer" : "Read: unexpected EOF";
        EXPECT_NE(traced().find(end + "|channel 0 deleted|channel 1 deleted"), std::string::npos) << end;
        EXPECT_EQ(heard(), "stop 1");
        EXPECT_EQ(closed_calls, error == 0);
        EXPECT_EQ(session->bs_read_id != nullptr, error == 0);   // left to who was called, stopped if nobody is
        EXPECT_TRUE(session->bs_rx_frame);   // the half-read frame stays until the session goes
        EXPECT_EQ(status(), BEEP_STATE_ENDED);
    }
    EXPECT_EQ(beep_get_session_status(nullptr), BEEP_STATE_ENDED);
}

// One stream, cut in every way: each channel hears the same and answers the same.
TEST_F(frame_in, pieces_of_the_stream_make_no_difference)
{
    std::string stream = frame("RPY 0 0 .", MIME "<greeting/>", peer_seqnos);
    stream += "SEQ 1 0 9999\r\n";
    for (int message = 0; message < 4; message++) {
        std::string head = "MSG 1 " + std::to_string(message), other = "MSG 2 " + std::to_string(message);
        stream += frame(head + " *", "Content-", peer_seqnos) + frame(other + " *", std::string(100, 'x'), peer_seqnos);
        stream += frame(head + " *", "Type: text/xml\r\n\r\n<a>\r\nMSG 1 9 . 0 0\r\nEND\r\n", peer_seqnos);
        stream += "garbage\r\n" + frame(other + " .", "END\r\n", peer_seqnos) + frame(head + " .", "", peer_seqnos);
    }

    std::mt19937 random(4711);
    auto cut_at = [&](size_t pieces) {
        io = {};
        for (size_t at = 0, length; at < stream.size(); at += length) {
            length = pieces == 0 ? 1 + random() % 60 : pieces;
            io.in.push_back({ stream.substr(at, length), 0 });
            if (pieces == 1 || (pieces == 0 && random() % 2)) io.in.push_back(AGAIN);
        }
        profile = {};
        profile.echo = true;
        session = beep_session_new(fds[0], ctx, 'I', table, ROW_COUNT, wire_read, wire_write, &io);
        add(1, ROW_FRAME);
        add(2, ROW_MESSAGE);
        run();
        EXPECT_EQ(status(), BEEP_STATE_READY);
        end();
        std::string channels[3];
        for (const auto &line : profile.heard)
            if (isdigit(line[0])) channels[line[0] - '0'] += line + "\n";
        return channels[1] + channels[2];
    };
    std::string whole = cut_at(stream.size());
    EXPECT_EQ(std::count(whole.begin(), whole.end(), ':'), 4 * (2 + 1 + 1));   // deliveries, and the text's own
    for (size_t pieces : { 1, 2, 3, 7, 79, 80, 81, 150 }) EXPECT_EQ(cut_at(pieces), whole) << pieces;
    for (int round = 0; round < 25; round++) EXPECT_EQ(cut_at(0), whole) << "random cut " << round;
}

TEST_F(frame_in, window_follows_what_is_queued)
{
    show_seq = true;
    open();
    add(1, ROW_FRAME);
    struct beep_channel *channel = add(2, ROW_MESSAGE);
    converse({
        { PEER, "RPY 0 0 .", "<greeting/>" }, { KELD, "SEQ 0 11 4085" },          // given back with the next SEQ only
        { PEER, "RPY 0 0 .", "<greeting/>" }, { KELD, "SEQ 0 22 4085" },
        { PEER, "MSG 1 0 .", "abc" },         { KELD, "SEQ 1 3 4096" },           // receipt and delivery merge
        { PEER, "MSG 1 0 .", "" },                                                // not answered yet: heard again
        { PEER, "MSG 2 0 *", std::string(2048, 'x') }, { KELD, "SEQ 2 2048 2048" },
        { PEER, "MSG 2 0 *", std::string(2048, 'x') }, { KELD, "SEQ 2 4096 0" },
        { PEER, "MSG 2 0 *", "beyond" },               { KELD, "SEQ 2 4102 0" },  // nobody polices the window
        { PEER, "MSG 2 0 *", "" },
        { PEER, "MSG 2 0 .", "!" },                    { KELD, "SEQ 2 4103 4096" },
    });
    EXPECT_EQ(heard(), "greeting|1:M0. abc|1:M0. |2:M0. " + std::string(4096, 'x') + "beyond!");

    // a dropped repeat of an answered MSG is never given back
    ASSERT_EQ(reply(2, 0, '.', ""), 0);
    converse({ { KELD, "RPY 2 0 ." }, { PEER, "MSG 2 0 .", "0123456789" }, { KELD, "SEQ 2 4113 4086" },
               { PEER, "MSG 2 1 .", "x" }, { KELD, "SEQ 2 4114 4086" } });
    EXPECT_EQ(heard(), "2:M1. x");
    EXPECT_EQ(channel->bc_rx_queued, 10);
    EXPECT_NE(traced().find("handle_frame_non0: MSG frame 0 discarded"), std::string::npos);
}

// Without memory for a frame the stream cannot be read on.
TEST_F(frame_in, process_ends_without_memory_for_a_frame)
{
    ready();
    add(1, ROW_FRAME);
    add(2, ROW_MESSAGE);
    static const struct { const char *octets, *last, *insist; } rows[] = {
        { "", "MSG 1 0 . 0 3\r\nabcEND\r\n", "beep_parse_head_for_session:2612: insist 'fp != NULL' failed" },
        { "MSG 2 0 * 0 3\r\nabcEND\r\n", "MSG 2 0 . 3 0\r\nEND\r\n",
          "beep_frame_aggregate_internal:2779: insist 'out' failed" },
        { "MSG 1 0 * 0 3\r\nConEND\r\n", "MSG 1 0 . 3 0\r\nEND\r\n", "beep_frame_reassemble:987: insist 'new' failed" },
    };
    for (const auto &row : rows) {
        auto starve = [&] {
            logging_set_mode(LOGGING_MODE_DEVELOP);
            if (row.octets[0]) feed(row.octets);
            io.in.push_back({ row.last, 0 });
            memory = { true, false, 0, row.octets[0] ? 2 : 1 };
            run();
        };
        EXPECT_DEATH(starve(), row.insist) << row.insist;
    }
}
