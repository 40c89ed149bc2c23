// The intrusive list.
#include "Common/framework/list.h"

#include <deque>
#include <latch>
#include <random>

#include "Common/OS/linux/os_init.h"
#include "tests/framework/module_task.h"

namespace {

// Whether the list holds just these elements in this order, walked both ways.
void ExpectSame(ListT* head, const std::deque<ListT*>& model) {
    ListT* at = ListFirstElement(head);
    ListT* back = ListLastElement(head);
    for (size_t i = 0; i < model.size(); i++) {
        ASSERT_TRUE(at == model[i] && back == model[model.size() - 1 - i]) << i;
        at = ListNextElement(head, at);
        back = ListPrevElement(head, back);
    }
    ASSERT_TRUE(at == nullptr && back == nullptr);
    ASSERT_EQ(ListLen(&head), static_cast<int>(model.size()));
    ASSERT_EQ(ListIsEmpty(&head), model.empty() ? 1 : 0);
}

}  // namespace

TEST(List, AnyOrderOfOperationsKeepsTheRingAndTheOrder) {
    std::mt19937 random(1);
    ListT elements[12] = {};
    ListT* head = nullptr;
    std::deque<ListT*> model;
    const auto is = [](ListT* at, void* wanted, void*) -> int { return at == wanted; };
    for (int step = 0; step < 20000; step++) {
        ListT* element = &elements[random() % 12];
        auto at = std::find(model.begin(), model.end(), element);
        const bool absent = at == model.end();
        ASSERT_EQ(ListSearch(head, is, element, nullptr), absent ? nullptr : element);
        // Beside which it goes; nowhere for none, unless the list is empty.
        ListT* other =
            model.empty() || random() % 8 == 0 ? nullptr : model[random() % model.size()];
        const bool nowhere = other == nullptr && !model.empty();
        const auto place = std::find(model.begin(), model.end(), other);
        const auto operation = random() % 7;
        if (operation == 0) {
            ListT* first = model.empty() ? nullptr : model.front();
            ASSERT_EQ(ListDequeue(&head), first);
            std::erase(model, first);
        } else if (operation == 1) {
            ASSERT_EQ(ListExtractIfPresent(&head, element), absent ? nullptr : element);
            std::erase(model, element);
        } else if (operation == 2) {
            ListEnqueueIfAbsent(&head, element);
            model.insert(model.end(), absent ? 1 : 0, element);
        } else if (!absent) {
            at = model.erase(at);
            ListT* next = ListExtract(&head, element);
            ASSERT_EQ(next, at == model.end() ? head : *at);
            ASSERT_TRUE(element->next == element && element->prev == element);
        } else if (operation == 3) {
            ListPush(&head, element);
            model.push_front(element);
        } else if (operation == 4) {
            ListEnqueue(&head, element);
            model.push_back(element);
        } else if (operation == 5) {
            ListInsertAfter(&head, other, element);
            model.insert(other == nullptr ? place : place + 1, nowhere ? 0 : 1, element);
        } else {
            ListInsertBefore(&head, other, element);
            model.insert(place, nowhere ? 0 : 1, element);
        }
        ListPush(&head, random() % 2 == 0 ? ListDequeue(&head) : nullptr);
        ExpectSame(head, model);
    }
}

TEST(ListDeathTest, AnElementOfAnotherListEndsTheProgramAndIsNamed) {
    static ListT busy[2];
    static ListT* head = nullptr;
    ListT* elsewhere = nullptr;
    ListEnqueue(&elsewhere, &busy[0]);
    ListEnqueue(&elsewhere, &busy[1]);
    ExpectDeaths("list,.*List",
                 {{[] { ListEnqueue(&head, busy); },
                   "LIST: InsertAfter: element 0x[0-9a-f]+ already on another list! "
                   "\\(next 0x[0-9a-f]+ prev 0x[0-9a-f]+\\)\n(.|\n)* 0,"},
                  {[] { ListPush(&head, busy); },
                   "LIST: InsertBefore: element already on another list!\n(.|\n)* 0,"},
                  {[] { ListEnqueueIfAbsent(&head, nullptr); }, "pElem"},
                  {[] { ListExtractIfPresent(&head, nullptr); }, "pElem"},
                  {[] { ListDequeue(nullptr); }, "ppList"},
                  {[] { ListSearch(busy, nullptr, nullptr, nullptr); }, "pCompare"}});
}

TEST(List, ProtectedFormsLoseNothingBetweenThreads) {
    os_init();
    ListT elements[16] = {};
    ListT* list = nullptr;
    for (ListT& element : elements) {
        ListEnqueue(&list, &element);
    }
    std::latch start(3);
    const auto move = [&] {
        start.arrive_and_wait();
        for (int round = 0; round < 500000; round++) {
            ListT* element = ListDequeue(&list);
            round % 2 == 0 ? ListPush(&list, element) : ListEnqueue(&list, element);
        }
    };
    std::thread others[] = {std::thread(move), std::thread(move)};
    move();
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_EQ(ListLen(&list), 16);
}
