// The intrusive list.
#include "Common/framework/list.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "Common/OS/linux/os_init.h"
#include "tests/support/stdout_file.h"

namespace {

struct ElementT {
    ListT list;
    int number;
};

bool IsFree(const ListT* element) {
    return (element->next == nullptr && element->prev == nullptr) ||
           (element->next == element && element->prev == element);
}

// Whether the list holds just these elements in this order, walked both ways.
void ExpectSame(ListT* head, const std::deque<ListT*>& model) {
    std::deque<ListT*> forward;
    std::deque<ListT*> backward;
    for (ListT* at = ListFirstElement(head); at != nullptr; at = ListNextElement(head, at)) {
        forward.push_back(at);
    }
    for (ListT* at = ListLastElement(head); at != nullptr; at = ListPrevElement(head, at)) {
        backward.push_front(at);
    }
    ASSERT_EQ(forward, model);
    ASSERT_EQ(backward, model);
    ASSERT_EQ(ListLen(&head), static_cast<int>(model.size()));
    ASSERT_EQ(ListIsEmpty(&head), model.empty() ? 1 : 0);
}

int NumberIs(ListT* element, void* wanted, void* unused) {
    EXPECT_EQ(unused, nullptr);
    return reinterpret_cast<ElementT*>(element)->number == *static_cast<int*>(wanted);
}

}  // namespace

TEST(List, AnyOrderOfOperationsKeepsTheRingAndTheOrder) {
    std::mt19937 random(1);
    ElementT elements[12] = {};
    ListT* head = nullptr;
    std::deque<ListT*> model;
    for (int step = 0; step < 20000; step++) {
        ListT* element = &elements[random() % 12].list;
        const auto at = std::find(model.begin(), model.end(), element);
        const bool on_list = at != model.end();
        ListT* other = model.empty() ? nullptr : model[random() % model.size()];
        const auto place = std::find(model.begin(), model.end(), other);
        switch (random() % 9) {
            case 0:
                ListEnqueueIfAbsent(&head, element);
                if (!on_list) {
                    model.push_back(element);
                }
                break;
            case 1:
                if (!on_list) {
                    ListPush(&head, element);
                    model.push_front(element);
                }
                break;
            case 2:
                if (!on_list) {
                    ListEnqueue(&head, element);
                    model.push_back(element);
                }
                break;
            case 3:
                if (!on_list) {
                    ListInsertAfter(&head, other, element);
                    model.insert(other == nullptr ? place : place + 1, element);
                }
                break;
            case 4:
                if (!on_list) {
                    ListInsertBefore(&head, other, element);
                    model.insert(place, element);
                }
                break;
            case 5:
                ASSERT_EQ(ListDequeue(&head), model.empty() ? nullptr : model.front());
                if (!model.empty()) {
                    ASSERT_TRUE(IsFree(model.front()));
                    model.pop_front();
                }
                break;
            case 6:
                ASSERT_EQ(ListExtractIfPresent(&head, element), on_list ? element : nullptr);
                if (on_list) {
                    model.erase(at);
                }
                break;
            case 7:
                if (on_list) {
                    const auto next = model.erase(at);
                    ListT* wanted = model.empty()         ? nullptr
                                    : next == model.end() ? model.front()
                                                          : *next;
                    ASSERT_EQ(ListExtract(&head, element), wanted);
                    ASSERT_TRUE(IsFree(element));
                }
                break;
            default:
                elements[0].number = 0;
                break;
        }
        ExpectSame(head, model);
    }
}

TEST(List, NullArgumentsThatAreAllowedChangeNothing) {
    ElementT first = {};
    ElementT second = {};
    ListT* head = nullptr;
    EXPECT_EQ(ListExtract(&head, nullptr), nullptr);
    EXPECT_EQ(ListLastElement(nullptr), nullptr);
    EXPECT_EQ(ListNextElement(nullptr, nullptr), nullptr);
    EXPECT_EQ(ListPrevElement(nullptr, nullptr), nullptr);
    ListEnqueue(&head, &first.list);
    ListInsertAfter(&head, &first.list, nullptr);
    ListInsertBefore(&head, &first.list, nullptr);
    ListInsertAfter(&head, nullptr, &second.list);
    ListInsertBefore(&head, nullptr, &second.list);
    ExpectSame(head, {&first.list});
    ListInit(&second.list);
    EXPECT_TRUE(IsFree(&second.list));
}

TEST(List, SearchFindsTheFirstMatchFromTheHeadOn) {
    ElementT elements[3] = {{{}, 7}, {{}, 5}, {{}, 5}};
    ListT* head = nullptr;
    int wanted = 5;
    EXPECT_EQ(ListSearch(head, NumberIs, &wanted, nullptr), nullptr);
    for (ElementT& element : elements) {
        ListEnqueue(&head, &element.list);
    }
    EXPECT_EQ(ListSearch(head, NumberIs, &wanted, nullptr), &elements[1].list);
    wanted = 6;
    EXPECT_EQ(ListSearch(head, NumberIs, &wanted, nullptr), nullptr);
}

TEST(ListDeathTest, MisuseEndsTheProgramAndNamesExpressionAndFunction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ElementT busy = {};
    ElementT other = {};
    ListT* head = nullptr;
    ListT* elsewhere = nullptr;
    ListEnqueue(&elsewhere, &busy.list);
    ListEnqueue(&elsewhere, &other.list);
    const struct {
        void (*misuse)(ListT** list, ListT* busy);
        const char* report;
    } cases[] = {
        {[](ListT**, ListT*) { ListDequeue(nullptr); }, "ppList.*ListDequeueUnprot"},
        {[](ListT**, ListT* e) { ListEnqueue(nullptr, e); }, "ppList.*function ListEnqueue"},
        {[](ListT**, ListT* e) { ListEnqueueUnprot(nullptr, e); }, "ppList.*ListEnqueueUnprot"},
        {[](ListT**, ListT* e) { ListEnqueueIfAbsent(nullptr, e); },
         "ppList.*ListEnqueueIfAbsentUnprot"},
        {[](ListT**, ListT* e) { ListPush(nullptr, e); }, "ppList.*ListPushUnprot"},
        {[](ListT**, ListT* e) { ListExtractIfPresent(nullptr, e); },
         "ppList.*ListExtractIfPresentUnprot"},
        {[](ListT** l, ListT*) { ListExtractIfPresent(l, nullptr); },
         "pElem.*ListExtractIfPresentUnprot"},
        {[](ListT** l, ListT*) { ListEnqueueIfAbsent(l, nullptr); },
         "pElem.*ListEnqueueIfAbsentUnprot"},
        {[](ListT** l, ListT*) { ListSearch(*l, nullptr, nullptr, nullptr); },
         "pCompare.*ListSearch"},
        {[](ListT** l, ListT* e) { ListEnqueue(l, e); }, " 0, .*ListInsertAfterUnprot"},
        {[](ListT** l, ListT* e) { ListPush(l, e); }, " 0, .*ListInsertBeforeUnprot"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(c.misuse(&head, &busy.list), c.report);
        EXPECT_DEATH(c.misuse(&head, &busy.list),
                     "Assertion failed: .*file Common/framework/list,");
    }
    // What is printed goes to standard output, which the death test does not see by itself.
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            ListEnqueue(&head, &busy.list);
        },
        "LIST: InsertAfter: element 0x[0-9a-f]+ already on another list! "
        "\\(next 0x[0-9a-f]+ prev 0x[0-9a-f]+\\)");
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            ListPush(&head, &busy.list);
        },
        "LIST: InsertBefore: element already on another list!");
}

TEST(List, ProtectedFormsLoseNothingBetweenThreads) {
    os_init();
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    ElementT elements[kThreads * 4] = {};
    ListT* free_list = nullptr;
    ListT* busy_list = nullptr;
    for (ElementT& element : elements) {
        ListEnqueue(&free_list, &element.list);
    }
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; round++) {
                ListT* element = ListDequeue(&free_list);
                if (element != nullptr) {
                    ListPush(&busy_list, element);
                }
                element = ListDequeue(&busy_list);
                if (element != nullptr) {
                    ListEnqueue(&free_list, element);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ListLen(&free_list) + ListLen(&busy_list), kThreads * 4);
}
