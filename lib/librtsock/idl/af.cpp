/*
 * Address families between the system's numbering and that of the tagged form. The system numbers families beyond the
 * common ones in steps of two; the tagged form has no gaps.
 *
 * Kept on purpose: the two are not exact inverses, 21 is decoded as 21 and encoded as 0.
 */
#include "lib/librtsock/idl/idl.h"
#include "platform/log/log.h"

#include <syslog.h>

#include <array>

namespace {

enum { NUMBERS = 92, FAMILIES = 146 };

constexpr std::array<uint8_t, NUMBERS> families = [] {
    std::array<uint8_t, NUMBERS> table = {};
    for (uint8_t n = 0; n <= 36; n++)
        table[n] = n;
    for (uint8_t n = 37; n <= 41; n++)
        table[n] = uint8_t(39 + 2 * (n - 37));
    for (uint8_t n = 43; n < NUMBERS; n++)
        table[n] = uint8_t(49 + 2 * (n - 43));
    return table;
}();

constexpr std::array<uint8_t, FAMILIES> numbers = [] {
    std::array<uint8_t, FAMILIES> table = {};
    for (uint8_t n = 0; n <= 36; n++)
        table[n] = n;
    table[21] = table[22] = 0;
    for (uint8_t n = 39; n <= 47; n = uint8_t(n + 2))
        table[n] = uint8_t(37 + (n - 39) / 2);
    for (uint8_t n = 49; n < FAMILIES; n = uint8_t(n + 2))
        table[n] = uint8_t(43 + (n - 49) / 2);
    return table;
}();

}   // namespace

uint8_t rts_decode_af(uint8_t number)
{
    if (number < NUMBERS)
        return families[number];
    logging(LOG_CRIT, "%s: Invalid address family %d", __func__, number);
    return number;
}

uint8_t rts_encode_af(uint8_t family)
{
    if (family < FAMILIES)
        return numbers[family];
    logging(LOG_CRIT, "%s: Invalid address family %d", __func__, family);
    return family;
}
