// Blobs: where they are kept, who hears of them, how many of them are deleted at once.
#include "lib/librtsock/rtslib_gencfg.h"
#include "tests/platform/rtsock/model/model_fixture.h"

using namespace std::string_literals;

class BlobTest : public ModelTest {
protected:
    std::string blob(uint8_t op, uint16_t minor, uint32_t flags, std::string key, uint32_t object, std::string text,
                     std::vector<gencfg_peerinfo> peers = {}, uint16_t major = 15)
    {
        gencfg_msg m = {};
        m.major = major;
        m.minor = minor;
        m.flags = flags;
        m.object_id = object;
        m.key = reinterpret_cast<uint8_t *>(key.data());
        m.key_len = uint32_t(key.size());
        m.blob = reinterpret_cast<uint8_t *>(text.data());
        m.blob_len = uint32_t(text.size());
        m.peers = peers.data();
        m.peers_len = uint32_t(peers.size());
        return ask(72, op, m);
    }
    /* What the flags of a kept blob are. */
    uint32_t flags(uint16_t minor, std::string key)
    {
        gencfg_t g = { .major = 15, .minor = minor, .key_len = uint16_t(key.size()), .key = key.data(), .flags = 2 };
        void *reply = nullptr;
        (void)rtslib_gencfg_get(asker, &g, RTM_OP_GET, &reply, nullptr);   // 45 for what is compressed
        uint32_t kept = reply != nullptr ? static_cast<gencfg_msg *>(reply)->flags : 0;
        rtslib_msg_idl_release(asker, reply);
        return kept;
    }
    /* Choice 1: value is the index; 2: a word of the mask. */
    static gencfg_peerinfo peer(uint8_t type, uint32_t choice, size_t word, uint32_t value)
    {
        gencfg_peerinfo p = { .peer_type = type, .peer_choice = choice };
        memcpy(p.peer + word * 4, &value, sizeof value);
        return p;
    }
};

TEST_F(BlobTest, they_are_kept_by_types_key_and_object)
{
    const std::string longest(250, 'k');
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 3, "a", 1, "one"), "");
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 3, "a", 2, "two"), "");
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 2, "a", 9, "keyed"), "");      // an object id without its flag does not count
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 2, "a\0"s, 0, "zero"), "");
    EXPECT_EQ(blob(RTM_OP_ADD_GET, 2, 1, "", 5, "other"), "15 2  5 other");
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 3, "a", 2, "again"), "-17");
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 2, longest + "k", 0, "x"), "-22");
    EXPECT_EQ(blob(RTM_OP_ADD, 1, 2, longest, 0, "x", {}, 16), "");
    for (uint32_t start : { 0, 2 }) EXPECT_EQ(blob(RTM_OP_ADD, 1, start, "", 0, "x"), "-22");
    EXPECT_EQ(blob(RTM_OP_ADD, 0, 4, "", 0, "bare", {}, 17), "");
    for (uint32_t start : { 0, 2 }) EXPECT_EQ(blob(RTM_OP_GETNEXT, 0, start, "", 0, "", {}, 17), "17 0  0 bare");
    EXPECT_EQ(blob(RTM_OP_GETNEXT, 0, 4, "", 0, "", {}, 17), "-2");
    heard();
    EXPECT_EQ(blob(RTM_OP_CHANGE, 1, 3, "a", 2, "changed"), "");
    EXPECT_EQ(blob(RTM_OP_GET, 1, 3, "a", 2, ""), "15 1 a 2 changed");
    EXPECT_EQ(blob(RTM_OP_GETNEXT, 0, 2, "", 0, ""), "15 1 a 9 keyed");
    EXPECT_EQ(blob(RTM_OP_GETNEXT, 1, 3, "a", 2, ""), "15 1 a\0 0 zero"s);
    EXPECT_EQ(blob(RTM_OP_GETNEXT, 2, 1, "", 5, ""), "-2");      // the next one is of another major type
    EXPECT_EQ(blob(RTM_OP_DELETE, 1, 2, "b", 0, ""), "-2");
    EXPECT_EQ(blob(RTM_OP_CHG_GET, 1, 0x400003, "a", 2, ""), "15 1 a 2 ");
    EXPECT_EQ(heard(), "change 15 1 a 2 changed, delete 15 1 a 2 changed");
    EXPECT_EQ(blob(RTM_OP_CHG_GET, 1, 0x800002, "a", 0, ""), "15 1 a 0 ");
    EXPECT_EQ(heard(), "delete 15 1 a 9 keyed, delete 15 1 a 1 one, delete 15 1 a\0 0 zero"s);
    EXPECT_EQ(blob(RTM_OP_CHG_GET, 2, 0x400000, "", 0, ""), "15 2  0 ");
    EXPECT_EQ(blob(RTM_OP_CHG_GET, 2, 0x400000, "", 0, ""), "-2");
    EXPECT_EQ(blob(RTM_OP_GET, 1, 2, longest, 0, "", {}, 16), "16 1 " + longest + " 0 x");
}

// Flags that tell of the blob or of dependencies stay until a change gives others.
TEST_F(BlobTest, flags_of_parts_stay_with_the_parts)
{
    const struct { uint8_t op; uint32_t flags; const char *text; uint32_t kept; } rows[] = {
        { RTM_OP_ADD, 0x20006, "squeezed", 0x20006 }, { RTM_OP_CHANGE, 2, "", 0x20006 },
        { RTM_OP_CHANGE, 0x1002, "plain", 0x1006 },   { RTM_OP_CHANGE, 0x20002, "", 6 },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(blob(row.op, 1, row.flags, "k", 0, row.text), "");
        EXPECT_EQ(flags(1, "k"), row.kept) << &row - rows;
    }
}

// The listener's sender id against peers.
TEST_F(BlobTest, peers_alone_hear_of_a_blob_that_has_some)
{
    const struct { uint8_t sender; std::vector<gencfg_peerinfo> peers; bool hears; } rows[] = {
        { 3, {}, true },
        { 3, { peer(1, 1, 0, 4) }, false },
        { 3, { peer(1, 1, 0, 4), peer(1, 1, 0, 3) }, true },
        { 47, { peer(16, 2, 7, 1U << 25) }, true },
        { 46, { peer(16, 2, 7, 1U << 25) }, false },
        { 47, { peer(1, 2, 7, 1U << 25) }, false },
        { 9, { peer(17, 2, 0, 1U << 7) }, true },        // group 1, slot 1
        { 1, { peer(17, 2, 0, 1U << 5) }, false },       // whose group says nothing of peer 1
        { 6, { peer(1, 2, 1, 1) }, false },              // of the other class than the peer put in last
        { 47, { peer(1, 2, 0, UINT32_MAX) }, false },    // its bit would be the 33rd
        { 60, { peer(16, 2, 7, UINT32_MAX) }, false },
    };
    for (const auto &row : rows) {
        rtslib_set_sender_id(listener, row.sender);
        EXPECT_EQ(blob(RTM_OP_ADD, 1, 2, "k", 0, "x", row.peers), "");
        EXPECT_EQ(blob(RTM_OP_DELETE, 1, 2, "k", 0, ""), "");
        EXPECT_EQ(heard(), row.hears ? "add 15 1 k 0 x, delete 15 1 k 0 x" : "") << &row - rows;
    }
}
