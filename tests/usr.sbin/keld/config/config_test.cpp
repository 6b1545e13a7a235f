// The service-deployment stanza: what is stored, what is reported, what the result is.
#include "usr.sbin/keld/config.h"

#include "tests/platform/confdb/alloc_faults.h"
#include "tests/platform/confdb/conf_fixture.h"
#include "usr.sbin/keld/beep/beep.h"

#include <arpa/inet.h>

using std::string;

class keld_configuration : public conf_fixture {
protected:
    void TearDown() override
    {
        keld_config_free(&config);
        conf_fixture::TearDown();
    }
    /* Reads the stanza with the given contents into config. */
    int read(const string &stanza, int check = 0)
    {
        log.clear();
        keld_config_free(&config);
        commit("system { services { service-deployment { " + stanza + " } } }");
        return keld_config(check, check ? nullptr : &config);
    }
    string servers() const
    {
        string text;
        const struct keld_server *server = config.kc_servers;
        for (; server && (text.empty() || server != config.kc_servers); server = server->ks_next) {
            struct in_addr address = { server->ks_addr };
            char line[200];
            snprintf(line, sizeof line, "%s:%d %s %#x;", inet_ntoa(address), server->ks_port, server->ks_user,
                     server->ks_security);
            text += line;
            EXPECT_EQ(server->ks_next->ks_prev, server);
        }
        return text;
    }
    struct keld_config_data config = {};
};

TEST_F(keld_configuration, results_without_servers)
{
    EXPECT_EQ(keld_config(0, &config), 1);
    EXPECT_EQ(log, "Opening configuration database: /var/etc/keld.conf: no configuration yet, put one in force with "
                   "keldctl commit FILE\n");
    commit("interfaces { }");
    EXPECT_EQ(keld_config(0, &config), -1);
    EXPECT_EQ(keld_config(1, nullptr), -1);
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(config.kc_cert_name, nullptr);
    EXPECT_EQ(config.kc_source_addr, 0u);
    EXPECT_EQ(config.kc_servers, nullptr);
    EXPECT_EQ(read("local-certificate router.pem; source-address 192.0.2.1;"), 0);
    EXPECT_STREQ(config.kc_cert_name, "router.pem");
    EXPECT_EQ(config.kc_source_addr, htonl(0xc0000201));
    EXPECT_EQ(read("source-address 192.0.2.256;"), 1);
    EXPECT_EQ(log, "keld.conf:1:57: Unable to extract IPv4 address, set to all zero: found '192.0.2.256', expected an "
                   "IPv4 address\n");
    EXPECT_EQ(config.kc_source_addr, 0u);
    EXPECT_EQ(read("local-certificate \"a\tb\";"), 1);
    EXPECT_TRUE(log.starts_with("keld.conf:1:60: certificate name left out: found 'a\\x09b', expected a file name")) << log;
    EXPECT_EQ(config.kc_cert_name, nullptr);
}

TEST_F(keld_configuration, length_of_the_certificate_name)
{
    const struct { size_t length, stored; int result; } rows[] = {
        { 1023, 1023, 0 },
        { 1024, 1023, 0 },   // cut without a report
        { 1025, 1023, 1 },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(read("local-certificate " + string(row.length, 'c') + ";"), row.result) << row.length;
        EXPECT_EQ(string(config.kc_cert_name), string(row.stored, 'c'));
        EXPECT_EQ(log.find("certificate name ridiculously long, truncated to 1023 bytes") != string::npos,
                  row.result == 1);
    }
}

TEST_F(keld_configuration, servers)
{
    const struct { string inside, servers; int result; const char *report; } rows[] = {
        { "192.0.2.10 { port 4000; user deploy; }", "192.0.2.10:4000 deploy 0;", 0, "" },
        { "192.0.2.9; 192.0.2.11; 192.0.2.10;",
          "192.0.2.9:3333  0;192.0.2.11:3333  0;192.0.2.10:3333  0;", 0, "" },
        { "192.0.2.1 { security-options { tls; } }", "192.0.2.1:3333  0x1;", 0, "" },
        { "192.0.2.1 { security-options { ssl3; tls; self-certificate; } }", "192.0.2.1:3333  0x102;", 0, "" },
        { "192.0.2.1 { security-options { self-certificate; } }", "192.0.2.1:3333  0;", 0, "" },
        { "192.0.2.1 { security-options { self-certificate; tls; } }", "192.0.2.1:3333  0x101;", 0, "" },
        { "192.0.2.1 { user " + string(70, 'u') + "; }", "192.0.2.1:3333 " + string(64, 'u') + " 0;", 0, "" },
        // Every error is counted, and one more for the servers as a whole; the rest of the list is taken.
        { "host; 192.0.2.1;", "0.0.0.0:3333  0;192.0.2.1:3333  0;", 2, "unable to extract server address as ipv4" },
        { "192.0.2.1 { port 0; } 192.0.2.2;", "192.0.2.1:0  0;192.0.2.2:3333  0;", 2, "unable to extract port" },
        { "192.0.2.1 { user \"\"; } x;", "192.0.2.1:3333  0;0.0.0.0:3333  0;", 3, "unable to extract user" },
        { "\"\"; 192.0.2.1;", "192.0.2.1:3333  0;", 1, "found ''" },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(read("servers { " + row.inside + " }"), row.result) << row.inside;
        EXPECT_EQ(servers(), row.servers) << row.inside;
        EXPECT_EQ(log.empty(), row.result == 0) << log;
        EXPECT_NE(log.find(row.report), string::npos) << log;
        EXPECT_EQ(log.find("not given back"), string::npos) << log;
    }
}

TEST_F(keld_configuration, a_check_passes_over_servers_and_trace_settings)
{
    keld_trace_init();
    testing::internal::CaptureStderr();
    EXPECT_EQ(read("servers { nonsense { port 0; } } traceoptions { flag beep; }", 1), 0);
    EXPECT_FALSE(daemon_trace_wants(&keld_dtf_options, DTF_BEEP));
    EXPECT_EQ(read("source-address here;", 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "keld.conf:1:57: Unable to extract IPv4 address, set to all zero: found 'here', expected an IPv4 "
              "address\n");
    EXPECT_EQ(log, "");
    EXPECT_EQ(read("traceoptions { flag beep; }"), 0);
    EXPECT_TRUE(daemon_trace_wants(&keld_dtf_options, DTF_BEEP));
    EXPECT_EQ(read(""), 0);
    EXPECT_FALSE(daemon_trace_wants(&keld_dtf_options, DTF_BEEP));
}

TEST_F(keld_configuration, moves)
{
    struct keld_config_data other = {};
    for (const char *name : { "old", "new" }) {
        ASSERT_EQ(read(string("local-certificate ") + name + "; servers { 192.0.2.1; 192.0.2.2; }"), 0);
        keld_config_mv(&config, &other);
        EXPECT_EQ(config.kc_servers, nullptr);
        EXPECT_EQ(config.kc_cert_name, nullptr);
        EXPECT_STREQ(other.kc_cert_name, name);
    }
    keld_config_free(&other);
    EXPECT_EQ(other.kc_servers, nullptr);
    keld_config_free(&other);
}

TEST_F(keld_configuration, any_allocation_may_fail)
{
    const string stanza = "local-certificate c; servers { 192.0.2.1; 192.0.2.2; }";
    string reports;
    for (int n = 0; good_allocations = n, true; n++) {
        int result = read(stanza);
        bool failed = good_allocations == -1;
        good_allocations = -1;
        EXPECT_EQ(result, failed ? 1 : 0) << n;
        reports += log;
        if (!failed) break;
    }
    const char *const told[] = {
        "Opening configuration database: keld.conf: out of memory\n",
        "no memory, certificate name discarded\n",
        "keld.conf:1:73: no memory, unable to read in configuration\n",
        "keld.conf:1:84: no memory, unable to read in configuration\n",
    };
    for (const char *text : told) EXPECT_NE(reports.find(text), string::npos) << text << reports;
}
