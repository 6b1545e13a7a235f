/*
 * What idlcat prints, converts and refuses.
 */
#include "tools/idlcat/idlcat.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace {

struct outcome {
    size_t broken;
    std::string out, err;
};

outcome run(const std::string &hex, const idlcat_options &options)
{
    std::vector<uint8_t> octets;
    idlcat_fault fault;
    EXPECT_TRUE(parse_hex(hex, octets, fault)) << fault.text;
    char *texts[2] = {};
    size_t sizes[2] = {};
    FILE *out = open_memstream(&texts[0], &sizes[0]);
    FILE *err = open_memstream(&texts[1], &sizes[1]);
    outcome result = { run_messages(options, "in", octets, out, err), "", "" };
    fclose(out);
    fclose(err);
    result.out.assign(texts[0], sizes[0]);
    result.err.assign(texts[1], sizes[1]);
    free(texts[0]);
    free(texts[1]);
    return result;
}

idlcat_options bare(const char *type, bool idr)
{
    idlcat_options options;
    options.type = idl_type_by_name(type);
    options.idr = idr;
    return options;
}

idlcat_options to(wire_form form)
{
    idlcat_options options;
    options.convert = options.hex_out = true;
    options.to = form;
    return options;
}

// A nop in IDR: envelope, header, count of items.
const std::string nop = "22500000 1c000000 00000000 00000000 62000400 00000000 02000000 00000000 1800 00 00 00000000\n";

}   // namespace

TEST(idlcat, prints_a_line_for_each_message)
{
    idlcat_options options;
    options.brief = true;
    // A nop in an envelope; raw ones of a type without a record and of one that has one; the beginning of another.
    outcome brief = run(nop + "00000000 621a0100 18000000 00000000 00000000 00000000 00000000 62550100 18000000 00000000"
                              "03000000 00000300 00000000 62020100 18000000 00000000 00000000 00000000" + nop.substr(0, 8),
                        options);
    EXPECT_EQ(brief.out.substr(0, brief.out.find("000058")),
              "kernel     kernel     P    nop        get     \n"
              "keld       keld       P    ifsclinfo  add     IFS EndOfChain client=kernel pending=0/0 limit=0\n");
    EXPECT_NE(brief.out.find("  message 4: raw, type 2, 24 octets\n"), std::string::npos);
    EXPECT_EQ(brief.broken, 1U);
}

TEST(idlcat, prints_fields_with_their_offsets)
{
    idlcat_options absent = bare("timeval", false);
    absent.absent = true;
    const struct {
        const char *hex;
        idlcat_options options;
        const char *line;
    } rows[] = {
        { nop.c_str(), {}, "000000  message 1: IDR, type 0 rts_base, 40 octets\n00000c    rts_hdr: rts_hdr\n" },
        { nop.c_str(), {}, "000018      rtsh_seq = 2\n" },
        { "01000000 04000000 2a000000", absent, "000000    tv_sec = 42 (0x2a)\n00000c    tv_usec = absent\n" },
        { "63000000 01000000 07000000", bare("timeval", false), "000000    unknown tag 99 = [1] 07\n" },
        { "08000000 08000000 07000000 01000000", bare("rtb_msg", false), "000000    prflags = 7\n" },
        { "01000000 08000000 01020304 05060708", bare("ether_addr", false), "octet = [6] 01 02 03 04 05 06\n" },
        { "0b000000 00000000", bare("rts_hdr", false), "tag = none\n" },
        { "04000000 01000000 c8", bare("rtb_msg", false), "af = 200 (0xc8), no family\n" },
        { "05000000 61626364 00", bare("idl_sockaddr_gen", true), "000004    sa = \"abcd\"\n" },
        { "00000000 640a0400 18000000 01000000 00000000 1800 0000", {}, "message 1: raw, type 10, 24 octets\n" },
    };
    for (const auto &row : rows) {
        // The record is padded in IDR; the rows leave that to this place.
        outcome result = run(std::string(row.hex) + (row.options.idr ? "000000" : ""), row.options);
        EXPECT_EQ(result.broken, 0U) << result.err;
        EXPECT_NE(result.out.find(row.line), std::string::npos) << result.out;
    }
}

TEST(idlcat, converts_there_and_back)
{
    outcome tlv = run(nop, to(wire_form::tlv));
    EXPECT_EQ(tlv.out.substr(0, 35), "11 50 00 00 8c 00 00 00 00 00 00 00");
    outcome idr = run(tlv.out, to(wire_form::idr));
    std::vector<uint8_t> before, after;
    idlcat_fault fault;
    ASSERT_TRUE(parse_hex(nop, before, fault) && parse_hex(idr.out, after, fault));
    EXPECT_EQ(before, after);
}

TEST(idlcat, says_where_a_message_is_broken_and_goes_on)
{
    const struct {
        const char *hex;
        idlcat_options options;
        const char *fault;
    } rows[] = {
        { "01000000 03000000 2a0000", bare("timeval", false), "offset 0x0: an integer of 4 octets has 3" },
        { "01000000 04000000 2a000000 0200", bare("timeval", false),
          "offset 0xc: the last 2 octets are no whole element" },
        { "01000000 0200", bare("timeval", true), "offset 0x4: tv_usec wants 4 octets, 2 are left" },
        { "22500000 20000000 00000000", {}, "a message of 44 octets, 12 are left" },
        { "12345678 00000000 00000000", {}, "neither an envelope nor a raw message" },
        { "0011", {}, "2 octets are no whole message" },
        { "11500000 14000000 00000000 01000000 0c000000 02000000 04000000 62000000", {}, "" },
        { "22500000 1c000000 00000000 00000000 62000400 00000000 02000000 00000000 1800 0000 01000000",
          {},
          "offset 0x28: rts_hdr.rtsh_info[0]: a choice of 0 octets has no whole header" },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.hex);
        outcome result = run(row.hex, row.options);
        EXPECT_EQ(result.broken, *row.fault != '\0' ? 1U : 0U);
        EXPECT_NE(result.err.find(row.fault), std::string::npos) << result.err;
    }
    std::string broken = nop;
    broken.replace(0, 17, "22500000 18000000");   // a shorter body: the envelope holds, the record does not
    outcome result = run(broken.substr(0, broken.size() - 9) + nop, {});
    EXPECT_EQ(result.broken, 1U);
    EXPECT_NE(result.out.find("message 2: IDR, type 0 rts_base, 40 octets"), std::string::npos)
        << result.out << result.err;
}

TEST(idlcat, reads_dumps)
{
    std::vector<uint8_t> octets;
    idlcat_fault fault;
    EXPECT_TRUE(parse_hex("00000000: 2250 0000 1c00  \"P....\n01# x\n00000010  03 04 |..|\n00000012\n", octets, fault));
    EXPECT_EQ(octets.size(), 6U + 1 + 2);
    octets.clear();
    EXPECT_TRUE(parse_hex("01000000  04000000\n", octets, fault));   // two words, no dump
    EXPECT_EQ(octets.size(), 8U);
    EXPECT_FALSE(parse_hex("01\n0x", octets, fault));
    EXPECT_EQ(fault.offset, 3U);
}
