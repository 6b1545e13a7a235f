/*
 * Router: a whole router for a test, under a scratch root of its own.
 *
 * It writes files and configurations, starts the programs that were built (from the folder in KELD_BIN) with KELD_ROOT
 * set, waits for what they print, and ends them. When the test failed, everything that they printed and logged is
 * shown. No fixed ports, no privileges; every wait has a limit and ends as soon as the state is there.
 */
#pragma once

#include <functional>
#include <signal.h>
#include <string>
#include <sys/types.h>
#include <vector>

enum { LIMIT_S = 10 };   // for what takes milliseconds, on a machine that does other things as well

/* True as soon as state is, false if it is not within the limit. */
bool within_s(int limit_s, const std::function<bool()> &state);

struct process {
    pid_t pid = -1;
    int input = -1;            // its standard input, for writing
    std::string output_path;   // standard output and standard error
};

struct router {
    router();
    ~router();   // ends what still runs, shows the logs if the test failed, removes the root
    router(const router &) = delete;
    router &operator=(const router &) = delete;

    std::string root;
    std::vector<struct process> started;
};

/* path is the router's, such as "/var/etc/keld.conf"; folders are made. */
void router_write(const struct router &router, const std::string &path, const std::string &text);
std::string file_read(const std::string &path);   // "" if there is none
/* The configuration whose service-deployment stanza holds stanza, and the rest as given. */
void router_configure(const struct router &router, const std::string &stanza, const std::string &rest = "");

/* Starts KELD_BIN/name. The record is a copy; the router's own ends the process if nobody does. */
struct process router_start(struct router &router, const std::string &name, const std::vector<std::string> &arguments);
/* Sends the signal (0: none), waits for the end. The exit status, or -1 if a signal ended it. */
int router_stop(struct router &router, const struct process &process, int signal_number = SIGTERM);
/* A run to its end: the exit status; what it printed is in *output unless that is null. */
int router_run(struct router &router, const std::string &name, const std::vector<std::string> &arguments,
               std::string *output = nullptr);

/* True once text stands in what the process printed, in the router's system log, in the daemon's trace. */
bool printed(const struct process &process, const std::string &text);
bool logged(const struct router &router, const std::string &text);
bool traced(const struct router &router, const std::string &text);
/* Types a line into the process. */
void type_line(const struct process &process, const std::string &line);

/* kelserver on a free port of 127.0.0.1, listening. */
struct kelserver {
    struct process process;
    std::string port;
};
struct kelserver kelserver_start(struct router &router, const std::vector<std::string> &options = {});
