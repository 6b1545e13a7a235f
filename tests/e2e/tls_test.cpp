/*
 * Certificates: whom the daemon believes, and what it says and does when it does not.
 *
 * The test makes an authority of its own with the openssl program, and servers that it signed, that somebody else
 * signed, that signed themselves, and whose time is over.
 */
#include "tests/support/router.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

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
        "make() { openssl req " NEW_KEY "-subj \"/CN=$1\" -keyout $1.key -out $1.csr\n"
        "  openssl x509 -req -in $1.csr -days $2 $3 -out $1.crt; cat $1.crt $1.key > $1.pem; }\n"
        "signed() { make $1 $3 \"-CA $2.pem -CAkey $2.key -CAcreateserial\"; }\n"
        "self() { make $1 $2 \"-signkey $1.key\"; }\n"
        "authority ca; authority stranger\n"
        "signed trusted ca 2; signed untrusted stranger 2; signed expired ca -1; self self 2; self self-expired -1\n";
    std::string command = "cd " + folder + " && { " + script + "} > openssl.log 2>&1";
    EXPECT_EQ(system(command.c_str()), 0) << file_read(folder + "/openssl.log");
    return folder;
}

class remove_certificates : public testing::Environment {
    void TearDown() override { std::filesystem::remove_all(certificates()); }
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

#define REFUSED "KELD_PRIVATIZE_FAIL: certificate verification failed: "
#define NO_METHOD "KELD_PRIVATIZE_FAIL: SSL_CTX_new: "

TEST(tls, whom_the_daemon_believes)
{
    static const struct {
        const char *certificate, *security;
        const char *log;   // null: the session comes up and nothing is logged
    } rows[] = {
        { "trusted", "tls;", nullptr },
        { "self", "tls; self-certificate;", nullptr },
        { "trusted", "tls; self-certificate;", nullptr },
        { "untrusted", "tls;", REFUSED "num=20:" },
        { "untrusted", "tls; self-certificate;", REFUSED "num=20:" },
        { "expired", "tls;", REFUSED "certificate has expired\n" },
        { "self", "tls;", REFUSED "num=18:" },
        { "self-expired", "tls; self-certificate;", REFUSED "certificate has expired\n" },
        { "trusted", "ssl3;", NO_METHOD },
        { "trusted", "tls; ssl3;", NO_METHOD },
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
            // A handshake fails after the verdict, and each of the two says so once.
            bool verdict = strcmp(row.log, NO_METHOD) != 0;
            EXPECT_TRUE(logged(router, verdict ? "KELD_PRIVATIZE_FAIL: SSL_connect: error:" : NO_METHOD));
            std::string log = file_read(router.root + "/var/log/messages");
            EXPECT_LE(log.find(row.log), log.find("SSL_connect"));
            EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), verdict ? 2 : 1) << log;
        } else {
            EXPECT_TRUE(printed(server.process, "opened: notification"));
            EXPECT_TRUE(printed(server.process, "TLS is up: TLSv1.3"));
            EXPECT_EQ(file_read(router.root + "/var/log/messages"), "");
        }
        EXPECT_EQ(router_stop(router, keld), 0);
    }
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
