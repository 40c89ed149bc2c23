// What changes once os_init has run.
#include "Common/OS/linux/os_init.h"

#include <gtest/gtest.h>

#include <thread>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/psosapi/tasks.h"

TEST(OsInit, InterruptsOffNestsInOneThreadAndStillExcludesOthers) {
    os_init();
    os_init();
    EXPECT_EQ(interruptsOff(), 1U);
    EXPECT_EQ(interruptsOff(), 2U);
    std::atomic<bool> entered{false};
    std::thread other([&] {
        const InterruptsOffT section;
        entered = true;
    });
    interruptsRestore(2);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    interruptsRestore(1);
    other.join();
    EXPECT_TRUE(entered);
}

TEST(OsInit, ATaskThatEndsInsideNestedSectionsLeavesThem) {
    os_init();
    UInt32 id;
    ASSERT_EQ(t_create("nest", 0, 0, 0, 0, &id), kTaskOk);
    ASSERT_EQ(t_start(
                  id, 0,
                  [](UInt32, UInt32, UInt32, UInt32) {
                      interruptsOff();
                      interruptsOff();
                      t_delete(0);
                  },
                  nullptr),
              kTaskOk);
    while (t_exists(id) != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(interruptsOff(), 1U);
    interruptsRestore(1);
}
