/*
 * Fuzz target: any octets as a message, decoded or raw, and as a prefix or an address, rendered in all modes into a
 * buffer of any size.
 *
 * Nothing is written behind the buffer or read behind the message. The result says whether the text was cut, what is
 * there is terminated, and it is the front of the text that a large buffer has.
 */
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/idl/idl.h"
#include "lib/librtsock/rtslib_raw.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static struct rtslib_cookie silent;   // reports nothing

int LLVMFuzzerInitialize(int *, char ***)
{
    stderr = fopen("/dev/null", "w");   // address families out of range are logged; the fuzzer has its own stream
    return stderr ? 0 : 1;
}

static void must(bool holds)
{
    if (!holds) abort();
}

using writer = std::function<int(char *, size_t)>;

static void write_all(const writer &write, size_t size)
{
    static std::vector<char> whole(1 << 20);
    int full = write(whole.data(), whole.size());
    size_t length = strlen(whole.data());
    must(full == 0 || length == whole.size() - 1);
    std::unique_ptr<char[]> buffer(new char[size]);
    must(write(buffer.get(), size) == (size > length ? full : -1));
    if (size == 0) return;
    must(strnlen(buffer.get(), size) == std::min(length, size - 1));
    must(memcmp(buffer.get(), whole.data(), std::min(length, size - 1)) == 0);
}

static void render(const void *message, size_t size)
{
    for (int mode : { 0, 1, 2 })
        write_all([=](char *text, size_t n) { return rtslib_format_output(&silent, text, n, mode, message); }, size);
    char full[RTSLIB_FORMAT_FULL_SIZE];
    uint8_t type = static_cast<const struct rts_raw_hdr *>(message)->type;
    if (type == 26) must(rtslib_rtsm_format_full_output(&silent, full, message) == 0);
    if (type == 5) rtslib_ifdm_format_full_output(&silent, full, message);
}

static void *take(size_t size, void *context)
{
    auto *blocks = static_cast<std::vector<void *> *>(context);
    blocks->push_back(malloc(size));
    return blocks->back();
}

static void render_decoded(const uint8_t *data, size_t size, size_t room)
{
    std::vector<void *> blocks;
    struct rts_msg message = {};
    int32_t code = tlv_decode_rts_msg_0(&message, nullptr, data, size, take, &blocks);
    if (code == IDL_CODE_MAGIC) code = idr_decode_rts_msg_0(&message, data, size, take, &blocks);
    if (code > 0 && message.msg) {
        static_cast<struct rts_raw_hdr *>(message.msg)->type = uint8_t(message.type);
        render(message.msg, room);
    }
    for (void *block : blocks) free(block);
}

/* As a read delivers it: as long as it says. */
static void render_raw(const uint8_t *data, size_t size, size_t room)
{
    if (size < sizeof(struct rts_raw_hdr)) return;
    std::unique_ptr<uint8_t[]> message(new uint8_t[size]);
    memcpy(message.get(), data, size);
    auto *header = reinterpret_cast<struct rts_raw_hdr *>(message.get());
    header->msglen = uint32_t(size);
    if (idl_message_type(header->type) == nullptr) render(message.get(), room);
}

/* The octets that a prefix of that length has, and what its family always has. */
static void render_addresses(const uint8_t *data, size_t size, size_t room)
{
    enum { HEAD = 4, ALWAYS = 24, LONGEST = 64 };
    if (size < HEAD) return;
    uint32_t bits = uint32_t(data[1] | data[2] << 8);
    size_t length = std::max<size_t>(std::min<size_t>((bits + 7) / 8, LONGEST), ALWAYS);
    std::vector<uint8_t> value(data + HEAD, data + HEAD + std::min(length, size - HEAD));
    value.resize(length);
    write_all(
        [&](char *text, size_t n) { return rtslib_format_prefix(text, n, value.data(), bits, data[0], data[3] % 4); },
        room);
    std::vector<uint8_t> address(data, data + size);
    address.resize(std::max<size_t>(address[0], 2));
    write_all([&](char *buffer, size_t n) { return rtslib_format_sockaddr(buffer, n, address.data(), 0); }, room);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    size_t room = size_t(data[1]) * (data[0] & 4 ? 16 : 1);
    void (*const roads[])(const uint8_t *, size_t, size_t) = { render_decoded, render_raw, render_addresses };
    roads[(data[0] & 3) % 3](data + 2, size - 2, room);
    return 0;
}
