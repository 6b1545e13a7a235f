// Trusted certificates: the good ones are loaded whatever stands beside them.
#include "usr.sbin/keld/config.h"

#include "tests/platform/confdb/conf_fixture.h"
#include "usr.sbin/keld/beep/beep.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

using std::string;

class keld_certificates : public conf_fixture {
protected:
    /* A self-signed authority with this name, in the file at path below the root. */
    void authority(const string &path, const string &name)
    {
        EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
        X509 *certificate = X509_new();
        ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        X509_NAME *subject = X509_get_subject_name(certificate);
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name.c_str()),
                                   -1, -1, 0);
        X509_set_issuer_name(certificate, subject);
        X509_sign(certificate, key, EVP_sha256());
        FILE *file = fopen((root + path).c_str(), "w");
        PEM_write_X509(file, certificate);
        fclose(file);
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
    int loaded()
    {
        SSL_CTX *context = SSL_CTX_new(TLS_client_method());
        testing::internal::CaptureStderr();
        keld_config_certificates(context);
        printed = testing::internal::GetCapturedStderr();
        int count = sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context)));
        SSL_CTX_free(context);
        return count;
    }
    string printed;
};

TEST_F(keld_certificates, each_authority_stands_for_itself)
{
    EXPECT_EQ(loaded(), 0);
    EXPECT_TRUE(log.starts_with("Opening configuration database: ")) << log;
    log.clear();
    std::filesystem::create_directories(root + "/var/etc/ssl");
    authority("/var/etc/ssl/a.pem", "a");
    authority("/var/etc/ssl/b.pem", "b");
    keld_trace_init();
    ASSERT_EQ(daemon_trace_set(&keld_dtf_options, 1 << DTF_CORE, 0, 1), 0);
    commit("security { certificates {\n certification-authority {\n a { file /var/etc/ssl/a.pem; }\n none;\n"
           "missing { file /var/etc/ssl/missing.pem; }\n odd { file \"a\tb\"; }\n"
           "edge { file /" + string(1023, 'f') + "; }\n long { file /" + string(1024, 'f') + "; }\n"
           "b { file /var/etc/ssl/b.pem; } } } }");
    EXPECT_EQ(loaded(), 2);
    ASSERT_EQ(daemon_trace_set(&keld_dtf_options, 0, 0, 1), 0);

    EXPECT_NE(printed.find("missing.pem"), string::npos) << printed;   // from the TLS library
    string trace = content("/var/log/keld");
    EXPECT_NE(trace.find("Error loading trusted certificates from /var/etc/ssl/missing.pem"), string::npos) << trace;
    // A name of 1024 octets is not reported but cut, and so not found.
    EXPECT_NE(trace.find("Error loading trusted certificates from /" + string(1022, 'f') + "\n"), string::npos);
    EXPECT_NE(log.find("keld.conf:6:13: cannot convert attribute to string: "), string::npos) << log;
    EXPECT_NE(log.find("keld.conf:8:14: file name too long: "), string::npos) << log;
    EXPECT_EQ(log.find("keld.conf:7"), string::npos) << log;
}
