/*
 * One engine on a scripted transport. The test is the peer: it says what reads give and looks at what writes took. It
 * runs in the real loop; the descriptor is a socket with something to read for ever, so each turn calls the engine.
 */
#pragma once

#include "usr.sbin/keld/beep/beep_private.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#define MIME BEEP_MIME_HEADER

struct wire {
    struct piece {
        std::string octets;   // for as many reads as they take
        int error;            // without octets: one read gives -1 with this, or, with 0, the end of the stream
    };
    std::deque<piece> in;         // once it is empty a read gives EAGAIN
    std::string out;              // what writes took
    size_t full_at = SIZE_MAX;    // octets in out at which the transport is full
    int write_error = 0;          // what the next write fails with, if not 0
    bool delivering = false;      // the last read gave octets
};

/* Allocations of everything linked but the C++ library, counted while armed. spare_frames leaves out the blocks of
 * frames being read; fail_at is the allocation that fails, from 1, 0 for none. */
extern struct memory_script {
    bool armed, spare_frames;
    long count, fail_at;
} memory;

/* Rows "urn:frame" with pro_frame and "urn:message" with pro_message record calls. User data is a channel's number. */
enum { ROW_FRAME, ROW_MESSAGE, ROW_COUNT };
extern struct beep_profile table[ROW_COUNT];
extern struct profile_script {
    bool accept = true;                // answer to starts
    const char *piggyback = nullptr;   // for the <profile> reply
    bool echo = false;                 // each frame of a MSG goes back, as an RPY with the same mark
    std::vector<std::string> heard;
} profile;

/* Since the last call, joined by '|': calls of profiles (frames as "CHANNEL:TYPE+MSGNO+MORE PAYLOAD"), development
 * prints, insist lines, trace texts. */
std::string heard(), printed(), insisted(), traced();

enum speaker { PEER, KELD };
struct turn {
    speaker who;
    std::string head;        // a header line without sequence number and size, which are added; a SEQ as it is
    std::string body = {};
};

class engine : public testing::Test
{
public:
    void SetUp() override;
    void TearDown() override;
    void open(char role = BEEP_ROLE_INITIATOR);    // a new session, its greeting out
    void ready(char role = BEEP_ROLE_INITIATOR);   // and the peer's in
    void end();
    struct beep_channel *add(uint16_t number, int row);   // ready at once
    void run();                                           // the loop, until nothing moves
    void feed(const std::string &octets);
    /* Each turn's exact octets and nothing besides; SEQs of the engine are overlooked unless show_seq. */
    void converse(const std::vector<turn> &turns);
    std::string frame(const std::string &head, const std::string &body, std::map<int, uint32_t> &seqnos);
    void hear(const std::string &head, const std::string &body = "x") { feed(frame(head, body, peer_seqnos)); }
    std::string written();                                // since the last look
    int send(uint16_t channel, const std::string &text);
    int reply(uint16_t channel, int32_t msgno, char more, const std::string &text);
    char status() { return beep_get_session_status(session); }

    evContext ctx = nullptr;
    int fds[2] = { -1, -1 };
    struct wire io;
    struct beep_session *session = nullptr;
    std::map<int, uint32_t> peer_seqnos, keld_seqnos;
    size_t seen = 0;   // octets of io.out that were looked at
    bool show_seq = false;

private:
    void expect_silence(size_t row);
};

extern int closed_calls;   // of the close callback
int wire_read(void *transport, void *buffer, int length);
int wire_write(void *transport, const void *buffer, int length);
