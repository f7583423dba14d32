#include "routing_double.h"

#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <cstring>
#include <string>

std::vector<routing_call> routing_calls;

static void record(char op, const pelod_xpt *x)
{
    routing_call c{};
    c.op = op;
    if (x)
        c.x = *x;
    c.srcs_used = srcs_used;
    routing_calls.push_back(c);
}

int pelod_xpt_add(const pelod_xpt *x)
{
    record('a', x);
    return 0;
}

int pelod_xpt_del(const pelod_xpt *x)
{
    record('d', x);
    return 0;
}

void pelod_update_rtp_sources() { record('u', nullptr); }

std::string routing_ops()
{
    std::string s;
    for (const routing_call &c : routing_calls)
        s += c.op;
    return s;
}

void config_reset()
{
    for (dlist *h : {&xpts, &xpts_del, &xpts_new}) {
        while (!dlist_empty(h)) {
            dlist *e = h->next;
            dlist_del(e);
            delete dlist_entry(e, xpt, link);
        }
    }
    memset(srcs, 0, sizeof srcs);
    srcs_used = 0;
    ifs[0] = '\0';
    routing_calls.clear();
}
