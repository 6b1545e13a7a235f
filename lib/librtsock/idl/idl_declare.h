/*
 * What a catalogue (IDL_CATALOGUE, defined by the includer) gives its users: structures, presence maps, functions. No
 * include guard: a program may declare a catalogue of its own beside the library's.
 *
 * map_T has one bit for each field of T, in declaration order: filling 32-bit words from bit 0 upward, a nested map
 * standing in place behind the bit of its field and the bits going on in a fresh word behind it; behind the bit of a
 * list stands a pointer to an array of maps, one for each item. The bit has the field's name, the nested map or pointer
 * the name with _map.
 *
 * For each type T of version N (HOST: both forms; NETWORK: TLV; IDR: IDR):
 *
 *   int32_t tlv_encode_T_N(const struct T *, const struct map_T *map, void *buffer, size_t size)
 *       Octets needed, whether they fit or not, at most INT32_MAX. map null: every field is written; so is every field
 *       of a list's items if the map has no array for them. buffer null: the size only. A pointer that is null counts
 *       nothing, whatever its count says; null items of a list by pointer are left out.
 *   int32_t tlv_decode_T_N(struct T *, struct map_T *map, const void *data, size_t length, alloc, context)
 *       Octets consumed, or an enum idl_code. map null: presence is not told. Types of FIXED parts take no alloc and
 *       context.
 *   void tlv_release_T_N(struct T *, struct map_T *map, release, context)
 *       Gives back what the decoder allocated under the record and the map, which may be null.
 *   const uint32_t tlv_rtti_sizeof_T_N, tlv_rtti_sizeof_map_T_N
 *   idr_encode_T_N, idr_decode_T_N, idr_release_T_N, idr_rtti_sizeof_T_N    the same without maps; a decoder counts
 *       the padding behind the last field, also where the data lacks it
 *
 * A failed decode leaves what it has built, which the release function gives back. Only the first INT32_MAX octets of
 * data are looked at.
 */
#include "lib/librtsock/idl/idl_table.h"

// NOLINTBEGIN(bugprone-macro-parentheses)

/* Names, so that a nested type finds its structure whatever it is called. */
#define IDL_BEGIN_AS(T, R, N, DIALECT, PARTS) \
    struct R;                                 \
    using idl_record_##T = struct R;
#define IDL_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN_AS(T, T, N, DIALECT, PARTS)
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN_AS(T, T, N, DIALECT, PARTS)
#include "lib/librtsock/idl/idl_pass.h"

/* Records. */
#define IDL_BEGIN_AS(T, R, N, DIALECT, PARTS) struct R {
#define IDL_BEGIN(T, N, DIALECT, PARTS) struct T {
#define IDL_U8(TAG, NAME) uint8_t NAME;
#define IDL_U16(TAG, NAME) uint16_t NAME;
#define IDL_U32(TAG, NAME) uint32_t NAME;
#define IDL_U64(TAG, NAME) uint64_t NAME;
#define IDL_BYTES(TAG, NAME, COUNT) uint8_t NAME[COUNT];
#define IDL_OPAQUE(TAG, NAME) \
    uint8_t *NAME;            \
    uint32_t NAME##_len;
#define IDL_STRING(TAG, NAME) \
    char *NAME;               \
    uint32_t NAME##_len;
#define IDL_WORD_LIST(TAG, NAME) \
    uint32_t *NAME;              \
    uint32_t NAME##_len;
#define IDL_RECORD(TAG, U, NAME) idl_record_##U NAME;
#define IDL_LIST(TAG, U, NAME) \
    idl_record_##U *NAME;      \
    uint32_t NAME##_len;
#define IDL_LIST_PTR(TAG, U, NAME) \
    idl_record_##U **NAME;         \
    uint32_t NAME##_len;
#define IDL_END(T) \
    }              \
    ;
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) \
    struct T {                                 \
        uint32_t tag;                          \
        union {
#define IDL_MEMBER(TAG, U, NAME) idl_record_##U NAME;
#define IDL_MEMBER_PTR(TAG, U, NAME) idl_record_##U *NAME;
#define IDL_CHOICE_END(T) \
    }                     \
    u;                    \
    }                     \
    ;
#include "lib/librtsock/idl/idl_pass.h"

/* Presence maps. */
#define IDL_BIT(NAME) uint32_t NAME : 1;
#define IDL_BEGIN(T, N, DIALECT, PARTS) struct map_##T {
#define IDL_U8(TAG, NAME) IDL_BIT(NAME)
#define IDL_U16(TAG, NAME) IDL_BIT(NAME)
#define IDL_U32(TAG, NAME) IDL_BIT(NAME)
#define IDL_U64(TAG, NAME) IDL_BIT(NAME)
#define IDL_BYTES(TAG, NAME, COUNT) IDL_BIT(NAME)
#define IDL_OPAQUE(TAG, NAME) IDL_BIT(NAME)
#define IDL_WORD_LIST(TAG, NAME) IDL_BIT(NAME)
#define IDL_RECORD(TAG, U, NAME) \
    IDL_BIT(NAME)                \
    struct map_##U NAME##_map;
#define IDL_LIST(TAG, U, NAME) \
    IDL_BIT(NAME)              \
    struct map_##U *NAME##_map;
#define IDL_LIST_PTR(TAG, U, NAME) IDL_LIST(TAG, U, NAME)
#define IDL_END(T) \
    }              \
    ;
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) \
    struct map_##T {                           \
        union {
#define IDL_MEMBER(TAG, U, NAME) struct map_##U NAME;
#define IDL_CHOICE_END(T) \
    }                     \
    u;                    \
    }                     \
    ;
#include "lib/librtsock/idl/idl_pass.h"
#undef IDL_BIT

/* Functions and sizes. */
#define IDL_ARGS_FIXED
#define IDL_ARGS_VARIABLE , idl_alloc_func alloc, void *context
#define IDL_TLV(T, N, PARTS)                                                                                       \
    int32_t tlv_encode_##T##_##N(const idl_record_##T *record, const struct map_##T *map, void *buffer, size_t size); \
    int32_t tlv_decode_##T##_##N(idl_record_##T *record, struct map_##T *map, const void *data,                    \
                                 size_t length IDL_ARGS_##PARTS);                                                  \
    void tlv_release_##T##_##N(idl_record_##T *record, struct map_##T *map, idl_release_func release, void *context); \
    extern const uint32_t tlv_rtti_sizeof_##T##_##N, tlv_rtti_sizeof_map_##T##_##N;
#define IDL_IDR(T, N, PARTS)                                                                                       \
    int32_t idr_encode_##T##_##N(const idl_record_##T *record, void *buffer, size_t size);                         \
    int32_t idr_decode_##T##_##N(idl_record_##T *record, const void *data, size_t length IDL_ARGS_##PARTS);        \
    void idr_release_##T##_##N(idl_record_##T *record, idl_release_func release, void *context);                   \
    extern const uint32_t idr_rtti_sizeof_##T##_##N;
#define IDL_FACES_HOST(T, N, PARTS) \
    IDL_TLV(T, N, PARTS)            \
    IDL_IDR(T, N, PARTS)
#define IDL_FACES_NETWORK(T, N, PARTS) IDL_TLV(T, N, PARTS)
#define IDL_FACES_IDR(T, N, PARTS) IDL_IDR(T, N, PARTS)
#define IDL_BEGIN(T, N, DIALECT, PARTS) \
    IDL_FACES_##DIALECT(T, N, PARTS) extern const struct idl_type idl_type_##T;
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
extern "C" {
#include "lib/librtsock/idl/idl_pass.h"
}
#undef IDL_ARGS_FIXED
#undef IDL_ARGS_VARIABLE
#undef IDL_TLV
#undef IDL_IDR
#undef IDL_FACES_HOST
#undef IDL_FACES_NETWORK
#undef IDL_FACES_IDR
// NOLINTEND(bugprone-macro-parentheses)
