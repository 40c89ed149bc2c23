// Binds link messages to the serial ports. Several console lines name another sender than the one
// that prints them, and the lines for a frame that could not be built name one value more than they
// get: what reads the console knows them that way. The value without a source prints as 0.
#include "devlib/kestrelflash/linksend.h"

#include <stdio.h>

#include "Common/OS/assertion.h"
#include "devlib/serialapi/serialapi.h"

namespace {

// Frame buffers, sized for the largest payload of each sender.
constexpr int kStatusFrame = 2048;
constexpr int kGeneralPurposeFrame = 20;
constexpr int kMicroFrame = 2048;
constexpr int kOverlookFrame = 131072;
static_assert(LinkFrameBound(kBlockNumberSize + kMicroBlockData) <= kMicroFrame);
static_assert(LinkFrameBound(kBlockNumberSize + kOverlookBlockData) <= kOverlookFrame);

constexpr int kNoValue = 0;

// How far a message came.
struct DeliveryT {
    enum { kSent, kNotBuilt, kNotSent } outcome;
    eErrorT buildResult;
    int frameSize;
    int sentBytes;
};

DeliveryT Deliver(int port, HARBOR_KESTREL_MESAGE_TYPE type, const unsigned char* payload,
                  int payloadSize, unsigned char* frame) {
    DeliveryT delivery = {DeliveryT::kSent, kNoError, 0, 0};
    frame[0] = 0;  // nothing in the buffer for the builder to clear
    delivery.buildResult =
        buildHarborToKestrelMsg(type, payloadSize, payload, &delivery.frameSize, frame);
    if (delivery.buildResult != kNoError || delivery.frameSize == 0) {
        delivery.outcome = DeliveryT::kNotBuilt;
        return delivery;
    }
    delivery.sentBytes =
        genericWriteRs232Port(port, reinterpret_cast<char*>(frame), delivery.frameSize);
    if (delivery.sentBytes != delivery.frameSize) {
        delivery.outcome = DeliveryT::kNotSent;
    }
    return delivery;
}

int BlockNumber(const unsigned char* block) {
    return block[0] * 256 + block[1];
}

void PrintBlockNotBuilt(const DeliveryT& delivery, int blockNumber) {
    printf(
        "sendMicroFlashDataBlock [%d] request() -- failure building flash data block[%d] message "
        "...rc = 0x%x -- NewMsgSize = %d\n",
        delivery.buildResult, blockNumber, static_cast<UInt32>(delivery.frameSize), kNoValue);
}

void PrintStatusNotSent(const DeliveryT& delivery) {
    printf(
        "RequestKestrelSystemStatus() -- failure sending system status from Harbor to Kestrel "
        "...sentBytes = %d -- NewMsgSize = %d\n",
        delivery.sentBytes, delivery.frameSize);
}

}  // namespace

int genericWriteRs232Port(int portNum, char* buf, int buflen) {
    const int written = Serial_Write(portNum, buf, buflen, 0);
    if (written != buflen) {
        printf(
            "#### genericWriteRs232Port() with ERROR: Actual written [%d bytes] -- Request written "
            "[%d bytes] ...\n",
            written, buflen);
    }
    return written;
}

eErrorT RequestKestrelSystemStatus(KESTREL_SYSTEM_STATUS_TYPE statusType) {
    unsigned char frame[kStatusFrame];
    const unsigned char payload = static_cast<unsigned char>(statusType);
    const DeliveryT delivery = Deliver(
        kKestrelPort, HARBOR_KESTREL_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS, &payload, 1, frame);
    switch (delivery.outcome) {
        case DeliveryT::kNotBuilt:
            printf(
                "RequestKestrelSystemStatus [%d] request() -- failure building system status "
                "message ...rc = 0x%x -- NewMsgSize = %d\n",
                delivery.buildResult, static_cast<UInt32>(delivery.frameSize), kNoValue);
            return delivery.buildResult;
        case DeliveryT::kNotSent:
            PrintStatusNotSent(delivery);
            return kFuncReturnedError;
        default:
            return kNoError;
    }
}

eErrorT sendHarborKestrelGPmsg(HARBOR_KESTREL_GP_MSG_SUBTYPE cmd) {
    printf("sendHarborKestrelGPmsg -- cmd [%x] ...\n", static_cast<UInt32>(cmd));
    unsigned char frame[kGeneralPurposeFrame] = {};
    const unsigned char payload = static_cast<unsigned char>(cmd);
    const DeliveryT delivery =
        Deliver(kKestrelPort, HARBOR_KESTREL_MESSAGE_TYPE_GENERAL_PURPOSE, &payload, 1, frame);
    switch (delivery.outcome) {
        case DeliveryT::kNotBuilt:
            printf(
                "RequestKestrelSystemStatus [%d] request() -- failure building Harbor-Kestrel GP "
                "request message [%d] ...rc = 0x%x -- NewMsgSize = %d\n",
                cmd, delivery.buildResult, static_cast<UInt32>(delivery.frameSize), kNoValue);
            return delivery.buildResult;
        case DeliveryT::kNotSent:
            printf(
                "RequestKestrelSystemStatus() -- failure building Harbor-Kestrel GP request "
                "message [%d] ...sentBytes = %d -- NewMsgSize = %d\n",
                cmd, delivery.sentBytes, delivery.frameSize);
            return kFuncReturnedError;
        default:
            return kNoError;
    }
}

eErrorT sendMicroFlashDataBlock(const unsigned char* msgPtr, int msgSize) {
    OsAssert(msgSize >= 0 && msgSize <= kBlockNumberSize + kMicroBlockData);
    const int blockNumber = BlockNumber(msgPtr);
    printf("sending dataBlockNumber: %d -- msgSize:%d ...\n", blockNumber, msgSize);
    unsigned char frame[kMicroFrame];
    const DeliveryT delivery = Deliver(
        kKestrelPort, HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_MICRO_BLOCK, msgPtr, msgSize, frame);
    switch (delivery.outcome) {
        case DeliveryT::kNotBuilt:
            PrintBlockNotBuilt(delivery, blockNumber);
            return delivery.buildResult;
        case DeliveryT::kNotSent:
            printf(
                "sendMicroFlashDataBlock() -- failure sending flash data block[%d] from Harbor to "
                "Kestrel ...sentBytes = %d -- NewMsgSize = %d\n",
                blockNumber, delivery.sentBytes, delivery.frameSize);
            return kFuncReturnedError;
        default:
            return kNoError;
    }
}

eErrorT sendOverlookFlashDataBlock(const unsigned char* msgPtr, int msgSize,
                                   CONTROLLER_FLASH_TYPE flashType) {
    OsAssert(msgSize >= 0 && msgSize <= kBlockNumberSize + kOverlookBlockData);
    if (msgSize == 0) {
        puts("########### zero size data block ....");
        return kBadParameter;
    }
    HARBOR_KESTREL_MESAGE_TYPE type = HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_CAMERA;
    if (flashType == CONTROLLER_FLASH_TYPE_OVERLOOK_SYSTEM_FW) {
        type = HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_SYSTEM;
    } else if (flashType != CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_FW) {
        printf("Error, sendOverlookFlashDataBlock() -- Wrong flashType:%d ...\n", flashType);
        return kBadParameter;
    }
    const int blockNumber = BlockNumber(msgPtr);
    printf("sending dataBlockNumber: %d -- msgSize:%d ...\n", blockNumber, msgSize);
    unsigned char frame[kOverlookFrame];
    const DeliveryT delivery = Deliver(kOverlookPort, type, msgPtr, msgSize, frame);
    switch (delivery.outcome) {
        case DeliveryT::kNotBuilt:
            PrintBlockNotBuilt(delivery, blockNumber);
            return delivery.buildResult;
        case DeliveryT::kNotSent:
            PrintStatusNotSent(delivery);
            return kFuncReturnedError;
        default:
            return kNoError;
    }
}
