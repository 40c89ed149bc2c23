// The device table: finding, opening and closing devices, the two ways a request runs, request
// queues, and the task that serves queued reads.
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
std::string calls;  // the entry points called, a letter each
UInt32 result;      // of opening and closing
char buffer[4];
std::atomic<int> completions{0};

UInt32 Open(DEVCB*) {
    calls += 'o';
    return result;
}

UInt32 Close(DEVCB*) {
    calls += 'c';
    return result;
}

void Read(DEVCB* pDev, IORB* pIORB) {
    calls += 'r';
    pIORB->actLen = static_cast<UInt32>(read(pDev->fd, pIORB->pBuffer, pIORB->reqLen));
    if (pIORB->pUserCompFunc != nullptr) {
        pIORB->pUserCompFunc(pIORB);
    }
}

void Write(DEVCB*, IORB*) {
    calls += 'w';
}

void Ioctl(DEVCB*, IORB* pIORB) {
    calls += 'i';
    pIORB->err = pIORB->ctlCode + 100;
}

void Done(IORB*) {
    completions++;
}

void Control(UInt32 devid, IORB* pIORB) {
    dev_ioctl(devid, pIORB, 3);
}

void Add(DEVCB* pDev, const char* name, UInt32 instance) {
    dev_init(pDev, name, instance, Open, Close, Read, Write, Ioctl);
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

TEST(DeviceTable, ADeviceIsOpenedOnceClosedOnceAndFoundByNameAndInstanceOnly) {
    Add(&devices[0], "Ser", 9);
    Add(&devices[1], "Ser", 2);
    UInt32 id = 0;
    EXPECT_EQ(dev_open("Ser", 3, &id), kDevNotFound);
    EXPECT_EQ(dev_open("Se", 9, &id), kDevNotFound);
    result = 5;
    EXPECT_EQ(dev_open("Ser", 2, &id), 5u);  // stays closed
    result = 0;
    EXPECT_EQ(dev_open("Ser", 2, &id), kDevOk);
    EXPECT_EQ(dev_open("Ser", 2, &id), kDevOk);
    EXPECT_EQ(id, id_of(&devices[1]));
    EXPECT_EQ(dev_close(id), kDevOk);
    EXPECT_EQ(calls, "ooc");
}

TEST(DeviceTable, ClosedDevicesAndMissingRoutinesAreReportedInTheRequest) {
    const StdoutFile out;
    Add(&devices[0], "Ser", 1);
    dev_init(&devices[1], "None", 1, nullptr, nullptr, nullptr, nullptr, Ioctl);
    dev_add(&devices[1]);
    UInt32 bare = 0;
    ASSERT_EQ(dev_open("None", 1, &bare), kDevOk);
    std::string errors;
    for (const UInt32 device : {id_of(&devices[0]), bare}) {
        for (const auto issue : {dev_read, dev_write, Control}) {
            IORB iorb = {};
            iorb.pBuffer = buffer;
            iorb.err = iorb.actLen = iorb.reqLen = 9;
            issue(device, &iorb);
            errors += std::to_string(iorb.err) + " ";
            EXPECT_EQ(iorb.actLen, 0u);
        }
    }
    EXPECT_EQ(errors, "48 48 48 0 0 103 ");
    EXPECT_EQ(out.Text(), "dev_read: not open\ndev_read: no read routine\n");
}

TEST(DeviceTable, RequestsRunAtOnceUnlessACompletionFunctionQueuesThem) {
    UInt32 self = 0;
    t_attach("main", 0, &self);
    t_ident(nullptr, 0, &self);
    Add(&devices[0], "Ser", 1);
    UInt32 id = 0;
    ASSERT_EQ(dev_open("Ser", 1, &id), kDevOk);
    IORB iorb = {};
    iorb_init(&iorb, buffer, nullptr, 0, Done, 0);
    dev_write(id, &iorb);  // nothing to write
    iorb.reqLen = 4;
    dev_write(id, &iorb);
    EXPECT_EQ(calls, "ow");  // never queued
    EXPECT_EQ(iorb.taskID, self);
    dev_read(id, &iorb);
    EXPECT_EQ(iorb_list_dequeue(&devices[0].readIORBs), &iorb);
    dev_ioctl(id, &iorb, 1);
    EXPECT_EQ(calls, "owi");  // nothing to queue behind
    IORB first = {};
    iorb_list_enqueue(&devices[0].ioctlIORBs, &first);
    dev_ioctl(id, &iorb, 2);
    EXPECT_EQ(calls, "owi");
    EXPECT_EQ(iorb_list_avail(&devices[0].ioctlIORBs), 2u);
}

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

TEST(RequestQueue, KeepsOrderWhereverARequestIsTakenOut) {
    IORBList list = {};
    ASSERT_EQ(iorb_list_alloc(&list, 5), kDevOk);
    IORB* all = list.pHead;
    for (const int i : {2, 2, 4, 4, 1, 1}) {  // middle, tail, middle; gone already: no effect
        iorb_list_extract(&list, &all[i]);
    }
    EXPECT_EQ(iorb_list_avail(&list), 2u);
    EXPECT_EQ(iorb_list_dequeue(&list), &all[0]);
    iorb_list_enqueue(&list, &all[0]);
    EXPECT_EQ(iorb_list_dequeue(&list), &all[3]);
    iorb_list_enqueue(&list, &all[3]);
    EXPECT_EQ(iorb_list_free(&list), kDevOk);
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
