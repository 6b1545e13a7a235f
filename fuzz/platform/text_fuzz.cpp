/*
 * Entities and base64 over any octets: nothing outside the buffers is touched, lengths keep their promises, and working
 * in place gives what working beside it gives. Buffers are as long as promised and no octet longer.
 */
#include "platform/text/text.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void must(bool holds)
{
    if (!holds) abort();
}

static void unescape(const char *text, size_t length)
{
    std::vector<char> beside(length), in_place(text, text + length);
    size_t result = xml_unescape(text, length, beside.data(), 0);
    must(result <= length);
    must(xml_unescape(in_place.data(), length, in_place.data(), 0) == result);
    must(result == 0 || memcmp(beside.data(), in_place.data(), result) == 0);
    must(result == length || beside[result] == '\0');
}

/* Decodes in place in two pieces. The octets, empty if it is refused. */
static std::string decode(std::vector<char> text, size_t first)
{
    struct base64_state *state = base64_start();
    if (!state) return "";
    char *second = text.data() + first;
    size_t left = text.size() - first;
    int head = base64_decode_chunk(text.data(), text.data(), first, state);
    int tail = base64_decode_chunk(second, second, left, state);
    must(head <= (int)(first * 3 / 4 + 2) && tail <= (int)(left * 3 / 4 + 2));
    bool good = base64_decode_end(state) == 0;
    must(!good || (head >= 0 && tail >= 0));
    return good ? std::string(text.data(), (size_t)head) + std::string(second, (size_t)tail) : "";
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const char *text = (const char *)data + 1;
    size_t length = size - 1;

    unescape(text, length);
    std::vector<char> copy(text, text + length);
    must(decode(copy, data[0] % (length + 1)) == decode(copy, 0));
    return 0;
}
