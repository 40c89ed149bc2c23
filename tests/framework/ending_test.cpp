// What a task's end and calls that are taken back leave behind.
#include <gtest/gtest.h>

#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/framework/timer.h"
#include "tests/framework/module_task.h"

namespace {

TimerT gTimer;

}  // namespace

TEST(Ending, ATimerStartedByATasksLastCallsDoesNotOutliveTheTask) {
    Attach();
    TimerT keeps_the_timer_task = {};
    ASSERT_EQ(TimerInit(
                  &keeps_the_timer_task, 10000, [](void*) {}, nullptr, 0),
              kNoError);
    const UInt32 task = Spawn("last", [] {
        TimerInit(
            &gTimer, 10000, [](void*) {}, nullptr, 1);
        const auto queue_start = [](void*, void*) {
            const auto start = [](void*, void*) { TimerStart(&gTimer); };
            ModDeferFunctionCall(0, start, nullptr, nullptr, 0);
        };
        ModDeferFunctionCall(0, queue_start, nullptr, nullptr, 0);
    });
    ASSERT_TRUE(Eventually([task] { return t_exists(task) == 0; }));
    EXPECT_EQ(TimerRunning(&gTimer), 0U);
    TimerExit(&gTimer);
    TimerExit(&keeps_the_timer_task);
}
