#include "tests/lib/librtsock/idl/random_record.h"

#include <gtest/gtest.h>
#include <string.h>

void *heap::take(size_t size, void *context)
{
    auto *h = static_cast<heap *>(context);
    if (h->left == 0)
        return nullptr;
    h->left -= h->left > 0 ? 1 : 0;
    h->taken++;
    h->largest = std::max(h->largest, size);
    auto block = std::make_unique<uint64_t[]>((size + 7) / 8);
    void *memory = block.get();
    memset(memory, 0xa5, size);
    h->live[memory] = std::move(block);
    return memory;
}

void heap::give(void *memory, void *context)
{
    static_cast<heap *>(context)->live.erase(memory);
}

std::vector<uint64_t> room_for(uint32_t octets)
{
    return std::vector<uint64_t>(octets / 8 + 1);
}

static void *zeroed(random_source &source, size_t size)
{
    return memset(heap::take(size, &source.memory), 0, size);
}

static void fill_octets(random_source &source, void *at, size_t size)
{
    for (size_t i = 0; i < size; i++)
        static_cast<uint8_t *>(at)[i] = uint8_t(source.below(256));
}

static void fill_list(random_source &source, const struct idl_field *field, void *array, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        void *item = static_cast<uint8_t *>(array) + size_t(i) * field->if_size;
        if (field->if_kind == IDL_KIND_LIST_PTR) {
            item = zeroed(source, field->if_size);
            static_cast<void **>(array)[i] = item;
        }
        fill_record(source, field->if_type, item);
    }
}

static void fill_counted(random_source &source, const struct idl_field *field, uint8_t *record)
{
    uint32_t count = source.below(4);
    memcpy(record + field->if_len_offset, &count, sizeof count);
    if (count == 0)
        return;
    bool by_pointer = field->if_kind == IDL_KIND_LIST_PTR;
    void *array = zeroed(source, count * (by_pointer ? sizeof(void *) : field->if_size));
    memcpy(record + field->if_offset, &array, sizeof array);
    if (field->if_type != nullptr)
        fill_list(source, field, array, count);
    else
        fill_octets(source, array, size_t(count) * field->if_size);
}

static void fill_member(random_source &source, const struct idl_type *type, uint8_t *record)
{
    const struct idl_field *member = &type->it_fields[source.below(type->it_count)];
    memcpy(record, &member->if_tag, sizeof member->if_tag);
    void *body = record + member->if_offset;
    if (member->if_kind == IDL_KIND_MEMBER_PTR) {
        body = zeroed(source, member->if_size);
        memcpy(record + member->if_offset, &body, sizeof body);
    }
    fill_record(source, member->if_type, body);
}

void fill_record(random_source &source, const struct idl_type *type, void *record)
{
    auto *at = static_cast<uint8_t *>(record);
    if (type->it_choice) {
        fill_member(source, type, at);
        return;
    }
    for (uint32_t i = 0; i < type->it_count; i++) {
        const struct idl_field *field = &type->it_fields[i];
        switch (field->if_kind) {
        case IDL_KIND_AF:
            at[field->if_offset] = 28;
            break;
        case IDL_KIND_INT:
        case IDL_KIND_FLEX:
        case IDL_KIND_BYTES:
            fill_octets(source, at + field->if_offset,
                        field->if_kind == IDL_KIND_BYTES ? field->if_size : field->if_width);
            break;
        case IDL_KIND_RECORD:
            fill_record(source, field->if_type, at + field->if_offset);
            break;
        default:
            fill_counted(source, field, at);
            break;
        }
    }
}

std::vector<uint8_t> tlv_of(const struct idl_type *type, const void *record, const void *map)
{
    std::vector<uint8_t> octets(size_t(idl_tlv_encode(type, record, map, nullptr, 0)));
    EXPECT_EQ(idl_tlv_encode(type, record, map, octets.data(), octets.size()), int32_t(octets.size())) << type->it_name;
    return octets;
}

std::vector<uint8_t> idr_of(const struct idl_type *type, const void *record)
{
    std::vector<uint8_t> octets(size_t(idl_idr_encode(type, record, nullptr, 0)));
    EXPECT_EQ(idl_idr_encode(type, record, octets.data(), octets.size()), int32_t(octets.size())) << type->it_name;
    return octets;
}
