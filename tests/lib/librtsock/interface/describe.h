/*
 * What a program sent, as text: every field that is not 0, by the names of the catalogue.
 */
#pragma once

#include "lib/librtsock/idl/codec.h"
#include "tests/lib/librtsock/scripted_kernel.h"

inline std::string hex(const void *from, size_t length)
{
    std::string text;
    char digits[3];
    for (size_t i = 0; i < length; i++)
        text.append(digits, size_t(snprintf(digits, sizeof digits, "%02x", static_cast<const uint8_t *>(from)[i])));
    return text;
}

inline std::string describe(const idl_type *type, const void *record)
{
    std::string text;
    for (const idl_field *f = type->it_fields; f != type->it_fields + type->it_count; f++) {
        const uint8_t *at = idl_octets(record) + f->if_offset;
        bool counted = f->if_kind == IDL_KIND_OPAQUE || f->if_kind == IDL_KIND_WORD_LIST;
        uint32_t count = counted ? idl_count(record, f) : 0;
        std::string value;
        if (f->if_kind <= IDL_KIND_AF && idl_get(at, f->if_width) != 0)
            value = std::to_string(idl_get(at, f->if_width));
        else if (f->if_kind == IDL_KIND_BYTES)
            value = hex(at, 2) + "*" + std::to_string(f->if_size);
        else if (f->if_kind == IDL_KIND_OPAQUE && count != 0)
            value = std::string("name") == f->if_name ? static_cast<char *>(idl_pointer(record, f))
                                                      : hex(idl_pointer(record, f), count);
        for (uint32_t i = 0; f->if_kind == IDL_KIND_WORD_LIST && i < count; i++)
            value += std::to_string(static_cast<uint32_t *>(idl_pointer(record, f))[i]) + ",";
        if (!value.empty()) text += std::string(" ") + f->if_name + "=" + value;
    }
    return text;
}

/* "TYPE.VERSION.HDRLEN opN FIELDS [TAG FIELDS]..." of a message as it was written. */
inline std::string sent(const octets &o, uint32_t seq)
{
    void *decoded = nullptr;
    rtslib_cookie cookie = {};
    EXPECT_EQ(rtslib_msg_idl_decode(&cookie, o.data(), o.size(), &decoded, nullptr), 0);
    if (decoded == nullptr) return "";
    const auto *h = static_cast<rts_hdr *>(decoded);
    EXPECT_EQ(h->rtsh_seq, seq);
    char head[40];
    snprintf(head, sizeof head, "%d.%d.%d op%d", h->rtsh_type, h->rtsh_version, h->rtsh_hdrlen, h->rtsh_op);
    std::string text = head + describe(idl_message_type(h->rtsh_type), decoded);
    for (uint32_t i = 0; i < h->rtsh_info_len; i++) {
        const idl_field *member = idl_field_by_tag(&idl_type_rts_msg_info, h->rtsh_info[i]->tag);
        text += " [" + std::to_string(member->if_tag) + describe(member->if_type, idl_member(h->rtsh_info[i], member)) +
                "]";
    }
    rtslib_msg_idl_release(&cookie, decoded);
    return text;
}

/* A logical interface as the kernel tells of it. */
inline octets unit_reply(uint32_t index, uint32_t unit, const char *name, uint32_t parent = 0, uint16_t map = 0)
{
    ifl_msg m = {};
    std::string text = name;
    m.rts_hdr.rtsh_type = 6;
    m.ifl_idx = index;
    m.unit = unit;
    m.parent_idx = parent;
    m.subset_map = map;
    m.lrid = 3;
    m.tenant = 4;
    m.name = text.data();
    m.name_len = uint32_t(text.size());   // without its terminator
    return wire(&m, 6);
}

/* A kernel with a system value and with sockets of others; the rest is the script. */
struct extras {
    octets value;
    std::string name;      // that was asked for
    std::pair<int, uint32_t> pinned{ -1, 0 };
};
inline extras extra;
inline const rtsock_kernel extra_kernel = [] {
    rtsock_kernel k = scripted_kernel;
    k.rk_sysctl = [](const int *name, unsigned count, void *value, size_t *length) {
        extra.name = hex(name, count * sizeof *name);
        if (value != nullptr) memcpy(value, extra.value.data(), extra.value.size());
        *length = value != nullptr ? extra.value.size() : extra.value.size() + 8;
        return 0;
    };
    k.rk_bind_interface = [](int fd, uint32_t index) { return extra.pinned = { fd, index }, 0; };
    return k;
}();

class InterfaceTest : public LibTest {
protected:
    InterfaceTest()
    {
        extra = {};
        rtsock_set_kernel(&extra_kernel);
    }
};
