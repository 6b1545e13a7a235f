/*
 * Fuzz target: streams of options of devices and addresses.
 *
 * The first octet chooses, what follows is the stream. The kernel decodes what it is sent and looks for every element
 * of the stream: as the item of its number, or among what travels as it was. Nothing may be lost, changed or added, and
 * a stream that is no run of whole elements sends nothing.
 */
#include "fuzz/lib/librtsock/lib_fuzz.h"
#include "lib/librtsock/rtslib_interface.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

using octets = std::vector<uint8_t>;

enum { HEAD = 4, AS_IT_WAS = 0x70000ff };

static octets written;

static ssize_t keep(void *, const void *from, size_t length)
{
    const auto *at = static_cast<const uint8_t *>(from);
    written.assign(at, at + length);
    return ssize_t(length);
}
static const rtsock_kernel keeping_kernel = kernel_that(keep);

static rtslib_cookie *connect_once(void)
{
    rtsock_set_kernel(&keeping_kernel);
    rtslib_cookie *cookie = rtslib_open(3);
    must(cookie != nullptr);
    return cookie;
}

static const idl_type *type_of(uint32_t tag)
{
    const idl_type *items = &idl_type_rts_msg_info;
    for (const idl_field *f = items->it_fields; f != items->it_fields + items->it_count; f++) {
        if (f->if_tag == tag)
            return f->if_type;
    }
    return nullptr;
}

static bool holds(const uint8_t *item_octets, uint32_t length, const octets &value)
{
    return length == value.size() && (length == 0 || memcmp(item_octets, value.data(), length) == 0);
}

/* The item carries the value of an element of its number. */
static bool carries(const rts_msg_info &item, uint16_t type, const octets &value)
{
    const idl_type *member = type_of(item.tag);
    if (item.tag != type || member == nullptr)
        return false;
    if (member == &idl_type_idl_words)
        return holds(reinterpret_cast<const uint8_t *>(item.u.ifd_mtus.words), item.u.ifd_mtus.words_len * 4, value);
    if (member == &idl_type_idl_octets)
        return holds(item.u.ifd_gathered.octets, item.u.ifd_gathered.octets_len, value);
    octets flat(member->it_idr_least);
    const void *record = &item.u;
    if (item.tag == 438)
        record = item.u.ifd_module_eprom;
    must(idl_idr_encode(member, record, flat.data(), flat.size()) == int32_t(flat.size()));
    octets given = value;   // maybe in part
    given.resize(std::max(flat.size(), given.size()));
    return flat == given;
}

/* The stream in order, as elements with their heads. False: it is broken. */
static bool split(const uint8_t *data, size_t size, std::vector<octets> *elements)
{
    for (size_t at = 0; at < size;) {
        uint16_t head[2];
        if (size - at < HEAD)
            return false;
        memcpy(head, data + at, sizeof head);
        if (head[1] == 0)
            return true;
        if (head[1] < HEAD || head[1] > size - at)
            return false;
        elements->emplace_back(data + at, data + at + head[1]);
        at += (head[1] + 3) / 4 * 4;
    }
    return true;
}

static void look(rtslib_cookie *cookie, const std::vector<octets> &elements, bool is_device)
{
    void *message = nullptr;
    must(rtslib_msg_idl_decode(cookie, written.data(), written.size(), &message, nullptr) == 0);
    const auto *header = static_cast<rts_hdr *>(message);
    octets rest;
    uint32_t next = 0;
    for (octets element : elements) {
        uint16_t type;
        memcpy(&type, element.data(), sizeof type);
        if (next < header->rtsh_info_len &&
            carries(*header->rtsh_info[next], type, { element.begin() + HEAD, element.end() })) {
            next++;
        } else if (is_device) {
            element.resize((element.size() + 3) / 4 * 4);
            rest.insert(rest.end(), element.begin(), element.end());
        } else {
            must(next < header->rtsh_info_len);
            const rts_msg_info &item = *header->rtsh_info[next++];
            must(item.tag == AS_IT_WAS && holds(item.u.ifd_gathered.octets, item.u.ifd_gathered.octets_len, element));
        }
    }
    if (!rest.empty()) {
        must(next < header->rtsh_info_len && header->rtsh_info[next]->tag == AS_IT_WAS);
        const rts_msg_info &item = *header->rtsh_info[next++];
        must(holds(item.u.ifd_gathered.octets, item.u.ifd_gathered.octets_len, rest));
    }
    must(next == header->rtsh_info_len);
    rtslib_msg_idl_release(cookie, message);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static rtslib_cookie *cookie = connect_once();
    if (size < 2)
        return 0;
    const uint8_t prefix[] = { 10 };
    bool is_device = (data[0] & 1) != 0;
    std::vector<octets> elements;
    bool whole = split(data + 1, size - 1, &elements);
    written.clear();
    int result = is_device ? rtslib_ifdm_change_tlvs(cookie, 7, 0, data + 1, uint32_t(size - 1))
                           : rtslib_ifa_pointchange(cookie, 7, 2, prefix, 8, data + 1, uint32_t(size - 1));
    must(written.empty() == (result != 0));
    must(result == 12 || (result == 0) == whole);
    if (result == 0)
        look(cookie, elements, is_device);
    return 0;
}
