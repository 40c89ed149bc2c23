// The list of devices, the task that serves queued reads, and devices and their request queues
// beside a model of them: seeded random operations on three devices, of which the second has no
// entry points but ioctl.
#include "Common/OS/dev.h"

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <random>
#include <string>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/syslogq.h"
#include "tests/support/stdout_file.h"
#include "tests/support/tasks_named.h"

namespace {

std::string calls;  // of entry points
UInt32 answer;      // of opening and closing
std::atomic<int> completions{0};

void Read(DEVCB* pDev, IORB* pIORB) {
    pIORB->actLen = static_cast<UInt32>(read(pDev->fd, pIORB->pBuffer, pIORB->reqLen));
    pIORB->pUserCompFunc(pIORB);
}

void Done(IORB*) {
    completions++;
}

template <char kLetter>
UInt32 Entry(DEVCB*) {
    calls += kLetter;
    return answer;
}

template <char kLetter>
void Request(DEVCB*, IORB* pIORB) {
    calls += kLetter;
    pIORB->actLen = 7;
    pIORB->err = kLetter == 'i' ? pIORB->ctlCode : 70;
}

struct DeviceT {
    DEVCB block;
    UInt32 instance;
    bool full;  // has all entry points
    bool open = false;
    std::deque<IORB*> reads = {}, ioctls = {};
};

// Static, as control blocks are.
DeviceT devices[4] = {{{}, 9, true}, {{}, 2, false}, {{}, 3, true}, {{}, 4, true}};

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

class DeviceModel : public testing::Test {
  protected:
    DeviceModel() {
        for (DeviceT& d : devices) {
            dev_init(&d.block, "Ser", d.instance, d.full ? Entry<'o'> : nullptr,
                     d.full ? Entry<'c'> : nullptr, d.full ? Request<'r'> : nullptr,
                     d.full ? Request<'w'> : nullptr, Request<'i'>);
            dev_add(&d.block);
        }
        t_attach("main", 0, &self_);
        t_ident(nullptr, 0, &self_);
    }

    void Open(DeviceT& d, UInt32 dice) {
        UInt32 id = 99;
        answer = dice % 4 == 0 ? 5 : 0;
        const bool fails = answer != 0 && d.full && !d.open;
        expected_ += d.full && !d.open ? "o" : "";
        EXPECT_EQ(dev_open("Ser", d.instance, &id), fails ? 5 : 0u);
        EXPECT_EQ(id, fails ? 99 : id_of(&d.block));
        d.open = !fails;
        d.reads.clear();
        d.ioctls.clear();
    }

    void Close(DeviceT& d, UInt32 dice) {
        answer = dice % 4 == 0 ? 5 : 0;
        expected_ += d.full && d.open ? "c" : "";
        EXPECT_EQ(dev_close(id_of(&d.block)), d.full && d.open ? answer : 0u);
        d.open = false;
    }

    // Reads, writes and control requests.
    void Issue(DeviceT& d, UInt32 dice) {
        IORB& iorb = requests_.emplace_back();
        memset(&iorb, 9, sizeof(iorb));
        iorb_init(&iorb, &byte_, nullptr, dice & 16 ? 1 : 0, dice & 8 ? Done : nullptr, 0);
        iorb.actLen = iorb.err = 9;
        const UInt32 task = iorb.taskID = dice & 32 ? 44 : 0;
        const UInt32 id = id_of(&d.block);
        const UInt32 kind = dice % 3;
        bool reaches = d.open && (d.full || kind == 2);
        bool queued = reaches && (dice & 8) != 0;
        if (kind == 0) {
            dev_read(id, &iorb);
            printed_ += !d.open   ? "dev_read: not open\n"
                        : !d.full ? "dev_read: no read routine\n"
                                  : "";
        } else if (kind == 1) {
            dev_write(id, &iorb);
            reaches = reaches && iorb.reqLen > 0;
            queued = false;
        } else {
            dev_ioctl(id, &iorb, dice);
            queued = queued && !d.ioctls.empty();
        }
        if (queued) {
            (kind == 0 ? d.reads : d.ioctls).push_back(&iorb);
        }
        const bool ran = reaches && !queued;
        expected_ += ran ? std::string(1, "rwi"[kind]) : "";
        EXPECT_EQ(iorb.err, !d.open ? kDevNotOpen : !ran ? 0 : kind == 2 ? dice : 70);
        EXPECT_EQ(iorb.actLen, ran ? 7u : 0u);
        EXPECT_EQ(iorb.taskID, kind == 0 && task != 0 ? task : reaches ? self_ : 0);
        EXPECT_EQ(iorb.pDev, &d.block);
    }

    // Queues as such; requests that no queue has are taken out of it without effect.
    void Queue(DeviceT& d, UInt32 dice) {
        IORBList* list = dice & 4 ? &d.block.readIORBs : &d.block.ioctlIORBs;
        std::deque<IORB*>& model = dice & 4 ? d.reads : d.ioctls;
        if (dice % 4 == 0) {
            IORB* first = model.empty() ? nullptr : model.front();
            EXPECT_EQ(iorb_list_dequeue(list), first);
            model.erase(model.begin(), model.begin() + (first != nullptr ? 1 : 0));
        } else if (dice % 4 == 1) {
            model.push_back(&requests_.emplace_back());
            iorb_list_enqueue(list, model.back());
        } else if (!model.empty()) {
            const auto at = model.begin() + static_cast<long>(dice / 8 % model.size());
            IORB* iorb = *at;
            model.erase(at);
            iorb_list_extract(list, iorb);
            EXPECT_EQ(iorb->pNext, nullptr);
            EXPECT_EQ(iorb->pPrevious, nullptr);
            iorb_list_extract(list, iorb);
        }
    }

    void Check(const DeviceT& d) {
        for (const auto& [list, model] :
             {std::pair(&d.block.readIORBs, &d.reads), std::pair(&d.block.ioctlIORBs, &d.ioctls)}) {
            std::deque<IORB*> forth, back;
            for (IORB* iorb = list->pHead; iorb != nullptr; iorb = iorb->pNext) {
                forth.push_back(iorb);
            }
            for (IORB* iorb = list->pTail; iorb != nullptr; iorb = iorb->pPrevious) {
                back.push_front(iorb);
            }
            EXPECT_EQ(forth, *model);
            EXPECT_EQ(back, *model);
            EXPECT_EQ(iorb_list_avail(list), model->size());
        }
        EXPECT_EQ(d.block.state, d.open ? kDevOpened : kDevClosed);
        EXPECT_EQ(calls, expected_);
        EXPECT_EQ(out_.Fresh(), printed_);
        printed_.clear();
    }

  private:
    std::deque<IORB> requests_;
    SInt8 byte_ = 0;
    UInt32 self_ = 0;
    std::string expected_, printed_;
    StdoutFile out_;
};

}  // namespace

TEST_F(DeviceModel, DevicesAndQueuesFollowTheModelWhateverIsAskedOfThem) {
    std::mt19937 random(22);
    UInt32 id = 0;
    EXPECT_EQ(dev_open("Ser", 5, &id), kDevNotFound);
    EXPECT_EQ(dev_open("Se", 9, &id), kDevNotFound);
    for (int step = 0; step < 3000 && !HasFailure(); step++) {
        DeviceT& device = devices[random() % 3];
        const UInt32 operation = static_cast<UInt32>(random() % 16);
        const UInt32 dice = static_cast<UInt32>(random());
        SCOPED_TRACE(testing::Message() << "step " << step << " operation " << operation
                                        << " instance " << device.instance << " dice " << dice);
        if (operation == 0) {
            Open(device, dice);
        } else if (operation == 1 && dice % 2 == 0) {
            Close(device, dice);
        } else if (operation < 9) {
            Issue(device, dice);
        } else {
            Queue(device, dice);
        }
        Check(device);
    }
}

TEST(DeviceTable, DeletingKeepsTheListWalkable) {
    for (UInt32 i = 0; i < 4; i++) {
        Add(&devices[i].block, "Ser", i);
    }
    std::string steps = Listed();
    // The second time it is not listed any more; in the end one device is left, and whichever block
    // is passed, it goes.
    for (const int i : {1, 1, 0, 3, 3}) {
        EXPECT_EQ(gpDEVCBTail, &devices[steps.size() < 17 ? 3 : 2].block);
        dev_delete(&devices[i].block);
        steps += " " + Listed();
    }
    EXPECT_EQ(steps, "0123 023 023 23 23 ");
    EXPECT_EQ(gpDEVCBTail, nullptr);
}

TEST(CompletionTask, IsOneServesMarkedDevicesInOrderAndReportsDataThatNobodyWaitsFor) {
    const StdoutFile out;
    InitSyslogInterface();
    char buffer[4];
    IORBList spare;
    ASSERT_EQ(iorb_list_alloc(&spare, 4), kDevOk);
    EXPECT_EQ(iorb_list_avail(&spare), 4u);
    IORB* requests = spare.pHead;
    UInt32 ids[3];
    int ends[3][2];
    for (UInt32 i = 0; i < 4; i++) {
        EXPECT_EQ(iorb_list_dequeue(&spare), &requests[i]);
        iorb_init(&requests[i], &buffer[i], nullptr, 1, Done, 0);
    }
    for (UInt32 i = 0; i < 3; i++) {
        ASSERT_EQ(pipe(ends[i]), 0);
        Add(&devices[i].block, "Pipe", i);
        devices[i].block.fd = ends[i][0];
        ASSERT_EQ(dev_open("Pipe", i, &ids[i]), kDevOk);
    }
    // Marking the other device starts the task, which must find this one marked already.
    devices[1].block.flags |= kDevFlagCompletion;
    dev_read(ids[0], &requests[0]);
    dev_read(ids[0], &requests[1]);
    dev_read(ids[2], &requests[2]);
    std::atomic<int> ready{0};
    const auto mark = [&ready] {
        for (ready++; ready < 2;) {
        }
        add_dev_to_comp_task(&devices[0].block);
    };
    std::thread other(mark);
    mark();
    other.join();
    EXPECT_EQ(TasksNamed("devc"), 1);
    ASSERT_EQ(write(ends[0][1], "ab", 2), 2);
    EXPECT_TRUE(Eventually([] { return completions == 2; }));
    EXPECT_EQ(std::string(buffer, 2), "ab");
    add_dev_to_comp_task(&devices[2].block);
    ASSERT_EQ(write(ends[2][1], "c", 1), 1);
    ASSERT_EQ(write(ends[1][1], "d", 1), 1);
    EXPECT_TRUE(out.WaitFor("No read IORB, device Pipe\n"));
    EXPECT_EQ(completions, 2);       // the last was marked too late to be watched
    dev_read(ids[1], &requests[3]);  // ends the reports
    EXPECT_TRUE(Eventually([] { return completions == 3; }));
    EXPECT_EQ(buffer[3], 'd');
    t_delete(io_comp_task_id);
    iorb_list_enqueue(&spare, requests);
    EXPECT_EQ(iorb_list_free(&spare), kDevOk);
    EXPECT_EQ(iorb_list_avail(&spare), 0u);
}
