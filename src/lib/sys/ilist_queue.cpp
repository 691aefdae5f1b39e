#include "lib/sys/ilist_queue.h"

#include "lib/sys/swu_assert.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace
{

constexpr long NSEC_PER_SEC = 1000000000L;

// Takes one unit of `sem`, waiting until now + *time_to_wait on
// CLOCK_REALTIME. 0: a unit was taken; 1: the time ran out; -1: error.
int ilq_sem_wait_nointr(sem_t *sem, const struct timespec *time_to_wait)
{
    SWU_ASSERT(sem != NULL);
    struct timespec deadline;
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0)
        return -1;
    deadline.tv_sec += time_to_wait->tv_sec;
    deadline.tv_nsec += time_to_wait->tv_nsec;
    deadline.tv_sec += deadline.tv_nsec / NSEC_PER_SEC;
    deadline.tv_nsec %= NSEC_PER_SEC;

    // The deadline is absolute, so a signal neither shortens nor lengthens
    // the wait.
    while (sem_timedwait(sem, &deadline) != 0) {
        if (errno == EINTR) {
            errno = 0;
            continue;
        }
        if (errno == ETIMEDOUT)
            return 1;
        perror("[ilq_dequeue] sem_wait failed");
        return -1;
    }
    return 0;
}

} // namespace

void ilq_init(ilq_desc_t *q, const struct timespec *time_to_wait)
{
    SWU_ASSERT(q != NULL);
    ilist_init(&q->list);
    pthread_mutex_init(&q->lock, NULL);
    sem_init(&q->elem_count_sem, 0, 0);
    if (time_to_wait != NULL) {
        q->time_to_wait = *time_to_wait;
    } else {
        q->time_to_wait.tv_sec = 0;
        q->time_to_wait.tv_nsec = 0;
    }
}

void ilq_enqueue(ilq_desc_t *q, ilist_node_t *new_node)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(new_node != NULL);
    pthread_mutex_lock(&q->lock);
    ilist_add_to_tail(&q->list, new_node);
    pthread_mutex_unlock(&q->lock);
    // Posted after linking, so the count never exceeds the linked nodes plus
    // releases, and a woken consumer always finds its node.
    sem_post(&q->elem_count_sem);
}

void ilq_push(ilq_desc_t *q, ilist_node_t *new_node)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(new_node != NULL);
    pthread_mutex_lock(&q->lock);
    ilist_add_head(&q->list, new_node);
    pthread_mutex_unlock(&q->lock);
    sem_post(&q->elem_count_sem);
}

ilist_node_t *ilq_dequeue(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    if (ilq_sem_wait_nointr(&q->elem_count_sem, &q->time_to_wait) != 0)
        return NULL;
    pthread_mutex_lock(&q->lock);
    ilist_node_t *node = ilist_remove_from_head(&q->list);
    pthread_mutex_unlock(&q->lock);
    return node;
}

ilist_node_t *ilq_try_dequeue(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    if (sem_trywait(&q->elem_count_sem) != 0)
        return NULL;
    pthread_mutex_lock(&q->lock);
    ilist_node_t *node = ilist_remove_from_head(&q->list);
    pthread_mutex_unlock(&q->lock);
    return node;
}

int ilq_is_empty(ilq_desc_t *q)
{
    return ilist_is_empty(&q->list);
}

int ilq_length(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    int count = 0;
    sem_getvalue(&q->elem_count_sem, &count);
    return count;
}

void ilq_release(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    sem_post(&q->elem_count_sem);
}

void ilq_destroy(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    sem_destroy(&q->elem_count_sem);
    pthread_mutex_destroy(&q->lock);
}

void ilq_flush(ilq_desc_t *q, void (*for_each)(ilist_node_t *))
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(for_each != NULL);
    pthread_mutex_lock(&q->lock);
    ilist_node_t *node;
    while ((node = ilist_remove_from_head(&q->list)) != NULL)
        for_each(node);
    sem_destroy(&q->elem_count_sem);
    sem_init(&q->elem_count_sem, 0, 0);
    pthread_mutex_unlock(&q->lock);
}
