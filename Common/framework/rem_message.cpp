// Command lines to and from other processors.
#include "Common/framework/rem_message.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/system.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"
#include "Common/framework/modman.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"

RemMsgT gMasterRemMsg[kProxyMaxProcessors];
std::atomic<RemMsgT*> gpSlaveRemMsg{nullptr};
std::atomic<int> CommandSendProcs[kProxyMaxProcessors];
MsgParmT msgParms[kRemMsgSlots];
UInt32 msgParmSemaphore;

namespace {

constexpr UInt32 kWaitForMaster = 100;  // ticks

eErrorT SendCmdClient(RemMsgT* pRemMsg, const char* pCmdString, NotifyFuncT pNotifyFunc,
                      void* userDefined) {
    return ProxyCall(&pRemMsg->mod, "SendCmd", "%x %x %s ", func_id(pNotifyFunc),
                     id_of(userDefined), pCmdString);
}

eErrorT SendRspClient(RemMsgT* pRemMsg, eErrorT remErr, const char* pRspString,
                      NotifyFuncT pNotifyFunc, void* userDefined) {
    return ProxyCall(&pRemMsg->mod, "SendRsp", "%d %x %x %s ", remErr, func_id(pNotifyFunc),
                     id_of(userDefined), pRspString);
}

// Removes the one blank that the sender's format puts behind a text.
void CutTrailingBlank(char* text) {
    const size_t length = strlen(text);
    if (length > 0 && text[length - 1] == ' ') {
        text[length - 1] = '\0';
    }
}

// The number, from one, of the slot that now holds `parms`; 0 when all are busy.
UInt32 TakeSlot(const MsgParmT& parms) {
    const SemGuardT lock(msgParmSemaphore);
    for (UInt32 i = 0; i < kRemMsgSlots; i++) {
        if (msgParms[i].pMod == nullptr) {
            msgParms[i] = parms;
            return i + 1;
        }
    }
    return 0;
}

// Sends the response of a command that arrived from another processor back to it.
void RelayNotify(eErrorT err, const char* pNotifyString, void* userDefined) {
    const UInt32 number = id_of(userDefined);
    MsgParmT parms = {};
    {
        const SemGuardT lock(msgParmSemaphore);
        if (number >= 1 && number <= kRemMsgSlots) {
            parms = msgParms[number - 1];
            msgParms[number - 1] = {};
        }
    }
    if (parms.pMod != nullptr) {
        parms.pMod->SendRsp(parms.pMod, err, pNotifyString,
                            func_from_id<NotifyFuncT>(parms.pNotifyFunc),
                            from_id<void>(parms.pUserDefined));
    }
}

// Runs a command line that wants a response.
eErrorT RunForOther(RemMsgT* pRemMsg, UInt32 func, UInt32 user, const char* line) {
    if (strlen(line) > kMsgMaxLen) {
        return kBadParameter;  // nobody would be notified, so no slot may wait for it
    }
    const UInt32 slot = TakeSlot({func, user, pRemMsg});
    if (slot == 0) {
        logwarn("MOD", "no room to route a response back, dropped: %.128s\n", line);
        return MsgSendCmd(line, nullptr, nullptr);
    }
    return MsgSendCmd(line, RelayNotify, from_id<void>(slot));
}

int SendCmdServer(ModT* pMod, char* pMsg) {
    UInt32 func;
    UInt32 user;
    int end = 0;
    if (sscanf(pMsg, "%x %x %n", &func, &user, &end) != 2 || end == 0) {
        return ProxyReply(pMsg, kBadParameter);
    }
    char* line = pMsg + end;
    CutTrailingBlank(line);
    const eErrorT err = func == 0 ? MsgSendCmd(line, nullptr, nullptr)
                                  : RunForOther(reinterpret_cast<RemMsgT*>(pMod), func, user, line);
    return ProxyReply(pMsg, err);
}

int SendRspServer(ModT*, char* pMsg) {
    int err;
    UInt32 func;
    UInt32 user;
    int end = 0;
    if (sscanf(pMsg, "%d %x %x %n", &err, &func, &user, &end) != 3 || end == 0) {
        return ProxyReply(pMsg, kBadParameter);
    }
    if (func != 0) {
        char* text = pMsg + end;
        CutTrailingBlank(text);
        func_from_id<NotifyFuncT>(func)(static_cast<eErrorT>(err), text, from_id<void>(user));
    }
    return ProxyReply(pMsg, 0);
}

const ProxyFuncTableT kRemMsgFuncs[] = {
    {"SendCmd", offsetof(RemMsgT, SendCmd), reinterpret_cast<ProxyClientFuncT>(SendCmdClient),
     SendCmdServer},
    {"SendRsp", offsetof(RemMsgT, SendRsp), reinterpret_cast<ProxyClientFuncT>(SendRspClient),
     SendRspServer},
    {nullptr, 0, nullptr, nullptr},
};

eErrorT RegisterServers(ModT* pMod) {
    ModDBEntryT* entry = ModDBFind(nullptr, pMod->name);
    if (entry == nullptr) {
        return kItemNotFound;
    }
    FieldWrite(pMod->proxy.pModDBEntry, entry);
    const SemGuardT lock(ModMan()->dbSemaphore);
    for (const ProxyFuncTableT* row = kRemMsgFuncs; row->pName != nullptr; row++) {
        if (HashAdd(&entry->proxyFuncHash, row->pName,
                    reinterpret_cast<HashValueT>(row->serverFunc)) != kNoError) {
            return kOutOfMemory;
        }
    }
    return kNoError;
}

UInt32 ProcessorCount() {
    const UInt32 count = GetNumProcessors();
    return count < kProxyMaxProcessors ? count : kProxyMaxProcessors;
}

bool IsRegistered(RemMsgT* pRemMsg) {
    return pRemMsg != nullptr && (FieldRead(pRemMsg->mod.flags) & kModFlagRegistered) != 0;
}

eErrorT SendToMaster(const char* pCmdString, NotifyFuncT pNotifyFunc, void* userDefined) {
    RemMsgT* master = gpSlaveRemMsg;
    while (!IsRegistered(master)) {
        puts("Waiting for master processor to open up message path");
        tm_wkafter(kWaitForMaster);
        master = gpSlaveRemMsg;
    }
    return master->SendCmd(master, pCmdString, pNotifyFunc, userDefined);
}

}  // namespace

eErrorT RemMsgInit() {
    if (sm_create("rmsg", 1, 0, &msgParmSemaphore) != kSmOk) {
        return kSemUnavail;
    }
    for (std::atomic<int>& enabled : CommandSendProcs) {
        enabled = 1;
    }
    if (ModDBAdd("remmsg", sizeof(RemMsgT), RemMsgModInit, kRemMsgFuncs) == nullptr) {
        return kOutOfMemory;
    }
    eErrorT result = kNoError;
    if (ProxyProcessorNum() == 0) {
        for (UInt32 proc = 1; proc < ProcessorCount(); proc++) {
            ModT* pMod = &gMasterRemMsg[proc].mod;
            eErrorT err = RemMsgModInit(pMod, "remmsg", static_cast<int>(proc), nullptr);
            if (err == kNoError) {
                err = ModClone(pMod, proc);
            }
            result = result == kNoError ? err : result;
        }
    }
    return result;
}

eErrorT RemMsgModInit(ModT* pMod, const char* pName, int instance, void* pOwner) {
    OsAssert(pMod);
    ModInit(pMod, pName, instance, pOwner);
    auto* pRemMsg = reinterpret_cast<RemMsgT*>(pMod);
    pRemMsg->SendCmd = SendCmdClient;
    pRemMsg->SendRsp = SendRspClient;
    if (ProxyProcessorNum() == 0) {
        return RegisterServers(pMod);
    }
    gpSlaveRemMsg = pRemMsg;
    return kNoError;
}

eErrorT RemMsgSendCmd(const char* pCmdString, NotifyFuncT pNotifyFunc, void* userDefined) {
    OsAssert(pCmdString);
    if (ProxyProcessorNum() != 0) {
        return SendToMaster(pCmdString, pNotifyFunc, userDefined);
    }
    eErrorT result = kNoError;
    for (UInt32 proc = 1; proc < ProcessorCount(); proc++) {
        RemMsgT* pRemMsg = &gMasterRemMsg[proc];
        if (SendCommandToProc(proc) != 0 && IsRegistered(pRemMsg)) {
            const eErrorT err = pRemMsg->SendCmd(pRemMsg, pCmdString, pNotifyFunc, userDefined);
            result = err != kNoError ? err : result;
        }
    }
    return result;
}

eErrorT RemMsgSetEnable(UInt32 proc, int enable) {
    if (proc >= ProcessorCount()) {
        return kBadParameter;
    }
    CommandSendProcs[proc] = enable;
    return kNoError;
}

int RemMsgGetEnable(UInt32 proc) {
    return proc < ProcessorCount() ? CommandSendProcs[proc].load() : 0;
}

int SendCommandToProc(UInt32 proc) {
    return RemMsgGetEnable(proc);
}
