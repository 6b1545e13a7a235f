// Text helpers: rows of text in, text out, and what lies behind the result.
#include "platform/text/text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

TEST(snprintf_safe, answers_what_stands_in_the_buffer)
{
    static const struct { size_t size, length; const char *text; } rows[] = {
        { 5, 4, "abcd" }, { 4, 3, "abc" }, { 1, 0, "" }, { 0, 0, "untouched" },
    };
    for (const auto &row : rows) {
        char buffer[] = "untouched";
        EXPECT_EQ(snprintf_safe(buffer, row.size, "%s", "abcd"), row.length) << row.size;
        EXPECT_STREQ(buffer, row.text) << row.size;
    }
}

TEST(xml_unescape, entities_and_character_references)
{
    static const struct { std::string in, out; } rows[] = {
        { "a &lt;b&gt; &amp;&apos;&quot;", "a <b> &'\"" },
        { "&amp;lt;", "&lt;" },                                    // a result is not looked at again
        { "&#65;&#x42;&#x6a;&#x6A;&#0067;", "ABjjC" },
        { "&#x7f;&#x80;&#x7ff;&#x800;&#xffff;&#x10000;&#x10ffff;",
          "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf" },
        { "&#0;&#xd800;&#xDFFF;&#x110000;&#4294967361;", "&#0;&#xd800;&#xDFFF;&#x110000;&#4294967361;" },
        { "&nbsp; &LT; & &;&#;&#x;&#X41;&#6a;&lt", "&nbsp; &LT; & &;&#;&#x;&#X41;&#6a;&lt" },
        { "&&lt;&am&amp;&#&#65;", "&<&am&&#A" },                   // what ends a broken one may start a good one
        { std::string("a\0&gt;b", 7), std::string("a\0>b", 4) },
    };
    for (const auto &row : rows) {
        std::string text = row.in + "!";   // in place; the fuzz target compares that with working beside it
        ASSERT_EQ(xml_unescape(text.data(), row.in.size(), text.data(), 0), row.out.size()) << row.in;
        EXPECT_EQ(text.substr(0, row.out.size()), row.out) << row.in;
        EXPECT_EQ(text[row.out.size()], row.out.size() < row.in.size() ? '\0' : '!') << row.in;
    }
}

/* The decoded text of in, taken in pieces of piece octets, in place; "!" if a piece is refused. *end is the result of
 * the end. */
static std::string decode(std::string in, size_t piece, int *end)
{
    struct base64_state *state = base64_start();
    std::string out;
    for (size_t at = 0; at < in.size(); at += piece) {
        int length = base64_decode_chunk(&in[at], &in[at], std::min(piece, in.size() - at), state);
        out += length < 0 ? "!" : in.substr(at, (size_t)length);
    }
    *end = base64_decode_end(state);
    return out;
}

TEST(base64, decodes_in_pieces_of_any_size)
{
    static const struct { const char *in; std::string out; int end; } rows[] = {
        { "", "", 0 },
        { "Zg==", "f", 0 },
        { "Zm8=", "fo", 0 },
        { "Zm 9v\r\nYm\tFy\n", "foobar", 0 },
        { "AP/+gA==", std::string("\0\xff\xfe\x80", 4), 0 },
        { "Zg==Zm9v", "f", 0 },          // decoding ends at the first '='
        { "Zm9vYg", "foob", -1 },        // in the middle of a group
        { "Zm9vY", "foo", -1 },
        { "Zm9vY===", "foo", -1 },       // no octet has this form
    };
    for (const auto &row : rows) {
        for (size_t piece : { 1, 2, 3, 4, 5, 100 }) {
            int end;
            EXPECT_EQ(decode(row.in, piece, &end), row.out) << row.in << " by " << piece;
            EXPECT_EQ(end, row.end) << row.in << " by " << piece;
        }
    }

    int end;
    EXPECT_EQ(decode("Zm9v*m9vZm9v", 4, &end), "foo!!");   // a bad octet fails to the end, also where good ones follow
    EXPECT_EQ(end, -1);
    char octet;   // no memory
    EXPECT_EQ(base64_decode_chunk("Zm9v", &octet, 4, nullptr), -1);
    EXPECT_EQ(base64_decode_end(nullptr), -1);
}
