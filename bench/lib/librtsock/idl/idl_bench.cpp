/*
 * Benchmark of the codecs: a routing table with every field and a route with its items, in both forms, beside Protocol
 * Buffers with an arena on the same record.
 *
 * All write into a buffer and read into an arena that are there before. Both libraries tell presence: TLV goes with a
 * presence map and the other side's fields are optional ones. "bare" is TLV without the map, as a reader goes that
 * does not ask what was there. The other side's record is filled from ours by name, with its reflection, so that they
 * cannot drift apart. Rounds alternate, so that what disturbs the machine disturbs all; the figures are medians, and
 * a ratio is the median of the rounds' ratios. A goal that is missed is shown and is no failure, since a loaded
 * machine can do that.
 *
 *   idl_bench                           the table
 *   idl_bench RECORD FORM WAY TIMES     that one thing so many times, for an instruction counter: rtb_msg or rt_msg;
 *                                       idr, tlv, bare or protobuf; encode or decode
 */
#include "lib/librtsock/idl/idl.h"

#include "lib/librtsock/idl/idl_bench.pb.h"   // written by the build

#include <google/protobuf/arena.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <string>

namespace {

namespace protobuf = google::protobuf;

enum { ROUNDS = 15, ROOM = 65536 };
constexpr int TIMES = 20000;
enum form { IDR, TLV, BARE, PROTOBUF, FORMS };
enum way { ENCODE, DECODE, WAYS };

constexpr const char *form_names[] = { "idr", "tlv", "bare", "protobuf" };
constexpr const char *way_names[] = { "encode", "decode" };
constexpr double goals[] = { 2, 1, 1 };   // times as fast as the other side

// --- The records.

struct rts_msg_info rpf_item = { .tag = 30, .u = { .rttable_rpf = { 1, 2, 3000 } } };
struct rts_msg_info forwarding_item = { .tag = 102, .u = { .rtb_fwd_inst = { 5, 70 } } };
struct rts_msg_info *table_items[] = { &rpf_item, &forwarding_item };
struct rttable_tlvs table_tlvs[] = { { .tag = 30, .u = { .rttable_rpf = { 1, 2, 3000 } } },
                                     { .tag = 102, .u = { .rtb_fwd_inst = { 5, 70 } } } };
uint32_t filters[] = { 300, 301, 302, 303 };
char table_name[] = "blue.inet.0";
char router_name[] = "default";

struct rts_hdr header(uint8_t type, struct rts_msg_info **items, uint32_t count)
{
    return { 0, 98, type, 1, 2, 400, 1234567, 77, 152, 3, 1, items, count };
}

const struct rtb_msg table = {
    .rts_hdr = header(1, table_items, 2),
    .identity = 0x1234567890, .tid = 512, .af = 2, .kind = 1, .generation = 88000, .flags = 8, .instance = 6,
    .prflags = 0x10020, .half9 = 900, .tenant = 3, .aux_word1 = 1000, .word11 = { 11 }, .lrid = 12, .byte13 = 13,
    .byte14 = 14, .aux_word2 = 4242, .input_filter2 = 4243, .output_filter = 4244, .output_filter2 = 4245,
    .implicit_filters = filters, .implicit_filters_len = 4, .word20 = { 20 }, .aux_half = 2100, .word22 = { 22 },
    .byte23 = 23, .stats = { 700000, 90000000, 1200000, 40000, 460000, 1ULL << 40, 1ULL << 39, 77777, 3, 2 },
    .name = table_name, .name_len = sizeof table_name, .lrname = router_name, .lrname_len = sizeof router_name,
    .byte27 = 27, .tlvs = table_tlvs, .tlvs_len = 2, .byte29 = 29, .byte35 = 35, .byte36 = 36, .byte37 = 37,
    .word30 = { 30 }, .long32 = 1ULL << 33, .word33 = 33,
};

struct rts_msg_info oam_item = { .tag = 0x1000001, .u = { .rt_oam = { 9 } } };
struct rts_msg_info class_item = { .tag = 0x1000003, .u = { .rt_source_class = { 4, 5 } } };
struct rts_msg_info *route_items[] = { &oam_item, &class_item };
uint8_t gateway[] = { 8, 2, 0, 0, 192, 0, 2, 1 };
struct idl_sockaddr_gen gateways[] = { { gateway, sizeof gateway } };
struct rt_nh_entry next_hops[] = { { 70, 1, 2, gateways, 1 }, { 71, 1, 2, gateways, 1 } };
uint8_t prefix[] = { 203, 0, 113, 0 };
uint8_t opaque[] = { 0, 1, 0, 4, 0, 0, 0, 7, 0, 2, 0, 4 };
char interface_name[] = "ge-0/0/0.100";

const struct rt_msg route = {
    .rts_hdr = header(2, route_items, 2),
    .tid = 512, .af = 2, .rt_type = 3, .rt_flags = 0x20001, .nh_type = 4, .nh_flags = 16, .aux_byte = 8,
    .aux_word1 = 1001, .aux_word2 = 1002, .nhidx = 1048574, .opaque_marker = 9, .dflags = 32766, .ack_index = 14,
    .rt_nhiflist = 15, .altfwdnhidx = 16, .rt_mcast_nhiflist = 17, .filtidx = 18, .lr_id = 19, .featureid = 20,
    .oam_id = 21, .sgid = 22, .ifidx = 70, .generation = 24000, .use_count = 1ULL << 34, .prefix_bits = 24,
    .prefix = prefix, .prefix_len = sizeof prefix, .nh_entries = next_hops, .nh_entries_len = 2, .opaque = opaque,
    .opaque_len = sizeof opaque, .ifname = interface_name, .ifname_len = sizeof interface_name,
};

// --- The same on the other side, by name.

template <typename value_type> value_type load(const void *record, uint32_t offset)
{
    value_type value;
    memcpy(&value, static_cast<const char *>(record) + offset, sizeof value);
    return value;
}

void mirror(const struct idl_type *type, const void *record, protobuf::Message *message);

void mirror_list(const struct idl_field &field, const void *record, protobuf::Message *message,
                 const protobuf::FieldDescriptor *other)
{
    const auto *array = load<const char *>(record, field.if_offset);
    for (uint32_t i = 0; i < load<uint32_t>(record, field.if_len_offset); i++) {
        if (field.if_kind == IDL_KIND_WORD_LIST) {
            message->GetReflection()->AddUInt32(message, other, load<uint32_t>(array, i * 4));
            continue;
        }
        const void *item = field.if_kind == IDL_KIND_LIST ? array + size_t(i) * field.if_size
                                                          : load<const void *>(array, i * uint32_t(sizeof(void *)));
        mirror(field.if_type, item, message->GetReflection()->AddMessage(message, other));
    }
}

void mirror_field(const struct idl_field &field, const void *record, protobuf::Message *message)
{
    const protobuf::FieldDescriptor *other = message->GetDescriptor()->FindFieldByName(field.if_name);
    const protobuf::Reflection *reflection = message->GetReflection();
    uint64_t value = 0;
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
    case IDL_KIND_AF:
        memcpy(&value, static_cast<const char *>(record) + field.if_offset, field.if_width);
        if (other->cpp_type() == protobuf::FieldDescriptor::CPPTYPE_UINT64)
            reflection->SetUInt64(message, other, value);
        else
            reflection->SetUInt32(message, other, uint32_t(value));
        break;
    case IDL_KIND_OPAQUE:
        reflection->SetString(message, other, std::string(load<const char *>(record, field.if_offset),
                                                          load<uint32_t>(record, field.if_len_offset)));
        break;
    case IDL_KIND_WORD_LIST:
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        mirror_list(field, record, message, other);
        break;
    default:
        mirror(field.if_type, static_cast<const char *>(record) + field.if_offset,
               reflection->MutableMessage(message, other));
        break;
    }
}

void mirror(const struct idl_type *type, const void *record, protobuf::Message *message)
{
    for (uint32_t i = 0; i < type->it_count; i++)
        if (!type->it_choice || type->it_fields[i].if_tag == load<uint32_t>(record, 0))
            mirror_field(type->it_fields[i], record, message);
}

// --- What is measured.

alignas(16) uint8_t buffer[ROOM];
alignas(16) uint8_t block[ROOM];

struct arena {
    size_t used;
};

void *take(size_t size, void *context)
{
    auto *a = static_cast<struct arena *>(context);
    size = (size + 7) & ~size_t(7);
    if (size > sizeof block - a->used)
        return nullptr;
    void *memory = block + a->used;
    a->used += size;
    return memory;
}

struct subject {
    const char *name;
    struct rts_msg message;
    const struct idl_type *type;
    protobuf::Message *other;
    struct map_rts_msg map;
    std::array<std::string, FORMS> octets;
};

void must(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "idl_bench: %s\n", what);
        exit(EXIT_FAILURE);
    }
}

size_t encode(const subject &s, form f)
{
    if (f == IDR)
        return size_t(idr_encode_rts_msg_0(&s.message, buffer, sizeof buffer));
    if (f == TLV)
        return size_t(tlv_encode_rts_msg_0(&s.message, &s.map, buffer, sizeof buffer));
    if (f == BARE)
        return size_t(tlv_encode_rts_msg_0(&s.message, nullptr, buffer, sizeof buffer));
    size_t size = s.other->ByteSizeLong();
    s.other->SerializeWithCachedSizesToArray(buffer);
    return size;
}

bool decode(const subject &s, form f)
{
    const std::string &octets = s.octets[f];
    struct arena a = { 0 };
    struct rts_msg message;
    struct map_rts_msg map;
    if (f == IDR)
        return idr_decode_rts_msg_0(&message, octets.data(), octets.size(), take, &a) == int32_t(octets.size());
    if (f == TLV)
        return tlv_decode_rts_msg_0(&message, &map, octets.data(), octets.size(), take, &a) == int32_t(octets.size());
    if (f == BARE)
        return tlv_decode_rts_msg_0(&message, nullptr, octets.data(), octets.size(), take, &a) ==
               int32_t(octets.size());
    protobuf::ArenaOptions options;
    options.initial_block = reinterpret_cast<char *>(block);
    options.initial_block_size = sizeof block;
    protobuf::Arena other(options);
    return s.other->New(&other)->ParseFromArray(octets.data(), int(octets.size()));
}

/* A presence map with every bit set, as a reader of the record without one would have it. */
void *full_map(const subject &s)
{
    struct map_rts_msg map;
    struct rts_msg copy;
    std::string octets(size_t(tlv_encode_rts_msg_0(&s.message, nullptr, nullptr, 0)), '\0');
    tlv_encode_rts_msg_0(&s.message, nullptr, octets.data(), octets.size());
    auto keep = [](size_t size, void *) { return malloc(size); };
    must(tlv_decode_rts_msg_0(&copy, &map, octets.data(), octets.size(), keep, nullptr) > 0, "own octets are refused");
    return map.msg;
}

subject make(const char *name, uint32_t number, const void *record, protobuf::Message *other)
{
    subject s = { name, { number, const_cast<void *>(record) }, idl_message_type(number), other, { nullptr }, {} };
    mirror(s.type, record, other);
    s.map.msg = full_map(s);
    for (form f : { IDR, TLV, BARE, PROTOBUF }) {
        size_t size = encode(s, f);
        s.octets[f].assign(reinterpret_cast<char *>(buffer), size);
        must(size <= sizeof buffer && decode(s, f), "a record does not come back");
    }
    return s;
}

void repeat(const subject &s, form f, way w, long times)
{
    for (long i = 0; i < times; i++)
        must(w == ENCODE ? encode(s, f) == s.octets[f].size() : decode(s, f), "a result changed");
}

double measure_ns(const subject &s, form f, way w)
{
    struct timespec begin, end;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    repeat(s, f, w, TIMES);
    clock_gettime(CLOCK_MONOTONIC, &end);
    return (double(end.tv_sec - begin.tv_sec) * 1e9 + double(end.tv_nsec - begin.tv_nsec)) / TIMES;
}

double median(std::array<double, ROUNDS> values)
{
    std::nth_element(values.begin(), values.begin() + ROUNDS / 2, values.end());
    return values[ROUNDS / 2];
}

void print_rows(const subject &s, way w)
{
    std::array<std::array<double, ROUNDS>, FORMS> figures, ratios;
    for (size_t round = 0; round < ROUNDS; round++) {
        for (form f : { IDR, TLV, BARE, PROTOBUF })
            figures[f][round] = measure_ns(s, f, w);
        for (form f : { IDR, TLV, BARE })
            ratios[f][round] = figures[PROTOBUF][round] / figures[f][round];
    }
    for (form f : { IDR, TLV, BARE }) {
        double ratio = median(ratios[f]);
        printf("%-8s %-6s %-4s [ns], base protobuf %17.0f %9.0f %8.2f   at least %.0f%s\n", s.name, way_names[w],
               form_names[f], median(figures[f]), median(figures[PROTOBUF]), ratio, goals[f],
               ratio < goals[f] ? "   MISSED" : "");
    }
}

template <size_t count> size_t number_of(const char *const (&names)[count], const char *name)
{
    size_t at = 0;
    while (at < count && strcmp(names[at], name) != 0)
        at++;
    must(at < count, "usage: idl_bench [rtb_msg|rt_msg idr|tlv|bare|protobuf encode|decode TIMES]");
    return at;
}

}   // namespace

int main(int argc, char **argv)
{
    static const char *const names[] = { "rtb_msg", "rt_msg" };
    static idl_bench::rtb_msg other_table;
    static idl_bench::rt_msg other_route;
    const subject subjects[] = { make(names[0], 1, &table, &other_table), make(names[1], 2, &route, &other_route) };
    if (argc == 5) {
        repeat(subjects[number_of(names, argv[1])], form(number_of(form_names, argv[2])),
               way(number_of(way_names, argv[3])), atol(argv[4]));
        return EXIT_SUCCESS;
    }
    printf("%-46s %9s %9s %8s   %s\n", "", "figure", "base", "ratio", "goal");
    for (const subject &s : subjects)
        for (way w : { ENCODE, DECODE })
            print_rows(s, w);
    for (const subject &s : subjects)
        printf("%-8s octets: idr %zu, tlv %zu, protobuf %zu\n", s.name, s.octets[IDR].size(), s.octets[TLV].size(),
               s.octets[PROTOBUF].size());
    return EXIT_SUCCESS;
}
