// The intrusive, circular, doubly linked list with a sentinel head that the
// event records and the vendor rules hang on. No locking, no checks: the
// owner of a list serialises access to it.
#pragma once

struct UdevListHead {
    UdevListHead *next;
    UdevListHead *prev;
};

inline void UDEV_ListInit(UdevListHead *head)
{
    head->next = head;
    head->prev = head;
}

inline bool UDEV_ListEmpty(const UdevListHead *head)
{
    return head->next == head;
}

// Links node between two adjacent links.
inline void UDEV_ListAdd(UdevListHead *node, UdevListHead *prev, UdevListHead *next)
{
    next->prev = node;
    node->next = next;
    node->prev = prev;
    prev->next = node;
}

inline void UDEV_ListAddTail(UdevListHead *node, UdevListHead *head)
{
    UDEV_ListAdd(node, head->prev, head);
}

// Joins two links, cutting out what lay between.
inline void UDEV_ListDel(UdevListHead *prev, UdevListHead *next)
{
    next->prev = prev;
    prev->next = next;
}

// Unlinks node from whatever list holds it and links it to itself.
inline void UDEV_ListDelInit(UdevListHead *node)
{
    UDEV_ListDel(node->prev, node->next);
    UDEV_ListInit(node);
}

// Moves all nodes of `from`, in order, between two adjacent links.
inline void UDEV_ListSpliceBetween(UdevListHead *from, UdevListHead *prev, UdevListHead *next)
{
    if (UDEV_ListEmpty(from)) {
        return;
    }
    UdevListHead *first = from->next;
    UdevListHead *last = from->prev;
    prev->next = first;
    first->prev = prev;
    last->next = next;
    next->prev = last;
    UDEV_ListInit(from);
}

// Moves all nodes of `from`, in order, behind the last node of `to`.
inline void UDEV_ListSpliceTailInit(UdevListHead *from, UdevListHead *to)
{
    UDEV_ListSpliceBetween(from, to->prev, to);
}

// Moves all nodes of `from`, in order, in front of the first node of `to`.
inline void UDEV_ListSpliceInit(UdevListHead *from, UdevListHead *to)
{
    UDEV_ListSpliceBetween(from, to, to->next);
}
