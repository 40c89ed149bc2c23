// The list of devices, requests allocated together, and the task that serves queued reads.
#include "Common/OS/dev.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/syslogq.h"
#include "tests/support/stdout_file.h"

namespace {

DEVCB devices[4];
char buffer[4];
std::atomic<int> completions{0};

void Read(DEVCB* pDev, IORB* pIORB) {
    pIORB->actLen = static_cast<UInt32>(read(pDev->fd, pIORB->pBuffer, pIORB->reqLen));
    if (pIORB->pUserCompFunc != nullptr) {
        pIORB->pUserCompFunc(pIORB);
    }
}

void Done(IORB*) {
    completions++;
}

void Add(DEVCB* pDev, const char* name, UInt32 instance) {
    dev_init(pDev, name, instance, nullptr, nullptr, Read, nullptr, nullptr);
    dev_add(pDev);
}

// The instances reachable from the head of the list.
std::string Listed() {
    std::string instances;
    for (const DEVCB* pDev = gpDEVCBHead; pDev != nullptr; pDev = pDev->pNext) {
        instances += std::to_string(pDev->instance);
    }
    return instances;
}

}  // namespace

TEST(DeviceTable, DeletingKeepsTheListWalkable) {
    for (UInt32 i = 0; i < 4; i++) {
        Add(&devices[i], "Ser", i);
    }
    std::string steps = Listed();
    // The second time it is not listed any more; in the end one device is left, and whichever block
    // is passed, it goes.
    for (const int i : {1, 1, 0, 3}) {
        dev_delete(&devices[i]);
        steps += " " + Listed();
    }
    EXPECT_EQ(gpDEVCBTail, &devices[2]);
    dev_delete(&devices[3]);
    EXPECT_EQ(steps, "0123 023 023 23 23");
    EXPECT_EQ(gpDEVCBHead, nullptr);
    EXPECT_EQ(gpDEVCBTail, nullptr);
}

TEST(RequestQueue, AnAllocationIsQueuedInOrder) {
    IORBList list = {};
    ASSERT_EQ(iorb_list_alloc(&list, 3), kDevOk);
    EXPECT_EQ(iorb_list_avail(&list), 3u);
    EXPECT_EQ(list.pHead->pNext, list.pHead + 1);
    EXPECT_EQ(list.pTail, list.pHead + 2);
    EXPECT_EQ(iorb_list_free(&list), kDevOk);
    EXPECT_EQ(iorb_list_avail(&list), 0u);
}

TEST(CompletionTask, ServesMarkedDevicesInOrderAndReportsDataThatNobodyWaitsFor) {
    const StdoutFile out;
    InitSyslogInterface();
    UInt32 ids[3];
    int ends[3][2];
    for (UInt32 i = 0; i < 3; i++) {
        ASSERT_EQ(pipe(ends[i]), 0);
        Add(&devices[i], "Pipe", i);
        devices[i].fd = ends[i][0];
        ASSERT_EQ(dev_open("Pipe", i, &ids[i]), kDevOk);
    }
    // Marking the other device starts the task, which must find this one marked already.
    devices[1].flags |= kDevFlagCompletion;
    IORB requests[4] = {};
    for (UInt32 i = 0; i < 4; i++) {
        iorb_init(&requests[i], &buffer[i], nullptr, 1, Done, 0);
    }
    dev_read(ids[0], &requests[0]);
    dev_read(ids[0], &requests[1]);
    dev_read(ids[2], &requests[2]);
    add_dev_to_comp_task(&devices[0]);
    EXPECT_STREQ(t_name(io_comp_task_id), "devc");
    ASSERT_EQ(write(ends[0][1], "ab", 2), 2);
    EXPECT_TRUE(Eventually([] { return completions == 2; }));
    EXPECT_EQ(std::string(buffer, 2), "ab");
    add_dev_to_comp_task(&devices[2]);
    ASSERT_EQ(write(ends[2][1], "c", 1), 1);
    ASSERT_EQ(write(ends[1][1], "d", 1), 1);
    EXPECT_TRUE(out.WaitFor("No read IORB, device Pipe\n"));
    EXPECT_EQ(completions, 2);       // the last was marked too late to be watched
    dev_read(ids[1], &requests[3]);  // ends the reports
    EXPECT_TRUE(Eventually([] { return completions == 3; }));
    EXPECT_EQ(buffer[3], 'd');
    t_delete(io_comp_task_id);
}
