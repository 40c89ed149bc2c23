// Devices and their request queues beside a model of them: seeded random operations on three
// devices, of which the second has no entry points but ioctl.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

#include "Common/OS/dev.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "tests/support/stdout_file.h"

namespace {

std::string calls;  // of entry points
UInt32 answer;      // of opening and closing

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
DeviceT devices[3] = {{{}, 9, true}, {{}, 2, false}, {{}, 3, true}};

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
        EXPECT_EQ(d.block.flags, 0u);
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
        IORB* iorb = Spare();
        const UInt32 kind = dice % 3;
        const bool queued = dice & 8;
        iorb_init(iorb, &byte_, nullptr, dice & 16 ? 1 : 0, queued ? Done : nullptr, 0);
        iorb->actLen = iorb->err = 9;
        iorb->taskID = dice & 32 ? 44 : 0;
        const UInt32 before = iorb->taskID;
        const UInt32 id = id_of(&d.block);
        UInt32 err = 0, actLen = 0, task = 0;
        const bool all = d.open && d.full;
        if (kind == 0) {
            dev_read(id, iorb);
            task = before != 0 || !all ? before : self_;
            if (all && queued) {
                d.reads.push_back(iorb);
            } else if (all) {
                expected_ += "r", err = 70, actLen = 7;
            }
            printed_ += !d.open   ? "dev_read: not open\n"
                        : !d.full ? "dev_read: no read routine\n"
                                  : "";
        } else if (kind == 1) {
            dev_write(id, iorb);
            if (all && iorb->reqLen > 0) {
                expected_ += "w", err = 70, actLen = 7, task = self_;
            }
        } else {
            dev_ioctl(id, iorb, dice);
            EXPECT_EQ(iorb->ctlCode, dice);
            task = d.open ? self_ : 0;
            if (d.open && queued && !d.ioctls.empty()) {
                d.ioctls.push_back(iorb);
            } else if (d.open) {
                expected_ += "i", err = dice, actLen = 7;
            }
        }
        EXPECT_EQ(iorb->err, d.open ? err : kDevNotOpen);
        EXPECT_EQ(iorb->actLen, actLen);
        EXPECT_EQ(iorb->taskID, task);
        EXPECT_EQ(iorb->pDev, &d.block);
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
            IORB* iorb = Spare();
            iorb->pNext = iorb->pPrevious = nullptr;
            EXPECT_EQ(iorb_list_enqueue(list, iorb), kDevOk);
            model.push_back(iorb);
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
    static void Done(IORB*) { calls += "done"; }

    // A request that is in no queue.
    IORB* Spare() {
        return std::find_if(std::begin(requests_), std::end(requests_), [](IORB& iorb) {
            return std::none_of(std::begin(devices), std::end(devices), [&iorb](DeviceT& d) {
                return std::count(d.reads.begin(), d.reads.end(), &iorb) +
                       std::count(d.ioctls.begin(), d.ioctls.end(), &iorb);
            });
        });
    }

    IORB requests_[200] = {};
    SInt8 byte_ = 0;
    UInt32 self_ = 0;
    std::string expected_, printed_;
    StdoutFile out_;
};

}  // namespace

TEST_F(DeviceModel, DevicesAndQueuesFollowTheModelWhateverIsAskedOfThem) {
    std::mt19937 random(22);
    UInt32 id = 0;
    EXPECT_EQ(dev_open("Ser", 4, &id), kDevNotFound);
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
