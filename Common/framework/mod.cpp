// Modules and their callbacks.
//
// Callback slots are changed under callbackSemaphore and read without it. A module's slots live in
// one array, which stands behind a header with a sequence number: odd while the array changes,
// another number afterwards. A reader copies a slot and keeps the copy only if the module still has
// that array and the number is even and the same before and after; otherwise it copies again under
// the semaphore. An array that a module outgrew or gave up is kept for the next module that needs
// one of its size and never goes back to the heap, so that a late reader reads an array still, and
// sees by the number that it is not his.
#include "Common/framework/mod.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/system.h"
#include "Common/framework/address.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"

std::atomic<ModT*> gMods[kModMaxModules];
std::atomic<int> numMods{0};
UInt32 callbackSemaphore;
pthread_mutex_t gModHeaderMutex = PTHREAD_MUTEX_INITIALIZER;

const char* const ModExceptionString[1] = {"Mod Fatal Exception"};

namespace {

constexpr int kSlotsPerGrowth = 10;

std::atomic<int> gTableEnd{0};

// The header of an array of callback slots, behind which the uses of their tasks' ids stand.
struct SlotArrayT {
    UInt32 sequence;
    int numSlots;  // never changes
    int end;       // one past the last used slot
    SlotArrayT* next;
};

SlotArrayT* gSpareArrays;  // under callbackSemaphore

SlotArrayT* ArrayOf(ModCallbackT* slots) {
    return reinterpret_cast<SlotArrayT*>(slots) - 1;
}

ModCallbackT* SlotsOf(SlotArrayT* array) {
    return reinterpret_cast<ModCallbackT*>(array + 1);
}

UInt32* UsesOf(SlotArrayT* array) {
    return reinterpret_cast<UInt32*>(SlotsOf(array) + array->numSlots);
}

// Marks an array as changing for a scope; callbackSemaphore is held.
class ArrayChangeT {
  public:
    explicit ArrayChangeT(SlotArrayT* array) : array_(array), before_(array->sequence) {
        FieldWrite(array_->sequence, before_ + 1);
    }
    ~ArrayChangeT() { FieldWrite(array_->sequence, before_ + 2); }
    ArrayChangeT(const ArrayChangeT&) = delete;
    ArrayChangeT& operator=(const ArrayChangeT&) = delete;

  private:
    SlotArrayT* array_;
    UInt32 before_;
};

// pFunc comes last when a slot is filled and first when it is freed.
void WriteSlot(SlotArrayT* array, int index, const ModListenerT& value) {
    ModCallbackT* slot = &SlotsOf(array)[index];
    const ModCallbackT& callback = value.callback;
    if (callback.pFunc == nullptr) {
        FieldWrite(slot->pFunc, callback.pFunc);
    }
    FieldWrite(slot->userDefined, callback.userDefined);
    FieldWrite(slot->whenFlags, callback.whenFlags);
    FieldWrite(slot->destTaskID, callback.destTaskID);
    FieldWrite(slot->funcIndex, callback.funcIndex);
    FieldWrite(UsesOf(array)[index], value.use);
    if (callback.pFunc != nullptr) {
        FieldWrite(slot->pFunc, callback.pFunc);
    }
}

// A fresh or spare array with all slots free; null when memory is exhausted.
SlotArrayT* TakeArray(int numSlots) {
    for (SlotArrayT** link = &gSpareArrays; *link != nullptr; link = &(*link)->next) {
        SlotArrayT* array = *link;
        if (array->numSlots == numSlots) {
            *link = array->next;
            ArrayChangeT change(array);
            FieldWrite(array->end, 0);
            for (int i = 0; i < numSlots; i++) {
                WriteSlot(array, i, {});
            }
            return array;
        }
    }
    auto* array = static_cast<SlotArrayT*>(
        calloc(1, sizeof(SlotArrayT) +
                      (sizeof(ModCallbackT) + sizeof(UInt32)) * static_cast<size_t>(numSlots)));
    if (array != nullptr) {
        array->numSlots = numSlots;
    }
    return array;
}

void RetireArray(ModCallbackT* slots) {
    if (slots != nullptr) {
        SlotArrayT* array = ArrayOf(slots);
        const ArrayChangeT change(array);
        array->next = gSpareArrays;
        gSpareArrays = array;
    }
}

// Gives a module ten more slots; the new ones are free.
void Grow(ModT* pMod) {
    const int before = pMod->numCallbacks;
    SlotArrayT* array = TakeArray(before + kSlotsPerGrowth);
    if (array == nullptr) {
        logwarn("MOD", "can't add callback, out of memory\n");
    }
    ModAssertText(array != nullptr, "pCallbacks");
    ModCallbackT* old = pMod->pCallbacks;
    {
        const ArrayChangeT change(array);
        for (int i = 0; i < before; i++) {
            WriteSlot(array, i, {old[i], UsesOf(ArrayOf(old))[i]});
        }
        FieldWrite(array->end, old != nullptr ? ArrayOf(old)->end : 0);
    }
    FieldWrite(pMod->pCallbacks, SlotsOf(array));
    FieldWrite(pMod->numCallbacks, before + kSlotsPerGrowth);
    RetireArray(old);
}

// The index of a callback's slot, of a free one for all zero; -1 if there is none.
// callbackSemaphore is held.
int FindCallback(const ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc,
                 const void* userDefined) {
    for (int i = 0; i < pMod->numCallbacks; i++) {
        const ModCallbackT& slot = pMod->pCallbacks[i];
        if (slot.pFunc == pFunc && slot.userDefined == userDefined && slot.funcIndex == funcIndex) {
            return i;
        }
    }
    return -1;
}

// Whether the task that a slot's callback belongs to is gone; callbackSemaphore is held.
bool Orphaned(const ModT* pMod, int index) {
    const ModCallbackT& slot = pMod->pCallbacks[index];
    return (slot.whenFlags & kModCallbackDeferred) != 0 &&
           t_incarnation(slot.destTaskID) != UsesOf(ArrayOf(pMod->pCallbacks))[index];
}

// Fills the slot at `index`, a free one if that is negative.
void FillSlot(ModT* pMod, int index, const ModListenerT& value) {
    if (index < 0) {
        index = FindCallback(pMod, 0, nullptr, nullptr);
    }
    if (index < 0) {
        index = pMod->numCallbacks;
        Grow(pMod);
    }
    SlotArrayT* array = ArrayOf(pMod->pCallbacks);
    const ArrayChangeT change(array);
    WriteSlot(array, index, value);
    if (index >= array->end) {
        FieldWrite(array->end, index + 1);
    }
}

// The first used slot from `from` on that listens to `funcIndex`, and a copy of it; -1 if there is
// none. `changed` is set instead when the array changed under the reader.
int ScanSlots(const ModT* pMod, int from, UInt32 funcIndex, ModListenerT* listener, bool* changed) {
    *changed = false;
    ModCallbackT* slots = FieldRead(pMod->pCallbacks);
    if (slots == nullptr) {
        return -1;
    }
    SlotArrayT* array = ArrayOf(slots);
    const UInt32 sequence = FieldRead(array->sequence);
    const int end = FieldRead(array->end);
    ModCallbackT* copy = &listener->callback;
    int found = -1;
    for (int i = from; i < end && found < 0; i++) {
        const ModCallbackT& slot = slots[i];
        copy->pFunc = FieldRead(slot.pFunc);
        copy->funcIndex = FieldRead(slot.funcIndex);
        if (copy->pFunc != nullptr && copy->funcIndex == funcIndex) {
            copy->userDefined = FieldRead(slot.userDefined);
            copy->whenFlags = FieldRead(slot.whenFlags);
            copy->destTaskID = FieldRead(slot.destTaskID);
            listener->use = FieldRead(UsesOf(array)[i]);
            found = i;
        }
    }
    *changed = (sequence & 1) != 0 || FieldRead(pMod->pCallbacks) != slots ||
               FieldRead(array->sequence) != sequence;
    return found;
}

int NextListener(const ModT* pMod, int from, UInt32 funcIndex, ModListenerT* listener) {
    bool changed;
    int found = ScanSlots(pMod, from, funcIndex, listener, &changed);
    if (changed) [[unlikely]] {
        // Not tried again without the semaphore: its holder may have a lower priority.
        const SemGuardT lock(callbackSemaphore);
        found = ScanSlots(pMod, from, funcIndex, listener, &changed);
    }
    return found;
}

void RegisterModule(ModT* pMod) {
    for (int i = 0; i < kModMaxModules; i++) {
        ModT* none = nullptr;
        if (gMods[i] == nullptr && gMods[i].compare_exchange_strong(none, pMod)) {
            numMods++;
            int end = gTableEnd;
            while (end <= i && !gTableEnd.compare_exchange_weak(end, i + 1)) {
            }
            return;
        }
    }
}

template <typename FuncT>
void SetDefault(FuncT** operation, FuncT* function) {
    if (*operation == nullptr) {
        *operation = function;
    }
}

void FormatName(const ModT* pMod, char* text, size_t size) {
    snprintf(text, size, "%s[%d]", pMod->name, pMod->instance);
}

}  // namespace

void ModReportBad(const ModT* pMod) {
    printf("ERROR, bad module ptr 0x%x\n", shown_address(pMod));
    OsAssertFailed("pMod->initializedSig == kModSignature", "Common/framework/mod.cpp", __LINE__,
                   __func__);
}

int ModTableEnd() {
    return gTableEnd;
}

UInt32 ModSelf() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    return self;
}

eErrorT ModInit(ModT* pMod, const char* pName, int instance, void* pOwner) {
    ModAssert(pMod);
    ModAssert(pName);
    const UInt32 self = ModSelf();
    {
        const MutexGuardT lock(&gModHeaderMutex);
        pMod->instance = instance;
        FieldWrite(pMod->pOwner, static_cast<ModT*>(pOwner));
        const size_t length = strnlen(pName, kModNameLen);
        memmove(pMod->name, pName, length);
        pMod->name[length] = '\0';
        FormatName(pMod, pMod->fullname, sizeof(pMod->fullname));
        FieldWrite(pMod->initializedSig, kModSignature);
        pMod->taskID = self;
        if (pMod->processorNum == 0) {
            pMod->processorNum = GetProcessorNum();
        }
    }
    FieldWrite(pMod->numCallbacks, 0);
    FieldWrite(pMod->pCallbacks, nullptr);
    pMod->Exit = ModExit;
    FieldWrite(pMod->Dump, ModDump);
    FieldWrite(pMod->DumpHeading, ModDumpHeading);
    SetDefault(&pMod->CallCallbacks, ModCallCallbacks);
    SetDefault(&pMod->ThrowException, ModThrowException);
    SetDefault(&pMod->SetOwner, ModSetOwner);
    SetDefault(&pMod->GetOwner, ModGetOwner);
    SetDefault(&pMod->DebugCmd, ModDummyDebugCmd);
    ModSetUp();
    RegisterModule(pMod);
    FieldSetBits(pMod->flags, kModFlagRegistered);
    return kNoError;
}

eErrorT ModExit(ModT* pMod) {
    ModCheck(pMod);
    ModDeleteAllCallbacks(pMod);
    for (int i = 0; i < ModTableEnd(); i++) {
        ModT* expected = pMod;
        if (gMods[i] == pMod && gMods[i].compare_exchange_strong(expected, nullptr)) {
            numMods--;
        }
    }
    FieldClearBits(pMod->flags, kModFlagRegistered);
    return kNoError;
}

UInt32 ModID(ModT* pMod) {
    ModCheck(pMod);
    return pMod->id;
}

UInt32 ModGetProcNum(ModT* pMod) {
    ModCheck(pMod);
    return pMod->processorNum;
}

ModT* ModGetOwner(ModT* pMod) {
    ModCheck(pMod);
    return FieldRead(pMod->pOwner);
}

eErrorT ModSetOwner(ModT* pMod, ModT* pOwner) {
    ModCheck(pMod);
    FieldWrite(pMod->pOwner, pOwner);
    return kNoError;
}

const char* ModName(ModT* pMod) {
    if (pMod == nullptr) {
        return "none";
    }
    // Written only when it changed: several tasks may ask for one module's name at once.
    char text[sizeof(pMod->fullname)];
    FormatName(pMod, text, sizeof(text));
    if (strcmp(text, pMod->fullname) != 0) {
        memcpy(pMod->fullname, text, sizeof(text));
    }
    return pMod->fullname;
}

ModT* ModFindByName(const char* pName, int instance) {
    ModAssert(pName);
    const MutexGuardT lock(&gModHeaderMutex);
    for (int i = 0; i < ModTableEnd(); i++) {
        ModT* pMod = gMods[i];
        if (pMod != nullptr && (instance == kModAnyInstance || pMod->instance == instance) &&
            strncasecmp(pMod->name, pName, kModNameLen) == 0) {
            return pMod;
        }
    }
    return nullptr;
}

eErrorT ModAddCallback(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void* userDefined,
                       UInt32 whenFlags) {
    return ModAddCallbackToTask(pMod, funcIndex, pFunc, userDefined, whenFlags, 0);
}

eErrorT ModAddCallbackToTask(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc,
                             void* userDefined, UInt32 whenFlags, UInt32 taskID) {
    ModCheck(pMod);
    ModAssert(pFunc);
    const SemGuardT lock(callbackSemaphore);
    const int known = FindCallback(pMod, funcIndex, pFunc, userDefined);
    if (known < 0 || Orphaned(pMod, known)) {
        const bool elsewhere = taskID != 0 && (whenFlags & kModCallbackDeferred) != 0;
        const UInt32 task = elsewhere ? taskID : ModSelf();
        FillSlot(pMod, known,
                 {{pFunc, userDefined, whenFlags, task, funcIndex}, t_incarnation(task)});
    }
    return kNoError;
}

eErrorT ModAddExceptionHandler(ModT* pMod, CallbackFuncPtrT pFunc, void* userDefined) {
    return ModAddCallback(pMod, kModExceptionIndex, pFunc, userDefined, kModCallbackDeferred);
}

eErrorT ModDeleteCallback(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void* userDefined) {
    ModCheck(pMod);
    ModAssert(pFunc);
    const SemGuardT lock(callbackSemaphore);
    const int index = FindCallback(pMod, funcIndex, pFunc, userDefined);
    if (index < 0) {
        return kItemNotFound;
    }
    SlotArrayT* array = ArrayOf(pMod->pCallbacks);
    const ArrayChangeT change(array);
    WriteSlot(array, index, {});
    int end = array->end;
    while (end > 0 && pMod->pCallbacks[end - 1].pFunc == nullptr) {
        end--;
    }
    FieldWrite(array->end, end);
    return kNoError;
}

eErrorT ModDeleteExceptionHandler(ModT* pMod, CallbackFuncPtrT pFunc, void* userDefined) {
    return ModDeleteCallback(pMod, kModExceptionIndex, pFunc, userDefined);
}

eErrorT ModDeleteAllCallbacks(ModT* pMod) {
    ModCheck(pMod);
    const SemGuardT lock(callbackSemaphore);
    ModCallbackT* slots = pMod->pCallbacks;
    FieldWrite(pMod->numCallbacks, 0);
    FieldWrite(pMod->pCallbacks, nullptr);
    RetireArray(slots);
    return kNoError;
}

eErrorT ModCallCallbacks(ModT* pMod, UInt32 funcIndex, void* pArgs, int argLen) {
    ModCheck(pMod);
    UInt32 self;
    if (t_ident(nullptr, 0, &self) != kTaskOk) {
        return kItemNotFound;
    }
    const UInt32 own_use = t_incarnation(0);
    ModListenerT listener;
    for (int i = NextListener(pMod, 0, funcIndex, &listener); i >= 0;
         i = NextListener(pMod, i + 1, funcIndex, &listener)) {
        const ModCallbackT& callback = listener.callback;
        const bool own = callback.destTaskID == self && listener.use == own_use;
        if ((callback.whenFlags & kModCallbackDeferred) == 0 || own) {
            callback.pFunc(pMod, funcIndex, callback.userDefined, pArgs);
        } else {
            ModDeferCallback(listener, pMod, funcIndex, pArgs, argLen);
        }
    }
    return kNoError;
}

eErrorT ModThrowException(ModT* pMod, UInt32 ExceptionIndex, const char* description, void* pArgs,
                          int argLen) {
    ModCheck(pMod);
    ModAssert(ExceptionIndex < sizeof(ModExceptionString) / sizeof(ModExceptionString[0]));
    ModTrace(pMod, "exception:%s (%s)\n", ModExceptionString[ExceptionIndex],
             description != nullptr ? description : "");
    ModCallCallbacks(pMod, kModExceptionIndex, pArgs, argLen);
    return kNoError;
}

eErrorT ModDummyDebugCmd(ModT* pMod, char*) {
    ModAssert(pMod);
    return kNoError;
}
