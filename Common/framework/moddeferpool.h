// The pool of blocks behind deferred work, and the passes that serve it: what deferred function
// calls (moddefer.cpp) and deferred callbacks (moddcb.cpp) have in common.
//
// A block is on one list at a time: free, pending, or the work list of the pass that serves it.
// Work lists live on the serving task's stack. What a pass has not begun when its task ends goes
// back to the head of the pending list from the pass's destructor, so that the task's last pass
// (t_delete_callback), which comes when the stack has unwound, finds it.
//
// `KindT` says what differs: BlockT, the globals Blocks(), Free(), Pending(), Available() and
// Region(), TaskOf(block), and the hooks Dropped(block) and Served(task, runs), which are called
// with the region held.
#pragma once

#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"

// Whom a pool waits for: the task of its oldest pending block.
struct ModOldestT {
    UInt32 taskID;
    int age;  // ms
};

enum class QueuedT { kQueued, kNoBlock, kNoTask };

template <typename KindT>
class DeferredPoolT {
  public:
    using BlockT = typename KindT::BlockT;

    static BlockT* BlockOf(ListT* node) { return reinterpret_cast<BlockT*>(node); }

    static void SetUp() {
        ModAssert(sm_create("#region", 1, 0, &KindT::Region()) == kSmOk);
        const SemGuardT lock(KindT::Region());
        for (BlockT& block : KindT::Blocks()) {
            Give(&block);
        }
    }

    // The target and the age of the oldest pending block; false when none is pending.
    static bool Oldest(ModOldestT* oldest) {
        const SemGuardT lock(KindT::Region());
        if (KindT::Pending() == nullptr) {
            return false;
        }
        const BlockT* first = BlockOf(KindT::Pending());
        *oldest = {KindT::TaskOf(*first), static_cast<int>(RealTimeMilliSeconds() - first->time)};
        return true;
    }

    // Takes a block for a task, lets `fill`(block) fill it, and appends it to the pending list.
    // `use` is the use of the task's id that is meant, 0 for who has the id now. The task is then
    // to be sent its event; where that fails, the task has served the block in its end.
    template <typename FillT>
    static QueuedT Queue(UInt32 taskID, UInt32 use, FillT fill) {
        const SemGuardT lock(KindT::Region());
        // Under the region: a task that closes takes its last look at the list under it later.
        if (t_is_open(taskID) == 0 || (use != 0 && t_incarnation(taskID) != use)) {
            return QueuedT::kNoTask;
        }
        if (KindT::Free() == nullptr) {
            return QueuedT::kNoBlock;
        }
        BlockT* block = BlockOf(ListDequeueUnprot(&KindT::Free()));
        block->incarnation = t_incarnation(taskID);
        block->stage = kDeferredPending;
        KindT::Available()--;
        fill(block);
        ListEnqueueUnprot(&KindT::Pending(), &block->list);
        return QueuedT::kQueued;
    }

    // Takes a pending block off the list unserved; the region is held.
    static void Drop(BlockT* block) {
        KindT::Dropped(*block);
        ListExtractUnprot(&KindT::Pending(), &block->list);
        Give(block);
    }

    // Frees the pending blocks whose task went without serving them: it was deleted before it ran.
    static void Reclaim() {
        const SemGuardT lock(KindT::Region());
        ForEachPending([](BlockT* block) {
            if (t_incarnation(KindT::TaskOf(*block)) != block->incarnation) {
                Drop(block);
            }
            return true;
        });
    }

    // The number of blocks that wait or run and of which `matches`(block) is true.
    template <typename MatchT>
    static int Count(MatchT matches) {
        const SemGuardT lock(KindT::Region());
        int count = 0;
        for (const BlockT& block : KindT::Blocks()) {
            count += block.stage != kDeferredFree && matches(block);
        }
        return count;
    }

    // The blocks that one pass of the calling task serves. Passes nest.
    class PassT {
      public:
        explicit PassT(UInt32 self) : self_(self) {}
        ~PassT() {
            const SemGuardT lock(KindT::Region());
            FreeCurrent();
            while (ListT* last = ListLastElement(work_)) {
                ListExtractUnprot(&work_, last);
                BlockOf(last)->stage = kDeferredPending;
                ListPushUnprot(&KindT::Pending(), last);
            }
            KindT::Served(self_, runs_);
        }
        PassT(const PassT&) = delete;
        PassT& operator=(const PassT&) = delete;

        // Moves the pending blocks of the task that `answer`(block), bits as of
        // ModSearchDeferredFunction, takes to the work list.
        template <typename AnswerT>
        void Collect(AnswerT answer) {
            const SemGuardT lock(KindT::Region());
            const UInt32 incarnation = t_incarnation(0);
            ForEachPending([&](BlockT* block) {
                if (KindT::TaskOf(*block) != self_ || block->incarnation != incarnation) {
                    return true;
                }
                const int bits = answer(block);
                if ((bits & kModSearchTake) != 0) {
                    ListExtractUnprot(&KindT::Pending(), &block->list);
                    block->stage = kDeferredTaken;
                    ListEnqueueUnprot(&work_, &block->list);
                }
                return (bits & kModSearchStop) == 0;
            });
        }

        // Frees the block that was run last and begins the next; null at the end.
        BlockT* Next() {
            const SemGuardT lock(KindT::Region());
            FreeCurrent();
            current_ = BlockOf(ListDequeueUnprot(&work_));
            if (current_ != nullptr) {
                current_->stage = kDeferredRunning;
            }
            return current_;
        }

        int Runs() const { return runs_; }

      private:
        void FreeCurrent() {
            if (current_ != nullptr) {
                Give(current_);
                current_ = nullptr;
                runs_++;
            }
        }

        UInt32 self_;
        ListT* work_ = nullptr;
        BlockT* current_ = nullptr;
        int runs_ = 0;
    };

  private:
    // Puts a block on the free list; the region is held.
    static void Give(BlockT* block) {
        block->stage = kDeferredFree;
        ListEnqueueUnprot(&KindT::Free(), &block->list);
        KindT::Available()++;
    }

    // Calls `visit`(block), which may take the block off the list, for each pending block until it
    // returns false; the region is held.
    template <typename VisitT>
    static void ForEachPending(VisitT visit) {
        int left = ListLenUnprot(&KindT::Pending());
        for (ListT* at = KindT::Pending(); left > 0; left--) {
            ListT* next = at->next;
            if (!visit(BlockOf(at))) {
                return;
            }
            at = next;
        }
    }
};
