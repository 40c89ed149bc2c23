// Builds link frames.
#include "devlib/kestrelflash/linkmsg.h"

#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"

namespace {

// Stores one byte of a frame at the index, stuffed.
void PutByte(unsigned char* frame, int* index, UInt32 byte) {
    frame[*index] = static_cast<unsigned char>(byte);
    encryptOneByte(frame, index);
}

}  // namespace

Boolean validateHarborKestrelMessageType(unsigned char msgType) {
    switch (msgType) {
        case HARBOR_KESTREL_MESSAGE_TYPE_A:
        case HARBOR_KESTREL_MESSAGE_TYPE_B:
        case HARBOR_KESTREL_MESSAGE_TYPE_SET_BACKLIGHT_BRIGHTNESS:
        case HARBOR_KESTREL_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS:
        case HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_MICRO_BLOCK:
        case HARBOR_KESTREL_MESSAGE_TYPE_GENERAL_PURPOSE:
        case HARBOR_KESTREL_MESSAGE_TYPE_E:
        case HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_CAMERA:
        case HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_SYSTEM:
            return 1;
        default:
            return 0;
    }
}

void encryptOneByte(unsigned char* startOfMessage, int* index) {
    unsigned char* const byte = startOfMessage + *index;
    if (*byte < kLinkEscape) {
        *index += 1;
        return;
    }
    byte[1] = *byte == kLinkStart ? 1 : 0;
    byte[0] = kLinkEscape;
    *index += 2;
}

eErrorT buildHarborToKestrelMsg(HARBOR_KESTREL_MESAGE_TYPE msgType, int orgMsgSize,
                                const unsigned char* orgMsgPtr, int* ptrNewMsgSize,
                                unsigned char* ptrNewMsg) {
    const unsigned char type = static_cast<unsigned char>(msgType);
    *ptrNewMsgSize = 0;
    if (!validateHarborKestrelMessageType(type)) {
        puts("packetizeHarborToKestrelMsg() -- Invalid message.");
        return kBadParameter;
    }
    OsAssert(orgMsgSize >= 0);
    const auto room = static_cast<size_t>(LinkFrameBound(orgMsgSize));
    memset(ptrNewMsg, 0, strnlen(reinterpret_cast<const char*>(ptrNewMsg), room));

    const UInt32 length = static_cast<UInt32>(orgMsgSize) + 3;
    ptrNewMsg[0] = kLinkStart;
    int index = 1;
    PutByte(ptrNewMsg, &index, type);
    PutByte(ptrNewMsg, &index, length >> 8);
    PutByte(ptrNewMsg, &index, length);

    UInt32 sum = 0;
    for (int i = 0; i < orgMsgSize; i++) {
        sum += orgMsgPtr[i];
        PutByte(ptrNewMsg, &index, orgMsgPtr[i]);
    }
    const UInt32 checksum = 0x1000000 - sum;
    PutByte(ptrNewMsg, &index, checksum >> 16);
    PutByte(ptrNewMsg, &index, checksum >> 8);
    PutByte(ptrNewMsg, &index, checksum);
    *ptrNewMsgSize = index;
    return kNoError;
}
