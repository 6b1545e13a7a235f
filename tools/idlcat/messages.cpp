/*
 * A run of messages: enveloped ones found by their magic and stepped over by their length, raw ones by the length in
 * their header; a bare record fills its input. A broken message costs itself alone, as long as its envelope holds.
 */
#include "tools/idlcat/idlcat.h"

#include "lib/librtsock/format/rtslib_format.h"

#include <stdlib.h>
#include <string.h>

namespace {

enum { RAW_HEADER = 24 };

struct message {
    size_t number, begin, end;
    uint32_t magic, type;
};

struct run {
    const idlcat_options &options;
    const char *name;
    std::span<const uint8_t> input;
    FILE *out, *err;
    size_t broken = 0;
};

/* Memory of one decode, freed whole. */
struct blocks {
    std::vector<void *> held;
    ~blocks()
    {
        for (void *block : held)
            free(block);
    }
};

void *take_block(size_t size, void *context)
{
    void *block = calloc(1, size != 0 ? size : 1);
    static_cast<blocks *>(context)->held.push_back(block);
    return block;
}

void report(run &r, const message &m, const idlcat_fault &fault)
{
    r.broken++;
    fprintf(r.err, "idlcat: %s: message %zu, offset 0x%zx: %s\n", r.name, m.number, fault.offset, fault.text.c_str());
}

uint32_t word_at(const run &r, size_t offset)
{
    uint32_t word;
    memcpy(&word, r.input.data() + offset, sizeof word);
    return word;
}

const char *code_text(int32_t code)
{
    static const char *const texts[] = { "invalid buffer size", "garbled message", "allocation failure",
                                         "invalid magic", "invalid choice" };
    return code <= 0 && -code < int32_t(std::size(texts)) ? texts[-code] : "unknown";
}

void put_octets(const run &r, const std::vector<uint8_t> &octets)
{
    if (!r.options.hex_out) {
        fwrite(octets.data(), 1, octets.size(), r.out);
        return;
    }
    const size_t in_line = 16;
    for (size_t i = 0; i < octets.size(); i++)
        fprintf(r.out, "%02x%c", octets[i], (i + 1) % in_line == 0 || i + 1 == octets.size() ? '\n' : ' ');
}

/* encode(buffer, size) twice: for the size, and into it. */
template <typename encoder> std::vector<uint8_t> encoded(encoder encode)
{
    std::vector<uint8_t> octets(size_t(encode(nullptr, 0)));
    encode(octets.data(), octets.size());
    return octets;
}

void convert_message(const run &r, const struct rts_msg &decoded, const struct map_rts_msg *map)
{
    bool tlv = r.options.to == wire_form::tlv;
    put_octets(r, encoded([&](void *buffer, size_t size) {
                   return tlv ? tlv_encode_rts_msg_0(&decoded, map, buffer, size)
                              : idr_encode_rts_msg_0(&decoded, buffer, size);
               }));
}

/* False: messages that the rendering cannot be given, raw ones of a type that has a record. */
bool can_render(const message &m)
{
    bool enveloped = m.magic == IDL_MAGIC_TLV || m.magic == IDL_MAGIC_IDR;
    return enveloped == (idl_message_type(m.type) != nullptr);
}

/* A line is as long as it has to be. */
void render_message(const run &r, const void *message)
{
    const size_t first = 4096, most = 1 << 26;
    struct rtslib_cookie silent = {};   // a buffer that was too small is no news
    std::vector<char> text(first);
    while (rtslib_format_output(&silent, text.data(), text.size(), RTSLIB_FORMAT_MODE_BRIEF, message) != 0 &&
           text.size() < most)
        text.resize(text.size() * 2);
    fputs(text.data(), r.out);
}

/* The library's word on the message, and its other form if that is wanted. */
bool decode_message(run &r, const message &m)
{
    blocks memory;
    struct rts_msg decoded = {};
    struct map_rts_msg map = {};
    const uint8_t *octets = r.input.data() + m.begin;
    bool tlv = m.magic == IDL_MAGIC_TLV;
    size_t length = m.end - m.begin;
    int32_t code = tlv ? tlv_decode_rts_msg_0(&decoded, &map, octets, length, take_block, &memory)
                       : idr_decode_rts_msg_0(&decoded, octets, length, take_block, &memory);
    if (code <= 0) {
        report(r, m, { m.begin, std::string("the library refuses it: ") + code_text(code) });
        return false;
    }
    if (r.options.brief && decoded.msg != nullptr) {
        static_cast<struct rts_hdr *>(decoded.msg)->rtsh_type = uint8_t(m.type);   // what the record is rendered by
        render_message(r, decoded.msg);
    }
    if (r.options.convert && decoded.msg != nullptr)
        convert_message(r, decoded, tlv ? &map : nullptr);
    else if (r.options.convert)
        report(r, m, { m.begin, "a message without a record has no other form" });
    return true;
}

void print_head(const run &r, const message &m, const char *form, const char *record)
{
    if (r.options.convert || (r.options.brief && can_render(m)))
        return;
    fprintf(r.out, "%06zx  message %zu: %s, type %u%s%s, %zu octets\n", m.begin, m.number, form, m.type,
            record != nullptr ? " " : "", record != nullptr ? record : "", m.end - m.begin);
}

bool walk_body(run &r, const message &m, const struct idl_type *type, bool tlv, size_t begin)
{
    bool silent = r.options.convert || r.options.brief;
    walk w = { silent ? nullptr : r.out, r.input, r.options.absent, {}, {}, 1 };
    if (tlv ? walk_tlv(w, type, begin, m.end) : walk_idr(w, type, begin, m.end))
        return true;
    report(r, m, w.fault);
    return false;
}

void run_enveloped(run &r, const message &m)
{
    bool tlv = m.magic == IDL_MAGIC_TLV;
    const struct idl_type *type = idl_message_type(m.type);
    print_head(r, m, tlv ? "TLV" : "IDR", type != nullptr ? type->it_name : "without a record");
    if (type == nullptr || walk_body(r, m, type, tlv, m.begin + IDL_ENVELOPE_SIZE))
        decode_message(r, m);
}

void run_raw(run &r, const message &m)
{
    print_head(r, m, "raw", nullptr);
    if (r.options.convert) {
        report(r, m, { m.begin, "a raw message has no other form" });
        return;
    }
    if (r.options.brief && can_render(m)) {
        const std::vector<uint8_t> octets(r.input.begin() + ptrdiff_t(m.begin), r.input.begin() + ptrdiff_t(m.end));
        render_message(r, octets.data());
        return;
    }
    walk w = { r.out, r.input, false, {}, {}, 1 };
    const char *const names[] = { "rtsh_version", "rtsh_type", "rtsh_op", "rtsh_flag" };
    for (size_t i = 0; i < std::size(names); i++)
        print_field(w, m.begin + 4 + i, names[i], integer_text(r.input[m.begin + 4 + i]));
    print_field(w, m.begin + 8, "rtsh_msglen", integer_text(word_at(r, m.begin + 8)));
    print_field(w, m.begin + 12, "rtsh_seq", integer_text(word_at(r, m.begin + 12)));
    print_field(w, m.begin + 16, "rtsh_sender", integer_text(word_at(r, m.begin + 16)));
    print_field(w, m.begin + RAW_HEADER, "data",
                octets_text(r.input.subspan(m.begin + RAW_HEADER, m.end - m.begin - RAW_HEADER)));
}

/* The message at m.begin. False with a report where no message can be told. */
bool find_message(run &r, message &m)
{
    size_t left = r.input.size() - m.begin;
    size_t least = IDL_ENVELOPE_SIZE;
    if (left >= least) {
        m.magic = word_at(r, m.begin);
        bool enveloped = m.magic == IDL_MAGIC_TLV || m.magic == IDL_MAGIC_IDR;
        uint64_t length = enveloped ? uint64_t(word_at(r, m.begin + 4)) + IDL_ENVELOPE_SIZE : word_at(r, m.begin + 8);
        least = enveloped ? size_t(IDL_ENVELOPE_SIZE) : size_t(RAW_HEADER);
        m.type = enveloped ? word_at(r, m.begin + 8) : r.input[m.begin + 5];
        m.end = m.begin + size_t(std::min<uint64_t>(length, left));
        if (length >= least && length <= left && (enveloped || m.magic == 0))
            return true;
        if (!enveloped && m.magic != 0) {
            report(r, m, { m.begin, "neither an envelope nor a raw message begins here" });
            return false;
        }
        report(r, m, { m.begin, "a message of " + std::to_string(length) + " octets, " + std::to_string(left) +
                                    " are left" });
        return false;
    }
    report(r, m, { m.begin, std::to_string(left) + " octets are no whole message" });
    return false;
}

void convert_record(const run &r, void *record, const void *map)
{
    const struct idl_type *type = r.options.type;
    bool tlv = r.options.to == wire_form::tlv;
    put_octets(r, encoded([&](void *buffer, size_t size) {
                   return tlv ? idl_tlv_encode(type, record, map, buffer, size)
                              : idl_idr_encode(type, record, buffer, size);
               }));
}

void run_record(run &r)
{
    const struct idl_type *type = r.options.type;
    message m = { 1, 0, r.input.size(), 0, 0 };
    if (!r.options.convert)
        fprintf(r.out, "%06x  %s, %s, %zu octets\n", 0U, type->it_name, r.options.idr ? "IDR" : "TLV", r.input.size());
    if (!walk_body(r, m, type, !r.options.idr, 0))
        return;
    blocks memory;
    void *record = take_block(type->it_size, &memory);
    void *map = take_block(type->it_map_size, &memory);
    int32_t code = r.options.idr
                       ? idl_idr_decode(type, record, r.input.data(), r.input.size(), take_block, &memory)
                       : idl_tlv_decode(type, record, map, r.input.data(), r.input.size(), take_block, &memory);
    if (code < 0 || size_t(code) != r.input.size())
        report(r, m,
               { 0, std::string("the library refuses it: ") + (code < 0 ? code_text(code) : "octets left over") });
    else if (r.options.convert)
        convert_record(r, record, r.options.idr ? nullptr : map);
}

}   // namespace

size_t run_messages(const idlcat_options &options, const char *name, std::span<const uint8_t> input, FILE *out,
                    FILE *err)
{
    run r = { options, name, input, out, err };
    if (options.type != nullptr) {
        run_record(r);
        return r.broken;
    }
    message m = { 1, 0, 0, 0, 0 };
    for (; m.begin < input.size(); m.begin = m.end, m.number++) {
        if (!find_message(r, m))
            break;
        if (m.magic == 0)
            run_raw(r, m);
        else
            run_enveloped(r, m);
    }
    return r.broken;
}
