/*
 * The identification in front of outbound SSH: which octets are one, where it ends, and what its HMAC proves.
 */
#include "tools/kelserver/ssh_ident.h"

#include <gtest/gtest.h>

using std::string_literals::operator""s;

#define FRONT "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: r1\r\n"
#define MAC_OF_NOTHING "3e48575537919d9187078407ecb88e44b1d674e4"   // HMAC-SHA1, key "s3cret"
#define MAC_OF_KEY "fa129621217c3bbaa5af550e2721de38037b339d"       // over "ssh-rsa AAAA\n"
#define SSH "SSH-2.0-x\r\n"

TEST(ssh_ident, complete_unfinished_or_refused_with_a_reason)
{
    static const struct {
        std::string octets;
        const char *result;   // "" for a complete one, null for one that is not finished, or part of the fault
        enum ident_proof proof = ident_proof::ABSENT;
        const char *known_host = "";
    } rows[] = {
        { FRONT "\r\n" SSH, "" },
        { "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: \r\n\r\n" SSH, "" },
        { FRONT "\r\nHMAC: " MAC_OF_NOTHING "\r\n\r\n" SSH, "", ident_proof::MATCH },
        // A key file whose last word is no user@host keeps its line end, under the HMAC as well.
        { FRONT "HOST-KEY: ssh-rsa AAAA\n\0\r\nHMAC: "s + MAC_OF_KEY "\r\n\r\n" SSH, "", ident_proof::MATCH,
          "alias ssh-rsa AAAA\n" },
        { FRONT "HOST-KEY: ssh-rsa AAAA\0\r\nHMAC: "s + MAC_OF_KEY "\r\n\r\n" SSH, "", ident_proof::MISMATCH,
          "alias ssh-rsa AAAA\n" },
        { FRONT "HOST-KEY: ssh-rsa A*A\r\n\0\r\n\r\n\r\n"s + SSH, "" },   // no HMAC, and no key that ssh takes
        { FRONT "\r\n\r\n\r\n" SSH, "" },
        { FRONT "\r\n", nullptr },   // only what follows tells whether it is over
        { FRONT "HOST-KEY: k\0\r"s, nullptr },
        { FRONT SSH, "belongs to no identification" },
        { FRONT "\r\n\r\n" SSH, "belongs to no identification" },
        { FRONT "\r\n\r\n\r\n\r\n", "order" },
        { FRONT "HMAC: " MAC_OF_NOTHING "\r\n", "order" },
        { FRONT "HOST-KEY: k\0x"s, "behind the zero octet" },
        { FRONT "\r\nHMAC: " MAC_OF_NOTHING "0\r\n", "40 hexadecimal" },
        { FRONT "HOST-KEY: " + std::string(IDENT_KEY_MAX, 'k'), "longer than 16 KiB" },
        { "MSG-ID: DEVICE-CONN-INFO\nMSG-VER: V1\n" + std::string(IDENT_LINE_MAX, 'x'), "more than 1024" },
        { "MSG-ID: OTHER\r\n", "first line" },
        { "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V12\r\n", "second line" },
        { "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE: r1\r\n", "third line" },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.octets.substr(0, 200)));
        struct ident_reader reader;
        std::vector<std::string> lines;
        size_t taken = ident_feed(&reader, row.octets.data(), row.octets.size(), &lines);
        EXPECT_EQ(reader.complete, row.result && !*row.result);
        EXPECT_EQ(reader.fault != nullptr, row.result && *row.result);
        EXPECT_NE(std::string(reader.fault ? reader.fault : "").find(row.result ? row.result : ""), std::string::npos);
        if (!reader.complete) continue;
        EXPECT_EQ(row.octets.substr(taken), SSH);
        EXPECT_EQ(ident_check(&reader.ident, "s3cret"), row.proof);
        EXPECT_EQ(ident_known_host(&reader.ident, "alias"), row.known_host);
    }
}
