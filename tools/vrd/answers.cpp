/*
 * Answers: what can be called, one row for each call.
 *
 * Every answer is made from the state of this moment; the configuration is read anew for each call that wants it, so a
 * commit shows at once. Text from outside is escaped, and what is secret in the configuration is not shown.
 */
#include "platform/confdb/load.h"
#include "platform/process/process.h"
#include "platform/text/time_text.h"
#include "tools/vrd/vrd.h"

#include <time.h>

using std::string;

/* --- XML --------------------------------------------------------------------------------------------------------- */

/* The reference to the character that text begins with, which is UTF-8, and is taken off. */
static string reference(std::string_view *text)
{
    unsigned lead = static_cast<unsigned char>(text->front());
    size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    unsigned value = lead & (0x7fu >> length);
    for (text->remove_prefix(1); --length > 0 && !text->empty(); text->remove_prefix(1))
        value = value << 6 | (static_cast<unsigned char>(text->front()) & 0x3f);
    return "&#" + std::to_string(value) + ";";
}

/* Replies are ASCII: markup becomes entities, and characters beyond ASCII become references. */
static string escaped(std::string_view text)
{
    static constexpr std::string_view markup = "&<>\"'";
    static const char *const entities[] = { "&amp;", "&lt;", "&gt;", "&quot;", "&apos;" };
    string out;
    while (!text.empty()) {
        size_t row = markup.find(text.front());
        if (static_cast<signed char>(text.front()) < 0) {
            out += reference(&text);
            continue;
        }
        if (row == markup.npos) out += text.front();
        else out += entities[row];
        text.remove_prefix(1);
    }
    return out;
}

static string leaf(const string &name, const string &text, const string &attributes = "")
{
    return "<" + name + attributes + ">" + escaped(text) + "</" + name + ">\n";
}

static string container(const string &name, const string &content)
{
    return "<" + name + ">\n" + content + "</" + name + ">\n";
}

static string error(const string &message)
{
    return container("rpc-error", leaf("error-severity", "error") + leaf("error-message", message));
}

/* --- configuration ----------------------------------------------------------------------------------------------- */

static string object_xml(const struct ddl_object *object);

static string children_xml(const struct ddl_object *object)
{
    string out;
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) out += object_xml(child);
    return out;
}

/* A list shows as its elements, each under the list's keyword, with its name in front. */
static string object_xml(const struct ddl_object *object)
{
    const struct conf_row *row = object->do_row;
    const string keyword = row->cr_keyword;
    if (conf_object_is_element(object))
        return container(keyword, leaf("name", object->do_text) + children_xml(object));
    switch (row->cr_shape) {
    case CONF_LIST:
        return children_xml(object);
    case CONF_PRESENCE:
        return "<" + keyword + "/>\n";
    case CONF_LEAF:
        if (row->cr_value == CONF_SECRET) return "<" + keyword + " hidden=\"hidden\"/>\n";
        return leaf(keyword, object->do_text);
    default:
        return container(keyword, children_xml(object));
    }
}

/* The elements of the list keyword below object, as struct ddl_object. */
template <class Function>
static void each_element(const struct ddl_object *object, std::string_view keyword, Function visit)
{
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) {
        if (child->do_row->cr_keyword != keyword) continue;
        if (conf_object_is_element(child)) visit(child);
        else each_element(child, keyword, visit);
    }
}

static string configuration(struct conf_tree *tree)
{
    return container("configuration", children_xml(conf_tree_top(tree)));
}

static const struct ddl_object *child_of(const struct ddl_object *object, std::string_view keyword)
{
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next)
        if (child->do_row->cr_keyword == keyword) return child;
    return nullptr;
}

static string unit_xml(const string &interface, const struct ddl_object *unit)
{
    string content = leaf("name", interface + "." + unit->do_text);
    content += leaf("admin-status", child_of(unit, "disable") ? "down" : "up");
    if (const struct ddl_object *description = child_of(unit, "description"))
        content += leaf("description", description->do_text);
    return container("logical-interface", content);
}

static string interfaces(struct conf_tree *tree)
{
    string out;
    each_element(conf_tree_top(tree), "interfaces", [&](const struct ddl_object *interface) {
        string content = leaf("name", interface->do_text);
        each_element(interface, "unit", [&](const struct ddl_object *unit) {
            content += unit_xml(interface->do_text, unit);
        });
        out += container("physical-interface", content);
    });
    return container("interface-information", out);
}

/* --- the machine ------------------------------------------------------------------------------------------------- */

static string software(struct conf_tree *)
{
    return container("software-information", leaf("host-name", system_name()) + leaf("product-name", "keld") +
                                                 leaf("release", KELD_RELEASE));
}

static string seconds(time_t value)
{
    return " seconds=\"" + std::to_string(value) + "\"";
}

static string uptime(struct conf_tree *)
{
    struct timespec since_boot;
    clock_gettime(CLOCK_BOOTTIME, &since_boot);
    time_t now = time(nullptr), booted = now - since_boot.tv_sec;
    return container("system-uptime-information",
                     leaf("current-time", tarne_time_isostr(&now), seconds(now)) +
                         leaf("system-booted-time", tarne_time_isostr(&booted), seconds(booted)) +
                         leaf("up-time", tarne_time_diffstr(&since_boot.tv_sec), seconds(since_boot.tv_sec)));
}

/* --- the table --------------------------------------------------------------------------------------------------- */

static const struct {
    const char *name;
    bool wants_configuration;
    string (*answer)(struct conf_tree *tree);   // tree is null unless it is wanted
} answers[] = {
    { "get-software-information", false, software },
    { "get-configuration", true, configuration },
    { "get-interface-information", true, interfaces },
    { "get-system-uptime-information", false, uptime },
};

static string run(const string &name)
{
    string known;
    for (const auto &row : answers) {
        known += string(known.empty() ? "" : ", ") + row.name;
        if (row.name != name) continue;
        if (!row.wants_configuration) return row.answer(nullptr);
        char fault[DDL_ACCESS_ERROR_MAX];
        const char *file;
        struct conf_tree *tree = conf_load(false, &file, fault, sizeof fault);
        if (!tree) return error(fault);
        string out = row.answer(tree);
        conf_tree_free(tree);
        return out;
    }
    return error("there is no call '" + printable(name) + "'; there are " + known);
}

string call_answer(const struct call &call, string *name)
{
    *name = "?";
    const char *fault = call.fault ? call.fault : call_name(call.text, name);
    return container("rpc-reply", fault ? error(fault) : run(*name));
}
