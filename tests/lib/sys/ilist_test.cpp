#include "lib/sys/ilist.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

struct item {
    ilist_node_t node; // first, so a node pointer is the record pointer
    int value;
};

// Values front to back, checked against the walk back so a broken prev
// link shows up too.
std::vector<int> contents(ilist_t *list)
{
    std::vector<int> fwd, back;
    for (ilist_node_t *n = ilist_get_next(list, &list->head); n != nullptr && n != &list->head;
         n = ilist_get_next(list, n))
        fwd.push_back(reinterpret_cast<item *>(n)->value);
    for (ilist_node_t *n = list->head.prev; n != &list->head; n = n->prev)
        back.insert(back.begin(), reinterpret_cast<item *>(n)->value);
    EXPECT_EQ(fwd, back);
    return fwd;
}

TEST(IList, InsertAtBothEndsRemoveAndTakeFromTheHead)
{
    ilist_t list;
    item it[4] = {{{}, 0}, {{}, 1}, {{}, 2}, {{}, 3}};
    ilist_init(&list);
    EXPECT_TRUE(ilist_is_empty(&list));
    EXPECT_EQ(ilist_remove_from_head(&list), nullptr);

    ilist_add_to_tail(&list, &it[1].node);
    ilist_add_to_tail(&list, &it[2].node);
    ilist_add_head(&list, &it[0].node);
    ilist_add_to_tail(&list, &it[3].node);
    EXPECT_EQ(contents(&list), (std::vector<int>{0, 1, 2, 3}));

    ilist_remove(&it[2].node);
    EXPECT_EQ(it[2].node.next, nullptr);
    EXPECT_EQ(it[2].node.prev, nullptr);
    ilist_remove(&it[2].node); // a second removal touches nothing
    EXPECT_EQ(contents(&list), (std::vector<int>{0, 1, 3}));

    for (int v : {0, 1, 3})
        EXPECT_EQ(ilist_remove_from_head(&list), &it[v].node);
    EXPECT_TRUE(ilist_is_empty(&list));
    EXPECT_EQ(list.head.prev, &list.head);
}

} // namespace
