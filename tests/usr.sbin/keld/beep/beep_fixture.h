/*
 * One engine on a scripted transport. The test is the peer: it says what reads give and looks at what writes took. All
 * runs through the real event loop; the transport's descriptor is a socket that always has something to read, so that
 * the loop calls the engine at every turn.
 */
#pragma once

#include "usr.sbin/keld/beep/beep_private.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#define MIME BEEP_MIME_HEADER

/* What reads of the transport give and what its writes have taken. */
struct wire {
    struct piece {
        std::string octets;   // for as many reads as they take
        int error;            // without octets: one read that gives -1 with this, or, with 0, the end of the stream
    };
    std::deque<piece> in;         // once it is empty a read gives EAGAIN
    size_t read_max = SIZE_MAX;   // octets that a read gives at most
    std::string out;
    size_t full_at = SIZE_MAX;    // octets in out at which the transport is full
    int write_error = 0;          // what the next write fails with, if not 0
    bool delivering = false;      // between a read that gave octets and the next that gave none
};

/* Allocations of everything linked but the C++ library, counted while armed. */
struct memory_script {
    bool armed;
    bool spare_frames;   // neither count nor refuse the blocks of frames being read
    long count;
    long fail_at;        // the allocation that fails, from 1; 0 for none
};
extern struct memory_script memory;

/* The profiles of the table, "urn:frame" with pro_frame and "urn:message" with pro_message, record what they are called
 * for. A channel's user data is its number. */
enum { ROW_FRAME, ROW_MESSAGE, ROW_COUNT };
extern struct beep_profile table[ROW_COUNT];

struct profile_script {
    bool accept = true;                  // answer of pro_start_indicate and pro_start_confirm
    const char *piggyback = nullptr;     // for the <profile> reply
    bool echo = false;                   // each frame of a MSG goes back, as an RPY with the same mark
    std::vector<std::string> heard;
};
extern struct profile_script profile;
/* What the profiles were called for since the last call, joined by '|'. Frames read "CHANNEL:TYPE MSGNO MORE PAYLOAD" without
 * the blanks but the last. */
std::string heard();

/* Development prints and insist lines since the last call, joined by '|'. */
std::string printed();
std::string insisted();
/* Trace texts since the last call, joined by '|'. */
std::string traced();

enum speaker { PEER, KELD };
struct turn {
    speaker who;
    std::string head;   // a header line without sequence number and size, which are added; a SEQ as it is
    std::string body = {};
};

class engine : public testing::Test
{
public:
    void SetUp() override;
    void TearDown() override;

    /* Starts a session anew, up to its greeting or up to the peer's, which is answered by nothing. */
    void open(char role = BEEP_ROLE_INITIATOR);
    void ready(char role = BEEP_ROLE_INITIATOR);
    void end();
    /* Adds a channel that is ready. */
    struct beep_channel *add(uint16_t number, int row);
    /* Runs the loop until nothing moves. */
    void run();
    void feed(const std::string &octets);
    /* Each turn's exact octets, and nothing besides; SEQs of the engine are looked over unless show_seq. */
    void converse(const std::vector<turn> &turns);
    std::string frame(const std::string &head, const std::string &body, std::map<int, uint32_t> &seqnos);
    /* What the engine has written since the last look. */
    std::string written();
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
    void skip_seqs();
};

extern int closed_calls;   // of the close callback that open() sets
int wire_read(void *transport, void *buffer, int length);
int wire_write(void *transport, const void *buffer, int length);
