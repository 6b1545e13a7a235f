/*
 * Messages as lines: heads, the lines of types, the socket's statistics, and what happens at the buffer's end.
 */
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"
#include "lib/librtsock/idl/idl.h"
#include "tests/lib/librtsock/idl/random_record.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

namespace {

std::vector<std::string> reports;

struct rtslib_cookie *listening()
{
    static rtslib_cookie cookie = {};
    cookie.err_fn = [](rtslib_cookie *, uintptr_t, int severity, const char *text) {
        reports.push_back(std::to_string(severity) + " " + text);
    };
    reports.clear();
    return &cookie;
}

std::string render(const void *message, int mode = 1)
{
    std::vector<char> buffer(65536);
    EXPECT_EQ(rtslib_format_output(nullptr, buffer.data(), buffer.size(), mode, message), 0);
    return buffer.data();
}

/* What stands behind the head. */
std::string body(const void *message, int mode = 1)
{
    return render(message, mode).substr(46);
}

rts_hdr header(uint8_t type, uint8_t op = 1, uint8_t flag = 0)
{
    rts_hdr h = {};
    h.rtsh_type = type, h.rtsh_op = op, h.rtsh_flag = flag;
    return h;
}

template <typename layout> layout raw(uint8_t type)
{
    layout message = {};
    message.hdr.type = type, message.hdr.op = 1, message.hdr.msglen = sizeof message;
    return message;
}

char name[] = "blue", device[] = "ge-0/0/0\0";

}   // namespace

TEST(format_lines, heads)
{
    static const struct {
        uint8_t flag;
        const char *text;
    } flags[] = {
        { 0, "P   " },    { 0x11, "ANY " }, { 0x05, "L   " }, { 0x04, "CL  " }, { 0x82, "PI  " },
        { 0x22, "PV  " }, { 0x20, "PE  " }, { 0x40, "PH  " }, { 0xd1, "ANYI" },
    };
    for (const auto &row : flags) {
        rts_hdr h = header(110, 6, row.flag);
        h.rtsh_sender = 3, h.rtsh_creator = 4;
        EXPECT_EQ(render(&h), std::string("keld       vrd        ") + row.text + " unknown    clear   \n");
    }
    // Kept on purpose: nothing stands between an operation of eight letters and the line.
    rt_msg route = {};
    route.rts_hdr = header(2, 7);
    EXPECT_EQ(render(&route).substr(27, 27), "route      deletealunspec 0");
    EXPECT_STREQ(rtslib_brief_output_header(), "sender   creator  flag    type       op ");
}

TEST(format_lines, tables_and_routes)
{
    rts_msg_info pr = { 101, { .rtb_ext_pr_flags = { 0x1f } } }, rpf = { 30, { .rttable_rpf = { 1, 2, 3 } } };
    rts_msg_info fwd = { 102, { .rtb_fwd_inst = { 5, 6 } } }, *items[] = { &pr, nullptr, &fwd, &rpf, &pr };
    uint32_t filters[] = { 1, 2, 3, 4, 5 };
    rtb_msg table = {};
    table.rts_hdr = header(1), table.rts_hdr.rtsh_info = items, table.rts_hdr.rtsh_info_len = 5;
    table.af = 2, table.tid = 65535, table.name = name, table.name_len = 5, table.lrid = 1, table.tenant = 2;
    table.prflags = 0xff, table.aux_word2 = 0xffffffff, table.output_filter2 = 9;
    table.implicit_filters = filters, table.implicit_filters_len = 5;
    EXPECT_EQ(body(&table), "inet name=blue tid=65535 lrname= lrid=1 tenant=2 prflags 0xff i-ftf [-1,0] o-ftf [0,9] "
                            "impl-i-ftf [1 2 3 4 ] ext_pr_flags=0x1f fwd_inst_tbl_id=5 fwd_inst_cfg_id=6 "
                            "RPF:[rpf_chk 1 mode 2 fltrid 3]\n");
    rttable_tlvs tlv = { 103, { .rtb_service_type = { 7 } } };
    table.rts_hdr.rtsh_info_len = 0, table.implicit_filters_len = 0, table.tlvs = &tlv, table.tlvs_len = 1;
    EXPECT_NE(body(&table).find("impl-i-ftf [none] service_type=7\n"), std::string::npos);

    uint8_t destination[4] = { 10, 1 }, opaque[] = { 0, 1, 0, 4, 0, 0, 0, 7, 0, 2, 0, 4, 0, 0, 0, 8 };
    rt_msg route = {};
    route.rts_hdr = header(2, 1, 2);
    route.tid = 5, route.af = 2, route.rt_type = 1, route.nh_type = 2, route.nhidx = 0xfffffffe, route.oam_id = 3;
    route.prefix = destination, route.prefix_len = 4, route.prefix_bits = 16, route.sgid = 4, route.dflags = 0x7ffe;
    const std::string front = "inet 10.1/16 tid=5 plen=16 type=user flags=0x0 nh=ucst nhflags=0x0 nhidx=-2 rt_nhiflist "
                              "= 0 altfwdnhidx=0 filtidx=0 lr_id = 0 featureid=0 ";
    EXPECT_EQ(body(&route), front + "  rt_mcast_nhiflist=0 dflags 0x7ffe req_ack oam-id 3\n sgid = 4\n\n");
    route.ifname = device, route.ifname_len = 9, route.opaque_marker = 9, route.opaque = opaque, route.opaque_len = 16;
    route.oam_id = route.sgid = 0, route.rts_hdr.rtsh_flag = 0;
    EXPECT_EQ(body(&route), front + "ge-0/0/0 opaque=7:8 rt_mcast_nhiflist=0 dflags 0x7ffe\n");
    route.opaque_len = 6;
    EXPECT_NE(body(&route).find("Error -1 decoding rt_opaque_info.\n rt_mcast"), std::string::npos);
}

TEST(format_lines, interfaces)
{
    ifl_msg logical = {};
    logical.rts_hdr = header(6), logical.name = device, logical.name_len = 8, logical.unit = 7, logical.ifl_type = 2;
    logical.iflsetidx = 0xffffffff;
    EXPECT_EQ(body(&logical), "ge-0/0/0.7 flags=0x0 idx=0, gen=0 lr=0, pifd=0, uidx=0, privf=0x0 snmpid=0, "
                              "iflsetidx=-1, ifl_type=L3 tenant=0\n");
    char bad_name[] = "a\nb\x1b[m";
    ifdev_msg dev = {};
    dev.rts_hdr = header(5), dev.name = bad_name, dev.name_len = 6, dev.ifm_speed = 400000000000;
    EXPECT_EQ(body(&dev), "a?b?[m mtu=0 dflags=0x0 flags=0x0 sflags=0x0 idx=0, ifm_speed=400000000000, "
                          "ifm_config_speed=0,  gen=0, i2c-id=0, ifm-hw-qs=0, ifm-use-max-qs=0, ifm-flags=0, "
                          "linkflags 0, priv_flags 0  snmpid=0, hier-levels=0, l2-count=0, l3-count=0\n");
    char full[RTSLIB_FORMAT_FULL_SIZE];
    EXPECT_EQ(rtslib_ifdm_format_full_output(nullptr, full, &dev), 0);
    EXPECT_NE(strstr(full, "\n  mtu=0 ifm_speed=400000000000 "), nullptr);

    uint8_t address[4] = { 192, 0, 2, 1 };
    ifa_msg ifa = {};
    ifa.rts_hdr = header(8), ifa.af = 2, ifa.local = address, ifa.local_len = 4, ifa.local_bits = 32;
    EXPECT_EQ(body(&ifa), "inet local=192.0.2.1/32 dest=0/0 idx=0, gen=0, flag=0x0\n");
}

TEST(format_lines, families_and_their_items)
{
    iffi_apply_info applied = { 1, 2, 3, 4, 5 };
    iffi_apply_info_blob contents = { 1, 2, 0, &applied, 1 };
    uint8_t blob[256];
    int32_t length = tlv_encode_iffi_apply_info_blob_0(&contents, nullptr, blob, sizeof blob);
    rts_msg_info neighbor = { 0x5000001, { .ifftlv_neighbor = { 0xab, 7 } } };
    rts_msg_info address = { 0x5000002, { .ifftlv_neighbor_addr = { 0xcd } } };
    rts_msg_info apply = { 0x5000003, { .ifftlv_apply_info = { blob, uint32_t(length) } } };
    rts_msg_info *items[] = { &apply, &neighbor, &address };
    iff_msg family = {};
    family.rts_hdr = header(7), family.af = 28, family.mtu = 1500, family.flags = 1ULL << 40, family.tid = 6;
    EXPECT_EQ(body(&family), "inet6 mtu=1500 flags=0x10000000000 iflidx=0 subunit=0, gen=0 tbl=6 , iff_type=default "
                             "i-ftf [0,0] list [none] o-ftf [0,0] list [none] impl-i-ftf [none]\n");
    family.rts_hdr.rtsh_info = items, family.rts_hdr.rtsh_info_len = 3;
    EXPECT_NE(body(&family).find("mtu=1500 nbr-id=0xab vc-id=7 nbr-addr=0xcd flags="), std::string::npos);
    EXPECT_NE(body(&family).find(" apply [dir=1 kind=2 prec=3 idx=4 flags=0x5]\n"), std::string::npos);
    apply.u.ifftlv_apply_info.blob_len -= 5;
    EXPECT_NE(body(&family).find("Error -1 decoding iffi_apply_info_blob.\n"), std::string::npos);

    std::vector<iffi_apply_info> many(1500, applied);   // a sound blob, but larger than what a rendering decodes
    std::vector<uint8_t> large(many.size() * 48 + 64);
    contents.entries = many.data(), contents.entries_len = uint32_t(many.size());
    length = tlv_encode_iffi_apply_info_blob_0(&contents, nullptr, large.data(), large.size());
    apply.u.ifftlv_apply_info = { large.data(), uint32_t(length) };
    EXPECT_NE(body(&family).find("Too large to be shown: iffi_apply_info_blob of " + std::to_string(length) +
                                 " octets.\n"), std::string::npos);
}

/* What a line has no word of its own for stands in the record's order. */
TEST(format_lines, follow_their_records)
{
    uint8_t destination[4] = { 10, 1 };
    rtm_msg match = {};
    match.rts_hdr = header(12);
    match.tid = 5, match.af = 2, match.rt_type = 1, match.nh_type = 2, match.nhidx = 7, match.ifidx = 8;
    match.prefix = destination, match.prefix_len = 4, match.prefix_bits = 16;
    EXPECT_EQ(body(&match), "tid=5 af=inet type=user nh=ucst flags=0x0 nhidx=7 ifidx=8 prefix=10.1/16\n");
    rts_marker_msg marker = {};
    marker.rts_hdr = header(102), marker.marker_id = 1, marker.name = name, marker.name_len = 4;
    EXPECT_EQ(body(&marker), "id=1 cookie=0x0 phase=0 flags=0x0 name=blue\n");
}

TEST(format_lines, composites_and_blobs)
{
    rnhc_form forms[] = { { 10, {} }, { 12, {} }, { 77, {} } };
    forms[1].u.tunnel.kind = 3;
    rnhc_msg composite = {};
    composite.rts_hdr = header(83), composite.nh = 24, composite.idx = 9, composite.af = 39;
    composite.forms = forms, composite.forms_len = 3;
    EXPECT_EQ(body(&composite), "nh=comp idx=9 refcnt=0, af=mpls, tid=0 hw_token=0 subnh=0 [Packet Rewrite "
                                "ethertype=0x0 offset=0 header=] [VXLAN af=unspec ttl=0 tos=0 tid=0 port=0 key=0 "
                                "source= destination= segments=[]] [form 77] \n");

    l2al_mac_entry mac = { { 2, 0, 0, 0, 0, 1 }, 100, 3, 4, 5, 6 };
    uint8_t blob[128];
    gencfg_msg config = {};
    config.rts_hdr = header(72), config.major = 43, config.minor = 1, config.blob = blob;
    config.blob_len = uint32_t(tlv_encode_l2al_mac_entry_0(&mac, nullptr, blob, sizeof blob));
    EXPECT_NE(body(&config).find("MAC table(43) Entry(1) aux=0"), std::string::npos);
    EXPECT_NE(body(&config).find(" 02:00:00:00:00:01 vlan=100 bd=3 ifl=4 flags=0x5 age=6\n"), std::string::npos);
    config.blob_len--;
    EXPECT_NE(body(&config).find(" Error -1 decoding l2al_mac_entry.\n"), std::string::npos);
    config.flags = 0x20000;   // compressed
    EXPECT_EQ(body(&config).find("Error"), std::string::npos);
}

TEST(format_lines, raw_messages)
{
    auto error = raw<rts_err_raw>(109);
    memset(error.function, 'f', sizeof error.function);   // without a terminator
    error.type = 2, error.op = 3, error.sender_id = 3, error.final_err = 17, error.line = 12;
    EXPECT_EQ(body(&error), "function=" + std::string(sizeof error.function, 'f') +
                                " line=12 seq_no=0 rtm_type=route rtm_op=delete sender_id=keld mproc_err=0 "
                                "final_err=17:File exists\n");
    error.hdr.msglen = 0;   // no more than the head is there
    EXPECT_EQ(body(&error), "function= line=0 seq_no=0 rtm_type=nop rtm_op=nop sender_id=kernel mproc_err=0 "
                            "final_err=0:Success\n");
    auto association = raw<sa_raw>(41);
    association.direction = 3, association.spi = 0xffffffff, strcpy(association.name, "vpn");
    EXPECT_EQ(body(&association), "sadb name=vpn direc=passthru spi=-1 proto=0 idx=0 iflidx=0\n");
    association.direction = 4;
    EXPECT_NE(body(&association).find("direc=null"), std::string::npos);
    auto limits = raw<ifsclim_raw>(85);
    limits.client = 3, limits.pending = 5, limits.pending_max = 9;
    EXPECT_EQ(body(&limits), "IFS EndOfChain client=keld pending=5/9 limit=0\n");
    auto state = raw<ifsm_raw>(47);
    state.object_type = 5, state.object_op = 1, state.receivers = 2;
    EXPECT_EQ(body(&state), "ROUTE add idx=0 flags=0x0 name=\n");
    EXPECT_EQ(body(&state, 0), "ROUTE add idx=0 flags=0x0 name= rcv=All issu=IDLE clients=0 slots=0x0 seq=0\n");
    auto stats = raw<iflstats_raw>(16);
    stats.idx = 70, stats.counters = { 1, 2, 3, 4 };
    EXPECT_EQ(body(&stats), "iflidx=70, txpkts=3 rxpkts=1\n");
}

TEST(format_lines, socket_statistics)
{
    auto stats = raw<rtsm_raw>(26);
    EXPECT_EQ(render(&stats), "");
    stats.type = 1, stats.kind = 4;
    const std::string title = "\nUnknown op::        add    change    delete       get   getnext     clear deleteall   "
                              "add_get   chg_get\n";
    EXPECT_EQ(render(&stats), title + "\n");
    stats.ops[0] = { 12345, 67, 10, 0, 8, 9, 11, 0 };
    std::string row = "   rttable:   12345/8   ";
    for (int op = 2; op <= RTSM_OPS; op++) row += "    0/0   ";
    EXPECT_EQ(render(&stats), title + row + "\n");
    char full[RTSLIB_FORMAT_FULL_SIZE];
    EXPECT_EQ(rtslib_rtsm_format_full_output(nullptr, full, &stats), 0);
    EXPECT_STREQ(full, "  sndpkts  sndbytes sndmaxpkt   rcvpkts  rcvbytes rcvmaxpkt\n   rttable:: \n"
                       "       add     12345        67        10         8         9        11\n");
}

/* Every record that there is, filled with anything, at every size: what fits is written, nothing behind it. */
TEST(format_lines, any_message_at_any_size)
{
    const std::string too_small = "2 rtslib: WARNING output brief buffer too small for format!\n";
    random_source source;
    for (uint32_t type = 0; type < RTSLIB_TYPES; type++) {
        const struct idl_type *record = idl_message_type(type);
        if (record == nullptr) continue;
        auto room = room_for(record->it_size);
        fill_record(source, record, room.data());
        auto *head = reinterpret_cast<rts_hdr *>(room.data());
        head->rtsh_type = uint8_t(type);
        const std::string whole = render(room.data(), 0);
        EXPECT_TRUE(type == 0 || whole.size() > 47) << type;
        size_t step = 1 + whole.size() / 256;
        for (size_t size = 0; size < whole.size() + 2; size += step) {
            std::vector<char> buffer(size);   // its end is guarded by the sanitizer
            int result = rtslib_format_output(listening(), buffer.data(), size, 0, room.data());
            EXPECT_EQ(result, size > whole.size() ? 0 : -1);
            EXPECT_EQ(whole.substr(0, size > 0 ? size - 1 : 0), size > 0 ? buffer.data() : "");
            EXPECT_EQ(reports, result == 0 ? std::vector<std::string>() : std::vector{ too_small });
        }
    }
    char brief[RTSLIB_FORMAT_BRIEF_SIZE];
    rtb_msg table = {};
    table.rts_hdr = header(1);
    EXPECT_EQ(rtslib_format_brief_output(listening(), brief, &table), -1);
    EXPECT_EQ(strlen(brief), sizeof brief - 1);
}

TEST(format_lines, to_a_file)
{
    char *text = nullptr;
    size_t length = 0;
    FILE *stream = open_memstream(&text, &length);
    rts_hdr h = header(110);
    rtslib_print_msg_to_file(nullptr, stream, 1, &h);
    rtslib_print_msg_to_file(nullptr, nullptr, 1, &h);
    rtslib_print_msg_to_file(nullptr, stream, 1, nullptr);
    std::vector<uint32_t> words(4000, 1);
    rr_aspath_msg path = {};
    path.rts_hdr = header(108), path.communities = words.data(), path.communities_len = 4000;
    rtslib_print_msg_to_file(listening(), stream, 1, &path);
    EXPECT_EQ(text, "kernel     kernel     P    unknown    add     \n"
                    "rtslib_format_output error: Unknown error -1\n"s);
    fclose(stream);
    free(text);
}
