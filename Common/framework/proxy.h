// How modules are reached on other processors: calls by name with text arguments. This is the small
// part of it that the module manager and the messages use. By itself it knows no other processor;
// a program that does registers a transport, which carries calls and replies and allocates peers.
// Any thread may call; calls block for as long as the transport does.
//
// Addresses travel as hexadecimal text of at most 32 bits, so modules and user data that are named
// in calls must lie under 4 GiB (LowCalloc, or static storage).
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/hash.h"
#include "Common/framework/mod.h"

// The most bytes of a call's or a reply's text, its end included.
constexpr int kProxyTextSize = 1024;

// The processors that tables are sized for.
constexpr int kProxyMaxProcessors = 20;

// A server function: finds its arguments as text at `pMsg`, leaves its reply there (at most
// kProxyTextSize bytes, an integer in decimal), and returns the reply's length plus one.
typedef int (*ProxyServerFuncT)(ModT* pMod, char* pMsg);

// A client function: the operation of a module that forwards to the peer; cast to its own type by
// who calls it.
typedef void (*ProxyClientFuncT)();

// One row of a module type's proxy function table, which ends with a row whose name is null: the
// call's name, where in the record the operation's pointer is, and the functions of both sides.
typedef struct ProxyFuncTableS {
    const char* pName;
    UInt32 offset;  // of the operation's pointer, in bytes from the record's start
    ProxyClientFuncT clientFunc;
    ProxyServerFuncT serverFunc;
} ProxyFuncTableT;

// What a program provides that reaches other processors. Functions may be called from any task.
typedef struct ProxyTransportS {
    UInt32 processorNum;  // of this processor
    // Makes the peer of `pMod` on a processor and stores its name in proxy.remHandle.
    eErrorT (*AllocMod)(ModT* pMod, UInt32 procNum);
    // Lets the peer go.
    eErrorT (*FreeMod)(ModT* pMod);
    // Carries a call to the peer and its reply back. `pText` holds the arguments and receives the
    // reply, at most kProxyTextSize bytes with its end. kNoError when a reply arrived.
    eErrorT (*Call)(ModT* pMod, const char* pName, char* pText);
    // Whether the module's channel uses a device; null: none does.
    Boolean (*UsesDevice)(ModT* pMod, UInt32 devID);
} ProxyTransportT;

// Registers the transport (null: none), which stays the caller's. Call at start-up, before the
// module manager and the messages are used.
void ProxySetTransport(const ProxyTransportT* pTransport);

// The number of this processor.
UInt32 ProxyProcessorNum();

// Makes the peer of a module on another processor. kNoError; kBadParameter when there is no such
// processor; the transport's error.
eErrorT ProxyAllocMod(ModT* pMod, UInt32 procNum);

// Lets a module's peer go and forgets it. For a module that lives on this processor that is
// ModFreeLocal. kNoError; kBadParameter when nothing is known of the peer; the transport's error.
eErrorT ProxyFreeMod(ModT* pMod);

// Calls the function `pName` of the module's peer with the formatted text and returns the integer
// that the peer answered, as an error code. kIPCError when the answer is no integer, or the text is
// too long; kNotImplemented when no transport is there; the transport's error when no answer came.
eErrorT ProxyCall(ModT* pMod, const char* pName, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Serves a call that arrived for a module on this processor: finds the function in its type's hash
// and runs it on `pText`, which receives the reply. Returns the reply's length plus one; an unknown
// function answers kItemNotFound. For transports.
int ProxyServe(ModT* pMod, const char* pName, char* pText);

// Writes a result as the reply text and returns its length plus one: the end of a server function.
int ProxyReply(char* pMsg, int result);

// Whether the module's channel uses a device.
Boolean ProxyUsesDevice(ModT* pMod, UInt32 devID);
