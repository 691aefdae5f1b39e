#include "lib/sys/ilist.h"

#include "lib/sys/swu_assert.h"

#include <cstddef>

void ilist_init(ilist_t *list)
{
    SWU_ASSERT(list != NULL);
    list->head.next = &list->head;
    list->head.prev = &list->head;
}

void ilist_add(ilist_node_t *node, ilist_node_t *prev, ilist_node_t *next)
{
    SWU_ASSERT(node != NULL);
    SWU_ASSERT(prev != NULL);
    SWU_ASSERT(next != NULL);
    node->next = next;
    node->prev = prev;
    next->prev = node;
    prev->next = node;
}

void ilist_add_head(ilist_t *list, ilist_node_t *new_node)
{
    SWU_ASSERT(list != NULL);
    SWU_ASSERT(new_node != NULL);
    ilist_add(new_node, &list->head, list->head.next);
}

void ilist_add_to_tail(ilist_t *list, ilist_node_t *new_node)
{
    SWU_ASSERT(list != NULL);
    SWU_ASSERT(new_node != NULL);
    ilist_add(new_node, list->head.prev, &list->head);
}

void ilist_remove(ilist_node_t *node)
{
    SWU_ASSERT(node != NULL);
    // Removing a node twice must not touch its former neighbours.
    if (node->next == NULL || node->prev == NULL)
        return;
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = NULL;
    node->prev = NULL;
}

int ilist_is_empty(ilist_t *list)
{
    return list->head.next == &list->head;
}

ilist_node_t *ilist_remove_from_head(ilist_t *list)
{
    SWU_ASSERT(list != NULL);
    if (ilist_is_empty(list))
        return NULL;
    ilist_node_t *node = list->head.next;
    ilist_remove(node);
    return node;
}

ilist_node_t *ilist_get_next(ilist_t *list, ilist_node_t *node)
{
    SWU_ASSERT(list != NULL);
    SWU_ASSERT(node != NULL);
    if (ilist_is_empty(list))
        return NULL;
    return node->next;
}
