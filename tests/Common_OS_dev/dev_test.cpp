// The device table: finding, opening and closing devices, the two ways a request runs, request
// queues, and the task that serves queued reads.
#include "Common/OS/dev.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

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
std::vector<UInt32> Listed() {
    std::vector<UInt32> instances;
    for (DEVCB* pDev = gpDEVCBHead; pDev != nullptr; pDev = pDev->pNext) {
        instances.push_back(pDev->instance);
    }
    return instances;
}

}  // namespace

TEST(DeviceTable, ADeviceIsOpenedOnceClosedOnceAndFoundByNameAndInstanceOnly) {
    Add(&devices[0], "Ser", 1);
    Add(&devices[1], "Ser", 2);
    Add(&devices[2], "Serials-long", 2);  // seven characters are kept
    UInt32 id = 77;
    EXPECT_EQ(dev_open("Ser", 3, &id), kDevNotFound);
    EXPECT_EQ(dev_open("Se", 1, &id), kDevNotFound);
    EXPECT_EQ(dev_open("Serials-long", 2, &id), kDevNotFound);
    result = 5;
    EXPECT_EQ(dev_open("Ser", 2, &id), 5u);  // stays closed
    EXPECT_EQ(id, 77u);
    result = 0;
    EXPECT_EQ(dev_open("Ser", 2, &id), kDevOk);
    EXPECT_EQ(dev_open("Ser", 2, &id), kDevOk);
    EXPECT_EQ(id, id_of(&devices[1]));
    EXPECT_STREQ(dev_name(id), "Ser");
    result = 6;
    EXPECT_EQ(dev_close(id), 6u);  // counts as closed all the same
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
    struct {
        void (*issue)(UInt32, IORB*);
        UInt32 device, err;
    } const cases[] = {{dev_read, id_of(&devices[0]), 48},
                       {dev_write, id_of(&devices[0]), 48},
                       {Control, id_of(&devices[0]), 48},
                       {dev_read, bare, 0},
                       {dev_write, bare, 0},
                       {Control, bare, 103}};
    for (const auto& c : cases) {
        IORB iorb = {};
        iorb_init(&iorb, buffer, nullptr, 4, nullptr, 0);
        iorb.err = iorb.actLen = 9;
        c.issue(c.device, &iorb);
        EXPECT_EQ(iorb.err, c.err);
        EXPECT_EQ(iorb.actLen, 0u);
        EXPECT_EQ(id_of(iorb.pDev), c.device);
    }
    EXPECT_EQ(out.Text(), "dev_read: not open\ndev_read: no read routine\n");
    EXPECT_EQ(calls, "i");
    EXPECT_EQ(dev_close(bare), kDevOk);
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
    iorb.taskID = 7;
    dev_read(id, &iorb);
    EXPECT_EQ(iorb.taskID, 7u);  // a read keeps its task
    EXPECT_EQ(iorb_list_dequeue(&devices[0].readIORBs), &iorb);
    dev_ioctl(id, &iorb, 1);
    EXPECT_EQ(calls, "owi");  // nothing to queue behind
    IORB first = {};
    iorb_list_enqueue(&devices[0].ioctlIORBs, &first);
    dev_ioctl(id, &iorb, 2);
    EXPECT_EQ(calls, "owi");
    EXPECT_EQ(iorb_list_avail(&devices[0].ioctlIORBs), 2u);
    devices[0].flags = kDevFlagCompletion;
    EXPECT_EQ(dev_open("Ser", 1, &id), kDevOk);  // forgets both
    EXPECT_EQ(iorb_list_avail(&devices[0].ioctlIORBs), 0u);
    EXPECT_EQ(devices[0].flags, 0u);
}

TEST(DeviceTable, DeletingKeepsTheListWalkable) {
    using testing::ElementsAre;
    for (UInt32 i = 0; i < 4; i++) {
        Add(&devices[i], "Ser", i);
    }
    dev_delete(&devices[1]);
    EXPECT_THAT(Listed(), ElementsAre(0, 2, 3));
    dev_delete(&devices[1]);  // not listed any more
    dev_delete(&devices[0]);
    dev_delete(&devices[3]);
    EXPECT_EQ(gpDEVCBTail, &devices[2]);
    EXPECT_THAT(Listed(), ElementsAre(2, 3));  // the block before it still leads to it
    dev_add(&devices[0]);
    EXPECT_THAT(Listed(), ElementsAre(2, 0));
    dev_delete(&devices[0]);
    dev_delete(&devices[3]);  // one device is left: whichever block is passed, it goes
    EXPECT_EQ(gpDEVCBHead, nullptr);
    EXPECT_EQ(gpDEVCBTail, nullptr);
}

TEST(RequestQueue, KeepsOrderWhereverARequestIsTakenOut) {
    IORBList list = {};
    ASSERT_EQ(iorb_list_alloc(&list, 5), kDevOk);
    IORB* all = list.pHead;
    for (const int i : {2, 4, 1}) {  // middle, tail, middle
        iorb_list_extract(&list, &all[i]);
        iorb_list_extract(&list, &all[i]);  // gone already: no effect
    }
    EXPECT_EQ(iorb_list_avail(&list), 2u);
    EXPECT_EQ(iorb_list_dequeue(&list), &all[0]);
    iorb_list_enqueue(&list, &all[0]);
    EXPECT_EQ(iorb_list_dequeue(&list), &all[3]);
    iorb_list_extract(&list, &all[0]);
    EXPECT_EQ(iorb_list_dequeue(&list), nullptr);
    iorb_list_enqueue(&list, &all[0]);
    EXPECT_EQ(iorb_list_free(&list), kDevOk);
    EXPECT_EQ(iorb_list_avail(&list), 0u);
}

TEST(DeviceTable, MisuseEndsTheProgramAndNamesTheArgument) {
    static IORB iorb;
    static IORB linked;
    static IORB last;
    linked.pNext = last.pPrevious = &iorb;
    static IORBList list;
    struct {
        const char* text;
        void (*misuse)();
    } const cases[] = {
        {"pDev", [] { dev_add(nullptr); }},
        {"devid", [] { dev_close(0); }},
        {"pIORB", [] { Control(id_of(&devices[0]), nullptr); }},
        {"pIORB->pBuffer", [] { dev_write(id_of(&devices[0]), &iorb); }},
        {"pIORBList", [] { iorb_list_dequeue(nullptr); }},
        {"numIORBs > 0", [] { iorb_list_alloc(&list, 0); }},
        {"pIORB->pNext == ((void *)0)", [] { iorb_list_enqueue(&list, &linked); }},
        {"pIORB->pPrevious == ((void *)0)", [] { iorb_list_enqueue(&list, &last); }},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(c.misuse(), testing::AllOf(testing::HasSubstr(c.text),
                                                testing::HasSubstr("Common/OS/dev")));
    }
}

TEST(CompletionTask, ServesMarkedDevicesInOrderAndReportsDataThatNobodyWaitsFor) {
    const StdoutFile out;
    InitSyslogInterface();
    UInt32 ids[3];
    int ends[3][2];
    for (UInt32 i = 0; i < 3; i++) {
        ASSERT_EQ(pipe(ends[i]), 0);
        dev_init(&devices[i], "Pipe", i, nullptr, nullptr, Read, nullptr, nullptr);
        dev_add(&devices[i]);
        devices[i].fd = ends[i][0];
        ASSERT_EQ(dev_open("Pipe", i, &ids[i]), kDevOk);
    }
    // Marking the other device starts the task, which must find this one marked already.
    devices[1].flags |= kDevFlagCompletion;
    std::vector<IORB> requests(4);
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
    const UInt32 task = io_comp_task_id;
    add_dev_to_comp_task(&devices[2]);
    EXPECT_EQ(io_comp_task_id, task);  // there is one
    ASSERT_EQ(write(ends[2][1], "c", 1), 1);
    ASSERT_EQ(write(ends[1][1], "d", 1), 1);
    EXPECT_TRUE(out.WaitFor("No read IORB, device Pipe\n"));
    // One report a tick: the task waits in between.
    const size_t before = out.Text().size();
    size_t during = 0;
    const double elapsed = MillisecondsOf([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        during = out.Text().size() - before;
    });
    EXPECT_LE(static_cast<double>(during), (elapsed / 10 + 2) * static_cast<double>(before));
    EXPECT_EQ(completions, 2);       // the last was marked too late to be watched
    dev_read(ids[1], &requests[3]);  // ends the reports
    EXPECT_TRUE(Eventually([] { return completions == 3; }));
    EXPECT_EQ(buffer[3], 'd');
    t_delete(task);
}
