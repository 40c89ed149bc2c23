// Sends the camera's two images, block by block.
#include <string.h>

#include <initializer_list>

#include "devlib/kestrelflash/imagefile.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/serialapi/serialapi.h"

namespace {

constexpr int kFreshBlock = 3;          // retries of a block not sent yet
constexpr int kReplyTimeout = 4000000;  // microseconds; the camera erases before it answers
constexpr std::size_t kMeasureChunk = 524288;

unsigned char gOverlookBlock[kBlockNumberSize + kOverlookBlockData];
unsigned char gMeasureBuffer[kMeasureChunk];

// What tells the two images apart.
struct ImageT {
    const char* fileName;
    CONTROLLER_FLASH_TYPE flashType;
    const char* kind;
    const char* titleKind;
    const char* upperKind;
};

constexpr ImageT kCamera = {kOverlookCameraImageName, CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_FW,
                            "camera", "Camera", "CAMERA"};
constexpr ImageT kSystem = {kOverlookSystemImageName, CONTROLLER_FLASH_TYPE_OVERLOOK_SYSTEM_FW,
                            "system", "System", "SYSTEM"};

// One image's share of the transfer's state.
struct TrackT {
    const ImageT& image;
    FILE*& file;
    SInt32& currentBlock;
    SInt32 totalBlock;
    SInt32& retries;
};

TrackT CameraTrack(OverlookUpdateInfoT* info) {
    return {kCamera, info->overlook_cam_file, info->currentCamBlock, info->totalCamBlock,
            info->camBlockRetries};
}

TrackT SystemTrack(OverlookUpdateInfoT* info) {
    return {kSystem, info->overlook_sys_file, info->currentSysBlock, info->totalSysBlock,
            info->sysBlockRetries};
}

// Advances an image by one answer. Returns true when the answer is an ACK that this image has no
// further block for.
bool Advance(const TrackT& track, unsigned char AckNack) {
    if (AckNack == kLinkAck) {
        track.retries = kFreshBlock;
        track.currentBlock++;
        printf("Still working on %s file [%s] block [%d] ...\n", track.image.kind,
               track.image.fileName, track.currentBlock);
        return track.currentBlock >= track.totalBlock;
    }
    if (AckNack == kLinkNack) {
        track.retries--;
    } else {
        printf("UNKNOWN RESPONSE FROM OVERLOOK DURING %s IMAGE FLASHING: AckNack:0x%.2x ...\n",
               track.image.upperKind, AckNack);
    }
    return false;
}

bool HasBlockToSend(const TrackT& track) {
    return track.file != nullptr && track.currentBlock < track.totalBlock && track.retries != 0;
}

// Sends the current block, or tries to send the empty one that stands for a retry.
eErrorT SendBlock(const TrackT& track) {
    int bytesRead = 0;
    int messageSize = 0;
    if (track.retries == kFreshBlock) {
        bytesRead = ReadImageBlock(track.file, track.image.fileName, track.currentBlock,
                                   gOverlookBlock, kOverlookBlockData);
        if (bytesRead < 0) {
            printf(
                "\nReading %d bytes from file: %s failed, err: %d, ABORT Overlook %s image "
                "programming....\n",
                kOverlookBlockData, track.image.fileName, bytesRead, track.image.kind);
            CloseImage(&track.file);
            return kFuncReturnedError;
        }
        messageSize = kBlockNumberSize + bytesRead;
    }
    printf("Flashing Overlook %s Image block[%d] Iteration[%d] ...\n", track.image.titleKind,
           track.currentBlock, kFreshBlock + 1 - track.retries);
    if (sendOverlookFlashDataBlock(gOverlookBlock, messageSize, track.image.flashType) !=
        kNoError) {
        CloseImage(&track.file);
        return kFuncReturnedError;
    }
    updateProgress(bytesRead);
    return kNoError;
}

void CloseTrack(const TrackT& track) {
    if (track.file != nullptr && CloseImage(&track.file)) {
        track.currentBlock = 0;
    }
}

void CloseWhenThrough(const TrackT& track) {
    if (track.currentBlock == track.totalBlock && track.currentBlock >= 1) {
        CloseTrack(track);
    }
}

// Reads the answer to a block; returns false, with both images closed, without a whole one.
bool ReadBlockReply(OverlookUpdateInfoT* info, unsigned char* reply) {
    memset(reply, 0, 2);
    const int count = Serial_Read(kOverlookPort, reinterpret_cast<char*>(reply), 2, kReplyTimeout);
    if (count != 2) {
        CloseTrack(CameraTrack(info));
        CloseTrack(SystemTrack(info));
    }
    printf("####### GOT A [%s] OVERLOOK -- byteRead[%d]....\n",
           reply[1] == kLinkAck ? "ACK" : "NACK", count);
    for (int i = 0; i < count; i++) {
        printf("~~~~~~ ackNackBuff[%d] = 0x%x ...\n", i, reply[i]);
    }
    return count == 2;
}

// Stores the number of blocks of one image; an image that cannot be opened has none.
eErrorT CountBlocks(const char* name, int* blocks) {
    FILE* image = fopen(name, "r");
    if (image == nullptr) {
        return kNoError;
    }
    UInt64 size = 0;
    std::size_t count;
    do {
        count = fread(gMeasureBuffer, 1, kMeasureChunk, image);
        size += count;
    } while (count == kMeasureChunk);
    const bool failed = ferror(image) != 0;
    CloseImage(&image);
    if (failed) {
        printf("ERROR reading: %s ...\n", name);
        return kFuncReturnedError;
    }
    printf("[%s] image size: %d ...\n", name, static_cast<SInt32>(size));
    *blocks = static_cast<int>((size + kOverlookBlockData - 1) / kOverlookBlockData);
    return kNoError;
}

}  // namespace

OverlookUpdateInfoT gOverlookUpdateInfo;

eErrorT GetOverlookCameraImageBlockNumber(CameraFirmwareTypeT imageType, int* camNumBlock,
                                          int* sysNumBlock) {
    puts("GetOverlookCameraImageBlockNumber()...");
    *camNumBlock = 0;
    *sysNumBlock = 0;
    const bool camera = imageType == CAMERA_FW_TYPE_CAMERA || imageType == CAMERA_FW_TYPE_ALL;
    const bool system = imageType == CAMERA_FW_TYPE_SYSTEM || imageType == CAMERA_FW_TYPE_ALL;
    if (!camera && !system) {
        printf("Invalid Overlook Camera Image[%d] ...\n", imageType);
        return kBadParameter;
    }
    eErrorT rc = camera ? CountBlocks(kOverlookCameraImageName, camNumBlock) : kNoError;
    if (rc == kNoError && system) {
        rc = CountBlocks(kOverlookSystemImageName, sysNumBlock);
    }
    return rc;
}

eErrorT TransferOverlookImages(OverlookUpdateInfoT* updateInfo) {
    unsigned char reply[2] = {0, kLinkAck};  // the first block goes out as if one were acknowledged
    for (;;) {
        SetupNextOverlookDataBlock(updateInfo, reply[1]);
        const eErrorT rc = SendNextOverlookDataBlock(updateInfo);
        if (rc != kNoError) {
            printf(
                "#### Failed sending the overlook data block -- camCurrBlock:%d sysCurrBlock:%d "
                "...\n",
                updateInfo->currentCamBlock, updateInfo->currentSysBlock);
            return rc;
        }
        if (updateInfo->overlook_cam_file == nullptr && updateInfo->overlook_sys_file == nullptr) {
            return kNoError;
        }
        if (!ReadBlockReply(updateInfo, reply)) {
            return kFuncReturnedError;
        }
    }
}

eErrorT SetupNextOverlookDataBlock(OverlookUpdateInfoT* updateInfo, unsigned char AckNack) {
    // The ACK of the last camera block starts the system image.
    if (updateInfo->overlook_cam_file != nullptr && !Advance(CameraTrack(updateInfo), AckNack)) {
        return kNoError;
    }
    if (updateInfo->overlook_sys_file != nullptr) {
        Advance(SystemTrack(updateInfo), AckNack);
    }
    return kNoError;
}

eErrorT SendNextOverlookDataBlock(OverlookUpdateInfoT* updateInfo) {
    for (const TrackT& track : {CameraTrack(updateInfo), SystemTrack(updateInfo)}) {
        if (HasBlockToSend(track)) {
            return SendBlock(track);
        }
        CloseWhenThrough(track);
    }
    return kNoError;
}
