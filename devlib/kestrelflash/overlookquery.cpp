// Finds out the camera's versions.
#include "devlib/kestrelflash/overlookquery.h"

#include <stdio.h>
#include <string.h>

#include "Common/OS/types.h"
#include "devlib/kestrelflash/delay.h"
#include "devlib/kestrelflash/hextext.h"
#include "devlib/kestrelflash/imagefile.h"
#include "devlib/kestrelflash/linksend.h"
#include "devlib/serialapi/serialapi.h"

namespace {

constexpr const char* kCameraVersionFile = "overlookcamver";
constexpr const char* kSystemVersionFile = "overlooksysver";

constexpr unsigned char kDeviceTypeRequest[] = {0x82, 0x06, 0x77};
constexpr int kRawTimeout = 10000;    // microseconds
constexpr int kReplyPause = 3000000;  // microseconds, before the reply is looked for
constexpr int kDropPause = 500000;    // microseconds, after a byte that is none of the reply

// The device-type reply.
constexpr unsigned char kReplyStart = 0xA0;
constexpr int kReplyBytes = 13;
constexpr int kSystemVersionAt = 5;
constexpr int kCameraVersionAt = 9;
constexpr int kVersionDigits = 4;

eErrorT ReadVersionFile(const char* name, int* version) {
    FILE* file = fopen(name, "r");
    if (file == nullptr) {
        printf("\nCould not open file: %s, Exit programming...\n", name);
        return kFileOpenError;
    }
    SInt8 text[8] = {};
    const std::size_t count = fread(text, 1, sizeof text, file);
    (void)count;  // whatever is missing reads as the text's end
    CloseImage(&file);
    *version = axxtoi(text);
    return kNoError;
}

// The camera's versions are 16 bits wide, and signed: one from 0x8000 on never equals a file's.
int ReportedVersion(const unsigned char* digits) {
    SInt8 text[kVersionDigits + 1] = {};
    memcpy(text, digits, kVersionDigits);
    return static_cast<SInt16>(axxtoi(text));
}

// Drops what is not the reply's first byte, however much that is. Returns false when nothing comes.
bool HuntReplyStart(unsigned char* reply) {
    for (;;) {
        memset(reply, 0, kOverlookReplySize);
        if (ReadOverlookReply(reply, 1) == 0) {
            return false;
        }
        if (reply[0] == kReplyStart) {
            return true;
        }
        printf("#### Got [%x] ...drop this byte ...until we get the ACK byte ...\n", reply[0]);
        Delay(kDropPause);
    }
}

}  // namespace

eErrorT SendOverlookRequest(const unsigned char* request, int size) {
    char message[8];
    memcpy(message, request, static_cast<std::size_t>(size));
    const int sent = Serial_Write(kOverlookPort, message, size, kRawTimeout);
    if (sent == size) {
        return kNoError;
    }
    printf(
        "ERROR: flash_overlook() -- driver cannot send all the entire message of [%d] bytes -- It "
        "sent [%d] bytes ...\n",
        size, sent);
    return kFuncReturnedError;
}

int ReadOverlookReply(unsigned char* reply, int size) {
    return Serial_Read(kOverlookPort, reinterpret_cast<char*>(reply), size, kRawTimeout);
}

void PrintOverlookReply(const unsigned char* reply, int count) {
    for (int i = 0; i < count; i++) {
        printf("~~~~~~ readBuff[%d] = 0x%x ...\n", i, reply[i]);
    }
}

void PrintOverlookReplyFailure() {
    puts("######### Failed reading device type response back from Overlook camera ...");
}

eErrorT ReadNewOverlookVersions(OverlookVersionsT* versions) {
    const eErrorT rc = ReadVersionFile(kCameraVersionFile, &versions->camera);
    return rc != kNoError ? rc : ReadVersionFile(kSystemVersionFile, &versions->system);
}

eErrorT AskOverlookVersions(OverlookVersionsT* versions) {
    const eErrorT rc = SendOverlookRequest(kDeviceTypeRequest, sizeof kDeviceTypeRequest);
    if (rc != kNoError) {
        return rc;
    }
    Delay(kReplyPause);
    puts("############# Trying to read the camera response HERE HERE HERE ....");
    unsigned char reply[kOverlookReplySize];
    if (!HuntReplyStart(reply)) {
        PrintOverlookReplyFailure();
        return kBadState;
    }
    printf(
        "#### First Byte of Response, readBuff[0]=0x%.2x ... Read the rest of the camera response "
        "...\n",
        reply[0]);
    const int count = ReadOverlookReply(reply + 1, kReplyBytes - 1);
    if (count != kReplyBytes - 1) {
        PrintOverlookReplyFailure();
        return kFuncReturnedError;
    }
    printf(
        "####### GOT THE CORRECT DEVICE TYPE RESPONSE BACK FROM OVERLOOK CAMERA -- "
        "byteRead[%d]....\n",
        count);
    PrintOverlookReply(reply, kReplyBytes);
    versions->system = ReportedVersion(reply + kSystemVersionAt);
    versions->camera = ReportedVersion(reply + kCameraVersionAt);
    return kNoError;
}
