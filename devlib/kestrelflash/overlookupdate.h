// Updates the camera (Overlook), which has two images with a version each: asks the camera for its
// versions, compares them with those of the version files, puts the camera into update mode and
// sends the needed images in blocks of 64512 bytes, each answered by two bytes of which the second
// counts (ACK or NACK). For the updater's thread only; the port is open and enabled. Everything
// says what it does on standard output.
#pragma once

#include <stdio.h>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "devlib/kestrelflash/linksend.h"

// Looked up in the working directory.
constexpr const char* kOverlookCameraImageName = "overlookcam.bin";
constexpr const char* kOverlookSystemImageName = "overlooksys.bin";

typedef enum : int {
    CAMERA_FW_TYPE_CAMERA = 0,
    CAMERA_FW_TYPE_SYSTEM = 1,
    CAMERA_FW_TYPE_ALL = 2,
    CAMERA_FW_TYPE_UNKNOWN = 255
} CameraFirmwareTypeT;

// For each image: its open file (null when not sent, or finished), the number of the block being
// sent (-1 before the first), the number of blocks, and the attempts left (3: a fresh block).
typedef struct {
    FILE* overlook_cam_file;
    SInt32 currentCamBlock;
    SInt32 totalCamBlock;
    SInt32 camBlockRetries;
    FILE* overlook_sys_file;
    SInt32 currentSysBlock;
    SInt32 totalSysBlock;
    SInt32 sysBlockRetries;
} OverlookUpdateInfoT;

extern OverlookUpdateInfoT gOverlookUpdateInfo;

// Counts the blocks of the images that `imageType` names by reading them to their end; 0 for an
// image that is not named, is empty or cannot be opened. Returns kNoError, kBadParameter for
// another type, or kFuncReturnedError on a read error, which leaves the images that follow
// uncounted.
eErrorT GetOverlookCameraImageBlockNumber(CameraFirmwareTypeT imageType, int* camNumBlock,
                                          int* sysNumBlock);

// The whole check and, unless only a query is wanted, the update of the images that `flashType`
// names; a query sets gbUpdateRequired. Returns kNoError when done or nothing is to be done,
// kFileOpenError, kBadState when the camera does not answer at all, or kFuncReturnedError. Both
// images are closed on every way out.
eErrorT KestrelSerialProgOverlook(CONTROLLER_FLASH_TYPE flashType);

// Sends the open images of `updateInfo`, camera image first. Returns kNoError when both are
// through, or kFuncReturnedError for a block that could not be read or sent, was not acknowledged,
// or got no answer within four seconds.
eErrorT TransferOverlookImages(OverlookUpdateInfoT* updateInfo);

// Advances the transfer by one answer: ACK to the next block (from the last camera block to the
// first system block), NACK to the next attempt, any other byte leaves it as it is. Always returns
// kNoError.
eErrorT SetupNextOverlookDataBlock(OverlookUpdateInfoT* updateInfo, unsigned char AckNack);

// Sends what the transfer's state calls for, and closes an image that is through. A retry is an
// empty block, which this link does not carry: the first NACK ends the transfer. Returns kNoError
// or kFuncReturnedError, with the image at hand closed.
eErrorT SendNextOverlookDataBlock(OverlookUpdateInfoT* updateInfo);
