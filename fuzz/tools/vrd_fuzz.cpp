/*
 * Calls from a client of vrd: the pieces in which they arrive make no difference, nothing is kept beyond the bound, and
 * whatever is taken for a call ends like one.
 */
#include "tools/vrd/call_reader.h"

#include <stdint.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *octets = reinterpret_cast<const char *>(data);
    struct call_reader whole, pieces;
    std::deque<struct call> calls, same;
    call_reader_feed(&whole, octets, size, &calls);
    for (size_t at = 0; at < size; at++) call_reader_feed(&pieces, octets + at, 1, &same);
    if (calls.size() != same.size() || call_reader_holds_part(&whole) != call_reader_holds_part(&pieces)) abort();

    for (size_t i = 0; i < calls.size(); i++) {
        const std::string &text = calls[i].text;
        if (text != same[i].text || calls[i].fault != same[i].fault || text.size() > CALL_MAX) abort();
        std::string name;
        if (calls[i].fault) continue;
        if (!text.starts_with("<rpc") || !text.ends_with('>')) abort();
        if (!call_name(text, &name) && name.empty()) abort();
    }
    (void)call_reader_give_up(&whole);
    if (call_reader_holds_part(&whole)) abort();
    return 0;
}
