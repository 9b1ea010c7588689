/* Doubly linked circular list whose links live inside the elements. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include "utils.h"

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#define LIST_HEAD_INIT(name)                                                                                           \
    {                                                                                                                  \
        &(name), &(name)                                                                                               \
    }

static inline void INIT_LIST_HEAD(struct list_head *list)
{
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head *list)
{
    return list->next == list;
}

/* Inserts entry behind position; position is any element, or the head to insert in front. */
static inline void list_add(struct list_head *entry, struct list_head *position)
{
    entry->prev = position;
    entry->next = position->next;
    position->next->prev = entry;
    position->next = entry;
}

/* Inserts entry in front of position; position is any element, or the head to append. */
static inline void list_add_tail(struct list_head *entry, struct list_head *position)
{
    list_add(entry, position->prev);
}

static inline void list_del(struct list_head *entry)
{
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = NULL;
    entry->prev = NULL;
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(list, type, field) list_entry((list)->next, type, field)

#define list_for_each_entry(p, head, field)                                                                            \
    for (p = list_entry((head)->next, __typeof__(*p), field); &p->field != (head);                                     \
         p = list_entry(p->field.next, __typeof__(*p), field))

#endif
