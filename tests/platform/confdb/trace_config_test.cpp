// Trace settings from the configuration.
#include "tests/platform/confdb/conf_fixture.h"

#include "platform/confdb/confdb.h"

class confdb_trace : public conf_fixture {};

TEST_F(confdb_trace, settings)
{
    const struct {
        std::string traceoptions;
        uint32_t classes;
        uint64_t size;
        uint32_t files;
        int errors;
    } rows[] = {
        { "traceoptions { flag all; }", 31, 1 << 20, 10, 0 },
        { "traceoptions { flag beep; flag { core; dump; } size 2048; files 3; }", 1 | 4 | 16, 2048, 3, 0 },
        { "traceoptions { flag octets; flag nonsense; size 1; files 0; }", 8, 1 << 20, 10, 3 },
        { "traceoptions { }", 0, 0, 0, 0 },
        { "", 0, 0, 0, 0 },   // takes back what was set before
    };
    static const char *const path[] = { "system", "services", "outbound-ssh", nullptr };
    struct dtf_options options = DTF_OPTIONS_INIT;
    daemon_trace_initialize(&options, "/var/log/keld");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.traceoptions);
        commit("system { services { outbound-ssh { " + row.traceoptions + " } } }");
        ASSERT_EQ(ddl_access_open_db(0, "keld", nullptr, -2, 0), 0);
        daemon_trace_read_config(0, path, &options);
        EXPECT_EQ(ddl_access_config_had_errors(), row.errors);
        log.clear();
        ddl_access_debug_emit_leaks(1, 1);
        EXPECT_EQ(log, "");
        EXPECT_EQ(ddl_access_close_db(0, 0), 0);
        for (int n = 0; n < DTF_CLASSES; n++)
            EXPECT_EQ(daemon_trace_wants(&options, n), (row.classes >> n & 1) != 0) << n;
        if (row.classes == 0) continue;
        EXPECT_EQ(options.dtf_max_size, row.size);
        EXPECT_EQ(options.dtf_max_files, row.files);
    }
    std::filesystem::remove_all(root + "/var/log");
    write("/var/log", "in the way");
    commit("system { services { outbound-ssh { traceoptions { flag all; } } } }");
    ASSERT_EQ(ddl_access_open_db(0, "keld", nullptr, -2, 0), 0);
    daemon_trace_read_config(0, path, &options);
    EXPECT_NE(log.find("trace file /var/log/keld cannot be opened, tracing is off: "), std::string::npos) << log;
    EXPECT_EQ(ddl_access_close_db(0, 0), 0);
}
