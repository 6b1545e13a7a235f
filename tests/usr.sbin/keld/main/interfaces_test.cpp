/*
 * Interface changes from the file to the wire: what a reload announces, how it is packed, what waits, and what running
 * out of memory leaves behind.
 */
#include "tests/platform/confdb/alloc_faults.h"
#include "tests/usr.sbin/keld/main/core_fixture.h"
#include "usr.sbin/keld/main/interfaces.h"

#include <fstream>

using std::string;

static const string opening = "<notification whatishappening=\"", closing = "</notification>";

class interface_changes : public core {
protected:
    void commit(const string &interfaces)
    {
        configure("127.0.0.1 { PORT; }");
        std::ofstream(root + "/var/etc/keld.conf", std::ios::app) << "interfaces { " << interfaces << " }\n";
    }
    void connect(const string &interfaces, bool confirmed = true)
    {
        start("");
        commit(interfaces);
        reload();
        greet();
        if (confirmed) open_channel();
    }
    void open_channel()
    {
        confirm("<keepalive>30</keepalive>");
        peer_send(server, "SEQ 1 0 100000000\r\n");
        turns();
    }
    /* The notifications since the last call: "added a.0 a.1|deleted b.0". */
    string announced()
    {
        turns();
        (void)heard(opening);
        string result;
        for (size_t at; (at = server.received.find(opening, seen)) != string::npos;) {
            seen = server.received.find(closing + "END\r\n", at);
            string text = server.received.substr(at, seen - at);
            longest = std::max(longest, text.size() + closing.size());
            size_t name = text.find('"', opening.size());
            result += (result.empty() ? "" : "|") + text.substr(opening.size(), name - opening.size());
            while ((name = text.find("<name>", name)) != string::npos) {
                name += strlen("<name>");
                result += " " + text.substr(name, text.find("</name></interface>\n", name) - name);
            }
        }
        return result;
    }
    string announced_by(const string &interfaces)
    {
        commit(interfaces);
        reload();
        return announced();
    }
    static void look()
    {
        keld_config_interfaces(false);
        send_notifications(ifl_added, ifl_deleted, ifl_changed);
    }
    size_t seen = 0, longest = 0;   // octets received; octets of the longest notification
};

TEST_F(interface_changes, are_announced_once_and_move_the_keepalive)
{
    connect("a { unit 0; unit 1 { mtu 1500; } } b;");
    pass(20);
    reload();
    EXPECT_EQ(announced(), "") << "what stood at connect";
    EXPECT_EQ(announced_by("b { unit 7; } a { unit 2; unit 1 { mtu 1400; } }"),
              "added b.7 a.2|deleted a.0|changed a.1");
    pass(9);
    reload();
    EXPECT_EQ(announced(), "") << "the same commit again";
    EXPECT_EQ(heard("<keepalive/>"), 1u);
    pass(1);
    EXPECT_EQ(heard("<keepalive/>"), 2u) << "10 s after the notifications, 15 s after the one before";

    const string cut(59, 'i'), odd = " { unit 0; } \"<y/>\" { unit 0; }";
    EXPECT_EQ(announced_by("a { unit 2; } " + cut + "x" + odd), "added " + cut + ".0|deleted b.7 a.1");
    EXPECT_EQ(logged("found '<y/>'"), 1u);
    EXPECT_EQ(announced_by("c;"), "deleted a.2 " + cut + ".0");
    EXPECT_EQ(announced_by("a { unit 2; }"), "added a.2");
}

TEST_F(interface_changes, wait_for_a_reload_that_can_send_them_or_the_end_of_the_session)
{
    connect("a { unit 0; }", false);
    EXPECT_EQ(announced_by("a { unit 1; }"), "") << "no channel yet";
    EXPECT_EQ(logged("7 KELD_NOTIFICATION_SEND_FAIL"), 2u);
    (void)announced_by("a;");
    EXPECT_EQ(logged("7 KELD_NOTIFICATION_SEND_FAIL"), 4u) << "the oldest, and the new one";
    EXPECT_EQ(notification_count, 0);
    open_channel();
    EXPECT_EQ(announced(), "");
    EXPECT_EQ(announced_by("a { unit 2; }"), "added a.1|deleted a.0|deleted a.1|added a.2");
    EXPECT_EQ(notification_count, 4);

    answer("MSG", 0, 1, "<close number='1' code='200'/>");
    (void)announced_by("a { unit 3; }");
    EXPECT_EQ(bp_queue_len(keld_notify_queue), 2);
    clean_up_session();
    EXPECT_EQ(keld_notify_queue, nullptr);
    EXPECT_EQ(notification_count + last_notifi_time, 0);
    peer_hang_up(server);
    server.received.clear();
    server.seqno.clear();
    seen = 0;
    (void)announced_by("a { unit 4 { mtu 1500; } }");
    keld_arm_retry(keld_evctx, KELD_FIRST_DELAY_S);
    turns();
    greet();
    open_channel();
    reload();
    EXPECT_EQ(announced(), "") << "what changed in between belongs to the new session's start";
}

TEST_F(interface_changes, are_packed_to_1024_octets)
{
    connect("");
    for (size_t last : { 10, 11 }) {   // just fits, with the terminator; does not
        struct str_array *names = str_array_add(nullptr, "");
        free(std::exchange(names->sa_items[0], nullptr));   // what a copy leaves that could not be made
        string text;
        for (size_t i = 0; i < 21; i++) {
            string name(i < 18 ? 9 : i < 20 ? 10 : last, static_cast<char>('a' + i));
            text += (last == 11 && i == 20 ? "|added " : " ") + name;
            names = str_array_add(names, name.c_str());
        }
        longest = 0;
        send_notifications(names, nullptr, nullptr);
        EXPECT_EQ(announced(), "added" + text);
        EXPECT_EQ(longest, last == 10 ? 1023u : 976u);
        EXPECT_EQ(names->sa_count, 0);
        str_array_free(names);
    }
}

TEST_F(interface_changes, of_10000_units_take_less_than_a_second)
{
#ifdef __SANITIZE_ADDRESS__
    static constexpr clock_t limit_s = 10;
#else
    static constexpr clock_t limit_s = 1;
#endif
    connect("");
    for (int first : { 0, 10000, 10000 }) {   // all new; all exchanged, which costs most; the same
        string units;
        for (int i = first; i < first + 10000; i++) units += "unit " + std::to_string(i) + " { mtu 1500; }\n";
        commit("ge-0/0/0 { " + units + " }");
        clock_t start = clock();
        look();
        EXPECT_LT(clock() - start, limit_s * CLOCKS_PER_SEC);
    }
    string text = announced();
    EXPECT_EQ(std::count(text.begin(), text.end(), ' '), 30000);
}

/* Whichever allocation fails: the next reload makes up for it, and nothing is announced twice or never. */
TEST_F(interface_changes, survive_any_failing_allocation)
{
    connect("");
    bool failed = true;
    for (int n = 0; failed; n++) {
        SCOPED_TRACE(n);
        commit("a { unit 0; unit 1 { mtu 1500; } }");
        look();
        (void)announced();
        for (struct str_array **list : { &ifl_added, &ifl_deleted, &ifl_changed })
            str_array_free(std::exchange(*list, nullptr));
        keld_drop_notifications();
        commit("a { unit 1 { mtu 1400; } unit 2; }");
        good_allocations = n;
        look();
        failed = good_allocations == -1;
        good_allocations = -1;
        look();
        string text = announced();
        EXPECT_EQ(text.size(), strlen("added a.2|deleted a.0|changed a.1")) << text;
        for (const char *part : { "added a.2", "deleted a.0", "changed a.1" })
            EXPECT_NE(text.find(part), string::npos) << text;
    }
    EXPECT_GE(logged("3 KELD_OUT_OF_MEMORY: Insufficient memory during attempt to identify interface changes"), 5u);
    EXPECT_GE(logged("3 KELD_OUT_OF_MEMORY: Insufficient memory during initialization of the notification queue"), 1u);
}

/* It used to leave no baseline: the next change announced every unit as added. */
TEST_F(interface_changes, of_a_scan_at_connect_that_failed_are_not_made_up)
{
    connect("");
    bool failed = true;
    for (int n = 0; failed; n++) {
        commit("a { unit 0; unit 1; }");
        good_allocations = n;
        keld_config_interfaces(true);
        failed = good_allocations == -1;
        good_allocations = -1;
        for (struct str_array *list : { ifl_added, ifl_deleted, ifl_changed }) str_array_clean(list);
        look();
        EXPECT_EQ(announced(), "") << n;
        commit("a { unit 0; unit 1; unit 2; }");
        look();
        EXPECT_EQ(announced(), "added a.2") << n;
    }
}
