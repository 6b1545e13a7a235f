// Frame output: the window's edges, headers as sent, the order of channels, and a transport that is full.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <errno.h>

#include <functional>

class frame_out : public engine {};

// What goes of one MSG with so much window left, and of the rest once the limit is raised.
TEST_F(frame_out, frames_wait_or_are_cut_at_the_window)
{
    static const struct {
        uint32_t seqno;
        int32_t size, avail;
        std::string heads;
        int32_t more_avail;
        std::string more_heads;
    } rows[] = {
        { 0, 100, 40, "", 100, "MSG 1 0 . 0 100|" },
        { 0, 100, 50, "", 50, "" },
        { 0, 100, 51, "MSG 1 0 * 0 51|", 24, "" },
        { 0, 100, 51, "MSG 1 0 * 0 51|", 25, "MSG 1 0 * 51 25|" },
        { 0, 100, 99, "MSG 1 0 * 0 99|", 1, "MSG 1 0 . 99 1|" },
        { 0, 100, 100, "MSG 1 0 . 0 100|", 100, "" },
        { 0, 100, 101, "MSG 1 0 . 0 100|", 100, "" },
        { 0, 2 * BEEP_WINDOW, BEEP_WINDOW, "", BEEP_WINDOW + 1, "MSG 1 0 * 0 4097|" },
        { 0, 1, 0, "", 1, "MSG 1 0 . 0 1|" },
        { 0, 0, 0, "MSG 1 0 . 0 0|", 0, "" },
        { 500, 0, -500, "MSG 1 0 . 500 0|", 0, "" },
        { 500, 10, -500, "", 10, "MSG 1 0 . 500 10|" },
        { 4294967290, 100, 99, "MSG 1 0 * 4294967290 99|", 1, "MSG 1 0 . 93 1|" },
    };
    for (const auto &row : rows) {
        ready();
        struct beep_channel *channel = add(1, ROW_MESSAGE);
        channel->bc_tx_seqno = row.seqno;
        channel->bc_tx_limit = row.seqno + static_cast<uint32_t>(row.avail);
        auto heads = [&] {
            run();
            std::string all, text = written();
            for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = text.find("END", end) + 5)
                all += text.substr(at, end - at) + "|";
            return all;
        };
        ASSERT_EQ(send(1, std::string(static_cast<size_t>(row.size), 'x')), 0);
        EXPECT_EQ(heads(), row.heads) << row.size << " octets, window " << row.avail;
        EXPECT_FALSE(session->bs_write_id);
        channel->bc_tx_limit = channel->bc_tx_seqno + static_cast<uint32_t>(row.more_avail);
        beep_enable_write(session);
        EXPECT_EQ(heads(), row.more_heads) << row.size << " octets, window " << row.avail << " and " << row.more_avail;
    }
}

TEST_F(frame_out, headers_and_order)
{
    ready();
    for (uint16_t number : { 1, 2, 65535 }) add(number, ROW_MESSAGE);
    beep_find_channel(session, 1)->bc_tx_limit = 3;
    beep_find_channel(session, 1)->bc_pending = 7;

    // one frame of a channel in a pass, SEQ first and whatever the window; only the latest SEQ goes
    EXPECT_EQ(beep_send_raw(session, 1, 'A', 3, '.', 1, -7, "a"), 3);
    EXPECT_EQ(beep_send_raw(session, 1, 'N', 2147483647, '.', 0, -1, ""), 2147483647);
    EXPECT_EQ(beep_send_raw(session, 1, 'X', 3, '.', 1, -1, "a"), 3);   // no such type: dropped when its turn comes
    EXPECT_EQ(beep_send_seq(session, 1, 1, 2), 0);
    EXPECT_EQ(beep_send_seq(session, 1, 0x80000000u, 4096), 0);
    EXPECT_EQ(reply(1, 7, '*', "bb"), 0);
    EXPECT_EQ(send(2, "d"), 0);
    EXPECT_EQ(send(2, ""), 0);
    EXPECT_EQ(send(65535, "e"), 0);
    run();
    EXPECT_EQ(written(), "SEQ 1 -2147483648 4096\r\n" "MSG 2 0 . 0 1\r\ndEND\r\n" "MSG -1 0 . 0 1\r\neEND\r\n"
                         "ANS 1 3 . 0 1 -7\r\naEND\r\n" "MSG 2 1 . 1 0\r\nEND\r\n" "NUL 1 2147483647 . 1 0\r\nEND\r\n");
    feed("SEQ 1 1 2\r\n");
    EXPECT_EQ(written(), "RPY 1 7 * 1 2\r\nbbEND\r\n");
}

TEST_F(frame_out, full_transport_at_every_octet)
{
    const std::string wanted = "MSG 1 0 . 0 5\r\nhelloEND\r\nMSG 1 1 . 5 0\r\nEND\r\n";
    for (size_t full_at = 0; full_at <= wanted.size(); full_at++) {
        ready();
        add(1, ROW_MESSAGE);
        size_t start = io.out.size();
        io.full_at = start + full_at;
        ASSERT_EQ(send(1, "hello"), 0);
        ASSERT_EQ(send(1, ""), 0);
        run();
        EXPECT_EQ(session->bs_write_id != nullptr, full_at < wanted.size());
        while (io.out.size() == io.full_at && io.out.size() < start + wanted.size()) {
            io.full_at += 1 + full_at % 3;
            run();
        }
        EXPECT_EQ(written(), wanted) << full_at;
    }
}

// The frame chosen when writing resumes is the one that counts as sent.
TEST_F(frame_out, resumed_write_settles_the_frame_chosen_then)
{
    static const struct { const char *what; std::function<void(engine &)> meanwhile; std::string wanted; } rows[] = {
        { "data of a lower channel", [](engine &e) { ASSERT_EQ(e.send(1, "world"), 0); },
          "MSG 2 0 . 5 0\r\nEND\r\nMSG 1 0 . 0 5\r\nworldEND\r\n" },
        { "an empty frame of a lower channel, lost", [](engine &e) { ASSERT_EQ(e.send(1, ""), 0); },
          "MSG 2 0 . 5 0\r\nEND\r\n" },
        { "a SEQ, lost", [](engine &e) { beep_send_seq(e.session, 2, 3, 4); }, "MSG 2 0 . 5 0\r\nEND\r\n" },
        { "data of a higher channel", [](engine &e) { ASSERT_EQ(e.send(3, "world"), 0); },
          "MSG 3 0 . 0 5\r\nworldEND\r\n" },
    };
    for (const auto &row : rows) {
        ready();
        for (uint16_t number : { 1, 2, 3 }) add(number, ROW_MESSAGE);
        io.full_at = io.out.size() + 17;   // within the payload
        ASSERT_EQ(send(2, "hello"), 0);
        run();
        row.meanwhile(*this);
        io.full_at = SIZE_MAX;
        run();
        EXPECT_EQ(written(), "MSG 2 0 . 0 5\r\nhelloEND\r\n" + row.wanted) << row.what;
    }
}

TEST_F(frame_out, replies_need_their_msg)
{
    ready();
    struct beep_channel *channel = add(1, ROW_MESSAGE);
    struct beep_diagnostic why = { 500, nullptr };
    EXPECT_EQ(reply(1, 4, '.', "x"), -1);
    EXPECT_EQ(reply(0, -1, '.', "x"), -1);
    EXPECT_EQ(reply(9, 0, '.', "x"), -1);
    channel->bc_pending = 3;
    EXPECT_EQ(reply(1, 4, '.', "x"), -1);
    EXPECT_EQ(beep_send_err(session, 1, 4, &why), -1);
    EXPECT_EQ(beep_send_raw(session, 1, 'R', -5, '.', 1, -1, "x"), -1);
    EXPECT_EQ(traced(), "beep_send_rpy: channel 1, no outstanding MSG"
                        "|beep_send_rpy: channel 0, no outstanding MSG|beep_send_rpy: channel 9 is not available"
                        "|beep_send_rpy: channel 1, RPY 4 does not match outstanding MSG 3"
                        "|beep_send_err: channel 1, err 4 does not match outstanding MSG 3"
                        "|beep_send_raw: invalid msgno -5");
    io.write_error = EPIPE;
    EXPECT_EQ(beep_send_err(session, 1, -1, &why), 0);
    run();
    EXPECT_EQ(traced().find("handle_write: Broken pipe|channel 0 deleted|channel 1 deleted"), 0u);
    EXPECT_EQ(closed_calls, 1);
}

TEST_F(frame_out, octets_are_shown_in_the_trace)
{
    ready();
    add(1, ROW_MESSAGE);
    keld_dtf_options.dtf_classes = 1u << DTF_OCTETS | 1u << DTF_DUMP;
    feed("SEQ 1 0 9999\r\n");
    ASSERT_EQ(send(1, std::string(1018, 'x') + "y\rz\n\n"), 0);
    run();
    EXPECT_EQ(traced(), "read 14 octets|<<< SEQ 1 0 9999\\r|Wrote 18 octets|>>> MSG 1 0 . 0 1023\\r|Wrote 1023 octets"
                        "|>>> " + std::string(1018, 'x') + "|>>> y\\rz|>>> |Wrote 5 octets|>>> END\\r");
}
