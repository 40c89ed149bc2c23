// The framework's one list: intrusive, circular, doubly linked. A record that is kept on lists
// begins with a ListT named `list`, so a pointer to the record is a pointer to its node. A list is
// held by one pointer to its first element, null while the list is empty.
//
// Each operation that touches a list comes in two forms. The ...Unprot form does no locking and is
// for callers that hold the lock that guards their list; any thread may call it then. The form
// without the suffix brackets it with the interrupts-off section, so such calls exclude each other
// whatever task they come from; it waits for other sections, never longer. No operation allocates.
//
// An element is free while both its links are null (ListInit) or both point at itself (after an
// extraction); only a free element may be inserted.
#pragma once

#include "Common/OS/assertion.h"
#include "Common/OS/types.h"

typedef struct ListS {
    struct ListS* next;
    struct ListS* prev;
} ListT;

// A question about one element; non-zero means that it matches.
typedef int (*ListCompareFuncPtrT)(ListT* pElem, void* pUserDefined1, void* pUserDefined2);

// Makes an element free: both links null. The element must be on no list.
inline void ListInit(ListT* pList) {
    pList->next = nullptr;
    pList->prev = nullptr;
}

// The first element: the head itself, null for an empty list. Takes no lock.
inline ListT* ListFirstElement(ListT* pList) {
    return pList;
}

// The last element, null for an empty list. Takes no lock.
inline ListT* ListLastElement(ListT* pList) {
    return pList != nullptr ? pList->prev : nullptr;
}

// The element after `pCurElement`, null at the end of the ring and for a null `pCurElement`. Takes
// no lock: whoever walks a shared list holds its lock.
inline ListT* ListNextElement(ListT* pList, ListT* pCurElement) {
    if (pCurElement == nullptr || pCurElement->next == pList) {
        return nullptr;
    }
    return pCurElement->next;
}

// The element before `pCurElement`, null before the first and for a null `pCurElement`. Takes no
// lock.
inline ListT* ListPrevElement(ListT* pList, ListT* pCurElement) {
    if (pCurElement == nullptr || pCurElement->prev == pList->prev) {
        return nullptr;
    }
    return pCurElement->prev;
}

// The first element, from the head onward, for which `pCompare`(element, `pUserDefined1`,
// `pUserDefined2`) is non-zero; null if there is none. `pCompare` may not be null. Takes no lock.
ListT* ListSearch(ListT* pList, ListCompareFuncPtrT pCompare, void* pUserDefined1,
                  void* pUserDefined2);

// The number of elements; walks the list.
int ListLenUnprot(ListT** ppList);
int ListLen(ListT** ppList);

// 1 for an empty list, else 0.
inline int ListIsEmptyUnprot(ListT** ppList) {
    return *ppList == nullptr ? 1 : 0;
}
int ListIsEmpty(ListT** ppList);

// Private to the list: tell of an insertion of an element that is on a list.
void ListReportBusyAfter(const ListT* pElem);
void ListReportBusyBefore();

// Private to the list: whether an element is on no list.
inline bool ListElementFree(const ListT* pElem) {
    return (pElem->next == nullptr || pElem->next == pElem) &&
           (pElem->prev == nullptr || pElem->prev == pElem);
}

// Private to the list: links a free element into a ring, before `pNext`.
inline void ListLink(ListT* pNext, ListT* pElem) {
    ListT* prev = pNext->prev;
    pElem->next = pNext;
    pElem->prev = prev;
    prev->next = pElem;
    pNext->prev = pElem;
}

// Takes `pElem`, which the caller knows to be on this list, off it. Returns the element that
// followed it (the new head, where it was the last of several), or null when it was the only one,
// so that a walk may remove as it goes. A null `pElem` is ignored: null.
inline ListT* ListExtractUnprot(ListT** ppList, ListT* pElem) {
    if (pElem == nullptr) {
        return nullptr;
    }
    ListT* next = pElem->next;
    ListT* prev = pElem->prev;
    prev->next = next;
    next->prev = prev;
    pElem->next = pElem;
    pElem->prev = pElem;
    if (next == pElem) {
        *ppList = nullptr;
        return nullptr;
    }
    if (*ppList == pElem) {
        *ppList = next;
    }
    return next;
}
ListT* ListExtract(ListT** ppList, ListT* pElem);

// Takes `pElem` off the list if it is on it and returns it; otherwise changes nothing and returns
// null. Walks the list. Neither argument may be null.
ListT* ListExtractIfPresentUnprot(ListT** ppList, ListT* pElem);
ListT* ListExtractIfPresent(ListT** ppList, ListT* pElem);

// Removes and returns the first element; null for an empty list. `ppList` may not be null.
inline ListT* ListDequeueUnprot(ListT** ppList) {
    OsAssert(ppList);
    ListT* first = *ppList;
    ListExtractUnprot(ppList, first);
    return first;
}
ListT* ListDequeue(ListT** ppList);

// Inserts a free element after `pPrevElem`; the head does not change. On an empty list the element
// becomes the only one. A null `pElem` is ignored, and so is a null `pPrevElem` on a list that is
// not empty. An element that is on a list is printed and ends the program.
inline void ListInsertAfterUnprot(ListT** ppList, ListT* pPrevElem, ListT* pElem) {
    if (pElem == nullptr) {
        return;
    }
    if (!ListElementFree(pElem)) [[unlikely]] {
        ListReportBusyAfter(pElem);
        OsAssertText(false, "0");
    }
    if (*ppList == nullptr) {
        pElem->next = pElem;
        pElem->prev = pElem;
        *ppList = pElem;
    } else if (pPrevElem != nullptr) {
        ListLink(pPrevElem->next, pElem);
    }
}
void ListInsertAfter(ListT** ppList, ListT* pPrevElem, ListT* pElem);

// The same before `pNextElem`; where that was the head, the element becomes the head.
inline void ListInsertBeforeUnprot(ListT** ppList, ListT* pNextElem, ListT* pElem) {
    if (pElem == nullptr) {
        return;
    }
    if (!ListElementFree(pElem)) [[unlikely]] {
        ListReportBusyBefore();
        OsAssertText(false, "0");
    }
    if (*ppList == nullptr) {
        pElem->next = pElem;
        pElem->prev = pElem;
        *ppList = pElem;
    } else if (pNextElem != nullptr) {
        ListLink(pNextElem, pElem);
        if (*ppList == pNextElem) {
            *ppList = pElem;
        }
    }
}
void ListInsertBefore(ListT** ppList, ListT* pNextElem, ListT* pElem);

// Appends a free element at the tail. `ppList` may not be null.
inline void ListEnqueueUnprot(ListT** ppList, ListT* pElem) {
    OsAssert(ppList);
    ListInsertAfterUnprot(ppList, ListLastElement(*ppList), pElem);
}
void ListEnqueue(ListT** ppList, ListT* pElem);

// Appends the element at the tail unless it is on this list already. Walks the list. Neither
// argument may be null.
void ListEnqueueIfAbsentUnprot(ListT** ppList, ListT* pElem);
void ListEnqueueIfAbsent(ListT** ppList, ListT* pElem);

// Inserts a free element in front: it becomes the head. `ppList` may not be null.
inline void ListPushUnprot(ListT** ppList, ListT* pElem) {
    OsAssert(ppList);
    ListInsertBeforeUnprot(ppList, *ppList, pElem);
}
void ListPush(ListT** ppList, ListT* pElem);
