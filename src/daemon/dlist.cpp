#include "daemon/dlist.h"

#include "daemon/shared.h"

void dlist_add_head(dlist *h, dlist *e) noexcept
{
    dlist *n = h->next;
    e->next = n;
    e->prev = h;
    n->prev = e;
    publish(h->next, e); // last: a reader may follow it from now on
}

void dlist_add_tail(dlist *h, dlist *e) noexcept
{
    dlist *p = h->prev;
    e->next = h;
    e->prev = p;
    h->prev = e;
    publish(p->next, e);
}

void dlist_del(dlist *e) noexcept
{
    publish(e->prev->next, e->next); // a reader on prev steps over e
    e->next->prev = e->prev;
    // a reader standing on e can still step forward; poison only prev
    e->prev = nullptr;
}
