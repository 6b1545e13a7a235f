// Channel 0 messages: what the scanner makes of each text, and the formatters' texts.
#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <string.h>

#define START(inner) "<start number='1'>" inner "</start>"
#define PROFILE(content) "<profile uri='urn:a'>" content "</profile>"
#define REFUSED(why) "-Invalid message: " why

/* A message as "OP CHANNEL [CODE [TEXT]] [URI[=DATA]]...", zero octets in data as '~'. */
static std::string shown(const struct chan0_msg *msg)
{
    std::string text = std::string(1, msg->op ? msg->op : '?') + " " + std::to_string(msg->channel);
    if (msg->diagnostic) text += " " + std::to_string(msg->diagnostic->code);
    if (msg->diagnostic && msg->diagnostic->message) text += std::string(" ") + msg->diagnostic->message;
    for (const auto *entry = msg->profiles; entry; entry = entry->next) {
        text += std::string(" [") + entry->uri;
        if (entry->data) text += "=";
        for (int32_t i = 0; i < entry->length; i++) text += entry->data[i] ? entry->data[i] : '~';
        text += "]";
        EXPECT_EQ(entry->encoded, 0);
    }
    return text;
}

static std::string parsed(struct beep_session *session, char type, int32_t msgno, const std::string &text)
{
    (void)printed();
    auto *frame = frame_new(type, 0, msgno, '.', static_cast<int32_t>(text.size()), -1, text.data());
    struct chan0_msg *msg = chan0_msg_parse(session, frame);
    std::string prints = printed(), result = msg ? shown(msg) : "-" + prints.substr(0, prints.find('|'));
    chan0_msg_delete(msg);
    frame_free(frame);
    return result;
}

static void request(struct beep_session *session, int32_t msgno, char op, uint16_t channel)
{
    char uri[] = "urn:p";
    struct chan0_profile offer = { nullptr, uri, nullptr, 0, 0 };
    auto *msg = chan0_msg_new(channel, msgno, 'M', op, nullptr, op == 's' ? &offer : nullptr);
    ASSERT_EQ(bp_queue_put(session->bs_chan0_sent, reinterpret_cast<uintptr_t>(msg)), 0);
}

// Each row stands alone, with one <start> for channel 9 on its way as message 5.
TEST(chan0, texts_and_what_they_say)
{
    static const struct {
        char type;
        int32_t msgno;
        std::string text, result;   // or '-' and the first thing printed
    } rows[] = {
        // the frame of a message: MIME header, root element, white space
        { 'R', 0, "<greeting/>", "g 0" },
        { 'M', 0, MIME "<greeting></greeting>", "g 0" },
        { 'R', 0, " \t\r\n<greeting localize=\"en\" features\n=\n'a\"<b' />\n ", "g 0" },
        { 'R', 0, "", REFUSED("XML not well formed") },
        { 'R', 0, "Content-Type: application/BEEP+xml\r\n\r\n<greeting/>", REFUSED("MIME header not correct.") },
        { 'R', 0, "<?xml version='1.0'?><greeting/>", REFUSED("unexpected element.") },
        { 'R', 0, "<!-- c --><greeting/>", REFUSED("XML not well formed") },
        { 'M', 0, "<!x[CDATA[y]]>", "? 0" },   // a bad '!' is printed and otherwise overlooked
        { 'R', 0, "<greeting/>x", REFUSED("trailing garbage") },
        { 'R', 0, "</greeting>", REFUSED("Unexpected XML close tag") },
        { 'R', 0, "<greeting fine='1'/>", REFUSED("greeting, invalid attribute.") },
        { 'R', 0, "<greeting\x01/>", REFUSED("non-XML supported character  1") },
        // <start>
        { 'M', 0, "<start serverName='x' number = \"3\"/>", "s 3" },
        { 'M', 0, "<start number='70000'/>", "s 4464" },
        { 'M', 0, START("<profile/>"), "-chan0_parse: profile element missing required uri" },
        { 'M', 0, START(PROFILE("<rpc/>")), "-Programmer error: invalid parse level 2" },
        { 'M', 0, "<profile uri='urn:a'/>", "-Invalid first element 'p' in 'M' frame" },
        // piggybacks: what comes with a CDATA section keeps its opener, what comes without loses an octet
        { 'M', 0, START(PROFILE("<![CDATA[text]]>")), "s 1 [urn:a=<![CDATA[text]" },
        { 'M', 0, START(PROFILE("<![CDATA[<a]b]]c>]]>")), "s 1 [urn:a=<![CDATA[<a]b]]c>]" },
        { 'M', 0, START(PROFILE("text")), "s 1 [urn:a=tex]" },
        { 'M', 0, START(PROFILE("")), "s 1 [urn:a]" },
        { 'M', 0, START(PROFILE("text") "\n\n"), "s 1 [urn:a=tex~<]" },              // counted on behind the element
        { 'M', 0, START(PROFILE("<![CDATA[a]]><![CDATA[>")), "s 1 [urn:a=<![CDATA[a]]><![CD]" },   // the '>' ends it
        { 'M', 0, START("<profile uri='a' encoding='base64'>aGVsbG8= </profile>"), "s 1 [a=hello]" },
        { 'M', 0, START("<profile uri='a' encoding='base64'>aGVsbG8=</profile>"), "s 1 [a=hello]" },
        { 'M', 0, START("<profile encoding='' uri='a'>aGVsbG8=x</profile>"), "s 1 [a=aGVsbG8=]" },
        // double quotes do not end a uri; the closing tag does, for the first profile of a message
        { 'M', 0, START("<profile uri=\"urn:a\"></profile>"), "s 1 [urn:a]" },
        { 'M', 0, START("<profile uri=\"urn:a\"/>"), "s 1 [urn:a\"/></start>]" },
        { 'M', 0, START(PROFILE("<![CDATA[0]]>") PROFILE("<![CDATA[0]]>")),
          "s 1 [urn:a=<![CDATA[0] [urn:a=<![~DATA[0]" },
        // <close>
        { 'M', 0, "<close code=\"200\" xml:lang='en' number='7'>bye &lt;now&gt;</close>", "c 7 200 bye <now>" },
        { 'M', 0, "<close code='200'>a<profile uri='x'/>b</close>", "c 0 200 a [x]" },
        { 'M', 0, "<close number='1' code=''/>", "-missing attribute 'code'" },
        // <ok/> has the op of <close> and no code: it is never good
        { 'R', 5, "<ok/>", "-missing attribute 'code'" },
        { 'R', 5, MIME " <ok /> ", "-missing attribute 'code'" },
        { 'R', 5, "<ok></ok>", REFUSED("ok, must be empty tag.") },
        // <error> and other replies, which take what the request knows
        { 'E', 5, "<error code='550' xml:lang='en'>no</error>", "s 9 550 no [urn:p]" },
        { 'E', 5, "<close code='200'/>", "-<error> not found in 'E' frame" },
        { 'R', 5, "<error code='550'/>", "-<error> not in 'E' frame" },
        { 'R', 5, "<profile uri='urn:b'/>", "s 9 [urn:b]" },
        { 'R', 5, "<close code='200'/>", "s 9 200" },
    };
    struct beep_session session = {};
    session.bs_chan0_sent = bp_queue_new(BEEP_QUEUE_SIZE);
    for (const auto &row : rows) {
        request(&session, 5, 's', 9);
        EXPECT_EQ(parsed(&session, row.type, row.msgno, row.text), row.result) << row.text;
        bool answered = row.type != 'M' && row.result.starts_with("s 9");
        EXPECT_EQ(bp_queue_len(session.bs_chan0_sent), answered ? 0 : 1) << row.text;
        chan0_msg_delete(reinterpret_cast<struct chan0_msg *>(bp_queue_get(session.bs_chan0_sent)));
    }

    // replies out of order are refused, and the requests stay
    request(&session, 1, 's', 1);
    request(&session, 2, 'c', 3);
    EXPECT_EQ(parsed(&session, 'R', 2, "<close code='1'/>"), "-RPY/ERR to non-existant MSG or out-of-order");
    EXPECT_EQ(parsed(&session, 'R', 1, "<profile uri='u'/>"), "s 1 [u]");
    EXPECT_EQ(parsed(&session, 'R', 2, "<close code='1'/>"), "c 3 1");
    bp_queue_free(session.bs_chan0_sent);
}

TEST(chan0, texts_written)
{
    char buf[CHAN0_TEXT_MAX];
    const char *piggybacks[] = { nullptr, "<x a='1'>&" };
    const struct { size_t length; std::string text, wanted; } rows[] = {
        { chan0_fmt_start(buf, sizeof buf, 65535, table, 2, piggybacks), buf,
          MIME "<start number='-1'>\n<profile uri='urn:frame' />"
               "<profile uri='urn:message' ><![CDATA[<x a='1'>&]]></profile></start>" },
        { chan0_fmt_profile(buf, sizeof buf, table, "", 1), buf,
          MIME "<profile uri='urn:frame' ><![CDATA[]]></profile>" },
        { chan0_fmt_error(buf, sizeof buf, 7, nullptr), buf, MIME "<error code='  7' />" },
        { chan0_fmt_error(buf, sizeof buf, 553, "a<b"), buf, MIME "<error code='553' >a<b</error>" },
        { chan0_fmt_close(buf, sizeof buf, 65535, 200, nullptr), buf, MIME "<close number='65535' code='200' />" },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.text, row.wanted);
        EXPECT_EQ(row.length, row.wanted.size()) << row.wanted;
    }

    std::string whole = MIME "<close number='0' code='200' >bye</close>";
    for (size_t size = 0; size <= whole.size() + 1; size++) {
        std::string cut(size, '!');
        size_t stored = size > 0 ? size - 1 : 0;
        EXPECT_EQ(chan0_fmt_close(cut.data(), size, 0, 200, "bye"), stored) << size;
        EXPECT_EQ(cut.substr(0, stored), whole.substr(0, stored)) << size;
    }
}
