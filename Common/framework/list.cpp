// The list's walking and locking forms; the rest is inline in the header.
#include "Common/framework/list.h"

#include <stdio.h>

#include "Common/OS/linux/intsoff.h"
#include "Common/framework/address.h"

namespace {

bool IsOnList(const ListT* head, const ListT* pElem) {
    if (head == nullptr) {
        return false;
    }
    const ListT* at = head;
    do {
        if (at == pElem) {
            return true;
        }
        at = at->next;
    } while (at != head);
    return false;
}

}  // namespace

void ListReportBusyAfter(const ListT* pElem) {
    printf("LIST: InsertAfter: element 0x%x already on another list! (next 0x%x prev 0x%x)\n",
           shown_address(pElem), shown_address(pElem->next), shown_address(pElem->prev));
}

void ListReportBusyBefore() {
    puts("LIST: InsertBefore: element already on another list!");
}

ListT* ListSearch(ListT* pList, ListCompareFuncPtrT pCompare, void* pUserDefined1,
                  void* pUserDefined2) {
    OsAssert(pCompare);
    for (ListT* at = pList; at != nullptr; at = ListNextElement(pList, at)) {
        if (pCompare(at, pUserDefined1, pUserDefined2) != 0) {
            return at;
        }
    }
    return nullptr;
}

int ListLenUnprot(ListT** ppList) {
    int length = 0;
    for (ListT* at = *ppList; at != nullptr; at = ListNextElement(*ppList, at)) {
        length++;
    }
    return length;
}

ListT* ListExtractIfPresentUnprot(ListT** ppList, ListT* pElem) {
    OsAssert(ppList);
    OsAssert(pElem);
    if (!IsOnList(*ppList, pElem)) {
        return nullptr;
    }
    ListExtractUnprot(ppList, pElem);
    return pElem;
}

void ListEnqueueIfAbsentUnprot(ListT** ppList, ListT* pElem) {
    OsAssert(ppList);
    OsAssert(pElem);
    if (!IsOnList(*ppList, pElem)) {
        ListEnqueueUnprot(ppList, pElem);
    }
}

int ListLen(ListT** ppList) {
    InterruptsOffT lock;
    return ListLenUnprot(ppList);
}

int ListIsEmpty(ListT** ppList) {
    InterruptsOffT lock;
    return ListIsEmptyUnprot(ppList);
}

ListT* ListExtract(ListT** ppList, ListT* pElem) {
    InterruptsOffT lock;
    return ListExtractUnprot(ppList, pElem);
}

ListT* ListExtractIfPresent(ListT** ppList, ListT* pElem) {
    InterruptsOffT lock;
    return ListExtractIfPresentUnprot(ppList, pElem);
}

ListT* ListDequeue(ListT** ppList) {
    InterruptsOffT lock;
    return ListDequeueUnprot(ppList);
}

void ListEnqueue(ListT** ppList, ListT* pElem) {
    OsAssert(ppList);
    InterruptsOffT lock;
    ListEnqueueUnprot(ppList, pElem);
}

void ListEnqueueIfAbsent(ListT** ppList, ListT* pElem) {
    InterruptsOffT lock;
    ListEnqueueIfAbsentUnprot(ppList, pElem);
}

void ListPush(ListT** ppList, ListT* pElem) {
    InterruptsOffT lock;
    ListPushUnprot(ppList, pElem);
}

void ListInsertAfter(ListT** ppList, ListT* pPrevElem, ListT* pElem) {
    InterruptsOffT lock;
    ListInsertAfterUnprot(ppList, pPrevElem, pElem);
}

void ListInsertBefore(ListT** ppList, ListT* pNextElem, ListT* pElem) {
    InterruptsOffT lock;
    ListInsertBeforeUnprot(ppList, pNextElem, pElem);
}
