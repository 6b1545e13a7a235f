/*
 * Streams of options into message items.
 *
 * What becomes of an element is the catalogue's to say: the member of its number among the items is a counted array of
 * 32-bit words, plain octets, or a layout of its own, in that layout's flat form, which may be given in part. Elements
 * that do not fit their member, as those never do whose member holds anything else, travel as plain octets with their
 * heads: nothing of an element is lost, and none is laid over memory. For a device only the members made for devices
 * count, and all that is left over is one item, the last; for an address any member counts, and each element is an item
 * of its own.
 *
 * The message's buffer is zeroed, and so is what is taken of it.
 */
#include "lib/librtsock/idl/codec.h"
#include "lib/librtsock/interface/exchange.h"

#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

enum {
    HEAD = 4,                      // octets of an element before its value
    UNIT = 4,                      // elements begin at multiples of it
    LAST_DEVICE_TYPE = 480,
    TAG_GATHERED = 0x70000ff,
    LAYOUT_MAX = sizeof(struct if_module_eprom),
};

/* Elements of devices with layouts of their own. */
constexpr uint16_t device_layouts[] = { 10, 230, 231, 355, 363, 438, 439 };

struct element {
    uint16_t type, length;   // length with the head
    const uint8_t *head;

    const uint8_t *value() const { return head + HEAD; }
    uint32_t size() const { return length - uint32_t(HEAD); }
};

struct tlv_stream {
    const uint8_t *octets;
    size_t length, offset;
};

enum step { STEP_END, STEP_ELEMENT, STEP_BROKEN };

step next_element(struct tlv_stream *stream, element *e)
{
    if (stream->offset >= stream->length)
        return STEP_END;
    size_t left = stream->length - stream->offset;
    if (left < HEAD)
        return STEP_BROKEN;
    e->head = stream->octets + stream->offset;
    e->type = idl_load<uint16_t>(e->head);
    e->length = idl_load<uint16_t>(e->head + sizeof e->type);
    if (e->length == 0)
        return STEP_END;
    if (e->length < HEAD || e->length > left)
        return STEP_BROKEN;
    stream->offset += idl_aligned(e->length, UNIT);
    return STEP_ELEMENT;
}

/* The value, zeroes behind it up to the layout's size. */
struct whole_layout {
    uint8_t octets[LAYOUT_MAX];
};

struct whole_layout whole(const element &e)
{
    struct whole_layout layout = {};
    memcpy(layout.octets, e.value(), e.size());
    return layout;
}

/* True if all of the value comes out of the layout again: there may be more of it, or octets in gaps. */
bool layout_carries(const struct idl_type *type, const element &e)
{
    alignas(uint64_t) uint8_t record[LAYOUT_MAX] = {};
    uint32_t octets = type->it_idr_least;
    if (type->it_variable || type->it_size > sizeof record || octets > LAYOUT_MAX || e.size() > octets)
        return false;
    struct whole_layout given = whole(e), again = {};
    return idl_idr_decode(type, record, given.octets, octets, nullptr, nullptr) >= 0 &&
           idl_idr_encode(type, record, again.octets, octets) == int32_t(octets) &&
           memcmp(given.octets, again.octets, octets) == 0;
}

/* The member that the element can be, or null. */
const struct idl_field *member_of(const element &e)
{
    const struct idl_field *member = idl_field_by_tag(&idl_type_rts_msg_info, e.type);
    if (member == nullptr || member->if_type == &idl_type_idl_octets)
        return member;
    if (member->if_type == &idl_type_idl_words)
        return e.size() % sizeof(uint32_t) == 0 ? member : nullptr;
    return layout_carries(member->if_type, e) ? member : nullptr;
}

const struct idl_field *device_member_of(const element &e)
{
    const struct idl_field *member = e.type <= LAST_DEVICE_TYPE ? member_of(e) : nullptr;
    if (member == nullptr || member->if_type == &idl_type_idl_octets || member->if_type == &idl_type_idl_words)
        return member;
    bool is_device = std::find(std::begin(device_layouts), std::end(device_layouts), e.type) !=
                     std::end(device_layouts);
    return is_device ? member : nullptr;
}

void put_layout(struct rtslib_parts *parts, struct rts_msg_info *item, const struct idl_field *member, const element &e)
{
    if (member->if_kind == IDL_KIND_MEMBER_PTR)
        idl_set_pointer(item, member, rtslib_request_room(parts->request, &parts->cursor, member->if_size));
    void *record = idl_member(item, member);
    if (record == nullptr) {
        parts->error = TARGET_ENOMEM;
        return;
    }
    struct whole_layout layout = whole(e);
    (void)idl_idr_decode(member->if_type, record, layout.octets, member->if_type->it_idr_least, nullptr, nullptr);
}

struct rts_msg_info *new_item(struct rtslib_parts *parts, uint32_t tag)
{
    auto *item = static_cast<struct rts_msg_info *>(
        rtslib_request_room(parts->request, &parts->cursor, sizeof(struct rts_msg_info)));
    if (item == nullptr) {
        parts->error = TARGET_ENOMEM;
        return nullptr;
    }
    item->tag = tag;
    rtslib_put_item(parts, item);
    return item;
}

void put_member(struct rtslib_parts *parts, const struct idl_field *member, const element &e)
{
    struct rts_msg_info *item = new_item(parts, e.type);
    if (item == nullptr)
        return;
    if (member->if_type == &idl_type_idl_octets) {
        auto *octets = static_cast<struct idl_octets *>(idl_member(item, member));
        rtslib_put_octets(parts, e.value(), e.size(), &octets->octets, &octets->octets_len);
    } else if (member->if_type == &idl_type_idl_words) {
        auto *list = static_cast<struct idl_words *>(idl_member(item, member));
        uint8_t *words = nullptr;
        rtslib_put_octets(parts, e.value(), e.size(), &words, &list->words_len);
        list->words = reinterpret_cast<uint32_t *>(words);
        list->words_len /= sizeof(uint32_t);
    } else {
        put_layout(parts, item, member, e);
    }
}

void put_as_it_is(struct rtslib_parts *parts, const element &e)
{
    struct rts_msg_info *item = new_item(parts, TAG_GATHERED);
    if (item != nullptr)
        rtslib_put_octets(parts, e.head, e.length, &item->u.ifd_gathered.octets, &item->u.ifd_gathered.octets_len);
}

/* One item of size octets for all elements of a device that are no items of their own: a stream again. */
void put_gathered(struct rtslib_parts *parts, struct tlv_stream stream, size_t size)
{
    struct rts_msg_info *item = new_item(parts, TAG_GATHERED);
    if (item == nullptr)
        return;
    auto *octets = static_cast<uint8_t *>(rtslib_request_room(parts->request, &parts->cursor, size));
    if (octets == nullptr) {
        parts->error = TARGET_ENOMEM;
        return;
    }
    item->u.ifd_gathered.octets = octets;
    item->u.ifd_gathered.octets_len = uint32_t(size);
    element e;
    while (next_element(&stream, &e) == STEP_ELEMENT) {
        if (device_member_of(e) != nullptr)
            continue;
        memcpy(octets, e.head, e.length);
        octets += idl_aligned(e.length, UNIT);
    }
}

}   // namespace

int rtslib_convert_device(void *message, uint8_t **cursor, const void *stream, uint32_t length)
{
    struct tlv_stream elements = { static_cast<const uint8_t *>(stream), length, 0 };
    struct rtslib_parts parts = { message, *cursor, 0 };
    size_t left_over = 0;
    element e;
    step step;
    while ((step = next_element(&elements, &e)) == STEP_ELEMENT && parts.error == 0) {
        const struct idl_field *member = device_member_of(e);
        if (member != nullptr)
            put_member(&parts, member, e);
        else
            left_over += idl_aligned(e.length, UNIT);
    }
    if (parts.error == 0 && step == STEP_BROKEN)
        parts.error = TARGET_EINVAL;
    if (parts.error == 0 && left_over != 0)
        put_gathered(&parts, { elements.octets, length, 0 }, left_over);
    *cursor = parts.cursor;
    return parts.error;
}

int rtslib_convert_address(void *message, uint8_t **cursor, const void *stream, uint32_t length)
{
    struct tlv_stream elements = { static_cast<const uint8_t *>(stream), length, 0 };
    struct rtslib_parts parts = { message, *cursor, 0 };
    element e;
    step step;
    while ((step = next_element(&elements, &e)) == STEP_ELEMENT && parts.error == 0) {
        const struct idl_field *member = member_of(e);
        if (member != nullptr)
            put_member(&parts, member, e);
        else
            put_as_it_is(&parts, e);
    }
    if (parts.error == 0 && step == STEP_BROKEN)
        parts.error = TARGET_EINVAL;
    *cursor = parts.cursor;
    return parts.error;
}
