// The camera's check and update as a whole.
#include "devlib/kestrelflash/overlookupdate.h"

#include "devlib/kestrelflash/delay.h"
#include "devlib/kestrelflash/imagefile.h"
#include "devlib/kestrelflash/overlookquery.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/kestrelflash/updateflags.h"

namespace {

constexpr int kFreshBlock = 3;            // retries of a block not sent yet
constexpr int kFlashModePause = 3000000;  // microseconds, before the reply is looked for
constexpr int kComeUpPause = 3000000;     // microseconds, while the camera restarts
constexpr int kFlashModeReplySize = 4;

// A property of each of the two images.
struct PerImageT {
    bool camera;
    bool system;
};

struct BlockCountsT {
    int camera;
    int system;
};

// The images that each kind of run works on.
const struct {
    CONTROLLER_FLASH_TYPE flashType;
    PerImageT images;
} kTargets[] = {
    {CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_SYSTEM_FW, {true, true}},
    {CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_FW, {true, false}},
    {CONTROLLER_FLASH_TYPE_OVERLOOK_SYSTEM_FW, {false, true}},
};

// Compares versions: any difference calls for an update, older or newer.
PerImageT CompareVersions(const OverlookVersionsT& current, const OverlookVersionsT& newer) {
    const PerImageT needed = {newer.camera != current.camera, newer.system != current.system};
    if (needed.camera) {
        printf(
            "Current Overlook Camera FW Version[%x] -- Newer Overlook Camera FW Version[%x] ... "
            "Upgrading Overlook Camera FW ...\n",
            static_cast<UInt32>(current.camera), static_cast<UInt32>(newer.camera));
    } else {
        puts("Overlook Camera Firmware is Already up to date ...");
        updateProgress(gProgressCtrl.nCamFileSize);
    }
    if (needed.system) {
        printf(
            "Current Overlook System FW Version[%x] -- Newer Overlook System FW Version[%x] ... "
            "Upgrading Overlook System FW ...\n",
            static_cast<UInt32>(current.system), static_cast<UInt32>(newer.system));
    } else {
        puts("Overlook System Firmware is Already up to date ...");
        updateProgress(gProgressCtrl.nSysFileSize);
    }
    return needed;
}

// The images of this run that are to be sent.
PerImageT Wanted(CONTROLLER_FLASH_TYPE flashType, const PerImageT& needed) {
    for (const auto& target : kTargets) {
        if (target.flashType == flashType) {
            return {target.images.camera && needed.camera, target.images.system && needed.system};
        }
    }
    return {false, false};
}

bool OpenImage(const char* name, FILE** image) {
    *image = fopen(name, "r");
    if (*image == nullptr) {
        printf("\nCould not open file: %s, Exit programming...\n", name);
    }
    return *image != nullptr;
}

// The state of a transfer before its first block.
void StartTransfer(const BlockCountsT& blocks, OverlookUpdateInfoT* info) {
    info->currentCamBlock = -1;
    info->totalCamBlock = blocks.camera;
    info->camBlockRetries = kFreshBlock;
    info->currentSysBlock = -1;
    info->totalSysBlock = blocks.system;
    info->sysBlockRetries = kFreshBlock;
}

unsigned char FlashMode(const PerImageT& needed) {
    if (needed.camera && needed.system) {
        return 5;
    }
    return needed.camera ? 3 : 1;
}

// Puts the camera into update mode and announces the blocks to come, their low 16 bits; skipped
// when there are none.
eErrorT EnterFlashMode(const PerImageT& needed, const BlockCountsT& blocks) {
    const UInt32 camera = needed.camera ? static_cast<UInt32>(blocks.camera) & 0xFFFF : 0;
    const UInt32 system = needed.system ? static_cast<UInt32>(blocks.system) & 0xFFFF : 0;
    if (camera == 0 && system == 0) {
        return kNoError;
    }
    const unsigned char request[] = {0x87,
                                     0x43,
                                     0x72,
                                     FlashMode(needed),
                                     static_cast<unsigned char>(camera >> 8),
                                     static_cast<unsigned char>(camera),
                                     static_cast<unsigned char>(system >> 8),
                                     static_cast<unsigned char>(system)};
    const eErrorT rc = SendOverlookRequest(request, sizeof request);
    if (rc != kNoError) {
        return rc;
    }
    puts("############# Trying to read the camera response for flashmode ....");
    Delay(kFlashModePause);
    unsigned char reply[kOverlookReplySize] = {};
    if (ReadOverlookReply(reply, kFlashModeReplySize) != kFlashModeReplySize) {
        PrintOverlookReplyFailure();
        return kFuncReturnedError;
    }
    PrintOverlookReply(reply, kFlashModeReplySize);
    return kNoError;
}

// The check and, where called for, the update. Stores which images need one as soon as that is
// known. What it opens in gOverlookUpdateInfo the caller closes.
eErrorT CheckAndUpdate(CONTROLLER_FLASH_TYPE flashType, PerImageT* needed) {
    BlockCountsT blocks = {0, 0};
    GetOverlookCameraImageBlockNumber(CAMERA_FW_TYPE_ALL, &blocks.camera, &blocks.system);
    OverlookVersionsT newer;
    OverlookVersionsT current;
    eErrorT rc = ReadNewOverlookVersions(&newer);
    if (rc == kNoError) {
        rc = AskOverlookVersions(&current);
    }
    if (rc != kNoError) {
        return rc;
    }
    *needed = CompareVersions(current, newer);
    const PerImageT wanted = Wanted(flashType, *needed);
    if (gbQueryOnly && (wanted.camera || wanted.system)) {
        gbUpdateRequired = 1;
        return kNoError;
    }
    OverlookUpdateInfoT* const info = &gOverlookUpdateInfo;
    if ((wanted.camera && !OpenImage(kOverlookCameraImageName, &info->overlook_cam_file)) ||
        (wanted.system && !OpenImage(kOverlookSystemImageName, &info->overlook_sys_file))) {
        return kFileOpenError;
    }
    if (!needed->camera && !needed->system) {
        return kNoError;
    }
    rc = EnterFlashMode(*needed, blocks);
    if (rc != kNoError) {
        return rc;
    }
    printf("Overlook FW update with, camNumBlocks:%d -- sysNUmBlocks:%d ...\n", blocks.camera,
           blocks.system);
    StartTransfer(blocks, info);
    return TransferOverlookImages(info);
}

}  // namespace

eErrorT KestrelSerialProgOverlook(CONTROLLER_FLASH_TYPE flashType) {
    PerImageT needed = {false, false};
    const eErrorT rc = CheckAndUpdate(flashType, &needed);
    CloseImage(&gOverlookUpdateInfo.overlook_cam_file);
    CloseImage(&gOverlookUpdateInfo.overlook_sys_file);
    if (!gbQueryOnly && (needed.camera || needed.system)) {
        Delay(kComeUpPause);
        puts("####### Overlook come up after update ....");
    }
    return rc;
}
