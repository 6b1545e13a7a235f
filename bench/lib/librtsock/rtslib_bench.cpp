/*
 * Benchmark of the routing-socket library: a get by name through the model kernel beside a bare round trip of the same
 * octets; bulk writing beside single writing, to the model and to a kernel that is a hop through a socket away, as one of
 * another process would be; and a walk over 100,000 routes of Linux beside what `ip` takes to show
 * them (in a network namespace of its own; left out where that is not permitted).
 *
 * Rounds alternate, so that what disturbs the machine disturbs all; the figures are medians, and a ratio is the median
 * of the rounds' ratios. A goal that is missed is shown and is no failure, since a loaded machine can do that.
 */
#include "lib/librtsock/rtslib.h"
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/rtsock/model/rtsock_model.h"
#include "platform/target.h"

#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

enum { ROUNDS = 9, SENDER = 3, FAMILY = 2, TABLE = 100 };
constexpr int GETS = 20000, BULK = 10000, ROUTES = 100000, DUMP_ROUNDS = 3;

double now_us()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1e3;
}

void must(bool right, const char *what)
{
    if (right) return;
    fprintf(stderr, "rtslib_bench: %s\n", what);
    exit(EXIT_FAILURE);
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

struct row {
    const char *name;
    double (*figure)(), (*base)();
    int rounds;
    double goal;
};

void measure(const row &r)
{
    std::vector<double> figures, bases, ratios;
    for (int round = 0; round < r.rounds; round++) {
        figures.push_back(r.figure());
        bases.push_back(r.base());
        ratios.push_back(bases.back() / figures.back());
    }
    printf("%-42s %10.2f %10.2f %7.2f   at least %.1f%s\n", r.name, median(figures), median(bases), median(ratios),
           r.goal, median(ratios) < r.goal ? "   MISSED" : "");
}

rtslib_cookie *single, *bulk;

double get_us()
{
    double start = now_us();
    for (int i = 0; i < GETS; i++) {
        void *message = nullptr;
        must(rtslib_rtbm_get_by_name(single, FAMILY, "blue", &message, nullptr) == 0, "get by name");
        rtslib_msg_idl_release(single, message);
    }
    return (now_us() - start) / GETS;
}

/* The octets of that request and its reply between the two ends of a pair. */
double pair_us()
{
    static std::array<uint8_t, 16384> buffer;
    struct rtb_msg table = {};
    char name[] = "blue";
    table.rts_hdr.rtsh_type = 1;
    table.name = name;
    table.name_len = sizeof name;
    const struct rts_msg message = { 1, &table };
    size_t length = size_t(idr_encode_rts_msg_0(&message, buffer.data(), buffer.size()));
    int pair[2];
    must(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) == 0, "socketpair");
    double start = now_us();
    for (int i = 0; i < GETS; i++) {
        for (int end = 0; end < 2; end++)
            must(write(pair[end], buffer.data(), length) == ssize_t(length) &&
                 read(pair[1 - end], buffer.data(), buffer.size()) == ssize_t(length), "round trip");
    }
    double took = (now_us() - start) / GETS;
    close(pair[0]);
    close(pair[1]);
    return took;
}

/* A kernel that is one hop through a socket away and does nothing else. */
int hop[2] = { -1, -1 };
ssize_t hop_write(void *, const void *octets, size_t length)
{
    static std::array<uint8_t, 1 << 20> taken;
    ssize_t sent = send(hop[0], octets, std::min(length, taken.size() / 8), 0);
    return sent < 0 ? sent : recv(hop[1], taken.data(), taken.size(), 0);
}
rtsock_kernel hop_kernel;

/* Changes of a table, which have no reply. */
std::vector<rtb_msg> tables(BULK);

void make_changes(rtslib_cookie *cookie)
{
    for (int i = 0; i < BULK; i++) {
        rtb_msg &table = tables[size_t(i)];
        table.rts_hdr.rtsh_version = rtslib_versions[2];
        table.rts_hdr.rtsh_type = 1;
        table.rts_hdr.rtsh_op = RTM_OP_CHANGE;
        table.af = FAMILY;
        table.tid = 1;
        table.aux_word1 = uint32_t(i);
        must(rtslib_seq_get_next(cookie, &table.rts_hdr.rtsh_seq) == 0, "sequence number");
    }
}

double single_write_us()
{
    make_changes(single);
    double start = now_us();
    for (const rtb_msg &table : tables) must(rtslib_msg_write_idl(single, &table, nullptr) == 0, "single write");
    return (now_us() - start) / BULK;
}

double bulk_write_us()
{
    static std::vector<rtslib_iov> iov(BULK);
    make_changes(bulk);
    double start = now_us();
    for (int i = 0; i < BULK; i++) iov[size_t(i)] = { &tables[size_t(i)], nullptr, 0, 0 };
    must(rtslib_msg_writev_idl(bulk, BULK, iov.data(), nullptr) == 0, "bulk write");
    for (const rtslib_iov &entry : iov) must(entry.write_err == 0, "bulk entry");
    return (now_us() - start) / BULK;
}

/* BULK_BUFFER octets, which is what goes through the hop at once. */
void open_both()
{
    enum { BULK_BUFFER = 128 << 10 };
    single = rtslib_open(SENDER);
    bulk = rtslib_open(SENDER);
    must(single != nullptr && bulk != nullptr && rtslib_set_sync_mode(bulk, 1) == 0 &&
         rtslib_set_bulk_buffer(bulk, BULK_BUFFER) == 0, "no connection");
}

void close_both()
{
    rtslib_close(single);
    rtslib_close(bulk);
}

double walk_us()
{
    rtslib_cookie *cookie = rtslib_open(SENDER);
    must(cookie != nullptr, "no connection to Linux");
    double start = now_us();
    int routes = 0;
    static uint8_t arena[16384] alignas(16);
    struct rt_msg query = {};
    query.rts_hdr.rtsh_version = rtslib_versions[3];
    query.rts_hdr.rtsh_type = 2;
    query.tid = TABLE;
    query.af = FAMILY;
    uint8_t prefix[16] = {};
    for (;; routes++) {
        void *message = nullptr;
        if (rtslib_rtm_get_with_msg_pa(cookie, &query, RTM_OP_GETNEXT, &message, nullptr, arena, sizeof arena) != 0)
            break;
        const auto *route = static_cast<const struct rt_msg *>(message);
        if (route == nullptr || route->tid != TABLE || route->af != FAMILY) break;   // the table behind
        must(route->prefix_len <= sizeof prefix, "prefix");
        memcpy(prefix, route->prefix, route->prefix_len);
        query.prefix = prefix;
        query.prefix_len = route->prefix_len;
        query.prefix_bits = route->prefix_bits;
    }
    must(routes == ROUTES, "the walk has another count of routes");
    double took = (now_us() - start) / ROUTES;
    rtslib_close(cookie);
    return took;
}

double ip_us()
{
    double start = now_us();
    must(system("ip route show table 100 >/dev/null") == 0, "ip route");
    return (now_us() - start) / ROUTES;
}

/* A namespace whose table 100 holds ROUTES routes. */
bool make_routes()
{
    if (unshare(CLONE_NEWNET) != 0 || system("ip link set lo up") != 0) return false;
    FILE *batch = popen("ip -batch -", "w");
    if (batch == nullptr) return false;
    for (int i = 0; i < ROUTES; i++)
        fprintf(batch, "route add %d.%d.%d.0/24 dev lo table 100\n", 20 + i / 65536, i / 256 % 256, i % 256);
    return pclose(batch) == 0;
}

const row model_rows[] = {
    { "get by name, base socketpair [us]", get_us, pair_us, ROUNDS, 0.5 },
    { "bulk to the model, base single [us]", bulk_write_us, single_write_us, ROUNDS, 4 },
};
const row hop_row = { "bulk through a hop, base single [us]", bulk_write_us, single_write_us, ROUNDS, 4 };
const row linux_row = { "walk of 100,000 routes, base ip [us each]", walk_us, ip_us, DUMP_ROUNDS, 1 };

}   // namespace

int main()
{
    rtsock_set_kernel(&rtsock_model);
    char error[128];
    must(rtsock_model_line("table blue index 1 family inet", error, sizeof error) == 0, error);
    printf("%-42s %10s %10s %7s   %s\n", "", "figure", "base", "ratio", "goal");
    open_both();
    for (const row &r : model_rows) measure(r);
    close_both();
    hop_kernel = rtsock_model;
    hop_kernel.rk_write = hop_write;
    must(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, hop) == 0, "socketpair");
    rtsock_set_kernel(&hop_kernel);
    open_both();
    measure(hop_row);
    close_both();
    rtsock_set_kernel(&rtsock_linux);
    if (make_routes())
        measure(linux_row);
    else
        printf("%-42s left out: no network namespace, or no `ip`\n", linux_row.name);
    return EXIT_SUCCESS;
}
