/*
 * Hexadecimal input. Meant for octets pasted out of a dump or a test: pairs of digits, whatever stands around them.
 */
#include "tools/idlcat/idlcat.h"

#include <ctype.h>

namespace {

int digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    int lower = tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/* Where the octets of a line begin and end: behind an offset, before a comment or picture. dump: a line of hexdump -C,
 * with its picture, stood before. */
std::pair<size_t, size_t> octets_of(const std::string &line, bool dump)
{
    size_t end = line.find_first_of("#|");
    end = end == std::string::npos ? line.size() : end;
    size_t colon = line.find(':');
    if (colon != std::string::npos && colon < end) {
        size_t picture = line.find("  ", colon + 2);   // xxd sets its picture off with two spaces
        return { colon + 1, picture < end ? picture : end };
    }
    // hexdump -C: eight digits of offset and two spaces.
    const size_t offset_digits = 8;
    dump = dump || (end < line.size() && line[end] == '|');
    if (dump && line.size() > offset_digits + 1 && line.find(' ') == offset_digits && line[offset_digits + 1] == ' ')
        return { offset_digits, end };
    return { 0, end };
}

bool parse_line(const std::string &line, bool dump, size_t line_offset, std::vector<uint8_t> &octets,
                idlcat_fault &fault)
{
    auto [at, end] = octets_of(line, dump);
    while (at < end) {
        if (isspace(static_cast<unsigned char>(line[at])) != 0) {
            at++;
            continue;
        }
        int high = digit(line[at]);
        int low = at + 1 < end ? digit(line[at + 1]) : -1;
        if (high < 0 || low < 0) {
            fault = { line_offset + at, std::string("'") + line[at] + "' begins no pair of hexadecimal digits" };
            return false;
        }
        octets.push_back(uint8_t(high << 4 | low));
        at += 2;
    }
    return true;
}

/* The last line of hexdump -C is an offset alone. */
bool is_end_offset(const std::string &line)
{
    return line.size() == 8 && line.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}   // namespace

bool parse_hex(const std::string &text, std::vector<uint8_t> &octets, idlcat_fault &fault)
{
    bool dump = false;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        std::string line = text.substr(at, end - at);
        dump = dump || line.find('|') != std::string::npos;
        if (!(dump && is_end_offset(line)) && !parse_line(line, dump, at, octets, fault))
            return false;
        at = end + 1;
    }
    return true;
}
