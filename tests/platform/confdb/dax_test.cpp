// The dax_* face: values as readers see them, and what walks tell from one commit to the next. What was walked is
// remembered for the life of the process, so this is a program of its own.
#include "tests/platform/confdb/alloc_faults.h"
#include "tests/platform/confdb/conf_fixture.h"

#include "platform/chassis/chassis.h"
#include "platform/confdb/dax.h"

using std::string;

static const char *const clients_path[] = { "system", "services", "outbound-ssh", "client", nullptr };

enum { ALL = DAX_WALK_ALL, CHANGED = DAX_WALK_CHANGED };

/* Writes down operation and name of what it is told, and ends the walk at the name refused, with a "!". */
struct listener {
    string refused, told;
};

static int listen(struct dax_handle *handle, struct dax_object *element, int operation, void *argument)
{
    listener *self = static_cast<listener *>(argument);
    char deleted[256] = "";
    const char *name = deleted;
    EXPECT_EQ(dax_get_stringr_by_dwd_ident(handle, 0, 0, deleted, sizeof deleted), operation == DAX_DELETED);
    EXPECT_EQ(element != nullptr, operation <= DAX_CHANGED);
    if (element) (void)dax_get_string_by_name(element, "client-id", &name);
    self->told += (self->told.empty() ? "" : " ") + std::to_string(operation) + name;
    bool ends = self->refused == name && *name != '\0';
    if (ends) self->told += '!';
    return ends;
}

class dax : public conf_fixture {
protected:
    static struct dax_object *open(int check = 0)
    {
        struct dax_object *clients = nullptr;
        EXPECT_EQ(dax_open_db(0, "keld", 0, -2, check), 0);
        (void)dax_get_object_by_path(0, clients_path, &clients, 0);
        return clients;
    }
    static void close(struct dax_object *clients)
    {
        dax_release_object(&clients);
        EXPECT_EQ(dax_close_db(), 0);
    }
    /* What a walk over the clients tells; "absent" without the list. */
    string walk(const string &outbound, int mode = CHANGED, const string &refused = "", int memory = -1,
                int check = 0, const string &rest = "")
    {
        commit("system { services { " + outbound + " } }\n" + rest);
        listener self{ refused, "" };
        struct dax_object *clients = open(check);
        if (!clients) {
            close(nullptr);
            return "absent";
        }
        good_allocations = memory;
        bool failed = dax_walk_list(clients, mode, listen, &self) != 0;
        failed_memory = memory >= 0 && good_allocations < 0;
        good_allocations = -1;
        EXPECT_EQ(failed, self.told.ends_with('!') || failed_memory) << self.told;
        close(clients);
        return self.told;
    }
    bool failed_memory = false;
};

// Rows go on from one another.
TEST_F(dax, walks_tell_each_change_until_it_is_taken)
{
    const struct { string clients; int mode; string refused, told; } rows[] = {
        { "client { c; a { device-id x; secret s; } b; }", CHANGED, "", "1c 1a 1b" },
        { "client { a { secret s; /* */ device-id \"x\"; } } client { b; c; }", CHANGED, "", "" },
        { "client { a { device-id x; secret t; } b { servers 1; } }", CHANGED, "", "3c 2a 2b" },
        { "client { b { servers 1 { port 7; } } d; e; }", CHANGED, "b", "3a 2b!" },
        { "client { b { servers 1 { port 7; } } d; e; }", CHANGED, "d", "1b 1d!" },
        { "client { e; }", CHANGED, "b", "3b!" },               // d was told, so it is told to go
        { "client { e; }", CHANGED, "", "3b 3d 1e" },
        { "client { e; f; }", ALL, "", "1e 1f" },
        { "client { g; e; }", ALL, "e", "1g 1e!" },
        { "client { e; g; }", CHANGED, "", "3f 1e" },           // g was taken
        { "client { g; e; }", ALL, "", "1g 1e" },
        { "client g;", ALL, "", "1g" },
        { "client g;", CHANGED, "", "" },                       // e was left behind by a walk of all
        { "client { h; g; \"../x\"; \"\"; \"y\tz\"; }", CHANGED, "", "1h" },
        { "", CHANGED, "", "absent" },
        { "client { h; i; }", CHANGED, "", "3g 1h 1i" },        // who dropped h gets it back, who kept g loses it
        { "client \"../x\";", CHANGED, "", "4" },
        { "client { }", CHANGED, "", "" },
        { "client { h; }", CHANGED, "", "1h" },
    };
    for (const auto &row : rows)
        EXPECT_EQ(walk("outbound-ssh { " + row.clients + " }", row.mode, row.refused), row.told) << row.clients;
    EXPECT_EQ(walk(""), "absent");
    EXPECT_EQ(walk("outbound-ssh { client h; }"), "1h") << "a list goes with its stanza, too";
    EXPECT_EQ(walk("outbound-ssh { client i; }", CHANGED, "", -1, 1), "1i") << "a check is told all";
    EXPECT_EQ(walk("outbound-ssh { client h; }"), "") << "and nothing is remembered of it";
    EXPECT_EQ(walk("outbound-ssh { client { } }"), "4");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4);
    EXPECT_NE(log.find("found '../x', expected letters, digits and : . _ -, 1 to 237 octets\n"), string::npos) << log;
}

TEST_F(dax, no_client_is_lost_to_want_of_memory)
{
    string told;
    for (int n = 0; n == 0 || failed_memory; n++) told += walk("outbound-ssh { client { a; b; c; } }", 6, "", n);
    EXPECT_EQ(told, "1a1b1c") << "each once";
    EXPECT_EQ(walk("outbound-ssh { client { a { device-id x; } b; } }", CHANGED, "", 0), "3c");
    EXPECT_EQ(walk("outbound-ssh { client { a { device-id x; } b; } }"), "2a");
    EXPECT_EQ(walk("outbound-ssh { client { b; } }", ALL, "", 0), "");
    EXPECT_EQ(walk("outbound-ssh { client { b; } }"), "3a 1b") << "the walk of all had begun anew";
}

TEST_F(dax, the_chassis_puts_in_doubt_what_was_told)
{
    const struct { string chassis; bool cluster, master; int capabilities; string told; } rows[] = {
        { "chassis { cluster; routing-engine backup; capabilities 3; }", true, false, 3, "1a" },
        { "chassis { capabilities 3; cluster; routing-engine backup; }", true, false, 3, "" },
        { "chassis { routing-engine master; capabilities 0; }", false, true, 0, "1a" },
        { "chassis { routing-engine other; capabilities 256; }", false, true, -1, "1a" },
        { "", false, true, -1, "" },
    };
    (void)walk("outbound-ssh { client a; }");
    for (const auto &row : rows) {
        EXPECT_EQ(walk("outbound-ssh { client a; }", CHANGED, "", -1, 0, row.chassis), row.told) << row.chassis;
        EXPECT_EQ(nmchassis_cluster_is_enabled(), row.cluster);
        EXPECT_EQ(mcontrol_re_is_master(), row.master);
        EXPECT_EQ(nmchassis_cap_p ? nmchassis_cap_p->nc_capabilities : -1, row.capabilities);
    }
    EXPECT_EQ(log, "keld.conf:2:26: routing-engine left out: found 'other', expected one of master, backup\n"
                   "keld.conf:2:46: capabilities left out: found '256', expected a number from 0 to 255\n");
}

/* Writes down the values of a client and of its servers. */
static int read_values(struct dax_handle *, struct dax_object *element, int, void *argument)
{
    string *read = static_cast<string *>(argument);
    const char *address = "-", *secret = "-";
    uint16_t port = 1;
    uint32_t strategy = 9;
    struct dax_object *servers = nullptr;
    (void)dax_get_string_by_name(element, "address", &address);
    (void)dax_get_string_by_name(element, "secret", &secret);
    (void)dax_get_ushort_by_name(element, "port", &port);
    (void)dax_get_uint_by_name(element, "reconnect-strategy", &strategy);
    *read += string(address) + secret + std::to_string(port) + std::to_string(strategy) + " ";
    if (!dax_get_object_by_name(element, "servers", &servers, 0)) return 0;
    for (int mode : { CHANGED, ALL }) EXPECT_EQ(dax_walk_list(servers, mode, read_values, argument), 0);
    EXPECT_NE(dax_walk_list(element, ALL, read_values, argument), 0) << "no list";
    dax_release_object(&servers);
    return 0;
}

TEST_F(dax, values_that_break_their_rules_are_absent)
{
    dax_error(0, "Opening configuration database: %s", dax_open_db(0, "keld", 0, -2, 0));
    EXPECT_TRUE(log.starts_with("Opening configuration database: /var/etc/keld.conf: no configuration yet")) << log;
    log.clear();
    commit("system { services { outbound-ssh { client a {\nsecret \"" + string(255, 's') + "\";\n"
           "reconnect-strategy in-order; servers { b { port 65536; } c { port 7; } " +
           string(255, 'h') + "; } } } } }");
    struct dax_object *clients = open();
    string read;
    EXPECT_EQ(dax_walk_list(clients, ALL, read_values, &read), 0);
    EXPECT_EQ(read, "--11 b-19 c-79 b-19 c-79 ");   // inside an element, no walk remembers
    close(clients);
    EXPECT_TRUE(log.starts_with("keld.conf:2:8: secret left out: found a secret of 255 octets, expected ")) << log;
    EXPECT_NE(log.find("3:49: port left out: found '65536', expected a number from 1 to 65535\n"), string::npos) << log;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5);
}
