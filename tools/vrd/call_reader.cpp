/*
 * Call reader: one state machine, an octet at a time, that knows XML as far as it takes to see where a call ends.
 *
 * A closing tag inside a comment, a CDATA section or a quoted attribute ends nothing; anything else about the text is
 * looked at when the call is complete. Declarations, comments and white space between calls are passed over. Other text
 * is a fault of the call that follows, so that each call has one answer, whatever stands in front of it.
 */
#include "tools/vrd/call_reader.h"

#include <ctype.h>
#include <string.h>
#include <string_view>

static constexpr std::string_view comment_start = "!--", cdata_start = "![CDATA[";
static constexpr size_t tag_kept = 16;   // more than any tag that matters has

static bool is_space(char octet)
{
    return isspace(static_cast<unsigned char>(octet));
}

static void keep(struct call_reader *reader, char octet)
{
    if (reader->text.size() < CALL_MAX) reader->text += octet;
    else reader->too_long = true;
}

static struct call take_call(struct call_reader *reader)
{
    struct call call = { std::move(reader->text), nullptr };
    if (reader->too_long) call.fault = "the call is longer than 1 MiB";
    else if (reader->stray) call.fault = "there is something else in front of <rpc>";
    *reader = {};
    return call;
}

/* A tag has ended. True if a call has ended with it. */
static bool tag_ended(struct call_reader *reader)
{
    std::string_view tag = reader->tag;
    bool empty = tag.ends_with('/');
    std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n"));
    if (empty && name.ends_with('/')) name.remove_suffix(1);
    reader->state = call_reader::TEXT;

    if (reader->in_call) return name == "/rpc";
    if (name == "rpc") {
        reader->in_call = true;
        return empty;
    }
    reader->stray = true;
    return false;
}

static void text_octet(struct call_reader *reader, char octet)
{
    if (octet == '<') {
        reader->state = call_reader::MARKUP;
        reader->tag.clear();
        if (!reader->in_call) {
            reader->text.clear();
            reader->too_long = false;
        }
    } else if (!reader->in_call && !is_space(octet)) {
        reader->stray = true;
    }
}

/* True if a call has ended. */
static bool markup_octet(struct call_reader *reader, char octet)
{
    if (octet == '>') return tag_ended(reader);
    if (octet == '"' || octet == '\'') {
        reader->state = call_reader::QUOTED;
        reader->quote = octet;
    }
    // Of a long tag the beginning is kept, and the end, for its '/'.
    if (reader->tag.size() >= tag_kept) reader->tag.pop_back();
    reader->tag += octet;

    if (reader->tag == "?") reader->state = call_reader::INSTRUCTION;
    else if (reader->tag == comment_start) reader->state = call_reader::COMMENT;
    else if (reader->tag == cdata_start) reader->state = call_reader::CDATA;
    memset(reader->last, 0, sizeof reader->last);
    return false;
}

/* Passes over the inside of what ends with end and '>'. */
static void skip_octet(struct call_reader *reader, char octet, std::string_view end)
{
    std::string_view last = { reader->last, sizeof reader->last };
    if (octet == '>' && last.ends_with(end)) reader->state = call_reader::TEXT;
    reader->last[0] = reader->last[1];
    reader->last[1] = octet;
}

/* True if a call has ended. */
static bool reader_octet(struct call_reader *reader, char octet)
{
    switch (reader->state) {
    case call_reader::TEXT:
        text_octet(reader, octet);
        break;
    case call_reader::MARKUP:
        keep(reader, octet);
        return markup_octet(reader, octet);
    case call_reader::QUOTED:
        if (octet == reader->quote) reader->state = call_reader::MARKUP;
        break;
    case call_reader::INSTRUCTION:
        skip_octet(reader, octet, "?");
        break;
    case call_reader::COMMENT:
        skip_octet(reader, octet, "--");
        break;
    case call_reader::CDATA:
        skip_octet(reader, octet, "]]");
        break;
    }
    if (reader->in_call || reader->state != call_reader::TEXT) keep(reader, octet);
    return false;
}

void call_reader_feed(struct call_reader *reader, const char *octets, size_t length, std::deque<struct call> *calls)
{
    for (size_t at = 0; at < length; at++)
        if (reader_octet(reader, octets[at])) calls->push_back(take_call(reader));
}

bool call_reader_holds_part(const struct call_reader *reader)
{
    return reader->in_call || reader->stray || reader->state != call_reader::TEXT;
}

struct call call_reader_give_up(struct call_reader *reader)
{
    const char *fault = reader->in_call ? "the call does not end with </rpc>" : "this is no call: <rpc> is missing";
    struct call call = { "", fault };
    *reader = {};
    return call;
}

/* --- what is called ---------------------------------------------------------------------------------------------- */

/* Takes white space and comments off the front. */
static void skip_space(std::string_view *text)
{
    for (;;) {
        while (!text->empty() && is_space(text->front())) text->remove_prefix(1);
        size_t end = text->starts_with("<!--") ? text->find("-->") : text->npos;
        if (end == text->npos) return;
        text->remove_prefix(end + 3);
    }
}

/* Takes a tag off the front, and gives what stands between its brackets; empty if there is none. */
static std::string_view take_tag(std::string_view *text)
{
    if (!text->starts_with('<')) return {};
    char quote = 0;
    for (size_t at = 1; at < text->size(); at++) {
        char octet = (*text)[at];
        if (quote) quote = octet == quote ? 0 : quote;
        else if (octet == '"' || octet == '\'') quote = octet;
        else if (octet == '>') {
            std::string_view tag = text->substr(1, at - 1);
            text->remove_prefix(at + 1);
            return tag;
        }
    }
    return {};
}

static std::string_view name_of(std::string_view tag)
{
    return tag.substr(0, tag.find_first_of(" \t\r\n/"));
}

const char *call_name(const std::string &text, std::string *name)
{
    static const char nothing[] = "there is no call in <rpc>";
    std::string_view rest = text;
    skip_space(&rest);
    if (take_tag(&rest).ends_with('/')) return nothing;
    skip_space(&rest);
    std::string_view tag = take_tag(&rest);
    std::string_view called = name_of(tag);
    if (tag.starts_with('/')) return nothing;
    if (called.empty() || !isalpha(static_cast<unsigned char>(called.front())))
        return "an element with the name of a call is expected in <rpc>";
    if (!tag.ends_with('/')) {
        std::string closing = "</" + std::string(called) + ">";
        size_t end = rest.find(closing);
        if (end == rest.npos) return "the element in <rpc> is not closed";
        rest.remove_prefix(end + closing.size());
    }
    skip_space(&rest);
    if (!name_of(take_tag(&rest)).empty() || !rest.empty()) return "there is more than one call in <rpc>";
    *name = called;
    return nullptr;
}
