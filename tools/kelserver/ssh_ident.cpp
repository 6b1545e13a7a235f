/*
 * Identification: read an octet at a time, so that it never takes an octet of the SSH conversation behind it.
 *
 * An empty line may end the identification, or stand for a host key that the router does not have: only the octet
 * behind it tells. So the end is not where the last line ends but where SSH begins ("SSH-2.0-..."), which is also when
 * it is known that the router's SSH server runs at all. The lines that may stand between DEVICE-ID and SSH are few
 * enough to be listed (endings).
 */
#include "tools/kelserver/ssh_ident.h"

#include <algorithm>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <string.h>
#include <string_view>

static constexpr std::string_view line_end = "\r\n", key_end = { "\0\r\n", 3 };
static constexpr std::string_view key_word = "HOST-KEY: ", mac_word = "HMAC: ";
static constexpr size_t mac_digits = 40;
static constexpr char ssh_start = 'S';

static constexpr struct fixed_line {
    std::string_view text;
    bool whole;   // otherwise the identifier follows
    const char *fault;
} fixed_lines[] = {
    { "MSG-ID: DEVICE-CONN-INFO", true, "its first line is not MSG-ID: DEVICE-CONN-INFO" },
    { "MSG-VER: V1", true, "its second line is not MSG-VER: V1" },
    { "DEVICE-ID: ", false, "its third line is not DEVICE-ID" },
};

/* All that a router can send behind DEVICE-ID: without a secret; with one, and with or without a key and an HMAC. */
static constexpr std::string_view endings[] = { "B", "KMB", "BMB", "KBB", "BBB" };

static bool is_key_line(const struct ident_reader *reader)
{
    return reader->fixed_lines == std::size(fixed_lines) && reader->line.starts_with(key_word);
}

/* --- lines that ended --------------------------------------------------------------------------------------------- */

static const char *take_fixed(struct ident_reader *reader, std::string_view line)
{
    const struct fixed_line &row = fixed_lines[reader->fixed_lines++];
    if (!(row.whole ? line == row.text : line.starts_with(row.text))) return row.fault;
    if (!row.whole) reader->ident.device_id = line.substr(row.text.size());
    return nullptr;
}

static const char *take_mac(struct ident_reader *reader, std::string_view digits)
{
    if (digits.size() != mac_digits || digits.find_first_not_of("0123456789abcdef") != digits.npos)
        return "its HMAC is not 40 hexadecimal digits";
    reader->ident.hmac = digits;
    return nullptr;
}

static const char *take_optional(struct ident_reader *reader, std::string_view line)
{
    char kind = line.empty() ? 'B' : line.starts_with(key_word) ? 'K' : line.starts_with(mac_word) ? 'M' : 0;
    if (!kind) return "there is a line that belongs to no identification";
    reader->optional += kind;
    if (std::none_of(std::begin(endings), std::end(endings),
                     [reader](std::string_view ending) { return ending.starts_with(reader->optional); }))
        return "its lines stand in an order that means nothing";
    if (kind == 'M') return take_mac(reader, line.substr(mac_word.size()));
    if (kind == 'K') reader->ident.host_key = line.substr(key_word.size());
    return nullptr;
}

static void line_ended(struct ident_reader *reader, size_t end_octets, std::vector<std::string> *lines)
{
    std::string line = std::move(reader->line);
    reader->line.clear();
    line.resize(line.size() - end_octets);
    bool fixed = reader->fixed_lines < std::size(fixed_lines);
    reader->fault = fixed ? take_fixed(reader, line) : take_optional(reader, line);
    if (!reader->fault && !line.empty()) lines->push_back(std::move(line));
}

/* --- octets ------------------------------------------------------------------------------------------------------- */

static void key_octet(struct ident_reader *reader, std::vector<std::string> *lines)
{
    const std::string &line = reader->line;
    size_t zero = line.find('\0', line.size() - std::min(line.size(), key_end.size()));
    if (zero == line.npos) {
        if (line.size() >= IDENT_KEY_MAX) reader->fault = "its HOST-KEY is longer than 16 KiB";
    } else if (std::string_view tail = std::string_view(line).substr(zero); !key_end.starts_with(tail)) {
        reader->fault = "its HOST-KEY goes on behind the zero octet";
    } else if (tail == key_end) {
        line_ended(reader, key_end.size(), lines);
    }
}

static void reader_octet(struct ident_reader *reader, char octet, std::vector<std::string> *lines)
{
    reader->line += octet;
    if (is_key_line(reader)) key_octet(reader, lines);
    else if (reader->line.ends_with(line_end)) line_ended(reader, line_end.size(), lines);
    else if (reader->line.size() >= IDENT_LINE_MAX) reader->fault = "it has a line of more than 1024 octets";
}

/* True if octet, at the start of a line, is the SSH server's. */
static bool ssh_begins(struct ident_reader *reader, char octet)
{
    bool at_start = reader->line.empty() && reader->fixed_lines == std::size(fixed_lines);
    return at_start && octet == ssh_start &&
           std::find(std::begin(endings), std::end(endings), reader->optional) != std::end(endings);
}

size_t ident_feed(struct ident_reader *reader, const char *octets, size_t length, std::vector<std::string> *lines)
{
    size_t at = 0;
    for (; at < length && !reader->fault && !reader->complete; at++) {
        reader->complete = ssh_begins(reader, octets[at]);
        if (reader->complete) break;
        reader_octet(reader, octets[at], lines);
    }
    return at;
}

/* --- what it is worth --------------------------------------------------------------------------------------------- */

enum ident_proof ident_check(const struct ident *ident, const std::string &secret)
{
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (ident->hmac.empty()) return ident_proof::ABSENT;
    if (!HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()),
              reinterpret_cast<const unsigned char *>(ident->host_key.data()), ident->host_key.size(), sum, &size))
        return ident_proof::IMPOSSIBLE;

    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < size; i++) {
        text += digits[sum[i] >> 4];
        text += digits[sum[i] & 0xf];
    }
    bool same = text.size() == ident->hmac.size() && CRYPTO_memcmp(text.data(), ident->hmac.data(), text.size()) == 0;
    return same ? ident_proof::MATCH : ident_proof::MISMATCH;
}

/* The word at the front of text, if it consists of what types and base64 keys consist of; taken off. */
static std::string_view take_word(std::string_view *text)
{
    static constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                                "0123456789+/=-.@";
    std::string_view word = text->substr(0, text->find_first_of(" \r\n"));
    text->remove_prefix(std::min(word.size() + 1, text->size()));
    return word.find_first_not_of(letters) == word.npos ? word : std::string_view();
}

std::string ident_known_host(const struct ident *ident, const std::string &alias)
{
    std::string_view text = ident->host_key;
    std::string_view type = take_word(&text);
    std::string_view key = take_word(&text);
    if (type.empty() || key.empty()) return "";
    return alias + " " + std::string(type) + " " + std::string(key) + "\n";
}
