// The calling convention between processors: a name and a text out, an integer in text back.
#include "Common/framework/proxy.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/system.h"
#include "Common/framework/modman.h"
#include "Common/framework/sharedfield.h"

namespace {

std::atomic<const ProxyTransportT*> gTransport{nullptr};

// The integer that a reply holds; false when it holds anything else.
bool ParseReply(const char* pText, int* result) {
    int end = 0;
    return sscanf(pText, "%11d%n", result, &end) == 1 && pText[end] == '\0';
}

}  // namespace

void ProxySetTransport(const ProxyTransportT* pTransport) {
    gTransport = pTransport;
}

UInt32 ProxyProcessorNum() {
    const ProxyTransportT* transport = gTransport;
    return transport != nullptr ? FieldRead(transport->processorNum) : GetProcessorNum();
}

eErrorT ProxyAllocMod(ModT* pMod, UInt32 procNum) {
    OsAssert(pMod);
    const ProxyTransportT* transport = gTransport;
    if (transport == nullptr || procNum >= GetNumProcessors()) {
        return kBadParameter;
    }
    return transport->AllocMod(pMod, procNum);
}

eErrorT ProxyFreeMod(ModT* pMod) {
    OsAssert(pMod);
    if (pMod->proxy.remHandle == nullptr) {
        return kBadParameter;
    }
    eErrorT err;
    if (pMod->proxy.remHandle == pMod) {
        err = ModFreeLocal(pMod);
    } else {
        const ProxyTransportT* transport = gTransport;
        err = transport != nullptr ? transport->FreeMod(pMod) : kBadParameter;
    }
    pMod->proxy.remHandle = nullptr;
    return err;
}

eErrorT ProxyCall(ModT* pMod, const char* pName, const char* format, ...) {
    OsAssert(pMod);
    OsAssert(pName);
    OsAssert(format);
    const ProxyTransportT* transport = gTransport;
    if (transport == nullptr) {
        return kNotImplemented;
    }
    char text[kProxyTextSize];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (length < 0 || length >= kProxyTextSize) {
        return kIPCError;
    }
    const eErrorT err = transport->Call(pMod, pName, text);
    if (err != kNoError) {
        return err;
    }
    text[kProxyTextSize - 1] = '\0';
    int result;
    return ParseReply(text, &result) ? static_cast<eErrorT>(result) : kIPCError;
}

int ProxyReply(char* pMsg, int result) {
    return snprintf(pMsg, kProxyTextSize, "%d", result) + 1;
}

int ProxyServe(ModT* pMod, const char* pName, char* pText) {
    OsAssert(pMod);
    OsAssert(pName);
    OsAssert(pText);
    const ModDBEntryT* entry = FieldRead(pMod->proxy.pModDBEntry);
    const HashValueT found = entry != nullptr ? HashFind(&entry->proxyFuncHash, pName) : nullptr;
    if (found == nullptr) {
        return ProxyReply(pText, kItemNotFound);
    }
    return reinterpret_cast<ProxyServerFuncT>(found)(pMod, pText);
}

Boolean ProxyUsesDevice(ModT* pMod, UInt32 devID) {
    OsAssert(pMod);
    const ProxyTransportT* transport = gTransport;
    if (transport == nullptr || transport->UsesDevice == nullptr) {
        return 0;
    }
    return transport->UsesDevice(pMod, devID);
}
