/*
 * Blobs: what a request puts on the wire and what it refuses, compression both ways, peers and dependencies.
 */
#include "lib/librtsock/rtslib_gencfg.h"
#include "tests/lib/librtsock/scripted_kernel.h"

/* Blobs are runs of one octet here; compressed: that octet and the length. Both lie where there is no room: about seven
 * octets, and about too many. */
enum { LIE = 7 };
static int squeeze(void *to, uint32_t *length, const void *from, uint32_t from_length)
{
    if (from_length == LIE) return *length = LIE + 1, 0;
    if (*length < 5) return 99;
    memcpy(to, from, 1);
    memcpy(static_cast<uint8_t *>(to) + 1, &from_length, 4);
    return *length = 5, 0;
}

static int expand(void *to, uint32_t *length, const void *from, uint32_t from_length)
{
    EXPECT_EQ(*length, 0x300000U);
    if (from_length != 5) return 98;
    memcpy(length, static_cast<const uint8_t *>(from) + 1, 4);
    if (*length <= 0x300000) memset(to, *static_cast<const uint8_t *>(from), *length);
    return 0;
}

static uint8_t key[GENCFG_KEY_MAX + 1] = { 'k', 'e', 'y' };
static octets blob(0x80000, 'b');

/* What a kernel answers: everything that a message can have. Its blob is a run of that many octets, or broken. */
static octets answer(uint32_t flags, uint32_t run, bool tlv, bool broken = false)
{
    gencfg_peerinfo peers[2] = { { 0, 16, 0, 1, { 7 } }, { 0, 1, 0, 1, { 8 } } };
    uint8_t data[3] = { 1, 2, 3 }, squeezed[6] = {};
    gencfg_depinfo dep[1] = { { 4, 5, 6, 7, 0, data, 3 } };
    uint32_t words[2] = { 8, 9 }, length = sizeof squeezed;
    rts_msg_info item = { 1, { .ifd_mtus = { words, 2 } } }, *items[1] = { &item };
    squeeze(squeezed, &length, "r", run);
    gencfg_msg m = {};
    m.rts_hdr.rtsh_type = 72, m.rts_hdr.rtsh_info = items, m.rts_hdr.rtsh_info_len = 1;
    m.major = 31, m.minor = 32, m.aux = 33, m.object_id = 34, m.extra = 35, m.flags = flags;
    m.peers = peers, m.peers_len = 2, m.key = key, m.key_len = 4, m.dep = dep, m.dep_len = 1;
    m.blob = squeezed, m.blob_len = run != 0 ? length + (broken ? 1 : 0) : 0;
    return wire(&m, 72, tlv);
}

/* All reports since the last call, to the system log and to the cookie's sink, without what they all have. */
static std::string take_all()
{
    std::string all;
    for (const std::string &line : std::exchange(logged, {})) all += line.substr(strlen("3 rtslib: "));
    for (const std::string &line : std::exchange(reports, {})) all += line.substr(strlen("3 "));
    all.erase(std::remove(all.begin(), all.end(), '\n'), all.end());
    return all;
}

class BlobTest : public LibTest {
protected:
    rtslib_cookie *cookie = open();
    void *message = nullptr, *mask = nullptr;
    gencfg_t g = { 1, 2, 0, 0, 0, 6, 3, 0, 0, blob.data(), key, 5, 0, nullptr, nullptr, 4 };
    ~BlobTest() override { rtslib_close(cookie); }

    /* The request that the kernel got last: what every one has is looked at here. */
    gencfg_msg *sent()
    {
        const octets &o = kernel.written.back();
        EXPECT_EQ(rtslib_msg_idl_decode(cookie, o.data(), o.size(), &message, nullptr), 0);
        auto *m = static_cast<gencfg_msg *>(message);
        const rts_hdr &h = m->rts_hdr;
        EXPECT_TRUE(h.rtsh_version == 105 && h.rtsh_type == 72 && h.rtsh_hdrlen == 108 && h.rtsh_seq == cookie->seq);
        EXPECT_TRUE(o[0] == 0x22 && o[IDL_ENVELOPE_SIZE + 8] == 108);   // rtsh_msglen, which decoding replaces
        EXPECT_TRUE(m->major == 1 && m->minor == 2 && m->aux == 3 && m->seq_hint == 4 && m->extra == 6);
        return m;
    }
    void release() { rtslib_msg_idl_release(cookie, std::exchange(message, nullptr)); }
};

TEST_F(BlobTest, BlobRequestsAreSentOrRefused)
{
    const auto run = [&](char how, rtslib_cookie *c) {
        switch (how) {
        case 'a': return rtslib_gencfg_add(c, &g);
        case 'c': return rtslib_gencfg_change(c, &g);
        case 'd': return rtslib_gencfg_delete(c, &g);
        case 'A': return rtslib_gencfg_add_and_get(c, &g, &message, nullptr);
        case 'B': return rtslib_gencfg_bulk_delete(c, &g, &message, nullptr);
        case 'P': return rtslib_gencfg_delete_prefix_key(c, &g, &message, nullptr);
        default: return rtslib_gencfg_get(c, &g, uint8_t(how - '0'), &message, nullptr);
        }
    };
    const struct {
        char how;
        uint32_t flags;
        uint16_t key_len;
        uint32_t blob_len;
        int result, operation;   // 35: sent, and not answered
        const char *reports = "";
        int allowed = 99;
    } rows[] = {
        { 'a', 1, 0, 0, 0, 1 },   { 'c', 2, 250, 0, 0, 2 }, { 'd', 2, 3, 0, 0, 3 },   { 'a', 0, 0, 1, 22, 0 },
        { '4', 0, 0, 0, 35, 4 },  { 'A', 0, 0, 0, 22, 0 }, { 'A', 1, 0, 1, 35, 8 }, { '4', 2, 0, 0, 22, 0 },
        { '5', 2, 0, 0, 22, 0 }, { 'a', 4, 0, 0, 22, 0 },     { 'B', 2, 0, 0, 35, 9 },    { 'P', 2, 3, 0, 35, 9 },
        { 'P', 3, 3, 0, 45, 0 }, { 'a', 1, 0, 0x7ffff, 0, 1 },
        { 'a', 1, 0, 0x80000, 28, 0, "ERROR Gencfg blob is too large (524288 bytes)" },
        { 'a', 2, 251, 0, 22, 0, "ERROR Gencfg blob key length (251) is greater than 250 bytes" },
        // Compression makes room; with a reply it is left alone.
        { 'a', 0x20001, 0, 0x80000, 0, 1, "DEBUG Gencfg blob was compressed from 524288 to 5 bytes (rc 0)" },
        { 'A', 0x20001, 0, 4, 35, 8 },
        { 'c', 0x20002, 0, 9, 22, 0, "DEBUG Gencfg blob was compressed from 9 to 5 bytes (rc 0)" },
        { 'c', 0x20001, 0, 4, 99, 0, "ERROR Failed to compress gencfg blob of 4 bytes (rc 99)" },
        { 'a', 0x20001, 0, 0, 99, 0, "ERROR Failed to compress gencfg blob of 0 bytes (rc 99)" },
        { 'a', 0x20001, 0, LIE, 22, 0, "ERROR Failed to compress gencfg blob of 7 bytes (rc 22)" },
        { 'a', 0x20001, 0, 9, 12, 0, "ERROR Failed to allocate memory for compressed blob", 0 },
    };
    for (const auto &row : rows) {
        gencfg_peerinfo_t peer = { 0, 16, 0, 1, { 9 } };
        g.blob_len = row.blob_len, g.key_len = row.key_len, g.flags = row.flags, g.peers = &peer, g.peer_count = 1;
        const bool compressed = (row.flags & 0x20000) != 0 && row.how != 'A';
        cookie->blob_compress = nullptr;
        if (compressed) { EXPECT_EQ(run(row.how, cookie), 45); }
        EXPECT_EQ(take_all(), compressed ? "ERROR Compression was not initialized for rtslib" : "");
        rtslib_init_blob_compression(cookie, squeeze, expand);
        allowance = row.allowed;
        EXPECT_EQ(run(row.how, cookie), row.result);
        allowance = 99;
        EXPECT_EQ(take_all(), row.reports);
        EXPECT_TRUE(g.blob == blob.data() && g.blob_len == row.blob_len);
        EXPECT_EQ(kernel.written.size(), row.operation != 0 ? 1U : 0U);
        if (row.operation != 0) {
            gencfg_msg *m = sent();
            EXPECT_EQ(m->rts_hdr.rtsh_op, row.operation);
            EXPECT_EQ(m->flags, row.flags | (row.how == 'B' ? 0x400000 : row.how == 'P' ? 0x800000 : 0));
            EXPECT_EQ(m->object_id, row.flags & 1 ? 5U : 0U);
            EXPECT_EQ(m->key_len, row.flags & 2 ? row.key_len : 0U);
            EXPECT_EQ(rtslib_gencfg_get_peer_index(m, 0), 9);
            EXPECT_EQ(m->blob_len, compressed ? 5 : row.blob_len);
            release();
        }
        EXPECT_EQ(run(row.how, nullptr), 22);
        kernel.written.clear();
    }
}

TEST_F(BlobTest, WhatArrivesIsDecompressedAndRefillsTheRequest)
{
    const struct {
        uint8_t operation;   // 0: an event
        uint32_t request, flags, run;
        bool broken;
        int result;
        bool refilled;
        uint32_t blob_len;
    } rows[] = {
        { 4, 1, 0x20006, 1000, false, 0, true, 1000 }, { 4, 1, 0x20000, 0, false, 0, true, 0 },
        { 4, 1, 0, 9, false, 0, true, 5 },             { 4, 1, 0x20006, 9, true, 98, false, 0 },
        { 5, 1, 0x20006, 9, true, 0, true, 0 },        { 8, 1, 0x20006, 9, false, 0, false, 9 },
        { 9, 0x400000, 6, 9, false, 0, true, 5 },      { 9, 0x400000, 0x20006, 9, true, 98, true, 0 },
        { 0, 1, 0x20006, 9, false, 0, false, 9 },      { 0, 1, 6, 9, false, 0, false, 5 },
        { 0, 1, 0x20006, 0, false, 98, false, 0 },     { 4, 1, 0x20006, 0x300001, false, 22, false, 0 },
    };
    rtslib_init_blob_compression(cookie, squeeze, expand);
    for (const auto &row : rows) {
        for (bool tlv : { false, true }) {
            octets reply = answer(row.flags, row.run, tlv, row.broken);
            g = {};
            g.flags = row.request;
            message = mask = &g;
            if (row.operation != 0) {
                kernel.replies = { { reply } };
                EXPECT_EQ(rtslib_gencfg_get(cookie, &g, row.operation, &message, &mask), row.result);
            } else {
                EXPECT_EQ(rtslib_msg_idl_decode(cookie, reply.data(), reply.size(), &message, nullptr), 0);
                EXPECT_EQ(rtslib_gencfg_async(cookie, &message), row.result);
                mask = nullptr;
            }
            auto *m = static_cast<gencfg_msg *>(message);
            ASSERT_NE(m, nullptr);
            EXPECT_EQ(m->blob_len, row.blob_len);
            EXPECT_TRUE(m->blob_len < 6 || (m->blob[0] == 'r' && m->blob[m->blob_len - 1] == 'r'));
            EXPECT_EQ(g.major, row.refilled ? 31 : 0);
            if (row.refilled) {
                EXPECT_TRUE(g.minor == 32 && g.aux == 33 && g.object_id == 34 && g.extra == 35 && g.flags == row.flags);
                EXPECT_TRUE(g.blob == m->blob && g.blob_len == m->blob_len && g.peer_count == 2 && g.peer_max == 2);
                EXPECT_TRUE(g.key == (row.flags & 2 ? m->key : nullptr) && g.dep_count == (row.flags & 4 ? 1 : 0));
            }
            // Apart from the blob a copy is what came, item, peers and maps; nothing in it leads to the one now freed.
            m->rts_hdr.rtsh_msglen = m->blob_len = 0;
            rts_msg pair = { 72, m };
            map_rts_msg map = { mask };
            octets again(1000);
            again.resize(size_t(mask != nullptr ? tlv_encode_rts_msg_0(&pair, &map, again.data(), again.size())
                                                : idr_encode_rts_msg_0(&pair, again.data(), again.size())));
            EXPECT_EQ(again, answer(row.flags, 0, mask != nullptr));
            EXPECT_EQ(mask != nullptr, tlv && row.operation != 0);
            release();
        }
    }
    EXPECT_NE(take_all().find("(rc 0)DEBUG Gencfg blob was decompressed from 6 to 3145728 bytes (rc 98)"
                              "ERROR Failed to decompress blob (rc 98)"), std::string::npos);
    octets event = answer(0x20000, 9, true);
    ASSERT_EQ(rtslib_msg_idl_decode(cookie, event.data(), event.size(), &message, nullptr), 0);
    allowance = 0;
    EXPECT_EQ(rtslib_gencfg_async(cookie, &message), 12);
    cookie->blob_decompress = nullptr;
    EXPECT_EQ(rtslib_gencfg_async(cookie, &message), 45);
    EXPECT_EQ(static_cast<gencfg_msg *>(message)->blob_len, 0U);
    EXPECT_EQ(take_all(), "ERROR Failed to allocate memory for duplicated gencfg_msgERROR Failed to duplicate msg for "
                          "decompressed blobERROR Compression was not initialized for rtslib");
    release();
}

TEST_F(BlobTest, RequestsGoAnotherWay)
{
    static gencfg_msg room, reply;
    static int freed;
    uint32_t seq = 40;
    memset(&room, 0xff, sizeof room);
    reply.minor = 8;
    for (int result : { 0, 77, 12 }) {
        EXPECT_EQ(rtslib_gencfg_op_export(
            nullptr, &g, 4, &message, nullptr, &seq, 5,
            [](size_t size) -> void * { return size == sizeof room && freed < 2 ? &room : nullptr; },
            [](void *block) { freed += block == &room ? 1 : 0; },
            [](uintptr_t context, void *) { return context == 5 && room.rts_hdr.rtsh_seq == 41 && !room.key ? 0 : 77; },
            [](uintptr_t context, void **m, void **) { return *m = &reply, context == 5 ? 0 : 76; }), result);
        EXPECT_EQ(message, result == 0 ? &reply : nullptr);
    }
    EXPECT_TRUE(g.minor == 8 && freed == 2 && seq == 42);
    EXPECT_EQ(rtslib_gencfg_get(cookie, &g, 4, nullptr, nullptr), 22);
    // A reply of another type is handed over, and not read as what it is not.
    kernel.replies = { { table_reply(7) } };
    EXPECT_EQ(rtslib_gencfg_get(cookie, &g, 4, &message, nullptr), 0);
    EXPECT_EQ(g.minor, 8);
    release();
}

TEST_F(BlobTest, Peers)
{
    static int in_4;   // the kernel's word on a mask for major type 4; below 0 it has none
    rtsock_kernel with_name = scripted_kernel;
    with_name.rk_sysctlbyname = [](const char *name, void *value, size_t *, const void *, size_t) {
        EXPECT_STREQ(name, "kern.gencfg_cfg2_peermask");
        return in_4 < 0 ? refuse(ENOENT) : (memcpy(value, &in_4, sizeof in_4), 0);
    };
    rtsock_set_kernel(&with_name);
    static const char *const beyond = "ERROR Creation of gencfg peer mask failed ";
    static const char *const invalid = "ERROR OBJECT TYPE invalid";
    static const char *const many = "ERROR Number of gencfg peers exceeds 3";
#define MISMATCH "ERROR rtslib_gencfg_add_peerinfo: Peer Index choice mismatch, Existing: "
    struct peer {
        uint8_t type;
        uint32_t choice;
        uint16_t index;
        const char *fault = "";
        bool found = true;
    };
    const struct {
        uint16_t major;
        int sysctl;
        std::vector<peer> peers;
        int count, first;
        uint32_t words[3];   // 0, 1 and 7 of the mask
    } rows[] = {
        { 15, 0, { { 16, 0, 6 }, { 16, 0, 47 }, { 16, 0, 48, beyond, false } }, 1, 6, { 0, 1, 1 << 25 } },
        { 73, 0, { { 16, 0, 48, beyond, false }, { 1, 0, 384, beyond, false } }, 0, -1, {} },
        { 73, 0, { { 16, 0, 0 }, { 16, 0, 1, "ERROR Number of gencfg peers exceeds 1", false } }, 1, 0, { 1, 0, 0 } },
        // Slots above 3 are bits of the next group, or of none.
        { 85, 0, { { 1, 0, 44 }, { 1, 0, 45 }, { 1, 0, 46, "", false } }, 1, 44, { 3U << 30, 0, 0 } },
        { 85, 0, { { 1, 0, 4 } }, 1, 4, { 1 << 5, 0, 0 } },
        { 85, 0, { { 17, 0, 49 }, { 16, 0, 65532, "", false }, { 2, 0, 9999, "", false } }, 1, -1, { 0, 5, 0 } },
        { 85, 0, { { 16, 0, 6 }, { 1, 0, 384, beyond, false } }, 1, -1, { 0, 1, 0 } },   // the mask is of class 1 now
        { 85, 0, { { 16, 0, 0 }, { 16, 1, 0, MISMATCH "2 New: 1" }, { 16, 2, 0, invalid } }, 1, 0, { 1, 0, 0 } },
        { 4, 1, { { 16, 0, 2 } }, 1, 2, { 1 << 10, 0, 0 } },
        { 4, 0, { { 16, 0, 2 }, { 1, 0, 3 } }, 2, 2, {} },
        { 4, -1, { { 16, 0, 2 } }, 1, 2, {} },
        { 15, 0, { { 16, 2, 2, invalid }, { 16, 1, 2 }, { 16, 0, 2, MISMATCH "1 New: 0" } }, 1, 2, {} },
        { 5, 0, { { 17, 1, 2 }, { 1, 1, 3 }, { 2, 1, 4 }, { 1, 1, 5, many, false } }, 3, 2, {} },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(rtslib_gencfg_create_peerinfo(&g, row.major == 73 ? 1 : 3), 0);
        g.major = row.major;
        in_4 = row.sysctl;
        for (const peer &p : row.peers) {
            gencfg_peerinfo_t peer = { 0, p.type, 0, p.choice, { p.index } };
            EXPECT_EQ(rtslib_gencfg_add_peerinfo(&g, &peer), *p.fault == '\0' ? 0 : -1);
            EXPECT_EQ(take_all(), p.fault);
        }
        for (const peer &p : row.peers)
            EXPECT_EQ(rtslib_gencfg_is_peer_present_in_peerinfo(&g, p.type, p.index), p.found ? 1 : 0) << p.index;
        EXPECT_EQ(g.peer_count, row.count);
        gencfg_msg m = {};
        m.peers = reinterpret_cast<gencfg_peerinfo *>(g.peers);
        m.peers_len = g.peer_count;
        EXPECT_EQ(rtslib_gencfg_get_peer_index(&m, 0), row.first);
        EXPECT_EQ(rtslib_gencfg_get_peer_index(&m, 3), -1);
        const uint32_t *words = rtslib_gencfg_get_peer_info(&m);
        EXPECT_EQ(words != nullptr, g.peer_count != 0 && g.peers[0].peer_choice == 2);
        for (int i : { 0, 1, 2 }) { EXPECT_EQ(words != nullptr ? words[i == 2 ? 7 : i] : 0, row.words[i]); }
        // Only masks can be equal.
        EXPECT_EQ(rtslib_gencfg_peer_info_compare(g.peers, g.peer_count, g.peers, g.peer_count),
                  words != nullptr || row.count == 0 ? 0 : 1);
        EXPECT_EQ(rtslib_gencfg_peer_info_compare(g.peers, g.peer_count, nullptr, 4), 1);
        rtslib_gencfg_delete_peerinfo(&g);
    }
}

TEST_F(BlobTest, StorageOfPeersAndDependencies)
{
    static gencfg_depinfo_t storage;
    gencfg_peerinfo_t peers[2];
    const auto add = [&](uint8_t type, uint32_t length, const void *data) {
        return rtslib_gencfg_add_depinfo(&g, type, 2, 3, length, data, 5);
    };
    allowance = 0;
    EXPECT_EQ(rtslib_gencfg_create_peerinfo(&g, 65), -1);
    EXPECT_EQ(rtslib_gencfg_create_peerinfo(&g, 64), -1);
    EXPECT_EQ(rtslib_gencfg_add_peerinfo_storage(&g, 2, peers, sizeof peers - 1), -1);
    EXPECT_EQ(rtslib_gencfg_create_depend(&g), -1);
    EXPECT_EQ(std::exchange(logged, {}).size(), 4U);
    EXPECT_EQ(rtslib_gencfg_add_peerinfo_storage(&g, 2, peers, sizeof peers), 0);
    EXPECT_EQ(rtslib_gencfg_add_depend_storage(&g, &storage, sizeof storage - 1), -1);
    EXPECT_EQ(add(1, 4, key), -1);
    allowance = 99;
    // Records up to their number, data up to its octets.
    EXPECT_EQ(rtslib_gencfg_create_depend(&g), 0);
    for (int i = 0; i < 73; i++) EXPECT_EQ(add(54, 1, key + i), i < 72 ? 0 : -1);
    EXPECT_EQ(rtslib_gencfg_add(cookie, &g), 0);
    gencfg_msg *m = sent();
    ASSERT_EQ(m->dep_len, 72U);
    const gencfg_depinfo &d = m->dep[1];
    EXPECT_TRUE(d.flag == 5 && d.type == 54 && d.value1 == 2 && d.value2 == 3 && d.data_len == 1 && d.data[0] == 'e');
    release();
    rtslib_gencfg_delete_depend(&g);
    EXPECT_EQ(rtslib_gencfg_add(cookie, &g), 22);   // its flag is still set
    EXPECT_EQ(rtslib_gencfg_add_depend_storage(&g, &storage, sizeof storage), 0);
    for (int r : { add(55, 1, key), add(1, 6461, blob.data()), add(1, 0, key), add(1, 1, nullptr) }) EXPECT_EQ(r, -1);
    EXPECT_EQ(add(1, 6457, blob.data()), 0);
    EXPECT_EQ(add(1, 1, key), -1);
    EXPECT_TRUE(g.dep_count == 1 && storage.used == 6460 && storage.data[6456] == 'b' && g.flags == 4);
}
