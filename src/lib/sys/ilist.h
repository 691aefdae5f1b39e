// Intrusive circular doubly linked list.
//
// A record joins a list by embedding an ilist_node_t; records that travel
// through a queue put the node first, so a node pointer is the record pointer.
// The list never allocates: the caller owns and places every node and head.
// A node that is in no list has null next and prev.
#pragma once

struct ilist_node {
    struct ilist_node *next;
    struct ilist_node *prev;
};
using ilist_node_t = ilist_node;

// The head is a sentinel: the first element is head.next, the last head.prev,
// and an empty list points both at the head itself.
struct intrusive_list {
    ilist_node_t head;
};
using ilist_t = intrusive_list;

// Makes `list` empty.
void ilist_init(ilist_t *list);

// Links `node` between the adjacent nodes `prev` and `next`.
void ilist_add(ilist_node_t *node, ilist_node_t *prev, ilist_node_t *next);

// Inserts `new_node` as the first element.
void ilist_add_head(ilist_t *list, ilist_node_t *new_node);

// Inserts `new_node` as the last element.
void ilist_add_to_tail(ilist_t *list, ilist_node_t *new_node);

// Unlinks `node` from the list that holds it and clears its pointers. A node
// that is in no list is left as it is.
void ilist_remove(ilist_node_t *node);

// Non-zero when `list` holds no element.
int ilist_is_empty(ilist_t *list);

// Unlinks and returns the first element (pointers cleared); null when empty.
ilist_node_t *ilist_remove_from_head(ilist_t *list);

// The node after `node`: null when the list is empty, the sentinel
// &list->head after the last element (where a walk stops).
ilist_node_t *ilist_get_next(ilist_t *list, ilist_node_t *node);
