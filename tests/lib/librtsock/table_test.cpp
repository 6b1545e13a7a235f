/*
 * Routing tables and the binding of sockets to them: what the kernel gets, decoded again, and what comes back.
 */
#include "tests/lib/librtsock/scripted_kernel.h"

#include <netinet/in.h>
#include <sys/socket.h>

/* What the kernel got last, as text. */
static std::string sent(rtslib_cookie *cookie)
{
    const octets &o = kernel.written.back();
    void *message = nullptr;
    EXPECT_EQ(o[0], 0x22);
    EXPECT_EQ(rtslib_msg_idl_decode(cookie, o.data(), o.size(), &message, nullptr), 0);
    if (message == nullptr) return "";
    const auto *m = static_cast<rtb_msg *>(message);
    // Decoding puts the count of octets over rtsh_msglen.
    uint32_t msglen;
    memcpy(&msglen, &o[IDL_ENVELOPE_SIZE + 8], sizeof msglen);
    const rts_hdr &h = m->rts_hdr;
    EXPECT_TRUE(h.rtsh_version == 98 && h.rtsh_type == 1 && h.rtsh_seq == 2 && h.rtsh_hdrlen == 200);
    EXPECT_TRUE(h.rtsh_magic == 0 && h.rtsh_sender == 0);
    char text[512];
    int used = snprintf(text, sizeof text, "op%u flag%u len%u | tid%u af%u flags%u pr%u lrid%u aux %u %u %u | "
                        "%.*s/%.*s", h.rtsh_op, h.rtsh_flag, msglen, m->tid, m->af, m->flags, m->prflags, m->lrid,
                        m->aux_word1, m->aux_word2, m->aux_half, int(m->name_len), m->name, int(m->lrname_len),
                        m->lrname);
    // Names go with their terminators, which the text above stops at.
    EXPECT_TRUE(m->name_len == 0 || m->name[m->name_len - 1] == '\0');
    std::string out(text, size_t(used));
    if (h.rtsh_info_len == 1) {
        const rts_msg_info &item = *h.rtsh_info[0];
        out += " item " + std::to_string(item.tag) + " " + std::to_string(item.u.rtb_svcs_chan.own_tag) + " " +
               std::to_string(item.u.rtb_svcs_chan.own_length) + " " + std::to_string(item.u.rtb_svcs_chan.channel);
    }
    rtslib_msg_idl_release(cookie, message);
    return out;
}

TEST_F(LibTest, TableRequests)
{
    using call = int (*)(rtslib_cookie *);
    static const std::string longest(127, 'x'), longer(300, 'x');
    static void *message;
    const struct {
        call run;
        bool replies;
        std::string sent;
    } rows[] = {
        { [](rtslib_cookie *c) { return rtslib_rtbm_get_by_name(c, 2, "blue", &message, nullptr); }, true,
          "op4 flag0 len0 | tid65535 af2 flags0 pr0 lrid0 aux 0 0 0 | blue/" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_get_by_name(c, 28, longer.c_str(), &message, nullptr); }, true,
          "op4 flag0 len0 | tid65535 af28 flags0 pr0 lrid0 aux 0 0 0 | " + longest + "/" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_get_by_index(c, 7, 9, RTM_OP_GETNEXT, &message, nullptr); }, true,
          "op5 flag0 len0 | tid9 af7 flags0 pr0 lrid0 aux 0 0 0 | /" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_add(c, "red", 5, 2, 4); }, false,
          "op1 flag4 len200 | tid5 af2 flags0 pr1 lrid0 aux 0 0 0 | red/null" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_add_prflag(c, "red", 5, 2, 4, 6); }, false,
          "op1 flag4 len200 | tid5 af2 flags0 pr6 lrid0 aux 0 0 0 | red/null" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_add_lr(c, nullptr, 5, 2, "ls1", 3, 0, 6); }, false,
          "op1 flag0 len200 | tid5 af2 flags8 pr6 lrid3 aux 0 0 0 | default/ls1" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_update(c, 5, 2, 11, "red", 12, 13, RTM_OP_DELETE); }, false,
          "op3 flag0 len200 | tid5 af2 flags0 pr0 lrid0 aux 11 12 13 | red/" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_update(c, 5, 2, 11, nullptr, 12, 13, RTM_OP_DELETE); }, false,
          "op3 flag0 len200 | tid5 af2 flags0 pr0 lrid0 aux 11 12 13 | /" },
        { [](rtslib_cookie *c) { return rtslib_rtbm_update_svcs_chan(c, 5, 2, 11, "reds", 12, 13, 14, 15); }, false,
          "op1 flag0 len252 | tid5 af2 flags0 pr15 lrid0 aux 11 12 13 | reds/ item 104 2 10 14" },
    };
    for (const auto &row : rows) {
        rtslib_cookie *cookie = open();
        if (row.replies) kernel.replies = { { table_reply(77) } };
        message = nullptr;
        EXPECT_EQ(row.run(cookie), 0);
        std::string got = sent(cookie);
        got.erase(std::remove(got.begin(), got.end(), '\0'), got.end());
        EXPECT_EQ(got, row.sent);
        EXPECT_EQ(message != nullptr, row.replies);
        if (row.replies) { EXPECT_EQ(static_cast<rtb_msg *>(message)->tid, 77); }
        rtslib_msg_idl_release(cookie, message);
        // Without memory: nothing is left behind, at whichever block it runs out. A request alone takes two.
        std::map<uint16_t, int> before = blocks;
        for (int allowed = 0; allowed < (row.replies ? 4 : 2); allowed++) {
            if (row.replies) kernel.replies = { { table_reply(77) } };
            message = cookie;
            allowance = allowed;
            EXPECT_EQ(row.run(cookie), 12);
            EXPECT_TRUE(message == nullptr || !row.replies);
            EXPECT_EQ(blocks, before);
            uint8_t octet;
            (void)rtsock_read(cookie->socket, &octet, 1);
        }
        allowance = 1000;
        kernel.replies.clear();
        EXPECT_EQ(row.run(nullptr), 22);
        rtslib_close(cookie);
    }
}

TEST_F(LibTest, FailedGetsGiveNoMessage)
{
    rtslib_cookie *cookie = open();
    void *message = cookie;
    EXPECT_EQ(rtslib_rtbm_get_by_name(cookie, 2, "blue", nullptr, nullptr), 22);
    EXPECT_EQ(rtslib_rtbm_get_by_name(cookie, 2, "blue", &message, nullptr), 35);
    EXPECT_EQ(message, nullptr);
    message = cookie;
    kernel.takes = { -1 };
    kernel.write_errno = ENOENT;
    EXPECT_EQ(rtslib_rtbm_get_by_index(cookie, 2, 1, RTM_OP_GET, &message, nullptr), 2);
    EXPECT_EQ(message, nullptr);
    EXPECT_TRUE(take_reports().empty());
    rtslib_close(cookie);
}

TEST_F(LibTest, InstanceByName)
{
    const struct {
        const char *instance, *logical;
        int family;
        void (*prepare)(void);
        int32_t index, tenant;
        int error, opened;
    } rows[] = {
        { "blue", nullptr, 2, [] {}, 0, 65535, 0, 1 },
        { "blue", "ls1", 28, [] {}, 0, 65535, 0, 1 },
        { "blue", "ls1", 7, [] {}, 0, 65535, 0, 1 },
        { nullptr, nullptr, 1, [] {}, -1, -1, EPROTONOSUPPORT, 0 },
        { "blue", nullptr, -1, [] {}, -1, -1, EPROTONOSUPPORT, 0 },
        { nullptr, "ls1", 2, [] {}, -1, -1, EINVAL, 0 },
        { "none", nullptr, 2, [] { kernel.takes = { -1 }; kernel.write_errno = ENOENT; }, -1, -1, ENOENT, 1 },
        { "late", nullptr, 2, [] { kernel.replies.clear(); }, -1, -1, EAGAIN, 1 },
    };
    for (const auto &row : rows) {
        for (bool tenant : { false, true }) {
            kernel = {};
            kernel.replies = { { table_reply(0, 65535) } };
            row.prepare();
            errno = 0;
            auto ask = tenant ? vrf_gettenantidbyvrfname : vrf_getindexbyvrfname;
            EXPECT_EQ(ask(row.instance, row.logical, row.family), tenant ? row.tenant : row.index);
            if (row.index == -1) { EXPECT_EQ(errno, row.error); }
            EXPECT_EQ(kernel.opened, row.opened);
            EXPECT_EQ(kernel.closed, row.opened);
            if (row.opened == 0) continue;
            EXPECT_EQ(kernel.options[RTSOCK_SENDER_ID], octets{ 3 });
            std::string name = row.logical != nullptr ? "ls1/blue" : row.instance;
            std::string octets_sent(kernel.written[0].begin(), kernel.written[0].end());
            EXPECT_NE(octets_sent.find(std::string(1, char(name.size() + 1)) + std::string(3, '\0') + name + '\0'),
                      std::string::npos);
        }
    }
    rtsock_set_kernel(nullptr);
    EXPECT_EQ(vrf_getindexbyvrfname("blue", nullptr, 2), -1);
    EXPECT_EQ(errno, ENODEV);
    rtslib_free(MEMID_RTSLIB_READ_BUFFER, last_cookie.read_buffer);
}

TEST_F(LibTest, SocketsAreBound)
{
    const struct {
        int family, result, error;
    } rows[] = { { AF_INET, 0, 0 }, { AF_INET6, 0, 0 }, { AF_UNIX, -1, EPROTONOSUPPORT } };
    for (const auto &row : rows) {
        int fd = socket(row.family, SOCK_STREAM, 0);
        kernel = {};
        kernel.replies = { { table_reply(0) } };
        EXPECT_EQ(vrf_setsocketbyvrfname(fd, "blue", nullptr), row.result);
        if (row.result != 0) { EXPECT_EQ(errno, row.error); }
        EXPECT_EQ(kernel.bound, std::pair(row.result == 0 ? fd : -1, 0U));
        EXPECT_EQ(kernel.opened, row.result == 0 ? 1 : 0);
        kernel.bind_errno = EXFULL;
        EXPECT_EQ(_vrf_setsocket(fd, 5), -1);
        EXPECT_EQ(errno, row.result == 0 ? EXFULL : EPROTONOSUPPORT);
        close(fd);
    }
    EXPECT_EQ(_vrf_setsocket(-1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(vrf_setsocketbyvrfname(-1, "blue", nullptr), -1);
    EXPECT_EQ(errno, EPROTONOSUPPORT);
}
