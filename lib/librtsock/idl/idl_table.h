/*
 * Type descriptions: one table for each message type, which every encoder, decoder, release and size comes from.
 *
 * A type is a record (its fields in declaration order) or a choice (its members by tag). The tables are written in
 * catalogue/ *.def files and turned into structures, presence maps, tables and public functions by idl_declare.h and
 * idl_define.h. Everything here is constant: the codec has no state.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* Memory for variable parts: size octets aligned as malloc aligns, 8 being enough, or null: records hold pointers and
 * 64-bit integers. What is returned need not be zeroed. */
typedef void *(*idl_alloc_func)(size_t size, void *context);
typedef void (*idl_release_func)(void *memory, void *context);

/* Results of decoders that are not a count of octets. */
enum idl_code {
    IDL_CODE_SIZE = 0,          // "Invalid Buffer Size"
    IDL_CODE_GARBLED = -1,      // "Garbled Message"
    IDL_CODE_ALLOC = -2,        // "Allocation Failure"
    IDL_CODE_MAGIC = -3,        // "Invalid Magic"
    // Kept on purpose: nothing here gives these two, and the last stands in TLV's list alone.
    IDL_CODE_CHOICE = -4,       // "Invalid Choice"; a choice takes it for a member that was read
    IDL_CODE_HOMOGENEOUS = -5,  // "HOMOGENEOUS"
};

enum idl_kind : uint8_t {
    IDL_KIND_INT,        // integer of if_width octets
    IDL_KIND_FLEX,       // the same, read from TLV with any width of 1, 2, 4 or 8
    IDL_KIND_AF,         // address family, one octet, translated in TLV
    IDL_KIND_BYTES,      // array of if_size octets in place
    IDL_KIND_OPAQUE,     // pointer, and a 32-bit count of octets
    IDL_KIND_WORD_LIST,  // pointer, and a 32-bit count of 32-bit words
    IDL_KIND_RECORD,     // record or choice of if_type, in place
    IDL_KIND_LIST,       // pointer to an array of if_type, and a 32-bit count
    IDL_KIND_LIST_PTR,   // pointer to an array of pointers to if_type, and a 32-bit count
    IDL_KIND_MEMBER,     // member of a choice, in place
    IDL_KIND_MEMBER_PTR, // member of a choice, behind a pointer
};

struct idl_type;

struct idl_field {
    const char *if_name;
    uint32_t if_tag;
    idl_kind if_kind;
    uint8_t if_width;                // octets of an integer
    uint32_t if_offset;              // of the value or the pointer in the record
    uint32_t if_len_offset;          // of the count, for kinds that have one
    uint32_t if_size;                // octets of the value in memory; of one item for lists
    const struct idl_type *if_type;  // nested type, or null
    uint32_t if_map_offset;          // of the nested map, or of the pointer to the array of maps
};

/* What idl_layout.h computes for each field from the table. A run counts from its field on. */
struct idl_place {
    uint64_t ip_header;         // integers: the header of the element in host dialect, as it stands on the wire
    uint32_t ip_bit;            // presence bit: octet offset of its word in the map, times 32, plus the bit's number
    uint32_t ip_elements_bits;  // presence bits of the run of elements, in the word of ip_bit
    uint32_t ip_load;           // integers of up to 4 octets: offset of 4 octets of the record with the value in them
    uint32_t ip_mask;           // the value's bits, once shifted down
    uint8_t ip_shift;           // bits to shift it down
    uint8_t ip_elements;        // run of integers whose elements are of one size and whose presence bits share a word
    uint8_t ip_element_octets;  // size of such an element
};

/* A step of IDR: a run of fields that lie in memory as they do on the wire, gaps included, or a field by itself. Steps
 * stand back to back, so that the next one can be looked at before the last one is done. */
struct idl_step {
    const struct idl_field *is_field;   // the first
    uint32_t is_count;                  // fields
    uint32_t is_offset;                 // of the first in the record
    uint32_t is_octets;                 // of a run, to the end of its last field; 0: not a run
    uint32_t is_align;                  // of the first on the wire
};

enum idl_dialect : uint8_t {
    IDL_DIALECT_HOST,     // TLV with 8-octet element headers in host order, and IDR
    IDL_DIALECT_NETWORK,  // TLV with 4-octet element headers in network order, no IDR
    IDL_DIALECT_IDR,      // IDR only
};

struct idl_type {
    const char *it_name;
    const struct idl_field *it_fields;   // in declaration order
    const struct idl_place *it_places;   // one for each field
    const struct idl_step *it_steps;
    uint32_t it_step_count;
    const uint8_t *it_mask;              // for each octet of the record: 0xff in fields that stand in runs, 0 in gaps
    const uint16_t *it_tags;             // numbers of fields plus 1, found by idl_tag_slot; 0: a free slot
    uint32_t it_tag_bits;                // slots are 2 to that power
    uint32_t it_tag_factor;
    uint32_t it_count;
    uint32_t it_size;                    // of the record
    uint32_t it_map_size;
    uint8_t it_version;
    idl_dialect it_dialect;
    bool it_choice;
    bool it_variable;                    // has parts that a decoder allocates, at any depth
    uint32_t it_idr_least;               // octets of the smallest record in IDR
};

/* The codec. type's record, and map (its map_T, or null), as the public functions of the type tell. */
int32_t idl_tlv_encode(const struct idl_type *type, const void *record, const void *map, void *buffer, size_t size);
int32_t idl_tlv_decode(const struct idl_type *type, void *record, void *map, const void *data, size_t length,
                       idl_alloc_func alloc, void *context);
void idl_tlv_release(const struct idl_type *type, void *record, void *map, idl_release_func release, void *context);
int32_t idl_idr_encode(const struct idl_type *type, const void *record, void *buffer, size_t size);
int32_t idl_idr_decode(const struct idl_type *type, void *record, const void *data, size_t length,
                       idl_alloc_func alloc, void *context);
void idl_idr_release(const struct idl_type *type, void *record, idl_release_func release, void *context);

/* True if the presence bit of field number index (declaration order) is set in map. */
bool idl_map_has(const struct idl_type *type, const void *map, uint32_t index);

/* All types of the catalogue, in the order of its files; for tools and documentation. */
extern const struct idl_type *const idl_catalogue[];
extern const uint32_t idl_catalogue_count;
/* By name, or null. */
const struct idl_type *idl_type_by_name(const char *name);
/* The record of a message type (rtsh_type), or null if the type has no codec. */
const struct idl_type *idl_message_type(uint32_t rtsh_type);

}   // extern "C"
