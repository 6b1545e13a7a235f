/*
 * The catalogue as a document: every message with its fields, the optional items, and the records below them.
 *
 * All of it comes from the tables that the codec runs on, so the document cannot tell another wire form than the one
 * spoken. Fields stand in declaration order, which is the order of the presence bits and of IDR; items by their tags.
 * Every record has a heading of its name, which the nested types of other records link to.
 */
#include "tools/idlcat/idlcat.h"

#include "lib/librtsock/rtslib_names.h"

#include <algorithm>

namespace {

const char *const kind_words[] = {
    "integer", "flexible integer", "address family", "octets", "opaque", "word list", "record", "list",
    "list by pointer", "member", "member by pointer",
};
static_assert(std::size(kind_words) == IDL_KIND_MEMBER_PTR + 1);

const char *const introduction =
    "# Messages of the routing socket\n"
    "\n"
    "Written by `idlcat --catalogue` from the tables of the codec; do not edit.\n"
    "\n"
    "A message is an envelope of three 32-bit words (magic, length of the body, message type) and a body: one record\n"
    "in TLV (magic 0x5011) or IDR (0x5022). Fields stand in their declared order, in which IDR lays them out and the\n"
    "bits of presence maps are counted; the tag is the field's in TLV. Widths are in bits. Most records have both\n"
    "forms. Those of the last two sections have one: TLV with 16-bit headers, or IDR.\n";

bool is_message(const struct idl_type *type)
{
    for (uint32_t number = 0; number < RTSLIB_TYPES; number++) {
        if (idl_message_type(number) == type)
            return true;
    }
    return false;
}

std::string width_text(const struct idl_field &field)
{
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
    case IDL_KIND_AF:
        return std::to_string(field.if_width * 8);
    case IDL_KIND_BYTES:
        return std::to_string(field.if_size * 8);
    default:
        return "";
    }
}

std::string tag_text(uint32_t tag)
{
    char text[16];
    snprintf(text, sizeof text, tag > UINT16_MAX ? "0x%x" : "%u", tag);
    return text;
}

void print_row(FILE *out, const struct idl_field &field)
{
    std::string nested;
    if (field.if_type != nullptr)
        nested = std::string("[") + field.if_type->it_name + "](#" + field.if_type->it_name + ")";
    fprintf(out, "| %s | `%s` | %s | %s | %s |\n", tag_text(field.if_tag).c_str(), field.if_name,
            kind_words[field.if_kind], width_text(field).c_str(), nested.c_str());
}

void print_table(FILE *out, const struct idl_type *type)
{
    fprintf(out, "\n| Tag | %s | Kind | Width | Type |\n|---|---|---|---|---|\n", type->it_choice ? "Member" : "Field");
    std::vector<struct idl_field> fields(type->it_fields, type->it_fields + type->it_count);
    if (type->it_choice)
        std::stable_sort(fields.begin(), fields.end(),
                         [](const idl_field &a, const idl_field &b) { return a.if_tag < b.if_tag; });
    for (const struct idl_field &field : fields)
        print_row(out, field);
}

/* The heading, what the type is if that is not plain, and its table. */
void print_type(FILE *out, const struct idl_type *type)
{
    fprintf(out, "\n### %s\n", type->it_name);
    if (type->it_choice)
        fprintf(out, "\nA choice: three words (0, length of the member, tag), then the member.\n");
    if (type->it_version != 0)
        fprintf(out, "\nVersion %d of the type.\n", type->it_version);
    print_table(out, type);
}

/* Records may serve several message types, and stand once, at the first. */
void print_messages(FILE *out)
{
    fprintf(out, "\n## Messages\n\n| Message type | Name | Version | Record |\n|---|---|---|---|\n");
    std::vector<const struct idl_type *> records;
    for (uint32_t number = 0; number < RTSLIB_TYPES; number++) {
        const struct idl_type *type = idl_message_type(number);
        if (type == nullptr)
            continue;
        // Type 0 is sent with the version of the interface, which stands in the slot of its version.
        fprintf(out, "| %u | %s | %d | [%s](#%s) |\n", number, rtm_types[number], rtslib_versions[number + 1],
                type->it_name, type->it_name);
        if (std::find(records.begin(), records.end(), type) == records.end())
            records.push_back(type);
    }
    for (const struct idl_type *type : records)
        print_type(out, type);
}

void print_section(FILE *out, const char *heading, idl_dialect dialect, const struct idl_type *left_out)
{
    fprintf(out, "\n## %s\n", heading);
    for (const struct idl_type *type : std::span(idl_catalogue, idl_catalogue_count)) {
        if (type->it_dialect == dialect && type != left_out && !is_message(type))
            print_type(out, type);
    }
}

}   // namespace

void print_catalogue(FILE *out)
{
    const struct idl_type *items = idl_type_by_name("rts_msg_info");
    fputs(introduction, out);
    print_messages(out);
    fprintf(out, "\n## Optional items\n");
    print_type(out, items);
    print_section(out, "Records inside messages", IDL_DIALECT_HOST, items);
    print_section(out, "Types in network order", IDL_DIALECT_NETWORK, nullptr);
    print_section(out, "Types of IDR only", IDL_DIALECT_IDR, nullptr);
}
