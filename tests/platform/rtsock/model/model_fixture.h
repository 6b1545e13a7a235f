/*
 * The model behind the library: two clients, one that asks and one that listens to everything, and rows that say what
 * a request is answered with. Objects are written as short texts.
 */
#pragma once

#include "platform/rtsock/model/rtsock_model.h"
#include "platform/target.h"
#include "tests/lib/librtsock/scripted_kernel.h"

// Requests are records of which a test says the few fields that matter.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

/* Allocations of the model that are still granted; a negative number: all. */
extern int model_allowance;

inline std::string prefix_text(const uint8_t *from, uint32_t bits)
{
    std::string all;
    for (uint32_t i = 0; i < (bits + 7) / 8; i++) all += (i ? "." : "") + std::to_string(from[i]);
    return all + "/" + std::to_string(bits);
}

/* The fields that matter of a message. */
std::string text_of(const void *message);

class ModelTest : public LibTest {
protected:
    ModelTest()
    {
        rtsock_model_reset();
        rtsock_set_kernel(&rtsock_model);
        kernel = {};
        allowance = INT32_MAX;
        asker = open();
        listener = open();
        const uint32_t everything[] = { UINT32_MAX, UINT32_MAX };
        EXPECT_EQ(rtsock_setsockopt(listener->socket, RTSOCK_LEVEL, RTSOCK_LISTEN_BITS, everything, 8), 0);
    }
    ~ModelTest() override
    {
        rtslib_close(asker);
        rtslib_close(listener);
        rtsock_model_reset();
    }

    /* The kernel's answer, "" for none, "-N" for an error. */
    template <typename record_type> std::string ask(uint8_t type, uint8_t op, record_type record)
    {
        rts_hdr *header = &record.rts_hdr;
        header->rtsh_type = type;
        header->rtsh_op = op;
        header->rtsh_seq = ++asker->seq;
        int result = rtslib_msg_write_idl(asker, &record, nullptr);
        bool answered = op == RTM_OP_GET || op == RTM_OP_GETNEXT || op == RTM_OP_ADD_GET || op == RTM_OP_CHG_GET;
        void *reply = nullptr;
        if (result == 0 && answered)
            result = rtslib_long_msg_read_idl(asker, &reply, nullptr);
        return take(result, reply);
    }
    /* The same for an operation of the library, given where the reply goes. */
    template <typename operation> std::string run(operation call)
    {
        void *reply = nullptr;
        int result = call(&reply);
        return take(result, reply);
    }
    std::string take(int result, void *reply)
    {
        if (result != 0) return "-" + std::to_string(result);
        std::string text = reply != nullptr ? text_of(reply) : "";
        rtslib_msg_idl_release(asker, reply);
        char unasked[64];
        EXPECT_EQ(rtsock_recv(asker->socket, unasked, sizeof unasked, MSG_DONTWAIT), -1) << text;
        return text;
    }
    /* What the listener heard since the last call: "add TEXT, ...". */
    std::string heard()
    {
        std::string text;
        void *event = nullptr;
        while (rtslib_long_msg_read_idl(listener, &event, nullptr) == 0 && event != nullptr) {
            text += (text.empty() ? "" : ", ") + std::string(rtm_ops[static_cast<rts_hdr *>(event)->rtsh_op]) + " " +
                    text_of(event);
            rtslib_msg_idl_release(listener, event);
            event = nullptr;
        }
        return text;
    }
    static std::string line(const std::string &text)
    {
        char error[256] = "";
        int result = rtsock_model_line(text.c_str(), error, sizeof error);
        return result == 0 ? "" : std::to_string(result) + " " + error;
    }
    static void lines(std::initializer_list<const char *> all)
    {
        for (const char *one : all) EXPECT_EQ(line(one), "") << one;
    }

    rtslib_cookie *asker, *listener;
};
