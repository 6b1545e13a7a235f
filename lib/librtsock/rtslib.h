/*
 * Routing-socket library: the client side of the routing socket, through which a process reads and changes interfaces,
 * routes, next hops and configuration blobs.
 *
 * Everything works on one handle, the cookie. Results are 0 or an error number of the target system (platform/target.h)
 * unless a function says otherwise; handles are null on failure. A request is built, written and, where it has a reply,
 * read at once: the reply is there when the write returns, and nothing here waits, the statistics calls apart. A cookie
 * belongs to one thread at a time.
 *
 * What is wrong beyond a result is reported through the cookie's sink; the one that a cookie starts with writes to the
 * system log and ends the process at severity 4.
 */
#pragma once

#include "lib/librtsock/ifl.h"
#include "lib/librtsock/rtslib_async.h"
#include "lib/librtsock/rtslib_cookie.h"
#include "lib/librtsock/rtslib_envelope.h"
#include "lib/librtsock/rtslib_gencfg.h"
#include "lib/librtsock/rtslib_interface.h"
#include "lib/librtsock/rtslib_io.h"
#include "lib/librtsock/rtslib_list.h"
#include "lib/librtsock/rtslib_mem.h"
#include "lib/librtsock/rtslib_names.h"
#include "lib/librtsock/rtslib_nexthop.h"
#include "lib/librtsock/rtslib_raw.h"
#include "lib/librtsock/rtslib_route.h"
#include "lib/librtsock/rtslib_stats.h"
#include "lib/librtsock/rtslib_table.h"
#include "lib/librtsock/rtslib_unnum.h"
#include "lib/librtsock/vrf.h"
