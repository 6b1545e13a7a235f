/*
 * Channel 0 messages from any octets, in a frame of each type, with a request on its way that the frame may answer. All
 * that the result holds must be there to be read, and nothing in it may be longer than what came.
 *
 * The first octet chooses the frame type and the request; the rest is the payload.
 */
#include "usr.sbin/keld/beep/beep.h"

#include <stdlib.h>
#include <string.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void must(bool holds)
{
    if (!holds) abort();
}

static void request(struct beep_session *session, int32_t msgno, char op)
{
    char uri[] = "urn:offered";
    struct chan0_profile offered = { nullptr, uri, nullptr, 0, 0 };
    auto *msg = chan0_msg_new(9, msgno, 'M', op, nullptr, op == 's' ? &offered : nullptr);
    must(msg && bp_queue_put(session->bs_chan0_sent, reinterpret_cast<uintptr_t>(msg)) == 0);
}

/* Reads every octet that the message promises. */
static void look_at(const struct chan0_msg *msg, size_t size)
{
    must(msg->type == BEEP_MSGTYPE_MSG || msg->op == 'g' || msg->channel == 9);
    must(msg->op != 'e');   // an <error> bears the op of what it refuses
    if (msg->diagnostic && msg->diagnostic->message) must(strlen(msg->diagnostic->message) <= size);
    for (const auto *entry = msg->profiles; entry; entry = entry->next) {
        must(entry->length >= 0);
        must(strcmp(entry->uri, "urn:offered") == 0 || strlen(entry->uri) <= size);
        std::string copy(entry->data ? entry->data : "", static_cast<size_t>(entry->length));
        must(copy.size() <= size);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) return 0;
    const char types[] = { BEEP_MSGTYPE_MSG, BEEP_MSGTYPE_RPY, BEEP_MSGTYPE_ERR };
    char type = types[data[0] % sizeof types];
    char op = data[0] & 0x10 ? 'c' : 's';

    struct beep_session session = {};
    session.bs_chan0_sent = bp_queue_new(2);
    must(session.bs_chan0_sent);
    request(&session, 5, op);

    struct beep_frame *frame =
        frame_new(type, 0, data[0] & 0x20 ? 6 : 5, '.', static_cast<int32_t>(size - 1), -1, data + 1);
    must(frame);
    struct chan0_msg *msg = chan0_msg_parse(&session, frame);
    frame_free(frame);
    if (msg) {
        look_at(msg, size);
        struct chan0_msg *clone = chan0_msg_clone(msg);
        must(clone);
        chan0_msg_delete(msg);
        look_at(clone, size);
        chan0_msg_delete(clone);
    }
    chan0_msg_delete(reinterpret_cast<struct chan0_msg *>(bp_queue_get(session.bs_chan0_sent)));
    bp_queue_free(session.bs_chan0_sent);
    return 0;
}
