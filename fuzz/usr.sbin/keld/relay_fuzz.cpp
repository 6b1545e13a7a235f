/*
 * What the management daemon says, on its way into frames: the first octet chooses the mode, the rest is said. No
 * frame is larger than the buffer, and no octet of a line is lost or doubled.
 */
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/tarnescript-profile.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

enum { INPUT_MAX = 100000 };   // what a socket holds, with room to spare

/* What the frames of one reply must hold, headers left out: the lines without their ends, each up to its first zero. */
static std::string lines_joined(const std::string &said)
{
    std::string all;
    for (size_t at = 0, end; (end = said.find('\n', at)) != said.npos; at = end + 1)
        all += said.substr(at, end - at).c_str();
    return all;
}

/* Takes the frames off the channel. Their octets without the headers of whole lines. */
static std::string frames_taken(struct beep_channel *channel)
{
    std::string all;
    while (uintptr_t word = bp_queue_get(channel->bc_out)) {
        auto *frame = reinterpret_cast<struct beep_frame *>(word);
        if (frame->bf_size > TS_BUFFER_SIZE) abort();
        std::string_view payload = { frame->bf_data, static_cast<size_t>(frame->bf_size) };
        if (payload.starts_with(BEEP_MIME_HEADER)) payload.remove_prefix(BEEP_MIME_HEADER_LEN);
        all += payload;
        frame_free(frame);
    }
    return all;
}

static void replace_headers(std::string *text)
{
    for (size_t at; (at = text->find(BEEP_MIME_HEADER)) != text->npos;) text->erase(at, BEEP_MIME_HEADER_LEN);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > INPUT_MAX) return 0;
    std::string said(reinterpret_cast<const char *>(data) + 1, size - 1);
    int ends[2];
    evContext ctx;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0 || evCreate(&ctx) < 0) abort();
    struct beep_session session = {};
    struct beep_channel *channels[2] = { nullptr, channel_new(1, nullptr, BEEP_ROLE_LISTENER) };
    session.bs_ev_ctx = ctx;
    session.bs_fd = -1;   // cannot be watched: frames stay queued
    session.bs_channel_count = 2;
    session.bs_channels = channels;
    keld_sp = &session;

    char buffer[TS_BUFFER_SIZE];
    struct ts_channel record = {};
    memcpy(buffer, BEEP_MIME_HEADER, sizeof BEEP_MIME_HEADER);
    record.tc_sock = mgmt_sock_open_fd(ends[0]);
    record.tc_channel = 1;
    record.tc_canonical = data[0] & 1;
    record.tc_buf = buffer;
    record.tc_ptr = buffer + BEEP_MIME_HEADER_LEN;
    record.tc_end = buffer + sizeof buffer;

    if (write(ends[1], said.data(), said.size()) != static_cast<ssize_t>(said.size())) abort();
    std::string relayed;
    for (auto left = std::count(said.begin(), said.end(), '\n'); left >= 0; left--) {   // a line at least for each turn
        channels[1]->bc_pending = 0;   // a call is always open
        ts_read_event(ctx, &record, ends[0], EV_READ);
        if (record.tc_ptr < buffer || record.tc_ptr > record.tc_end) abort();
        relayed += frames_taken(channels[1]);
    }
    relayed.append(buffer, record.tc_ptr);
    std::string expected = lines_joined(said);
    replace_headers(&expected);
    replace_headers(&relayed);
    if (expected != relayed) abort();

    mgmt_sock_close(record.tc_sock, 0);
    close(ends[1]);
    channel_delete(channels[1]);
    evDestroy(ctx);
    return 0;
}
