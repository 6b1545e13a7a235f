/*
 * Blobs: records in an encoding of their own inside messages.
 *
 * They are decoded into scratch on the stack, since rendering takes no memory. A blob that is broken leaves a text that
 * says so, and the line goes on. One whose items need more than the scratch, several hundred of them, is no broken one:
 * the text says how large it is.
 */
#include "lib/librtsock/format/line.h"

#include <algorithm>

namespace {

struct arena {
    size_t used;
    alignas(uint64_t) uint8_t memory[16384];
};

void *take(size_t size, void *context)
{
    auto *a = static_cast<struct arena *>(context);
    size = (size + alignof(uint64_t) - 1) & ~(alignof(uint64_t) - 1);
    if (size > sizeof a->memory - a->used)
        return nullptr;
    void *block = a->memory + a->used;
    a->used += size;
    return block;
}

/* Octets that are left over make a blob as bad as octets that are missing; padding of the last value is none. */
int32_t decode(struct arena *a, const struct idl_type *type, void *record, const uint8_t *blob, size_t length)
{
    int32_t code = idl_tlv_decode(type, record, nullptr, blob, length, take, a);
    size_t padded = (size_t(std::max(code, 0)) + 3) & ~size_t(3);
    return code < 0 || size_t(code) == length || padded == length ? code : int32_t(IDL_CODE_GARBLED);
}

void put_large(struct format_out *out, const struct idl_type *type, size_t length)
{
    format_put_string(out, "Too large to be shown: ");
    format_put_string(out, type->it_name);
    format_put_string(out, " of ");
    format_put_unsigned(out, length);
    format_put_string(out, " octets.\n");
}

}   // namespace

void format_put_blob(struct format_out *out, const struct idl_type *type, const struct format_line *line,
                     const uint8_t *blob, size_t length)
{
    struct arena a;
    a.used = 0;
    void *record = take(line->size, &a);
    int32_t code = record != nullptr ? decode(&a, type, record, blob, length) : int32_t(IDL_CODE_ALLOC);
    if (code >= 0) {
        format_put_line(out, line, record);
        return;
    }
    if (code == IDL_CODE_ALLOC) {
        put_large(out, type, length);
        return;
    }
    format_put_string(out, "Error ");
    format_put_dec(out, code);
    format_put_string(out, " decoding ");
    format_put_string(out, type->it_name);
    format_put_string(out, ".\n");
}
