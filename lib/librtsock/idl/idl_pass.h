/*
 * One pass over a catalogue: gives every word of the catalogue that the pass left undefined an empty meaning, reads the
 * files, and clears all words for the next pass. No include guard: it is included once for each pass.
 *
 * The words, which a .def file is written in:
 *
 *   IDL_BEGIN(T, N, DIALECT, PARTS)        a record type T of version N. DIALECT: HOST, NETWORK or IDR. PARTS:
 *                                          FIXED, or VARIABLE if a decoder may have to allocate, at any depth
 *   IDL_BEGIN_AS(T, R, N, DIALECT, PARTS)  the same, the structure being called R, where the host has a T
 *   IDL_U8/U16/U32/U64(TAG, NAME)          integer
 *   IDL_FLEX32/FLEX64(TAG, NAME)           flexible integer
 *   IDL_AF(TAG, NAME)                      address family
 *   IDL_BYTES(TAG, NAME, COUNT)            octets in place
 *   IDL_WORDS4(TAG, NAME)                  four 32-bit words, with tags TAG to TAG + 3, a field each: NAME_0 to NAME_3
 *   IDL_OPAQUE(TAG, NAME)                  uint8_t *NAME, uint32_t NAME_len
 *   IDL_STRING(TAG, NAME)                  the same with char *NAME, for texts. Senders count the terminator; whether
 *                                          one is there is for the reader to look at
 *   IDL_WORD_LIST(TAG, NAME)               uint32_t *NAME, uint32_t NAME_len
 *   IDL_RECORD(TAG, U, NAME)               record or choice U in place
 *   IDL_LIST(TAG, U, NAME)                 struct U *NAME, uint32_t NAME_len
 *   IDL_LIST_PTR(TAG, U, NAME)             struct U **NAME, uint32_t NAME_len
 *   IDL_END(T)
 *
 *   IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS) a choice; in memory struct T { uint32_t tag; union { ... } u; }
 *   IDL_MEMBER(TAG, U, NAME)               member stored in the union
 *   IDL_MEMBER_PTR(TAG, U, NAME)           member behind a pointer in the union
 *   IDL_CHOICE_END(T)
 *
 * A nested type stands before the types that use it.
 */
// Words of a catalogue become declarations, in which parentheses have no place.
// NOLINTBEGIN(bugprone-macro-parentheses)
#ifndef IDL_BEGIN
#define IDL_BEGIN(T, N, DIALECT, PARTS)
#endif
#ifndef IDL_BEGIN_AS
#define IDL_BEGIN_AS(T, R, N, DIALECT, PARTS) IDL_BEGIN(T, N, DIALECT, PARTS)
#endif
#ifndef IDL_U8
#define IDL_U8(TAG, NAME)
#endif
#ifndef IDL_U16
#define IDL_U16(TAG, NAME)
#endif
#ifndef IDL_U32
#define IDL_U32(TAG, NAME)
#endif
#ifndef IDL_U64
#define IDL_U64(TAG, NAME)
#endif
#ifndef IDL_FLEX32
#define IDL_FLEX32(TAG, NAME) IDL_U32(TAG, NAME)
#endif
#ifndef IDL_FLEX64
#define IDL_FLEX64(TAG, NAME) IDL_U64(TAG, NAME)
#endif
#ifndef IDL_AF
#define IDL_AF(TAG, NAME) IDL_U8(TAG, NAME)
#endif
#ifndef IDL_BYTES
#define IDL_BYTES(TAG, NAME, COUNT)
#endif
#ifndef IDL_WORDS4
#define IDL_WORDS4(TAG, NAME) \
    IDL_U32(TAG, NAME##_0) IDL_U32(TAG + 1, NAME##_1) IDL_U32(TAG + 2, NAME##_2) IDL_U32(TAG + 3, NAME##_3)
#endif
#ifndef IDL_OPAQUE
#define IDL_OPAQUE(TAG, NAME)
#endif
#ifndef IDL_STRING
#define IDL_STRING(TAG, NAME) IDL_OPAQUE(TAG, NAME)
#endif
#ifndef IDL_WORD_LIST
#define IDL_WORD_LIST(TAG, NAME)
#endif
#ifndef IDL_RECORD
#define IDL_RECORD(TAG, U, NAME)
#endif
#ifndef IDL_LIST
#define IDL_LIST(TAG, U, NAME)
#endif
#ifndef IDL_LIST_PTR
#define IDL_LIST_PTR(TAG, U, NAME)
#endif
#ifndef IDL_END
#define IDL_END(T)
#endif
#ifndef IDL_CHOICE_BEGIN
#define IDL_CHOICE_BEGIN(T, N, DIALECT, PARTS)
#endif
#ifndef IDL_MEMBER
#define IDL_MEMBER(TAG, U, NAME)
#endif
#ifndef IDL_MEMBER_PTR
#define IDL_MEMBER_PTR(TAG, U, NAME) IDL_MEMBER(TAG, U, NAME)
#endif
#ifndef IDL_CHOICE_END
#define IDL_CHOICE_END(T)
#endif

// NOLINTEND(bugprone-macro-parentheses)
#ifdef IDL_CATALOGUE   // without one a pass is empty
#include IDL_CATALOGUE
#endif

#undef IDL_BEGIN
#undef IDL_BEGIN_AS
#undef IDL_U8
#undef IDL_U16
#undef IDL_U32
#undef IDL_U64
#undef IDL_FLEX32
#undef IDL_FLEX64
#undef IDL_AF
#undef IDL_BYTES
#undef IDL_WORDS4
#undef IDL_OPAQUE
#undef IDL_STRING
#undef IDL_WORD_LIST
#undef IDL_RECORD
#undef IDL_LIST
#undef IDL_LIST_PTR
#undef IDL_END
#undef IDL_CHOICE_BEGIN
#undef IDL_MEMBER
#undef IDL_MEMBER_PTR
#undef IDL_CHOICE_END
