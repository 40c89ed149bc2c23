// Buffer pools: beside a model, and what several threads do.
#include "Common/framework/bufpool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/address.h"
#include "Common/framework/mod_internal.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

namespace {

// Does each operation to a pool and to its model. Now and then memory is exhausted, a buffer comes
// back while the pool makes others, and the pool is opened while it frees some.
class PoolModel {
  public:
    explicit PoolModel(unsigned seed) : random_(seed) {
        gModel = this;
        pool_.BufAllocMem = Alloc;
        pool_.BufFreeMem = Free;
        BufPoolSetDynamic(seed % 2);
        EXPECT_EQ(BufPoolInit(&pool_, "pool", 3, &owner_, 3, 1000, sizeof(BufT), 10, 7), kNoError);
        num_ = min_ = seed % 2 != 0 ? 0 : 3;
        max_ = 3;
    }
    ~PoolModel() {
        last_ = true;  // no surprises any more
        Close();
        while (!out_.empty()) {
            Return();
        }
        while (!descs_out_.empty()) {
            ReturnDesc();
        }
        BufPoolExit(&pool_);
        EXPECT_EQ(alive_, 0);
    }

    void Step() {
        using P = PoolModel;
        static constexpr void (P::*kOps[])() = {
            &P::Open,   &P::Open,   &P::Close,    &P::Take,     &P::Take,       &P::Take,
            &P::Return, &P::Return, &P::TakeDesc, &P::TakeDesc, &P::ReturnDesc, &P::SetParms};
        (this->*kOps[Below(std::size(kOps))])();
    }

    std::string Expected() const {
        const unsigned used = num_ - min_;
        char line[160];
        snprintf(line, sizeof(line),
                 "pool[03]               %s %4u     1024   128   128 %4u %5uK %5uK %3u%% 0x%8.8x  "
                 "0x%8.8x\n",
                 opened_ ? " opened" : " closed", max_, used, num_ * 1280 / 1000,
                 used * 1280 / 1000, num_ != 0 ? used * 100 / num_ : 0, shown_address(&pool_),
                 shown_address(free_.empty() ? nullptr : free_.front()));
        return line;
    }
    BufPoolT* Pool() { return &pool_; }
    size_t Free() const { return free_.size(); }

  private:
    static PoolModel* gModel;

    unsigned Below(size_t limit) { return static_cast<unsigned>(random_() % limit); }

    static BufT* Alloc(unsigned len, unsigned desc, unsigned header, UInt32 type) {
        EXPECT_EQ(type, 7U);
        EXPECT_EQ(len, len != 0 ? 1024U : 0U);
        EXPECT_EQ(header, len != 0 ? 128U : 0U);
        return gModel->Made(len, desc, header);
    }
    BufT* Made(unsigned len, unsigned desc, unsigned header) {
        Finish();
        if (!last_ && Below(8) == 0) {
            failed_ = true;
            opened_ = opened_ && !opening_;
            return nullptr;
        }
        if (opening_ && !last_ && Below(4) == 0) {
            Return();
        }
        made_ = BufAllocMem(len, desc, header, 0);
        alive_++;
        return made_;
    }
    // What opening made last is free now.
    void Finish() {
        if (opening_ && made_ != nullptr) {
            free_.push_back(std::exchange(made_, nullptr));
        }
    }
    static void Free(BufT* pBuf, UInt32 type) {
        EXPECT_EQ(type, 7U);
        gModel->Freed(pBuf);
    }
    void Freed(BufT* pBuf) {
        std::deque<BufT*>* from = free_.empty() ? &descs_ : &free_;
        ASSERT_FALSE(opened_ || from->empty());
        EXPECT_EQ(from->front(), pBuf);
        from->pop_front();
        BufFreeMem(pBuf, 0);
        alive_--;
        if (returning_ && !opening_ && !last_ && Below(4) == 0) {
            Open();
        }
    }

    void Open() {
        if (opened_ || opening_) {
            return;
        }
        opening_ = opened_ = max_ != 0;
        failed_ = false;
        const eErrorT err = BufPoolOpen(&pool_);
        EXPECT_EQ(err, failed_ ? kOutOfMemory : kNoError);
        Finish();
        opening_ = false;
    }
    void Close() {
        opened_ = false;
        EXPECT_EQ(BufPoolClose(&pool_), kNoError);
    }

    void Take() {
        BufT* expected = nullptr;
        if (!free_.empty()) {
            expected = free_.front();
            free_.pop_front();
            min_ = std::min(min_, static_cast<unsigned>(free_.size()));
        }
        const bool make = expected == nullptr && num_ < max_;
        BufT* pBuf = BufPoolBufAlloc(&pool_);
        expected = make ? std::exchange(made_, nullptr) : expected;
        num_ += make && expected != nullptr;
        ASSERT_EQ(pBuf, expected);
        if (pBuf != nullptr) {
            EXPECT_TRUE(pBuf->len == 0 && pBuf->refCount == 1 && pBuf->pUser == nullptr);
            EXPECT_TRUE(pBuf->pOwner == &owner_ && pBuf->pBufPool == &pool_);
            EXPECT_LE(RealTimeMilliSeconds() - pBuf->timeSent, 60000U);
            pBuf->ptr += pBuf->len = 5;
            pBuf->pUser = pBuf->pOwner = this;
            pBuf->timeSent = ~0U / 2;
            out_.push_back(pBuf);
        }
    }
    void Return() {
        if (!out_.empty()) {
            BufT* pBuf = out_.front();
            out_.pop_front();
            free_.push_back(pBuf);
            returning_ = true;
            EXPECT_EQ(BufPoolBufFree(&pool_, pBuf), kNoError);
            returning_ = false;
            EXPECT_TRUE(free_.empty() || free_.back()->pOwner == &owner_);
        }
    }

    void TakeDesc() {
        if (out_.empty()) {
            return;
        }
        BufT* expected = nullptr;
        if (!descs_.empty()) {
            expected = descs_.front();
            descs_.pop_front();
        }
        BufT* pDesc = BufPoolDescAlloc(&pool_, out_.front());
        expected = expected != nullptr ? expected : std::exchange(made_, nullptr);
        ASSERT_EQ(pDesc, expected);
        if (pDesc != nullptr) {
            EXPECT_TRUE(pDesc->pUser == nullptr && pDesc->pData == nullptr &&
                        pDesc->ptr == nullptr && pDesc->pDup == nullptr);
            EXPECT_TRUE(pDesc->pOwner == &owner_ && pDesc->pBufPool == &pool_);
            EXPECT_TRUE(pDesc->bufDescLen == 128 && pDesc->headerSpace == 128 &&
                        pDesc->dataLen == 1280 && pDesc->len == 0);
            pDesc->pDup = out_.front();
            pDesc->pData = out_.front()->pData;
            pDesc->pUser = this;
            descs_out_.push_back(pDesc);
        }
    }
    void ReturnDesc() {
        if (!descs_out_.empty()) {
            BufT* pDesc = descs_out_.front();
            descs_out_.pop_front();
            descs_.push_back(pDesc);
            EXPECT_EQ(BufPoolDescFree(&pool_, pDesc), kNoError);
        }
    }

    void SetParms() {
        const unsigned max = Below(5);
        const unsigned dynamic = Below(2);
        BufPoolSetDynamic(dynamic);
        EXPECT_EQ(pool_.SetFreeBufParms(&pool_, max, 1000, 100, 128, 7),
                  opened_ ? kBadState : kNoError);
        if (!opened_) {
            max_ = max;
            num_ = min_ = dynamic != 0 ? 0 : max;
        }
    }

    std::mt19937 random_;
    ModT owner_ = {};
    BufPoolT pool_ = {};
    std::deque<BufT*> free_, out_, descs_, descs_out_;
    BufT* made_ = nullptr;
    unsigned max_, num_, min_;
    int alive_ = 0;
    bool opened_ = false, opening_ = false, failed_ = false, last_ = false, returning_ = false;
};
PoolModel* PoolModel::gModel;

}  // namespace

TEST(BufPool, EveryOrderOfOperationsFollowsTheModel) {
    for (unsigned seed = 1; seed <= 100 && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        const StdoutFile out;
        PoolModel model(seed);
        std::string expected;
        for (int step = 0; step < 300 && !HasFailure(); step++) {
            model.Step();
            BufPoolDump(&model.Pool()->mod, 0);
            expected += model.Expected();
            EXPECT_EQ(model.Pool()->numFreeBufs, model.Free());
        }
        EXPECT_TRUE(HasFailure() || out.Text() == expected) << expected;
    }
}

TEST(BufPool, PoolsAreListedFoundAndCheckedWhileThereIsRoom) {
    StdoutFile out;
    auto pools = std::make_unique<BufPoolT[]>(kBufMaxPools + 1);
    for (int i = 0; i <= kBufMaxPools; i++) {
        BufPoolInit(&pools[i], i < 2 ? "Alpha" : "other", i, nullptr, 1, 100, sizeof(BufT), 0, 0);
    }
    EXPECT_EQ(numBufPools, kBufMaxPools);
    EXPECT_EQ(BufPoolFindByName("alpha", 1), &pools[1]);
    EXPECT_EQ(BufPoolFindByName("alphabet", 1), nullptr);
    EXPECT_EQ(BufPoolFindByName("other", kModAnyInstance), &pools[2]);
    EXPECT_EQ(BufPoolFindByName("other", kBufMaxPools), nullptr);
    EXPECT_STREQ(BufPoolName(nullptr), "none");
    for (int i = kBufMaxPools; i >= 0; i--) {
        i == 1 || i == 2 ? BufPoolOpen(&pools[i]) : BufPoolExit(&pools[i]);
    }
    BufPoolClose(&pools[2]);
    BufPoolDump(&pools[1].mod, 0);
    const std::string one = out.Fresh();
    BufPoolDump(&pools[2].mod, 0);
    const std::string two = out.Fresh();
    const std::string heading =
        "Buffer pool              state  max      len   hdr  desc used memory   used   %\n"
        "---------------------- ------- ---- -------- ----- ----- ---- ------ ------ ----\n";
    BufPoolDumpOpen();
    BufPoolDumpAll();
    EXPECT_EQ(out.Fresh(), heading + one + heading + one + two);
    EXPECT_EQ(numBufPools, 2);

    InitSyslogInterface();
    BufT* pBuf = BufPoolBufAlloc(&pools[1]);
    pBuf->pData[pBuf->dataLen + pBuf->headerSpace + 3] = 0;
    BufPoolBufFree(&pools[1], pBuf);
    EXPECT_EQ(BufPoolCheckAll(), kNoError);
    EXPECT_TRUE(out.WaitFor("buf: pool Alpha[01]: 1 free buffers with a bad guard\n"));
    BufPoolExit(&pools[1]);
    BufPoolInit(&pools[0], "huge", 0, nullptr, 1, UINT32_MAX, sizeof(BufT), 0, 0);
    EXPECT_EQ(BufPoolOpen(&pools[0]), kOutOfMemory) << "a size that cannot be rounded up";
}

TEST(BufPool, APoolDoesNotEndWhileTheTableIsWalkedOverIt) {
    static BufPoolT pool;
    static std::atomic<bool> ended{false};
    static std::jthread owner;
    BufPoolInit(&pool, "pool", 0, nullptr, 1, 100, sizeof(BufT), 0, 0);
    pool.mod.Dump = [](ModT*, int) {
        owner = std::jthread([] {
            BufPoolExit(&pool);
            ended = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // it must wait
        EXPECT_FALSE(ended);
        EXPECT_EQ(BufPoolFindByName("pool", 0), &pool);  // a dump may look for pools
        return kNoError;
    };
    BufPoolDumpAll();
    EXPECT_TRUE(Eventually([] { return ended.load(); }));
    EXPECT_EQ(BufPoolFindByName("pool", 0), nullptr);
}

TEST(BufPool, ManyThreadsNeverShareOrLoseABuffer) {
    BufPoolT pool = {};
    BufPoolInit(&pool, "pool", 0, nullptr, 3, 100, sizeof(BufT), 0, 0);
    BufPoolOpen(&pool);
    // Each buffer carries the mark of the thread that holds it; a buffer in two hands is seen.
    const auto use = [&pool](unsigned char mark) {
        for (int round = 0; round < 100000; round++) {
            if (BufT* pBuf = BufPoolBufAlloc(&pool)) {
                memset(pBuf->ptr, mark, 100);
                ASSERT_TRUE(pBuf->ptr[0] == mark && pBuf->ptr[99] == mark);
                BufPoolBufFree(&pool, pBuf);
            }
        }
    };
    std::vector<std::jthread> threads;
    for (unsigned char t = 1; t <= 4; t++) {
        threads.emplace_back(use, t);
    }
    for (int round = 0; round < 300; round++) {  // buffers come back to a pool just closed
        BufPoolClose(&pool);
        BufPoolCheckAll();
        BufPoolOpen(&pool);
    }
    threads.clear();
    BufPoolClose(&pool);
    EXPECT_EQ(pool.numFreeBufs, 0U);
    EXPECT_EQ(pool.pFreeBufs, nullptr);
}

TEST(BufPool, ATaskDeletedWhileItReturnsABufferReturnsIt) {
    BufPoolT pool = {};
    BufPoolInit(&pool, "pool", 0, nullptr, 1, 100, sizeof(BufT), 0, 0);
    BufPoolOpen(&pool);
    BufT* pBuf = BufPoolBufAlloc(&pool);
    BufT* pDesc = BufPoolDescAlloc(&pool, pBuf);
    BufT* taken = nullptr;
    std::atomic<bool> begun;
    const std::function<void()> bodies[] = {
        [&] { BufPoolBufFree(&pool, pBuf); },
        [&] { BufPoolDescFree(&pool, pDesc); },
        [&] { taken = BufPoolBufAlloc(&pool); },
    };
    for (const auto& body : bodies) {
        begun = false;
        sm_p(freeListRegion, 0, 0);
        const UInt32 task = Spawn("user", [&begun, &body] {
            begun = true;
            body();
        });
        EXPECT_TRUE(Eventually([&begun] { return begun.load(); }));
        std::jthread deleter([task] { t_delete(task); });
        std::this_thread::sleep_for(std::chrono::milliseconds(150));  // it must not go
        sm_v(freeListRegion);
    }
    EXPECT_EQ(taken, pBuf);
    EXPECT_EQ(pool.numFreeBufs, 0U);
    EXPECT_EQ(pool.pBufDescs, &pDesc->list);
    BufPoolBufFree(&pool, pBuf);
    BufPoolExit(&pool);
}
