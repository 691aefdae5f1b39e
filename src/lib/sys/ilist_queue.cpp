#include "lib/sys/ilist_queue.h"

#include "lib/sys/swu_assert.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

constexpr long NSEC_PER_SEC = 1000000000L;

// Wakes every consumer asleep on the bell, if any said so since the last
// ring. Called after a post. The exchange and the consumer's announcement are
// read-modify-writes of one variable, so either the post is visible to the
// consumer's last look at the semaphore or its announcement is seen here.
void ilq_ring(ilq_desc_t *q)
{
    if (q->sleepers.exchange(0, std::memory_order_acq_rel) == 0)
        return;
    q->bell.fetch_add(1, std::memory_order_release);
    syscall(SYS_futex, &q->bell, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Takes one unit of the queue's semaphore, sleeping on the bell until now +
// time_to_wait on CLOCK_REALTIME. 0: a unit was taken; 1: the time ran out;
// -1: error.
int ilq_sem_wait_nointr(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    if (sem_trywait(&q->elem_count_sem) == 0)
        return 0;
    struct timespec deadline;
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0)
        return -1;
    deadline.tv_sec += q->time_to_wait.tv_sec;
    deadline.tv_nsec += q->time_to_wait.tv_nsec;
    deadline.tv_sec += deadline.tv_nsec / NSEC_PER_SEC;
    deadline.tv_nsec %= NSEC_PER_SEC;

    for (;;) {
        const uint32_t rung = q->bell.load(std::memory_order_acquire);
        q->sleepers.fetch_add(1, std::memory_order_acq_rel);
        if (sem_trywait(&q->elem_count_sem) == 0)
            return 0; // the announcement left behind costs one needless ring at most
        // The deadline is absolute, so a signal neither shortens nor
        // lengthens the wait; a ring between the look at the bell and the
        // sleep makes the sleep return at once.
        long r = syscall(SYS_futex, &q->bell, FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME,
                         rung, &deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
        if (r == 0 || errno == EINTR || errno == EAGAIN) {
            errno = 0;
            if (sem_trywait(&q->elem_count_sem) == 0)
                return 0;
            continue;
        }
        if (errno == ETIMEDOUT)
            return sem_trywait(&q->elem_count_sem) == 0 ? 0 : 1;
        perror("[ilq_dequeue] sem_wait failed");
        return -1;
    }
}

} // namespace

void ilq_init(ilq_desc_t *q, const struct timespec *time_to_wait)
{
    SWU_ASSERT(q != NULL);
    ilist_init(&q->list);
    pthread_mutex_init(&q->lock, NULL);
    sem_init(&q->elem_count_sem, 0, 0);
    q->bell.store(0, std::memory_order_relaxed);
    q->sleepers.store(0, std::memory_order_relaxed);
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
    ilq_ring(q);
}

void ilq_push(ilq_desc_t *q, ilist_node_t *new_node)
{
    SWU_ASSERT(q != NULL);
    SWU_ASSERT(new_node != NULL);
    pthread_mutex_lock(&q->lock);
    ilist_add_head(&q->list, new_node);
    pthread_mutex_unlock(&q->lock);
    sem_post(&q->elem_count_sem);
    ilq_ring(q);
}

ilist_node_t *ilq_dequeue(ilq_desc_t *q)
{
    SWU_ASSERT(q != NULL);
    if (ilq_sem_wait_nointr(q) != 0)
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
    ilq_ring(q);
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
