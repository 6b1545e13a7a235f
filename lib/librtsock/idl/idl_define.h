/*
 * What stands behind idl_declare.h: the tables of a catalogue (IDL_CATALOGUE) and its public functions, which do
 * nothing but name their table to the codec. For one source file of each catalogue. The checks of a table are here,
 * too: tags unique in their type, FIXED and VARIABLE told truly, presence bits where the map has them, members in
 * place not above their limit.
 */
#include "lib/librtsock/idl/idl_layout.h"

#include <stddef.h>

// NOLINTBEGIN(bugprone-macro-parentheses)

enum { IDL_MEMBER_IN_PLACE_MAX = 368 };   // octets; larger members of a choice stand behind a pointer

/* Fields, with the facts of nested types beside them. */
#define IDL_FIELD(TAG, NAME, KIND, WIDTH, LEN, SIZE, TYPE, MAP) \
    { #NAME, TAG, KIND, WIDTH, offsetof(record, NAME), LEN, SIZE, TYPE, MAP },
#define IDL_INTEGER(TAG, NAME, KIND, WIDTH) \
    IDL_FIELD(TAG, NAME, KIND, WIDTH, 0, sizeof(record::NAME), nullptr, 0)
#define IDL_BEGIN(T, N, DIALECT, PARTS)                                \
    struct idl_table_##T {                                             \
        using record = idl_record_##T;                                 \
        using map = struct map_##T;                                    \
        static constexpr bool parts_variable = idl_parts::PARTS;       \
        static constexpr idl_dialect dialect = IDL_DIALECT_##DIALECT;  \
        static constexpr idl_field fields[] = {
#define IDL_U8(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_INT, 1)
#define IDL_U16(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_INT, 2)
#define IDL_U32(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_INT, 4)
#define IDL_U64(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_INT, 8)
#define IDL_FLEX32(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_FLEX, 4)
#define IDL_FLEX64(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_FLEX, 8)
#define IDL_AF(TAG, NAME) IDL_INTEGER(TAG, NAME, IDL_KIND_AF, 1)
#define IDL_BYTES(TAG, NAME, COUNT) IDL_INTEGER(TAG, NAME, IDL_KIND_BYTES, 0)
#define IDL_OPAQUE(TAG, NAME) \
    IDL_FIELD(TAG, NAME, IDL_KIND_OPAQUE, 0, offsetof(record, NAME##_len), 1, nullptr, 0)
#define IDL_WORD_LIST(TAG, NAME) \
    IDL_FIELD(TAG, NAME, IDL_KIND_WORD_LIST, 0, offsetof(record, NAME##_len), sizeof(uint32_t), nullptr, 0)
#define IDL_RECORD(TAG, U, NAME) \
    IDL_FIELD(TAG, NAME, IDL_KIND_RECORD, 0, 0, sizeof(record::NAME), &idl_type_##U, offsetof(map, NAME##_map))
#define IDL_LIST(TAG, U, NAME)                                                                                    \
    IDL_FIELD(TAG, NAME, IDL_KIND_LIST, 0, offsetof(record, NAME##_len), sizeof(idl_record_##U), &idl_type_##U, \
              offsetof(map, NAME##_map))
#define IDL_LIST_PTR(TAG, U, NAME)                                                                                    \
    IDL_FIELD(TAG, NAME, IDL_KIND_LIST_PTR, 0, offsetof(record, NAME##_len), sizeof(idl_record_##U), &idl_type_##U, \
              offsetof(map, NAME##_map))
#define IDL_END(T) \
    }              \
    ;              \
    }              \
    ;
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
#define IDL_MEMBER(TAG, U, NAME)                                                                                  \
    { #NAME, TAG, IDL_KIND_MEMBER, 0, offsetof(record, u.NAME), 0, sizeof(idl_record_##U), &idl_type_##U, 0 },
#define IDL_MEMBER_PTR(TAG, U, NAME)                                                                                  \
    { #NAME, TAG, IDL_KIND_MEMBER_PTR, 0, offsetof(record, u.NAME), 0, sizeof(idl_record_##U), &idl_type_##U, 0 },
#define IDL_CHOICE_END(T) IDL_END(T)
namespace {
struct idl_parts {
    static constexpr bool FIXED = false;
    static constexpr bool VARIABLE = true;
};
#include "lib/librtsock/idl/idl_pass.h"
}   // namespace
#undef IDL_FIELD
#undef IDL_INTEGER

/* Layouts. A nested type's layout stands before those that ask for its facts. */
#define IDL_NO_FACTS {},
#define IDL_FACTS(U) \
    { sizeof(struct map_##U), idl_places_##U::places.idr_least, idl_places_##U::places.flat, \
      idl_table_##U::parts_variable, idl_table_##U::dialect != table::dialect },
#define IDL_BEGIN(T, N, DIALECT, PARTS)     \
    struct idl_places_##T {                 \
        using table = idl_table_##T;        \
        static constexpr idl_layout::nested_facts facts[] = {
#define IDL_U8(TAG, NAME) IDL_NO_FACTS
#define IDL_U16(TAG, NAME) IDL_NO_FACTS
#define IDL_U32(TAG, NAME) IDL_NO_FACTS
#define IDL_U64(TAG, NAME) IDL_NO_FACTS
#define IDL_BYTES(TAG, NAME, COUNT) IDL_NO_FACTS
#define IDL_OPAQUE(TAG, NAME) IDL_NO_FACTS
#define IDL_WORD_LIST(TAG, NAME) IDL_NO_FACTS
#define IDL_RECORD(TAG, U, NAME) IDL_FACTS(U)
#define IDL_LIST(TAG, U, NAME) IDL_FACTS(U)
#define IDL_LIST_PTR(TAG, U, NAME) IDL_FACTS(U)
#define IDL_END(T)                                                                                               \
    }                                                                                                            \
    ;                                                                                                            \
    static constexpr auto places = idl_layout::record<sizeof(table::record)>(table::fields, facts);             \
    static_assert(idl_layout::map_size(table::fields, facts, places, alignof(table::map)) == sizeof(table::map)); \
    static_assert(places.tags_unique, "two fields of " #T " have one tag");                                       \
    static_assert(idl_layout::is_variable(table::fields, facts) == table::parts_variable,                        \
                  "FIXED or VARIABLE of " #T " is not true");                                                    \
    static_assert(!idl_layout::has_alien(facts), "a type nested in " #T " is of another dialect");               \
    }                                                                                                            \
    ;
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
#define IDL_MEMBER(TAG, U, NAME)                                                                                \
    { (static_assert_in_place<sizeof(idl_record_##U)>(), sizeof(struct map_##U)), 0, false, \
      idl_table_##U::parts_variable, idl_table_##U::dialect != table::dialect },
#define IDL_MEMBER_PTR(TAG, U, NAME) \
    { sizeof(struct map_##U), 0, false, true, idl_table_##U::dialect != table::dialect },
#define IDL_CHOICE_END(T)                                                                                \
    }                                                                                                    \
    ;                                                                                                    \
    static constexpr auto places = idl_layout::choice<sizeof(table::record)>(table::fields);              \
    static_assert(places.tags_unique, "two members of " #T " have one tag");                             \
    static_assert(idl_layout::is_variable(table::fields, facts) == table::parts_variable,                \
                  "FIXED or VARIABLE of " #T " is not true");                                            \
    static_assert(!idl_layout::has_alien(facts), "a member of " #T " is of another dialect");            \
    }                                                                                                    \
    ;
namespace {
template <size_t octets> constexpr void static_assert_in_place()
{
    static_assert(octets <= IDL_MEMBER_IN_PLACE_MAX, "a member this large stands behind a pointer: IDL_MEMBER_PTR");
}
#include "lib/librtsock/idl/idl_pass.h"
}   // namespace
#undef IDL_NO_FACTS
#undef IDL_FACTS

/* Types. */
#define IDL_TYPE(T, N, DIALECT, CHOICE)                                                                       \
    constexpr struct idl_type idl_type_##T = { #T, idl_table_##T::fields, idl_places_##T::places.places.data(), \
                                               idl_places_##T::places.steps.data(),                          \
                                               idl_places_##T::places.step_count,                            \
                                               idl_places_##T::places.mask.data(),                           \
                                               idl_places_##T::places.tags.data(),                           \
                                               idl_places_##T::places.tag_bits,                              \
                                               idl_places_##T::places.tag_factor,                            \
                                               uint32_t(idl_places_##T::places.places.size()),               \
                                               sizeof(idl_record_##T), sizeof(struct map_##T), N,            \
                                               IDL_DIALECT_##DIALECT, CHOICE, idl_table_##T::parts_variable, \
                                               idl_places_##T::places.idr_least };
#define IDL_BEGIN(T, N, DIALECT, PARTS) IDL_TYPE(T, N, DIALECT, false)
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_TYPE(T, N, DIALECT, true)
extern "C" {
#include "lib/librtsock/idl/idl_pass.h"
}
#undef IDL_TYPE

/* Functions. */
#define IDL_ARGS_FIXED
#define IDL_ARGS_VARIABLE , idl_alloc_func alloc, void *context
#define IDL_PASS_FIXED , nullptr, nullptr
#define IDL_PASS_VARIABLE , alloc, context
#define IDL_TLV(T, N, PARTS)                                                                                         \
    int32_t tlv_encode_##T##_##N(const idl_record_##T *record, const struct map_##T *map, void *buffer, size_t size)  \
    {                                                                                                                \
        return idl_tlv_encode(&idl_type_##T, record, map, buffer, size);                                             \
    }                                                                                                                \
    int32_t tlv_decode_##T##_##N(idl_record_##T *record, struct map_##T *map, const void *data,                      \
                                 size_t length IDL_ARGS_##PARTS)                                                     \
    {                                                                                                                \
        return idl_tlv_decode(&idl_type_##T, record, map, data, length IDL_PASS_##PARTS);                            \
    }                                                                                                                \
    void tlv_release_##T##_##N(idl_record_##T *record, struct map_##T *map, idl_release_func release, void *context)  \
    {                                                                                                                \
        idl_tlv_release(&idl_type_##T, record, map, release, context);                                               \
    }                                                                                                                \
    const uint32_t tlv_rtti_sizeof_##T##_##N = sizeof(idl_record_##T);                                               \
    const uint32_t tlv_rtti_sizeof_map_##T##_##N = sizeof(struct map_##T);
#define IDL_IDR(T, N, PARTS)                                                                                         \
    int32_t idr_encode_##T##_##N(const idl_record_##T *record, void *buffer, size_t size)                            \
    {                                                                                                                \
        return idl_idr_encode(&idl_type_##T, record, buffer, size);                                                  \
    }                                                                                                                \
    int32_t idr_decode_##T##_##N(idl_record_##T *record, const void *data, size_t length IDL_ARGS_##PARTS)           \
    {                                                                                                                \
        return idl_idr_decode(&idl_type_##T, record, data, length IDL_PASS_##PARTS);                                 \
    }                                                                                                                \
    void idr_release_##T##_##N(idl_record_##T *record, idl_release_func release, void *context)                      \
    {                                                                                                                \
        idl_idr_release(&idl_type_##T, record, release, context);                                                    \
    }                                                                                                                \
    const uint32_t idr_rtti_sizeof_##T##_##N = sizeof(idl_record_##T);
#define IDL_FACES_HOST(T, N, PARTS) IDL_TLV(T, N, PARTS) IDL_IDR(T, N, PARTS)
#define IDL_FACES_NETWORK(T, N, PARTS) IDL_TLV(T, N, PARTS)
#define IDL_FACES_IDR(T, N, PARTS) IDL_IDR(T, N, PARTS)
#define IDL_BEGIN(T, N, DIALECT, PARTS) IDL_FACES_##DIALECT(T, N, PARTS)
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
extern "C" {
#include "lib/librtsock/idl/idl_pass.h"
}
#undef IDL_ARGS_FIXED
#undef IDL_ARGS_VARIABLE
#undef IDL_PASS_FIXED
#undef IDL_PASS_VARIABLE
#undef IDL_TLV
#undef IDL_IDR
#undef IDL_FACES_HOST
#undef IDL_FACES_NETWORK
#undef IDL_FACES_IDR
// NOLINTEND(bugprone-macro-parentheses)
