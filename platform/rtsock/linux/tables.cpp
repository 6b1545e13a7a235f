/*
 * Routing instances: VRF devices, and tables that the host has a name for. The index of an instance is the number of
 * its Linux table; the main table has the index 0 as well, and is called "main" or "default".
 *
 * Nothing is kept: each question reads the links and the files anew, so that an instance that comes or goes shows at
 * the next one. A device goes before a file that has another name for its table. A number above LX_TABLE_MAX cannot be
 * told in the 16 bits of an index, so that table is not there.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

namespace {

constexpr char MAIN_NAME[] = "main", MAIN_OTHER_NAME[] = "default";
constexpr uint16_t TID_BY_NAME = 65535;

int add_main(struct lx_list *tables)
{
    struct lx_table table = { LX_TABLE_MAIN, {} };
    memcpy(table.name, MAIN_NAME, sizeof MAIN_NAME);
    return lx_list_add(tables, &table) ? 0 : int(TARGET_ENOMEM);
}

int add_vrfs(struct nl *nl, struct lx_list *tables)
{
    struct lx_list links = { sizeof(struct lx_link), nullptr, 0, 0 };
    int error = lx_links_load(nl, &links);
    for (size_t i = 0; i < links.count && error == 0; i++) {
        const struct lx_link *link = &lx_items<struct lx_link>(&links)[i];
        // A device must not take the main table's name.
        if (!link->vrf || link->table > LX_TABLE_MAX || link->table == LX_TABLE_MAIN ||
            strcmp(link->name, MAIN_NAME) == 0)
            continue;
        struct lx_table table = { link->table, {} };
        memcpy(table.name, link->name, sizeof link->name);
        if (!lx_list_add(tables, &table))
            error = TARGET_ENOMEM;
    }
    lx_list_clear(&links);
    return error;
}

/* All instances, by number. */
int load(struct nl *nl, struct lx_list *tables)
{
    int error = add_main(tables);
    if (error == 0)
        error = add_vrfs(nl, tables);
    if (error == 0)
        error = lx_table_files(tables);
    auto *first = lx_items<struct lx_table>(tables);
    std::sort(first, first + tables->count,
              [](const struct lx_table &a, const struct lx_table &b) { return a.number < b.number; });
    return error;
}

/* The name of a request; a text in a message need not have an end. False if it is none, or longer than any. */
bool name_of(const struct rtb_msg *message, char name[LX_NAME_MAX])
{
    size_t length = message->name != nullptr ? strnlen(message->name, message->name_len) : 0;
    if (length == 0 || length >= LX_NAME_MAX)
        return false;
    memcpy(name, message->name, length);
    name[length] = '\0';
    if (strcmp(name, MAIN_OTHER_NAME) == 0)
        memcpy(name, MAIN_NAME, sizeof MAIN_NAME);
    return true;
}

const struct lx_table *find(const struct lx_list *tables, const struct rtb_msg *message, uint8_t op)
{
    char name[LX_NAME_MAX];
    bool by_name = message->tid == TID_BY_NAME;
    if (by_name && !name_of(message, name))
        return nullptr;
    for (size_t i = 0; i < tables->count; i++) {
        const struct lx_table *table = &lx_items<struct lx_table>(tables)[i];
        bool hit = op == RTM_OP_GETNEXT ? table->number > message->tid
                   : by_name            ? strcmp(table->name, name) == 0
                                        : table->number == lx_table_of(message->tid);
        if (hit)
            return table;
    }
    return nullptr;
}

int reply(struct rk_client *client, const struct rk_request *request, const struct lx_table *table)
{
    const auto *asked = static_cast<const struct rtb_msg *>(request->record);
    char name[LX_NAME_MAX];
    memcpy(name, table->name, sizeof name);
    struct rtb_msg record = {};
    record.tid = uint16_t(table->number);
    record.af = asked->af;
    record.name = name;
    record.name_len = uint32_t(strlen(name) + 1);
    return rk_reply(client, request, request->type, &record);
}

/* A rule that is looked for: packets with the mark of that table go there. */
struct rule_search {
    uint32_t table;
    bool found;
};

int take_rule(const struct nlmsghdr *message, void *context)
{
    auto *search = static_cast<struct rule_search *>(context);
    struct fib_rule_hdr head;
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr || message->nlmsg_type != RTM_NEWRULE)
        return 0;
    memcpy(&head, fixed, sizeof head);
    struct nl_attr attrs[FRA_MAX + 1];
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    uint32_t mask = nl_u32(attrs[FRA_FWMASK], UINT32_MAX), mark = nl_u32(attrs[FRA_FWMARK], 0);
    if (mark != 0 && mark == (search->table & mask) && nl_u32(attrs[FRA_TABLE], head.table) == search->table)
        search->found = true;
    return 0;
}

void forget_rule(void *context)
{
    static_cast<struct rule_search *>(context)->found = false;
}

/* Marks the socket's packets; `ip rule add fwmark N lookup N` sends those to the table. Without that rule they would
 * take the main table, which is not what whoever binds a socket wants. 0, -1 with errno. */
int mark(struct nl *nl, int socket, uint32_t table)
{
    int family = AF_INET;
    socklen_t length = sizeof family;
    (void)getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &family, &length);
    struct rule_search search = { table, false };
    struct fib_rule_hdr head = {};
    head.family = uint8_t(family);
    struct nl_request request;
    nl_begin(&request, RTM_GETRULE, 0, &head, sizeof head);
    const struct nl_sink sink = { take_rule, forget_rule, &search };
    int error = nl_dump(nl, &request, &sink);
    if (error == 0 && !search.found) {
        errno = ENETUNREACH;
        return -1;
    }
    if (error != 0) {
        errno = target_errno_to_host(error);
        return -1;
    }
    return setsockopt(socket, SOL_SOCKET, SO_MARK, &table, sizeof table);
}

}   // namespace

int lx_vrf_of_table(struct nl *nl, uint32_t table, struct lx_link *vrf, bool *found)
{
    struct lx_list links = { sizeof(struct lx_link), nullptr, 0, 0 };
    int error = lx_links_load(nl, &links);
    *found = false;
    for (size_t i = 0; i < links.count && error == 0 && !*found; i++) {
        *vrf = lx_items<struct lx_link>(&links)[i];
        *found = vrf->vrf && vrf->table == table;
    }
    lx_list_clear(&links);
    return error;
}

int lx_table_name(struct nl *nl, uint32_t number, char name[LX_NAME_MAX])
{
    struct lx_list tables = { sizeof(struct lx_table), nullptr, 0, 0 };
    int error = load(nl, &tables);
    struct rtb_msg asked = {};
    asked.tid = uint16_t(number);
    const struct lx_table *table = error == 0 && number <= LX_TABLE_MAX ? find(&tables, &asked, RTM_OP_GET) : nullptr;
    if (table != nullptr)
        memcpy(name, table->name, sizeof table->name);
    lx_list_clear(&tables);
    return error == 0 && table == nullptr ? int(TARGET_ENOENT) : error;
}

int lx_serve_table(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rtb_msg *>(request->record);
    if (asked == nullptr)
        return TARGET_EINVAL;
    // A client without a family of its own asks with 0.
    bool family = asked->af == TARGET_AF_UNSPEC || lx_address_bits(target_family_to_host(asked->af)) != 0;
    if ((request->op != RTM_OP_GET && request->op != RTM_OP_GETNEXT) || !family)
        return TARGET_EOPNOTSUPP;
    struct lx_list tables = { sizeof(struct lx_table), nullptr, 0, 0 };
    int error = load(&lx_owner(client)->requests, &tables);
    const struct lx_table *table = error == 0 ? find(&tables, asked, request->op) : nullptr;
    if (error == 0)
        error = table != nullptr ? reply(client, request, table) : int(TARGET_ENOENT);
    lx_list_clear(&tables);
    return error;
}

int lx_bind_table(int socket, uint32_t table)
{
    if (table == 0 || table == LX_TABLE_MAIN)
        return 0;
    struct nl nl = {};
    struct lx_link vrf;
    bool found;
    int error = lx_vrf_of_table(&nl, table, &vrf, &found);
    int marked = error == 0 && !found ? mark(&nl, socket, table) : 0;
    int saved = error != 0 ? target_errno_to_host(error) : errno;
    nl_close(&nl);
    errno = saved;
    if (error != 0)
        return -1;
    if (!found)
        return marked;
    return setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, vrf.name, socklen_t(strlen(vrf.name) + 1));
}

int lx_bind_interface(int socket, uint32_t ifl_index)
{
    char name[IFNAMSIZ];
    lx_name_of(socket, ifl_index, name);
    if (ifl_index != 0 && name[0] == '\0') {   // the host would take any number
        errno = ENXIO;
        return -1;
    }
    return setsockopt(socket, SOL_SOCKET, SO_BINDTOIFINDEX, &ifl_index, sizeof ifl_index);
}
