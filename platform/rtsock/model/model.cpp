/*
 * The model as a kernel: which function serves which type, what ordinary sockets are bound to, and the beginning of it
 * all.
 *
 * The table "default" of both families is there from the first use on; whatever needs the model calls rm_begin.
 */
#include "platform/rtsock/model/rtsock_model.h"
#include "platform/rtsock/model/rm.h"

#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

namespace {

/* What an ordinary socket was bound to; -1: nothing. A descriptor may be closed and given to another socket, so the
 * socket's own number stands beside it. */
struct binding {
    struct binding *next;
    int socket;
    ino_t inode;
    int64_t table, interface;
};

struct rm_kind *const kinds[] = {
    &rm_tables, &rm_routes, &rm_nexthops, &rm_devices, &rm_units, &rm_families, &rm_addresses,
};

struct rk_faults faults;
struct binding *bindings;
bool begun;

int serve(struct rk_client *client, const struct rk_request *request)
{
    for (struct rm_kind *kind : kinds) {
        if (kind->mk_type == request->type)
            return rm_serve_kind(kind, client, request);
    }
    return TARGET_EOPNOTSUPP;
}

constexpr struct rk_kernel make_kernel(void)
{
    struct rk_kernel kernel = {};
    kernel.serve[1] = rm_serve_table;
    kernel.serve[2] = serve;
    kernel.serve[4] = rm_serve_route_stats;
    kernel.serve[5] = serve;
    kernel.serve[6] = serve;
    kernel.serve[7] = serve;
    kernel.serve[8] = serve;
    kernel.serve[10] = serve;
    kernel.serve[12] = rm_serve_match;
    kernel.serve[13] = rm_serve_group;
    kernel.serve[15] = rm_serve_device_stats;
    kernel.serve[16] = rm_serve_unit_stats;
    kernel.serve[21] = rm_serve_nexthop_stats;
    kernel.serve[70] = rm_serve_family_stats;
    kernel.serve[72] = rm_serve_blob;
    kernel.faults = &faults;
    kernel.form = RK_FORM_IDR;
    return kernel;
}

int add_default(uint8_t family)
{
    char name[] = "default";
    struct rtb_msg record = {};
    record.af = family;
    record.name = name;
    record.name_len = sizeof name;
    int error = rm_add(&rm_tables, &record);
    return error == TARGET_EEXIST ? 0 : error;
}

int fail(int target_error)
{
    errno = target_errno_to_host(target_error);
    return -1;
}

int open_client(int peer, void **state)
{
    int error = rm_begin();
    return error != 0 ? fail(error) : rk_client_open(&rm_kernel, peer, state);
}

struct binding *find_binding(int socket)
{
    struct binding *b = bindings;
    while (b != nullptr && b->socket != socket)
        b = b->next;
    return b;
}

/* The same, or null if it was another socket that the descriptor stood for. */
const struct binding *find_true_binding(int socket)
{
    struct stat now;
    const struct binding *b = find_binding(socket);
    return b != nullptr && fstat(socket, &now) == 0 && now.st_ino == b->inode ? b : nullptr;
}

/* Where what a socket is bound to is kept, or null with errno. */
struct binding *binding_of(int socket)
{
    struct stat now;
    if (fstat(socket, &now) < 0)
        return nullptr;
    struct binding *b = find_binding(socket);
    if (b != nullptr && b->inode == now.st_ino)
        return b;
    if (b == nullptr) {
        b = static_cast<struct binding *>(malloc(sizeof *b));
        if (b == nullptr)
            return nullptr;
        b->next = bindings;
        bindings = b;
    }
    *b = { b->next, socket, now.st_ino, -1, -1 };
    return b;
}

int bind_table(int socket, uint32_t table)
{
    if (rm_begin() != 0 || !rm_table_exists(table, TARGET_AF_UNSPEC))
        return fail(TARGET_ENOENT);
    struct binding *b = binding_of(socket);
    if (b == nullptr)
        return -1;
    b->table = table;
    return 0;
}

int bind_interface(int socket, uint32_t index)
{
    if (rm_unit_at(index) == nullptr)
        return fail(TARGET_ENOENT);
    struct binding *b = binding_of(socket);
    if (b == nullptr)
        return -1;
    b->interface = index;
    return 0;
}

}   // namespace

constinit struct rk_kernel rm_kernel = make_kernel();

const struct rtsock_kernel rtsock_model = {
    .rk_name = "model",
    .rk_open = open_client,
    .rk_close = rk_client_close,
    .rk_write = rk_client_write,
    .rk_getsockopt = rk_client_getsockopt,
    .rk_setsockopt = rk_client_setsockopt,
    .rk_sysctl = rm_sysctl,
    .rk_sysctlbyname = rm_sysctlbyname,
    .rk_bind_table = bind_table,
    .rk_bind_interface = bind_interface,
    .rk_source = nullptr,
    .rk_pump = rk_client_pump,
};

void rtsock_model_reset(void)
{
    rm_route_reset();
    rm_nexthop_reset();
    for (struct rm_kind *kind : kinds)
        rm_clear(kind);
    rm_clear(&rm_blobs);
    while (bindings != nullptr) {
        struct binding *next = bindings->next;
        free(bindings);
        bindings = next;
    }
    rm_sysctl_reset();
    faults = {};
    rm_kernel.form = RK_FORM_IDR;
    begun = false;
    // Without memory for the default tables the next client to open tries again.
    (void)rm_begin();
}

int rm_begin(void)
{
    if (begun)
        return 0;
    int error = add_default(TARGET_AF_INET);
    if (error == 0)
        error = add_default(TARGET_AF_INET6);
    begun = error == 0;
    return error;
}

struct rk_faults *rtsock_model_faults(void)
{
    return &faults;
}

void rtsock_model_form(enum rk_form form)
{
    rm_kernel.form = form;
}

struct rk_kernel *rtsock_model_kernel(void)
{
    return &rm_kernel;
}

int64_t rtsock_model_bound_table(int socket)
{
    const struct binding *b = find_true_binding(socket);
    return b != nullptr ? b->table : -1;
}

int64_t rtsock_model_bound_interface(int socket)
{
    const struct binding *b = find_true_binding(socket);
    return b != nullptr ? b->interface : -1;
}
