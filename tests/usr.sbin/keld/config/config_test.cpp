// The configuration as the daemon reads it: what is stored, what is reported, what the result is. And string arrays.
#include "usr.sbin/keld/config.h"

#include "tests/platform/confdb/alloc_faults.h"
#include "tests/platform/confdb/conf_fixture.h"
#include "usr.sbin/keld/beep/beep.h"
#include "usr.sbin/keld/str_array.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>

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
    const string address_error = "keld.conf:1:57: Unable to extract IPv4 address, set to all zero: found 'here', "
                                 "expected an IPv4 address\n";
    const string too_long = "certificate name ridiculously long, truncated to 1023 bytes";
    const struct { string stanza, name; uint32_t source; int result; string report; } rows[] = {
        { "", "", 0, 0, "" },
        { "local-certificate c.pem; source-address 192.0.2.1;", "c.pem", htonl(0xc0000201), 0, "" },
        { "source-address here;", "", 0, 1, address_error },
        { "local-certificate \"a\tb\";", "", 0, 1, ":1:60: certificate name left out: found 'a\\x09b', expected a" },
        { "local-certificate " + string(1023, 'c') + ";", string(1023, 'c'), 0, 0, "" },
        { "local-certificate " + string(1024, 'c') + ";", string(1023, 'c'), 0, 0, "" },   // cut without a report
        { "local-certificate " + string(1025, 'c') + ";", string(1023, 'c'), 0, 1, too_long },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(read(row.stanza), row.result) << row.stanza;
        EXPECT_EQ(config.kc_cert_name ? config.kc_cert_name : "", row.name);
        EXPECT_EQ(config.kc_source_addr, row.source);
        EXPECT_EQ(config.kc_servers, nullptr);
        EXPECT_NE(log.find(row.report), string::npos) << log;
        EXPECT_EQ(log.empty(), row.report.empty()) << log;
    }
}

TEST_F(keld_configuration, servers)
{
    const struct { string inside, servers; int result; const char *report; } rows[] = {
        { "192.0.2.10 { port 4000; user deploy; }", "192.0.2.10:4000 deploy 0;", 0, "" },
        { "192.0.2.9; 192.0.2.11; 192.0.2.10;",
          "192.0.2.9:3333  0;192.0.2.11:3333  0;192.0.2.10:3333  0;", 0, "" },
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
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("keld.conf:1:57: Unable to extract IPv4 address"));
    EXPECT_EQ(log, "");
    for (bool on : { true, false }) {
        EXPECT_EQ(read(on ? "traceoptions { flag beep; }" : ""), 0);
        EXPECT_EQ(daemon_trace_wants(&keld_dtf_options, DTF_BEEP), on);
    }
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
}

TEST_F(keld_configuration, any_allocation_may_fail)
{
    string reports;
    for (int n = 0; good_allocations = n, true; n++) {
        int result = read("local-certificate c; servers { 192.0.2.1; 192.0.2.2; }");
        bool failed = good_allocations == -1;
        good_allocations = -1;
        EXPECT_EQ(result, failed ? 1 : 0) << n;
        reports += log;
        if (!failed) break;
    }
    for (const char *text : { "Opening configuration database: keld.conf: out of memory\n",
                              "no memory, certificate name discarded\n",
                              "keld.conf:1:73: no memory, unable to read in configuration\n",
                              "keld.conf:1:84: no memory, unable to read in configuration\n" })
        EXPECT_NE(reports.find(text), string::npos) << text << reports;
}

TEST_F(keld_configuration, loads_the_good_authorities_whatever_stands_beside_them)
{
    string make_two = "cd " + root + " && for name in a b; do openssl req -x509 -newkey ec -pkeyopt "
                      "ec_paramgen_curve:P-256 -nodes -subj /CN=$name -keyout key -out $name.pem; done 2>openssl.log";
    ASSERT_EQ(system(make_two.c_str()), 0) << content("/openssl.log");
    keld_trace_init();
    ASSERT_EQ(daemon_trace_set(&keld_dtf_options, 1 << DTF_CORE, 0, 1), 0);
    commit("security { certificates {\n certification-authority {\n a { file /a.pem; }\n none;\n"
           "missing { file /missing.pem; }\n odd { file \"a\tb\"; }\n"
           "edge { file /" + string(1023, 'f') + "; }\n long { file /" + string(1024, 'f') + "; }\n"
           "b { file /b.pem; } } } }");
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    testing::internal::CaptureStderr();
    keld_config_certificates(context);
    string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context))), 2);
    SSL_CTX_free(context);
    ASSERT_EQ(daemon_trace_set(&keld_dtf_options, 0, 0, 1), 0);

    EXPECT_NE(printed.find("missing.pem"), string::npos) << printed;   // from the TLS library
    string trace = content("/var/log/keld");
    // A name of 1024 octets is not reported but cut, and so not found.
    for (const string &name : { string("missing.pem"), string(1022, 'f') + "\n" })
        EXPECT_NE(trace.find("Error loading trusted certificates from /" + name), string::npos) << trace;
    EXPECT_NE(log.find("keld.conf:6:13: cannot convert attribute to string: "), string::npos) << log;
    EXPECT_NE(log.find("keld.conf:8:14: file name too long: "), string::npos) << log;
    EXPECT_EQ(log.find("keld.conf:7"), string::npos) << log;
}

TEST(str_array, grows_by_doubling_and_keeps_the_order)
{
    struct str_array *array = nullptr;
    for (int i = 0; i < 257; i++) array = str_array_add(array, std::to_string(i).c_str());
    EXPECT_EQ(array->sa_capacity, 512u);
    array = str_array_add(array, "17");
    for (int i = 0; i < 257; i++) EXPECT_EQ(str_array_find(array, std::to_string(i).c_str()), i);
    str_array_clean(array);
    EXPECT_EQ(str_array_find(array, "17"), -1);
    array = str_array_add(array, "again");
    EXPECT_EQ(str_array_find(array, "again"), 0);
    str_array_free(array);
    EXPECT_EQ(str_array_find(nullptr, "x"), -1);
    str_array_clean(nullptr);
    str_array_free(nullptr);
}

TEST(str_array, memory_is_out)
{
    good_allocations = 0;
    EXPECT_EQ(str_array_add(nullptr, "a"), nullptr);
    struct str_array *array = str_array_add(str_array_init(2), "a");
    good_allocations = 0;
    EXPECT_EQ(str_array_add(array, "lost"), array);   // takes a slot that holds nothing
    EXPECT_EQ(str_array_find(array, "lost"), -1);
    good_allocations = 0;
    EXPECT_EQ(str_array_add(array, "c"), nullptr);    // cannot grow
    EXPECT_EQ(str_array_find(array, "a"), 0);
    array = str_array_add(array, "c");
    EXPECT_EQ(str_array_find(array, "c"), 2);
    str_array_free(array);
}
