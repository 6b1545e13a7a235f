/*
 * What a router says in front of outbound SSH: the pieces in which it arrives make no difference, nothing of the SSH
 * behind it is taken, and no key text gets more than one line into a file of known hosts.
 */
#include "tools/kelserver/ssh_ident.h"

#include <algorithm>
#include <stdint.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *octets = reinterpret_cast<const char *>(data);
    struct ident_reader whole, pieces;
    std::vector<std::string> lines, same;
    size_t taken = ident_feed(&whole, octets, size, &lines), sum = 0;
    for (size_t at = 0; at < size; at++) sum += ident_feed(&pieces, octets + at, 1, &same);

    if (taken != sum || lines != same || whole.complete != pieces.complete || whole.fault != pieces.fault) abort();
    if (whole.line.size() > IDENT_KEY_MAX) abort();
    if (whole.complete && (taken == size || octets[taken] != 'S' || octets[taken - 1] != '\n')) abort();

    enum ident_proof proof = ident_check(&whole.ident, "secret");
    if ((proof == ident_proof::ABSENT) != whole.ident.hmac.empty()) abort();
    std::string known_host = ident_known_host(&whole.ident, "alias");
    if (std::count(known_host.begin(), known_host.end(), '\n') > 1) abort();
    return 0;
}
