/*
 * Plain ends. Whatever is read is read in pieces of load.octets, by the scripted peer as well, so that all receivers
 * are woken and served alike.
 *
 * The scripted peer knows the octets of every frame that is to come, since the engine's headers are a matter of
 * counting. A frame that was cut or repeated would make its sum wrong, and the measure would fail.
 */
#include "bench/usr.sbin/keld/beep/plain_end.h"

#include <algorithm>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <string>
#include <unistd.h>
#include <vector>

void write_all(int fd, const void *data, size_t octets)
{
    auto *next = static_cast<const char *>(data);
    while (octets > 0) {
        ssize_t written = write(fd, next, octets);
        if (written < 1) fail("write");
        next += written;
        octets -= static_cast<size_t>(written);
    }
}

static size_t read_some(int fd, void *data, size_t most)
{
    ssize_t got = read(fd, data, most);
    if (got < 1) fail("read");
    return static_cast<size_t>(got);
}

static void read_all(int fd, char *data, size_t octets)
{
    for (size_t held = 0; held < octets;) held += read_some(fd, data + held, octets - held);
}

static void discard(int fd, uint64_t octets, size_t at_once)
{
    std::vector<char> piece(at_once);
    while (octets > 0) octets -= read_some(fd, piece.data(), std::min<uint64_t>(octets, at_once));
}

void plain_ping(int fd, const struct load &load)
{
    std::vector<char> message(static_cast<size_t>(load.octets), 'm');
    pair_begin();
    for (int32_t sent = 0; sent < load.outstanding; sent++) write_all(fd, message.data(), message.size());
    for (int32_t answered = 0; answered < load.messages; answered++) {
        read_all(fd, message.data(), message.size());
        if (answered + load.outstanding < load.messages) write_all(fd, message.data(), message.size());
    }
    pair_finish();
}

void plain_pong(int fd, const struct load &load)
{
    std::vector<char> message(static_cast<size_t>(load.octets));
    for (int32_t answered = 0; answered < load.messages; answered++) {
        read_all(fd, message.data(), message.size());
        write_all(fd, message.data(), message.size());
    }
}

void plain_source(int fd, const struct load &load)
{
    std::vector<char> piece(static_cast<size_t>(load.octets), 'm');
    pair_begin();
    for (int32_t sent = 0; sent < load.messages; sent++) write_all(fd, piece.data(), piece.size());
    discard(fd, 1, 1);
    pair_finish();
}

void plain_sink(int fd, const struct load &load)
{
    size_t piece = static_cast<size_t>(load.octets);
    discard(fd, static_cast<uint64_t>(load.messages) * piece, piece);
    write_all(fd, "", 1);
}

/* --- the scripted peer ---------------------------------------------------------------------------------------- */

static const std::string mime_header = "Content-Type: application/beep+xml\r\n\r\n";
static const std::string greeting = mime_header + "<greeting/>";

static void write_frame(int fd, const std::string &word_channel_msgno, size_t seqno, const std::string &payload)
{
    std::string frame = word_channel_msgno + " . " + std::to_string(seqno) + " " + std::to_string(payload.size());
    frame += "\r\n" + payload + "END\r\n";
    write_all(fd, frame.data(), frame.size());
}

void peer_say_greeting(int fd)
{
    write_frame(fd, "RPY 0 0", 0, greeting);
}

void peer_say_start_accepted(int fd)
{
    write_frame(fd, "RPY 0 1", greeting.size(), mime_header + "<profile uri='" BENCH_PROFILE_URI "'/>");
}

void peer_grant_window(int fd)
{
    std::string seq = "SEQ 1 0 " + std::to_string(PEER_WINDOW) + "\r\n";
    write_all(fd, seq.data(), seq.size());
}

/* Reads up to and including the frame that holds <start>. Nothing follows it until it is answered. */
static void await_start(int fd)
{
    static const std::string end = "END\r\n";
    std::string heard;
    for (;;) {
        char piece[512];
        heard.append(piece, read_some(fd, piece, sizeof piece));
        size_t start = heard.find("<start");
        if (start != std::string::npos && heard.find(end, start) != std::string::npos) return;
    }
}

static uint64_t octets_of_messages(const struct load &load)
{
    uint64_t sum = 0;
    uint32_t seqno = 0;
    for (int32_t msgno = 0; msgno < load.messages; msgno++) {
        int header = snprintf(nullptr, 0, "MSG 1 %" PRId32 " . %" PRIu32 " %" PRId32 "\r\n", msgno, seqno, load.octets);
        sum += static_cast<uint64_t>(header + load.octets) + strlen("END\r\n");
        seqno += static_cast<uint32_t>(load.octets);
    }
    return sum;
}

/* The engine owes one SEQ for the reply to <start>, before any message. */
static size_t octets_of_seq()
{
    size_t reply = mime_header.size() + strlen("<profile uri='" BENCH_PROFILE_URI "'/>");
    return strlen("SEQ 0  4096\r\n") + std::to_string(greeting.size() + reply).size();
}

void scripted_sink(int fd, const struct load &load)
{
    uint64_t octets = octets_of_messages(load);
    peer_say_greeting(fd);
    await_start(fd);
    peer_say_start_accepted(fd);
    discard(fd, octets_of_seq(), octets_of_seq());   // the channel stands by then; a SEQ that comes before is ignored
    peer_grant_window(fd);
    discard(fd, octets, static_cast<size_t>(load.octets));
    write_frame(fd, "RPY 1 " + std::to_string(load.messages - 1), 0, "");

    // An end of the stream right behind the answer would end the engine's session before the answer is delivered.
    char octet;
    while (read(fd, &octet, 1) > 0) continue;
}
