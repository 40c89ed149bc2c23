// Command lines to other processors, and their responses back, over proxy calls. Any task may call;
// calls block as the transport does. On a single processor nothing is ever sent.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/message.h"
#include "Common/framework/mod.h"
#include "Common/framework/proxy.h"

constexpr int kRemMsgSlots = 10;

// The link to one other processor.
typedef struct RemMsgS {
    ModT mod;
    eErrorT (*SendCmd)(struct RemMsgS* pRemMsg, const char* pCmdString, NotifyFuncT pNotifyFunc,
                       void* userDefined);
    eErrorT (*SendRsp)(struct RemMsgS* pRemMsg, eErrorT remErr, const char* pRspString,
                       NotifyFuncT pNotifyFunc, void* userDefined);
} RemMsgT;

// A command that arrived from another processor and awaits its response.
typedef struct MsgParmS {
    UInt32 pNotifyFunc;  // the sender's function and user data, as the sender's processor knows
    UInt32 pUserDefined;
    RemMsgT* pMod;  // where the response goes; null: a free slot
} MsgParmT;

extern RemMsgT gMasterRemMsg[kProxyMaxProcessors];              // on processor 0, by processor
extern std::atomic<RemMsgT*> gpSlaveRemMsg;                     // on the others: the master's
extern std::atomic<int> CommandSendProcs[kProxyMaxProcessors];  // forward commands to it
extern MsgParmT msgParms[kRemMsgSlots];                         // under msgParmSemaphore
extern UInt32 msgParmSemaphore;

// Registers the module type "remmsg" and, on processor 0, makes the link to each other processor.
// kNoError, or the first error; links that fail do not stop the others.
eErrorT RemMsgInit();

// The type's initialisation: ModInit, the senders, and the server functions or the way back.
eErrorT RemMsgModInit(ModT* pMod, const char* pName, int instance, void* pOwner);

// Sends a command line to the other processors that are enabled (from processor 0), or to processor
// 0 (from the others, waiting until it has opened the path). kNoError, or the last error.
eErrorT RemMsgSendCmd(const char* pCmdString, NotifyFuncT pNotifyFunc, void* userDefined);

// Whether commands are forwarded to a processor. Set returns kNoError, or kBadParameter for a
// number not below the processor count; Get answers 0 for such a number.
eErrorT RemMsgSetEnable(UInt32 proc, int enable);
int RemMsgGetEnable(UInt32 proc);
int SendCommandToProc(UInt32 proc);
