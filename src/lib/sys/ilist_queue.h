// Blocking FIFO of intrusive list nodes, shared between threads.
//
// A mutex guards the list; a counting semaphore carries the number of queued
// nodes plus pending wake-ups, so a consumer takes a unit before it takes the
// mutex and never waits holding it. A dequeue waits at most the queue's
// relative wait and then returns null. The queue never allocates or frees its
// nodes.
//
// A consumer with no unit to take sleeps on the queue's doorbell, not inside
// the semaphore: glibc's sem_post makes a system call for every post from the
// moment a consumer starts to wait until it has run again, and a producer on
// the same core posts a whole burst in that time. A producer rings the bell
// only when a consumer has said it sleeps, and the ring clears that, so a
// burst costs one wake-up.
#pragma once

#include "lib/sys/ilist.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>

struct ilq_desc {
    ilist_t list;                 // head is taken first
    pthread_mutex_t lock;         // guards list
    sem_t elem_count_sem;         // queued nodes plus pending releases
    struct timespec time_to_wait; // longest wait of one dequeue
    std::atomic<uint32_t> bell;   // futex word: moves on at every ring
    std::atomic<int> sleepers;    // consumers that went to sleep since the last ring
};
using ilq_desc_t = ilq_desc;

// Empty queue with a default mutex and a process-private semaphore at 0;
// copies *time_to_wait (a null wait means dequeues never block).
void ilq_init(ilq_desc_t *q, const struct timespec *time_to_wait);

// Appends `new_node` at the tail and posts the semaphore once.
void ilq_enqueue(ilq_desc_t *q, ilist_node_t *new_node);

// Inserts `new_node` at the head, so it is the next node taken; posts once.
void ilq_push(ilq_desc_t *q, ilist_node_t *new_node);

// Waits up to time_to_wait for a unit of the semaphore (signals neither
// shorten nor lengthen the wait), then removes and returns the head node.
// Null when the wait runs out or fails, and when the unit came from
// ilq_release while the list is empty.
ilist_node_t *ilq_dequeue(ilq_desc_t *q);

// As ilq_dequeue, but never waits: null when no unit is there at once.
ilist_node_t *ilq_try_dequeue(ilq_desc_t *q);

// Non-zero when nothing is queued. Reads without the lock: only for the one
// thread that owns the queue at the time (draining at shutdown).
int ilq_is_empty(ilq_desc_t *q);

// Queued nodes plus pending releases, as the semaphore counts them: a
// snapshot, which other threads may change at once.
int ilq_length(ilq_desc_t *q);

// Posts once without queuing anything, so one blocked or later dequeue
// returns at once (null if the list is empty).
void ilq_release(ilq_desc_t *q);

// Destroys the semaphore and the mutex. Queued nodes are left alone; the
// caller drains them first, after every user of the queue has stopped.
void ilq_destroy(ilq_desc_t *q);

// Hands every queued node, head first, to `for_each` (which takes it over)
// and resets the semaphore to 0, discarding pending releases. Only while no
// thread waits in ilq_dequeue.
void ilq_flush(ilq_desc_t *q, void (*for_each)(ilist_node_t *));
