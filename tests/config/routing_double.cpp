#include "routing_double.h"

#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <cstring>

std::vector<routing_call> routing_calls;

static int record(char op, const pelod_xpt *x)
{
    routing_calls.push_back({op, x ? *x : pelod_xpt{}, srcs_used});
    return 0;
}
int pelod_xpt_add(const pelod_xpt *x) { return record('a', x); }
int pelod_xpt_del(const pelod_xpt *x) { return record('d', x); }
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
    for (dlist *h : {&xpts, &xpts_del, &xpts_new})
        while (!dlist_empty(h)) {
            dlist *e = h->next;
            dlist_del(e);
            delete dlist_entry(e, xpt, link);
        }
    memset(srcs, 0, sizeof srcs);
    srcs_used = 0;
    ifs[0] = '\0';
    routing_calls.clear();
}
