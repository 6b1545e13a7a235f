// Whole texts, good and bad: one row each, with the message that an operator gets.
#include "platform/confdb/confdb.h"

#include <gtest/gtest.h>

using std::string;

static string fault_of(const string &text)
{
    char error[DDL_ACCESS_ERROR_MAX] = "";
    int result = ddl_access_check_text("/some/where/c", text.data(), text.size(), error, sizeof error);
    EXPECT_EQ(result, error[0] == '\0' ? 0 : -1);
    return error;
}

static string client(const string &inside)
{
    return "system { services { outbound-ssh { client c { " + inside + " } } } }";
}

static string deployment(const string &inside)
{
    return "system { services { service-deployment { " + inside + " } } }";
}

TEST(confdb_check, good_and_bad_texts)
{
    const string none_of_them = ", expected one of system, security, interfaces, chassis, end of file";
    const string free_text = "UTF-8 text without control characters,";
    const string file_name = "a file name in UTF-8, without / and control characters and not . or .., 1 to 1023 octets";
    const struct { string text, fault; } rows[] = {
        { "# only a comment", "" },
        { "system { services { } } system{}\r\n", "" },
        { "chassis{routing-engine backup;# at a word's end\ncluster/* and here */;}", "" },
        { "\"system\" { }", "c:1:1: found 'system'" + none_of_them },
        { "system {\n\tservices", "c:2:10: found end of file, expected {" },
        { "system { } }", "c:1:12: found '}'" + none_of_them },
        { "chassis { cluster }", "c:1:19: found '}', expected ;" },
        { "chassis { capabilities; }", "c:1:23: found ';', expected a value" },
        { "interfaces;", "c:1:11: found ';', expected a name or {" },
        { "interfaces { { } }", "c:1:14: found '{', expected a name or }" },
        { "interfaces { a { unit 0 { family { inet { address { 10.0.0.1/8 { x; } } } } } } }",
          "c:1:66: found 'x', expected }" },
        { "interfaces a {\n  description \"no end\n;}",
          "c:2:15: found a string without its end, expected \" on the same line" },
        { "interfaces a { description \"ends in \\\"",
          "c:1:28: found a string without its end, expected \" on the same line" },
        { "system { /* {", "c:1:10: found a comment without its end, expected */" },
        { string("interfaces a\0b;", 15), "c:1:13: found a control character, expected text" },
        { string("interfaces \"a\0b\";", 17), "c:1:12: found a zero octet in a string, expected text" },
        { "\xff\x1b[2J" + string(100, 'x'), "c:1:1: found '\\xff'" + none_of_them },
        { string(100, 'x'), "c:1:1: found '" + string(40, 'x') + "...'" + none_of_them },

        { client("secret \"a \\\"quoted\\\" {;} \xc3\xa9\"; reconnect-strategy in-order; services netconf;"), "" },
        { client("servers { \"host name\" { port 65535; retry 4294967295; } 192.0.2.1; }"), "" },
        { client("keep-alive { retry 4294967296; }"),
          "c:1:66: found '4294967296', expected a number from 0 to 4294967295" },
        { client("reconnect-strategy stuck;"), "c:1:66: found 'stuck', expected one of sticky, in-order" },
        { client("device-id \"a\tb\";"), "c:1:57: found 'a\\x09b', expected " + free_text + " 0 to 254 octets" },
        // No message shows a secret, nor what may be the rest of one without quotes.
        { client("secret \"a\tb\";"),
          "c:1:54: found a secret of 3 octets, expected " + free_text + " 0 to 254 octets" },
        { client("secret pass word;"), "c:1:59: found text behind a secret, expected ;" },
        { "system { services { outbound-ssh { client \"../../x\"; client " + string(237, 'c') + "; } } }",
          "c:1:43: found '../../x', expected letters, digits and : . _ -, 1 to 237 octets" },
        { deployment("local-certificate r1.pem; local-certificate .r1;"), "" },
        { deployment("local-certificate local/r1.pem;"), "c:1:60: found 'local/r1.pem', expected " + file_name },
        { deployment("local-certificate ..;"), "c:1:60: found '..', expected " + file_name },
        { "security { certificates { certification-authority lab { file ssl/lab.pem; } } }",
          "c:1:62: found 'ssl/lab.pem', expected an absolute path in UTF-8 without control characters, 1 to 1023 "
          "octets" },
        { "interfaces { ge-0/0/0 { unit 0123456789; } }",
          "c:1:30: found '0123456789', expected letters, digits and / : _ -, 1 to 9 octets" },
        { "interfaces a { unit 0 { vlan-id 4094; mtu 1500; disable; description \"\";"
          " family inet { address 192.0.2.1/24; } family inet6 { address { 2001:db8::1/64; ::/0; } } } }", "" },
        { "interfaces a { unit 0 { family inet { address 192.0.2.1/33; } } }",
          "c:1:47: found '192.0.2.1/33', expected an IPv4 address with its prefix length" },
        { "interfaces a { unit 0 { family inet6 { address 192.0.2.1/24; } } }",
          "c:1:48: found '192.0.2.1/24', expected an IPv6 address with its prefix length" },
        { deployment("servers { 192.0.2.1; 192.0.2.300; }"), "c:1:63: found '192.0.2.300', expected an IPv4 address" },
        { deployment("servers 192.0.2.1 { port +1; }"), "c:1:67: found '+1', expected a number from 1 to 65535" },
        { deployment("traceoptions { flag beep; flag everything; }"),
          "c:1:73: found 'everything', expected one of beep, profile, core, octets, dump, all" },
        { deployment("source-address 192.0.2.1; source-address 192.0.2;"),   // the value in force is the last
          "c:1:83: found '192.0.2', expected an IPv4 address" },
    };
    for (const auto &row : rows) EXPECT_EQ(fault_of(row.text), row.fault) << row.text;
}

TEST(confdb_check, texts_are_utf8_without_control_characters)
{
    for (const char *text : { "\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xf0\x90\x80\x80",
                              "\xf4\x8f\xbf\xbf" })
        EXPECT_EQ(fault_of(client(string("secret a") + text + "b;")), "") << text;
    for (const char *text : { "\x7f", "\xc2\x9b", "\xc0\xaf", "\xe9", "\xe0\x9f\xbf", "\xe2\x82", "\xed\xa0\x80",
                              "\xf0\x8f\xbf\xbf", "\xf0\x9f\x98", "\xf4\x90\x80\x80", "\x80" })
        for (const char *end : { "\"", "b\"" })
            EXPECT_NE(fault_of(client(string("secret \"a") + text + end + ";")), "") << testing::PrintToString(text);
}

TEST(confdb_check, size_and_depth_are_no_danger)
{
    EXPECT_NE(fault_of("interfaces " + string(1 << 20, '{')), "");
    EXPECT_EQ(fault_of(string(DDL_ACCESS_TEXT_MAX, ' ')), "");
    EXPECT_EQ(fault_of(string(DDL_ACCESS_TEXT_MAX + 1, ' ')), "c: longer than 16777216 octets");
}
