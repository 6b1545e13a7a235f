/*
 * Fuzz target: any octets as a configuration.
 *
 * Whatever the text, the answer is a tree or a message, never both. In a tree every object is found again under its
 * key, and every value can be judged and named in a message.
 *
 * A reader of clients lives from one text to the next, as the daemon does over its reloads. It takes what walks of what
 * changed tell it, refuses some of it, and may drop all it has or nothing when the list is not there. After a walk that
 * went through it has exactly the clients of the text, as they are there.
 */
#include "platform/confdb/dax.h"
#include "platform/confdb/tree.h"
#include "platform/log/log.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <stdlib.h>
#include <string.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void demand(bool holds)
{
    if (!holds) abort();
}

static void visit(struct conf_tree *tree, const struct ddl_object *object)
{
    const char *name = conf_object_is_element(object) ? object->do_text : nullptr;
    if (object->do_parent) demand(conf_tree_find(tree, object->do_parent, object->do_row, name) == object);
    if (object->do_text) {
        char reason[CONF_REASON_MAX];
        (void)conf_name_is_safe(object->do_row, object->do_text);
        conf_value_reason(object->do_row, object->do_text, reason, sizeof reason);
        demand(strlen(reason) > 0);
    }
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) {
        demand(child->do_parent == object && child->do_line > 0 && child->do_column > 0);
        visit(tree, child);
    }
}

/* --- the reader of clients ---------------------------------------------------------------------------------------- */

static std::map<std::string, std::string> clients;   // by name: all that stands in them

/* What stands in the object, the same for any order of keywords. */
static std::string content_of(const struct ddl_object *object)
{
    std::map<std::string, std::string> keywords;
    std::string text = object->do_text ? object->do_text : "";
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) {
        if (conf_object_is_list(object)) text += "\n" + content_of(child);
        else keywords[child->do_row->cr_keyword] = content_of(child);
    }
    for (const auto &[keyword, value] : keywords) text += "{" + keyword + "\n" + value + "}";
    return text;
}

static int read_values(struct dax_handle *, struct dax_object *element, int operation, void *)
{
    static const char *const keywords[] = { "address", "client-id", "port", "retry", "secret", "services", "servers" };
    demand(element && operation == DAX_NEW);
    for (const char *keyword : keywords) {
        const char *string;
        uint32_t number;
        uint16_t port;
        if (dax_get_string_by_name(element, keyword, &string)) demand(conf_text_is_safe(string));
        (void)dax_get_uint_by_name(element, keyword, &number);
        (void)dax_get_ushort_by_name(element, keyword, &port);
    }
    return 0;
}

/* argument: number of calls until one is refused. */
static int take_client(struct dax_handle *handle, struct dax_object *element, int operation, void *argument)
{
    char name[256] = "";
    struct dax_object *servers;
    demand((element == nullptr) == (operation >= DAX_DELETED));
    if ((*static_cast<size_t *>(argument))-- == 0) return 1;
    if (operation == DAX_DELETED) demand(dax_get_stringr_by_dwd_ident(handle, 0, 0, name, sizeof name));
    if (operation == DAX_DELETED) clients.erase(name);
    if (operation == DAX_LIST_DELETED) clients.clear();
    if (!element) return 0;
    const struct ddl_object *client = reinterpret_cast<const struct ddl_object *>(element);
    clients[client->do_text] = content_of(client);
    (void)read_values(handle, element, DAX_NEW, nullptr);
    if (!dax_get_object_by_name(element, "servers", &servers, 0)) return 0;
    demand(dax_walk_list(servers, DAX_WALK_ALL, read_values, nullptr) == 0);
    dax_release_object(&servers);
    return 0;
}

static void demand_clients_of(const struct ddl_object *list)
{
    size_t count = 0;
    for (const struct ddl_object *client = list->do_first; client; client = client->do_next) {
        if (!conf_value_is_good(client->do_row, client->do_text)) continue;
        count++;
        auto taken = clients.find(client->do_text);
        demand(taken != clients.end() && taken->second == content_of(client));
    }
    demand(count == clients.size());
}

/* Reads the text as a commit. chance decides what goes wrong. */
static void reload(const uint8_t *data, size_t size, size_t chance)
{
    static const char *const path[] = { "system", "services", "outbound-ssh", "client", nullptr };
    static const std::string root = [] {
        char folder[] = "/tmp/keld-fuzz-XXXXXX";
        demand(mkdtemp(folder));
        setenv("KELD_ROOT", folder, 1);
        std::filesystem::create_directories(folder + std::string("/var/etc"));
        (void)atexit([] { std::filesystem::remove_all(getenv("KELD_ROOT")); });
        logging_register_logfunc([](int, const char *, const char *const *, const char *, va_list) {});
        logging_set_mode(LOGGING_MODE_DAEMON);
        return std::string(folder);
    }();
    std::ofstream(root + "/var/etc/keld.conf").write(reinterpret_cast<const char *>(data), static_cast<long>(size));
    if (dax_open_db(0, "keld", 0, -2, 0) != 0) return;
    struct dax_object *list;
    size_t calls = chance % 4 == 0 ? chance / 4 % 4 : SIZE_MAX;
    int mode = chance % 8 == 1 ? DAX_WALK_ALL : DAX_WALK_CHANGED;
    bool found = dax_get_object_by_path(0, path, &list, 0);
    if (mode == DAX_WALK_ALL || (!found && chance % 8 == 2)) clients.clear();
    if (found) {
        if (dax_walk_list(list, mode, take_client, &calls) == 0)
            demand_clients_of(reinterpret_cast<const struct ddl_object *>(list));
        dax_release_object(&list);
    }
    demand(dax_close_db() == 0);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    char error[DDL_ACCESS_ERROR_MAX] = "";
    struct conf_tree *tree = conf_parse("fuzz.conf", text, size, error, sizeof error);
    demand((tree != nullptr) == (error[0] == '\0'));
    if (!tree) return 0;
    visit(tree, conf_tree_top(tree));
    bool good = conf_check(tree, error, sizeof error);
    demand(good == (error[0] == '\0'));
    conf_tree_free(tree);
    reload(data, size, size > 0 ? size + data[size - 1] : 0);
    return 0;
}
