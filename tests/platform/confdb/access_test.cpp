// The database as a reader meets it: opening, walking, values, and what is reported.
#include "tests/platform/confdb/alloc_faults.h"
#include "tests/platform/confdb/conf_fixture.h"

#include "platform/confdb/confdb.h"

#include <vector>

using std::string;

// A writer that adds to the committed file in the middle of its next readings.
static int readings_disturbed;

extern "C" {
ssize_t __real_pread(int fd, void *buffer, size_t size, off_t offset);
ssize_t __wrap_pread(int fd, void *buffer, size_t size, off_t offset);
}

ssize_t __wrap_pread(int fd, void *buffer, size_t size, off_t offset)
{
    ssize_t got = __real_pread(fd, buffer, size, offset);
    if (readings_disturbed > 0 && readings_disturbed--)
        std::ofstream(getenv("KELD_ROOT") + string("/var/etc/keld.conf"), std::ios::app) << "chassis { }";
    return got;
}

class confdb_access : public conf_fixture {
protected:
    static string open_error(int check = 0)
    {
        int error = ddl_access_open_db(0, "keld", nullptr, -2, check);
        return error ? ddl_access_strerror(error) : "";
    }
    void TearDown() override
    {
        (void)ddl_access_close_db(0, 0);
        conf_fixture::TearDown();
    }
    static struct ddl_object *find(struct ddl_object *parent, std::vector<const char *> path)
    {
        path.push_back(nullptr);
        struct ddl_object *object = ddl_access_object_find_by_name(parent, path.data(), 0, 0, 0);
        ddl_access_release(object);   // stays valid
        return object;
    }
    static std::vector<string> names(struct ddl_object *list)
    {
        std::vector<string> result;
        for (struct ddl_object *element = nullptr; ddl_access_visit_container(list, &element, 0);) {
            char name[256];
            EXPECT_GE(ddl_access_extract_id(element, name, sizeof name), 0);
            result.push_back(name);
        }
        return result;
    }
    static string text(struct ddl_object *object, const char *name)
    {
        struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
        char buffer[256] = "absent";
        if (!ddl_access_attribute_by_name(object, name, &attr)) return buffer;
        int length = ddl_access_attribute_string(buffer, sizeof buffer, &attr);
        ddl_access_attribute_invalidate(&attr);
        return length < 0 ? "no string" : buffer;
    }
};

TEST_F(confdb_access, which_file_is_read)
{
    EXPECT_EQ(open_error(),
              "/var/etc/keld.conf: no configuration yet, put one in force with keldctl commit FILE");
    EXPECT_EQ(find(nullptr, { "chassis" }), nullptr);
    EXPECT_NE(ddl_access_close_db(0, 0), 0);
    commit("chassis { }");
    ASSERT_EQ(open_error(1), "");   // no candidate: the committed one
    EXPECT_EQ(open_error(), "the configuration database is open already");
    EXPECT_NE(find(nullptr, { "chassis" }), nullptr);
    EXPECT_EQ(ddl_access_close_db(0, 0), 0);

    write("/var/etc/keld.conf.candidate", "chassis {");
    EXPECT_EQ(open_error(0), "");
    EXPECT_EQ(ddl_access_close_db(0, 0), 0);
    EXPECT_EQ(open_error(1), "keld.conf.candidate:1:10: found end of file, expected one of cluster, routing-engine, "
                             "capabilities, }");
    std::filesystem::resize_file(root + "/var/etc/keld.conf", DDL_ACCESS_TEXT_MAX + 1);
    EXPECT_EQ(open_error(0), "/var/etc/keld.conf: longer than 16777216 octets");
    commit("interfaces { } ");
    readings_disturbed = 3;
    EXPECT_EQ(open_error(0), "/var/etc/keld.conf: written to while it was read, try again");
    readings_disturbed = 1;
    EXPECT_EQ(open_error(0), "");
    EXPECT_NE(find(nullptr, { "chassis" }), nullptr);
}

TEST_F(confdb_access, what_stands_twice_is_one)
{
    string units;
    for (int i = 0; i < 1000; i++) units += "interfaces { b { unit " + std::to_string(i) + " { mtu 1500; } } }\n";
    commit("interfaces z { mtu 1000; description last; }\n" + units + "interfaces { z { mtu 2000; } a; }");
    ASSERT_EQ(open_error(), "");
    struct ddl_object *list = find(nullptr, { "interfaces", "<*>" });
    EXPECT_EQ(names(list), (std::vector<string>{ "z", "b", "a" }));
    struct ddl_object *interface = nullptr;
    ASSERT_TRUE(ddl_access_visit_container(list, &interface, 0));
    EXPECT_EQ(text(interface, "mtu"), "2000");
    EXPECT_EQ(text(interface, "description"), "last");
    ASSERT_TRUE(ddl_access_visit_container(list, &interface, 0));
    EXPECT_EQ(names(find(interface, { "unit", "<*>" })).size(), 1000u);
    ddl_access_release(interface);
}

TEST_F(confdb_access, values_are_judged_where_they_are_read)
{
    commit("system { services { service-deployment { local-certificate \"a\\\"b\\\\c\\d\";\n"
           " servers 192.0.2.1 { port 99999; user \"tab\there\"; } } } }\nchassis { cluster; routing-engine backup; }");
    ASSERT_EQ(open_error(), "");
    struct ddl_object *stanza = find(nullptr, { "system", "services", "service-deployment" });
    EXPECT_EQ(text(stanza, "local-certificate"), "a\"b\\c\\d");
    struct ddl_object *chassis = find(nullptr, { "chassis" });
    EXPECT_EQ(text(chassis, "cluster"), "absent");
    EXPECT_TRUE(ddl_access_object_configured(chassis, "cluster", 0));
    EXPECT_EQ(find(chassis, { "cluster" }), nullptr);

    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    uint32_t number = 7;
    uint16_t port = 7;
    ASSERT_TRUE(ddl_access_attribute_by_name(chassis, "routing-engine", &attr));
    EXPECT_TRUE(ddl_access_attribute_uint(&number, &attr));
    EXPECT_EQ(number, 1u);
    char cut[4];
    EXPECT_EQ(ddl_access_attribute_string(cut, sizeof cut, &attr), 6);
    EXPECT_STREQ(cut, "bac");

    struct ddl_object *servers = ddl_access_object_find_by_aid(stanza, 3, 0, 0, 0), *server = nullptr;
    ASSERT_TRUE(ddl_access_visit_container(servers, &server, 0));
    ASSERT_TRUE(ddl_access_attribute_by_aid(server, 2, &attr));
    EXPECT_FALSE(ddl_access_attribute_ushort(&port, &attr));
    EXPECT_EQ(port, 7);
    EXPECT_EQ(log, "");
    ddl_access_attribute_error(server, &attr, "unable to extract %s", "port");
    EXPECT_EQ(text(server, "user"), "no string");
    ddl_access_config_error(server, "server is odd");
    ddl_access_config_error(nullptr, "database is odd");
    EXPECT_EQ(log, "keld.conf:2:27: unable to extract port: found '99999', expected a number from 1 to 65535\n"
                   "keld.conf:2:10: server is odd\n"
                   "database is odd\n");
    EXPECT_EQ(ddl_access_config_had_errors(), 3);
    EXPECT_EQ(ddl_access_close_db(0, 0), 0);
    EXPECT_EQ(ddl_access_config_had_errors(), 3);   // until the next opening

    log.clear();   // server, servers and attr are still out
    ddl_access_debug_emit_leaks(1, 1);
    EXPECT_EQ(log, "7: configuration database: not given back: objects 2, attributes 1\n");
    ddl_access_attribute_invalidate(&attr);
    ddl_access_release(server);
    ddl_access_release(servers);
    ddl_access_debug_emit_leaks(1, 1);
    ddl_access_resource_had_mismatch(1, 0, 0);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(confdb_access, unsafe_names_are_left_out)
{
    commit("interfaces { \"a b\"; ge-0/0/0:1.2_x; \"\"; b; \"<x/>\" { unit 0; } }");
    ASSERT_EQ(open_error(1), "");
    testing::internal::CaptureStderr();   // where a check reports
    EXPECT_EQ(names(find(nullptr, { "interfaces", "<*>" })), (std::vector<string>{ "ge-0/0/0:1.2_x", "b" }));
    const string rule = "expected letters, digits and / : . _ -, 1 to 59 octets\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "keld.conf:1:14: found 'a b', " + rule +
                                                          "keld.conf:1:37: found '', " + rule +
                                                          "keld.conf:1:44: found '<x/>', " + rule);
    EXPECT_EQ(log, "");
    EXPECT_EQ(ddl_access_config_had_errors(), 3);
}

TEST_F(confdb_access, any_allocation_may_fail)
{
    string units;
    const string block = " { description \"" + string(90, 'x') + "\"; }";
    for (int i = 0; i < 200; i++) units += "unit " + std::to_string(i) + block;
    commit("interfaces a { " + units + " }");
    int refused = 0;
    for (int n = 0; good_allocations = n, true; n++) {
        string error = open_error();
        bool failed = good_allocations == -1;
        good_allocations = -1;
        if (!failed) break;
        refused += !error.empty();
        if (error.empty())   // only the hash table may do without
            EXPECT_EQ(names(find(nullptr, { "interfaces" })), std::vector<string>{ "a" });
        else
            EXPECT_NE(error.find("keld.conf: out of memory"), string::npos) << n << ": " << error;
        (void)ddl_access_close_db(0, 0);
    }
    EXPECT_GE(refused, 5);
}

TEST_F(confdb_access, trace_settings)
{
    const struct { string traceoptions; uint32_t classes; uint64_t size; uint32_t files; int errors; } rows[] = {
        { "traceoptions { flag all; }", 31, 1 << 20, 10, 0 },
        { "traceoptions { flag beep; flag { core; dump; } size 2048; files 3; }", 1 | 4 | 16, 2048, 3, 0 },
        { "traceoptions { flag octets; flag nonsense; size 1; files 0; }", 8, 1 << 20, 10, 3 },
        { "", 0, 1 << 20, 10, 0 },   // takes back what was set before
    };
    static const char *const path[] = { "system", "services", "outbound-ssh", nullptr };
    struct dtf_options options = DTF_OPTIONS_INIT;
    daemon_trace_initialize(&options, "/var/log/keld");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.traceoptions);
        commit("system { services { outbound-ssh { " + row.traceoptions + " } } }");
        ASSERT_EQ(open_error(), "");
        daemon_trace_read_config(0, path, &options);
        EXPECT_EQ(ddl_access_config_had_errors(), row.errors);
        log.clear();
        ddl_access_debug_emit_leaks(1, 1);
        EXPECT_EQ(log, "");
        EXPECT_EQ(ddl_access_close_db(0, 0), 0);
        for (int n = 0; n < DTF_CLASSES; n++)
            EXPECT_EQ(daemon_trace_wants(&options, n), (row.classes >> n & 1) != 0) << n;
        EXPECT_EQ(options.dtf_max_size, row.size);
        EXPECT_EQ(options.dtf_max_files, row.files);
    }
    std::filesystem::remove_all(root + "/var/log");
    write("/var/log", "in the way");
    commit("system { services { outbound-ssh { traceoptions { flag all; } } } }");
    ASSERT_EQ(open_error(), "");
    daemon_trace_read_config(0, path, &options);
    EXPECT_NE(log.find("trace file /var/log/keld cannot be opened, tracing is off: "), string::npos) << log;
}
