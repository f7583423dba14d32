// Intrusive doubly linked list with head insertion, as the socket table,
// its endpoint buckets and the crosspoint lists use it. A head is a link
// whose next/prev point to itself when empty. Inserts store the new
// element's links first and the neighbours' last, so a reader walking
// forward from the head never sees a half-linked element.
#pragma once
#include <cstddef>

struct dlist {
    dlist *next;
    dlist *prev;
};

inline void dlist_init(dlist *h) noexcept { h->next = h; h->prev = h; }
inline bool dlist_empty(const dlist *h) noexcept { return h->next == h; }

void dlist_add_head(dlist *h, dlist *e) noexcept;
void dlist_add_tail(dlist *h, dlist *e) noexcept;
// Unlinks e and poisons its links (they are not reused without init/add).
void dlist_del(dlist *e) noexcept;

// The record that embeds link `member`.
#define dlist_entry(ptr, type, member) \
    (reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member)))
