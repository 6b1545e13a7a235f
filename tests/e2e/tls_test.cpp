/*
 * Certificates: whom the daemon believes, and what it says and does when it does not.
 *
 * The test makes an authority of its own with the openssl program, and servers that it signed, that somebody else
 * signed, that signed themselves, and whose time is over.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#define NEW_KEY "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "

/* A folder with ca.pem and trusted.pem, untrusted.pem, expired.pem, self.pem, self-expired.pem (chain and key each). */
static const std::string &certificates(void)
{
    static std::string folder;
    if (!folder.empty()) return folder;
    char name[] = "/tmp/keld-certificates-XXXXXX";
    folder = mkdtemp(name);
    static const char script[] =
        "set -e\n"
        "authority() { openssl req -x509 " NEW_KEY "-days 2 -subj \"/CN=$1\" -keyout $1.key -out $1.pem; }\n"
        "request() { openssl req " NEW_KEY "-subj \"/CN=$1\" -keyout $1.key -out $1.csr; }\n"
        "signed() { request $1; openssl x509 -req -in $1.csr -CA $2.pem -CAkey $2.key -CAcreateserial -days $3 -out "
        "$1.crt\n"
        "  cat $1.crt $1.key > $1.pem; }\n"
        "self() { request $1; openssl x509 -req -in $1.csr -signkey $1.key -days $2 -out $1.crt; cat $1.crt $1.key > "
        "$1.pem; }\n"
        "authority ca; authority stranger\n"
        "signed trusted ca 2; signed untrusted stranger 2; signed expired ca -1; self self 2; self self-expired -1\n";
    std::string command = "cd " + folder + " && { " + script + "} > openssl.log 2>&1";
    EXPECT_EQ(system(command.c_str()), 0) << file_read(folder + "/openssl.log");
    return folder;
}

class remove_certificates : public testing::Environment
{
    void TearDown() override
    {
        (void)!system(("rm -rf " + certificates()).c_str());
    }
};
static testing::Environment *const at_end = testing::AddGlobalTestEnvironment(new remove_certificates);

static constexpr char authorities[] =
    "security { certificates { certification-authority lab { file /var/etc/ssl/lab-ca.pem; } } }";

static void configure(const struct router &router, const std::string &port, const std::string &security)
{
    router_write(router, "/var/etc/ssl/lab-ca.pem", file_read(certificates() + "/ca.pem"));
    router_configure(router, "servers { 127.0.0.1 { port " + port + "; security-options { " + security + " } } }",
                     authorities);
}

TEST(tls, whom_the_daemon_believes)
{
    static const struct {
        const char *certificate, *security;
        const char *log;   // null: the session comes up and nothing is logged
    } rows[] = {
        { "trusted", "tls;", nullptr },
        { "self", "tls; self-certificate;", nullptr },
        { "trusted", "tls; self-certificate;", nullptr },
        { "untrusted", "tls;", "KELD_PRIVATIZE_FAIL: certificate verification failed: num=20:" },
        { "untrusted", "tls; self-certificate;", "KELD_PRIVATIZE_FAIL: certificate verification failed: num=20:" },
        { "expired", "tls;", "KELD_PRIVATIZE_FAIL: certificate verification failed: certificate has expired\n" },
        { "self", "tls;", "KELD_PRIVATIZE_FAIL: certificate verification failed: num=18:" },
        { "self-expired", "tls; self-certificate;",
          "KELD_PRIVATIZE_FAIL: certificate verification failed: certificate has expired\n" },
        { "trusted", "ssl3;", "KELD_PRIVATIZE_FAIL: SSL_CTX_new: " },
        { "trusted", "tls; ssl3;", "KELD_PRIVATIZE_FAIL: SSL_CTX_new: " },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.certificate) + ", " + row.security);
        struct router router;
        struct kelserver server = kelserver_start(router, { "--tls", certificates() + "/" + row.certificate + ".pem" });
        configure(router, server.port, row.security);
        struct process keld = router_start(router, "keld", { "-N" });
        if (row.log) {
            EXPECT_TRUE(logged(router, row.log));
            EXPECT_TRUE(printed(server.process, "#1 connection ended: "));
        } else {
            EXPECT_TRUE(printed(server.process, "opened: notification"));
            EXPECT_TRUE(printed(server.process, "TLS is up: TLSv1.3"));
            EXPECT_EQ(file_read(router.root + "/var/log/messages"), "");
        }
        EXPECT_EQ(router_stop(router, keld), 0);
    }
}

/* The handshake fails on the daemon's side after the verdict, and each of the two says so once. */
TEST(tls, failed_handshake_is_reported_after_its_reason)
{
    struct router router;
    struct kelserver server = kelserver_start(router, { "--tls", certificates() + "/untrusted.pem" });
    configure(router, server.port, "tls;");
    router_start(router, "keld", { "-N" });
    ASSERT_TRUE(logged(router, "KELD_PRIVATIZE_FAIL: SSL_connect: error:"));
    std::string log = file_read(router.root + "/var/log/messages");
    EXPECT_LT(log.find("certificate verification failed"), log.find("SSL_connect"));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

/* What an operator has to put right is tried once. A reload alone does not wake the daemon; taking the servers out and
 * putting them back does. */
TEST(tls, stalled_daemon_is_woken_by_servers_that_come_back)
{
    struct router router;
    struct kelserver server = kelserver_start(router, { "--tls", certificates() + "/self.pem" });
    configure(router, server.port, "tls;");
    struct process keld = router_start(router, "keld", { "-N" });
    ASSERT_TRUE(logged(router, "KELD_PRIVATIZE_FAIL: SSL_connect: error:"));

    std::string trace = router.root + "/var/log/keld";
    auto reload = [&](unsigned number) {
        kill(keld.pid, SIGHUP);
        return within_s(LIMIT_S, [&] {
            std::string text = file_read(trace);
            size_t at = 0;
            for (unsigned i = 0; i < number && at != std::string::npos; i++)
                at = text.find("re-reading configuration", at + 1);
            return at != std::string::npos;
        });
    };
    configure(router, server.port, "tls; self-certificate;");
    ASSERT_TRUE(reload(1));
    router_configure(router, "", authorities);
    ASSERT_TRUE(reload(2));
    EXPECT_EQ(file_read(server.process.output_path).find("#2"), std::string::npos);
    configure(router, server.port, "tls; self-certificate;");
    ASSERT_TRUE(reload(3));
    EXPECT_TRUE(printed(server.process, "#2 channel 1 opened: notification"));
}

TEST(tls, local_certificate_is_shown_or_reported)
{
    struct router router;
    struct kelserver server = kelserver_start(router, { "--tls", certificates() + "/trusted.pem" });
    auto configure_local = [&] {
        configure(router, server.port, "tls;");
        std::string text = file_read(router.root + "/var/etc/keld.conf");
        router_write(router, "/var/etc/keld.conf", text.replace(text.find("servers"), 0, "local-certificate r1.pem; "));
    };
    configure_local();
    struct process keld = router_start(router, "keld", { "-N" });
    EXPECT_TRUE(logged(router, "KELD_PRIVATIZE_FAIL: SSL_CTX_use_certificate_file: error:"));
    router_stop(router, keld);

    router_write(router, "/var/etc/ssl/local/r1.pem", file_read(certificates() + "/expired.pem"));
    router_start(router, "keld", { "-N" });
    EXPECT_TRUE(printed(server.process, "the router showed the certificate /CN=expired"));
}

TEST(tls, client_that_says_nothing_keeps_no_router_waiting)
{
    struct router router;
    struct peer silent;
    struct kelserver server = kelserver_start(router, { "--tls", certificates() + "/trusted.pem" });
    ASSERT_TRUE(peer_connect(silent, server.port));
    ASSERT_TRUE(printed(server.process, "#1 connection from"));
    configure(router, server.port, "tls;");
    router_start(router, "keld", { "-N" });
    EXPECT_TRUE(printed(server.process, "#2 channel 1 opened: notification"));
    EXPECT_EQ(file_read(server.process.output_path).find("#1 connection ended"), std::string::npos);
}
