/*
 * Fuzz target: any lines to the model, then any writes to it.
 *
 * The input is text up to its first zero octet, then requests: an octet that says the form and, for enveloped ones, the
 * message type, two octets of length, the body. Whatever came, the model then holds together: next hops count the
 * routes that lead to them, units stand on devices, families on units, addresses on families, and a walk ends.
 */
#include "platform/rtsock/model/rm.h"
#include "platform/rtsock/model/rtsock_model.h"

#include "lib/librtsock/idl/idl.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void must(bool holds)
{
    if (!holds)
        abort();
}

static constexpr uint8_t types[] = { 1, 2, 4, 5, 6, 7, 8, 10, 12, 13, 21, 72, 14, 109 };

static void run_lines(const char *text, size_t size)
{
    const std::string all(text, size);
    for (size_t at = 0; at < all.size();) {
        size_t end = std::min(all.find('\n', at), all.size());
        char error[64];
        rtsock_model_line(all.substr(at, end - at).c_str(), error, sizeof error);
        at = end + 1;
    }
}

static void run_request(int socket, uint8_t how, const uint8_t *body, uint32_t size)
{
    enum { FORM_RAW, FORM_TLV, FORM_IDR, FORMS };
    static uint8_t answer[1 << 17];
    std::vector<uint8_t> message;
    if (how % FORMS != FORM_RAW) {
        const uint32_t words[] = { how % FORMS == FORM_TLV ? uint32_t(IDL_MAGIC_TLV) : uint32_t(IDL_MAGIC_IDR), size,
                                   types[how / FORMS % std::size(types)] };
        message.resize(sizeof words);
        memcpy(message.data(), words, sizeof words);
    }
    message.insert(message.end(), body, body + size);
    (void)rtsock_write(socket, message.data(), message.size());
    while (rtsock_recv(socket, answer, sizeof answer, MSG_DONTWAIT) >= 0)
        continue;
}

template <typename record, typename check> static void for_all(struct rm_kind *kind, check holds)
{
    uint32_t count = 0;
    for (struct rm_object *o = rm_following(kind, nullptr); o != nullptr; o = rm_following(kind, o), count++)
        must(holds(*static_cast<const record *>(o->mo_record)));
    must(count == kind->mk_tree.pr_count);
}

static void check_state(void)
{
    std::map<uint32_t, uint32_t> users;
    for_all<rt_msg>(&rm_routes, [&](const rt_msg &r) {
        users[r.nhidx]++;
        return rm_table_exists(r.tid, r.af) && (r.nhidx == 0 || rm_nexthop_at(r.nhidx) != nullptr);
    });
    for_all<rnh_msg>(&rm_nexthops, [&](const rnh_msg &n) { return n.refcnt == users[n.idx]; });
    for_all<ifl_msg>(&rm_units, [](const ifl_msg &u) { return rm_device_at(u.ifd_idx) != nullptr; });
    for_all<iff_msg>(&rm_families, [](const iff_msg &f) { return rm_unit_at(f.ifl_idx) != nullptr; });
    for_all<ifa_msg>(&rm_addresses, [](const ifa_msg &a) { return rm_family_at(a.ifl_idx, a.af) != nullptr; });
    for_all<gencfg_msg>(&rm_blobs, [](const gencfg_msg &) { return true; });
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    enum { HEAD = 3 };
    rtsock_model_reset();
    rtsock_set_kernel(&rtsock_model);
    int asker = rtsock_open(), listener = rtsock_open();
    must(asker >= 0 && listener >= 0);
    const uint32_t everything[] = { UINT32_MAX, UINT32_MAX };
    must(rtsock_setsockopt(listener, RTSOCK_LEVEL, RTSOCK_LISTEN_BITS, everything, sizeof everything) == 0);
    const uint8_t *end = data + size, *at = std::find(data, end, 0);
    run_lines(reinterpret_cast<const char *>(data), size_t(at - data));
    for (at += at != end ? 1 : 0; end - at >= HEAD;) {
        uint32_t length = std::min(uint32_t(at[1]) << 8 | at[2], uint32_t(end - at - HEAD));
        run_request(asker, at[0], at + HEAD, length);
        at += HEAD + length;
    }
    check_state();
    rtsock_close(asker);
    rtsock_close(listener);
    return 0;
}
