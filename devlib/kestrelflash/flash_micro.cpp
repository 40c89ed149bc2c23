// Drives the microcontroller: asks its version and updates it, or has it reboot the camera.
#include <stdio.h>
#include <string.h>

#include "devlib/kestrelflash/delay.h"
#include "devlib/kestrelflash/kestrelflash.h"
#include "devlib/kestrelflash/linksend.h"
#include "devlib/kestrelflash/microupdate.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/kestrelflash/targetport.h"
#include "devlib/kestrelflash/updateflags.h"
#include "devlib/serialapi/serialapi.h"

namespace {

constexpr const char* kDriver = "flash_micro";
constexpr int kReadTimeout = 50000;  // microseconds
constexpr int kDropPause = 500000;   // microseconds, after a byte that is none of the reply
constexpr int kRebootPause = 1000000;
constexpr int kUpdatedPause = 3000000;

// The version reply: the delimiter, the reply code, and a body of which one byte counts.
constexpr int kReplySize = 15;
constexpr int kReplyBodyAt = 2;
constexpr int kReplyVersionAt = 4;

struct VersionReplyT {
    unsigned char bytes[kReplySize];
    int bodyCount;  // what the read of the body returned
};

int ReadReply(VersionReplyT* reply, int at, int size) {
    return Serial_Read(kKestrelPort, reinterpret_cast<char*>(reply->bytes) + at, size,
                       kReadTimeout);
}

// Hunts for the reply, however many bytes have to be dropped. Returns false when nothing comes.
bool ReadVersionReply(VersionReplyT* reply) {
    for (;;) {
        memset(reply, 0, sizeof *reply);
        if (ReadReply(reply, 0, 1) == 0) {
            puts(
                "######### Failed reading while searching for DELIMITER character in response "
                "message from Kestrel Micro Controller ...");
            return false;
        }
        if (reply->bytes[0] != kLinkStart) {
            printf("##### Drop first byte:%x ...\n", reply->bytes[0]);
            Delay(kDropPause);
            continue;
        }
        if (ReadReply(reply, 1, 1) == 0) {
            puts(
                "######### Failed reading while searching for message 0x14 in response message "
                "from Kestrel Micro Controller ...");
            return false;
        }
        if (reply->bytes[1] == kLinkVersionReplyCode) {
            break;
        }
        printf(
            "##### Drop 2nd byte:%x ...and start all over again for searching the new delimiter "
            "character...\n",
            reply->bytes[1]);
        Delay(kDropPause);
    }
    reply->bodyCount = ReadReply(reply, kReplyBodyAt, kReplySize - kReplyBodyAt);
    if (reply->bodyCount == 0) {
        puts(
            "######### Failed reading the rest of version response from Kestrel Micro Controller "
            "...");
        return false;
    }
    return true;
}

// The count is that of the body, the bytes are those from the delimiter on.
void PrintVersionReply(const VersionReplyT& reply) {
    puts("Kestrel Microcontroller Version Inquiry Response");
    for (int i = 0; i < reply.bodyCount; i++) {
        printf("0x%.2x ", reply.bytes[i]);
    }
    puts("");
}

int RebootCamera() {
    const eErrorT rc = sendHarborKestrelGPmsg(HARBOR_KESTREL_GP_MSG_SUBTYPE_REBOOT_OVERLOOK);
    if (rc != kNoError) {
        printf("#### Failed Request Kestrel to reboot Overlook camera: err:%d ...\n", rc);
        return -1;
    }
    Delay(kRebootPause);
    printf("Successfully rebooting Overlook camera: err:%d ...\n", 0);
    return 0;
}

// Sets *updated when the whole image went out.
int CheckAndUpdate(bool* updated) {
    const eErrorT rc = RequestKestrelSystemStatus(KESTREL_SYSTEM_STATUS_TYPE_SYSTEM_VERSION);
    if (rc != kNoError) {
        printf("#### Failed query Kestrel Micro Controller version: err:%d ...\n", rc);
        return -1;
    }
    VersionReplyT reply;
    if (!ReadVersionReply(&reply)) {
        return -1;
    }
    PrintVersionReply(reply);
    unsigned char version = reply.bytes[kReplyVersionAt];
    if (reply.bytes[1] == kLinkNack) {  // never so after the hunt, which ends at the reply code
        puts(
            "########### Micro Controller responded with a NACK instead of its version ...Attempt "
            "to reflash ...");
        version = 0xFF;
    }
    gbUpdateRequired = KestrelMicroUpdateNeeded(version);
    if (!gbUpdateRequired) {
        updateProgress(gProgressCtrl.nMicroFileSize);
        return 0;
    }
    if (gbQueryOnly) {
        return 0;
    }
    puts("ATTEMPTING TO SEND THE FIRST DATA BLOCK OF MICRO CONTROLLER ...");
    const eErrorT programmed = KestrelSerialProgMicro(CONTROLLER_FLASH_TYPE_KESTRELMICRO);
    *updated = programmed == kNoError || programmed == kEndOfFile;
    return *updated ? 0 : -1;
}

}  // namespace

int flash_micro(int, char**) {
    if (!OpenTargetPort(kDriver, kKestrelPort)) {
        return -1;
    }
    int result = -1;
    bool updated = false;
    if (EnableTargetPort(kDriver, kKestrelPort)) {
        result = gbRebootOverlook ? RebootCamera() : CheckAndUpdate(&updated);
        if (!DisableTargetPort(kKestrelPort)) {
            result = -1;
        }
    }
    if (!CloseTargetPort(kKestrelPort)) {
        result = -1;
    }
    if (updated) {
        Delay(kUpdatedPause);
    }
    return result;
}
