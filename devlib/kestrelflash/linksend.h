// Sends link messages: builds the frame and writes it to the port that its target is on. Each call
// blocks until the frame is written (no time-out), retries nothing, and says what failed on
// standard output. For the updater's thread only.
#pragma once

#include "Common/OS/errors.h"
#include "devlib/kestrelflash/linkmsg.h"

// The serial ports of the two targets.
constexpr int kOverlookPort = 0;
constexpr int kKestrelPort = 1;

// Image bytes of a full block, and the block's number in front of them.
constexpr int kBlockNumberSize = 2;
constexpr int kMicroBlockData = 512;
constexpr int kOverlookBlockData = 64512;

// What a flashing routine works on.
typedef enum : int {
    CONTROLLER_FLASH_TYPE_KESTRELMICRO = 0,
    CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_FW = 1,
    CONTROLLER_FLASH_TYPE_OVERLOOK_SYSTEM_FW = 2,
    CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_SYSTEM_FW = 3,
    CONTROLLER_FLASH_TYPE_UNKNOWN = 255
} CONTROLLER_FLASH_TYPE;

// Writes `buflen` bytes of `buf` as they stand. Returns the number written, 0 on failure, negative
// (an eErrorT) for a bad port; a number other than buflen is reported.
int genericWriteRs232Port(int portNum, char* buf, int buflen);

// All of these return kNoError when the whole frame went out, kFuncReturnedError when less did, and
// the builder's error when there is no frame.

// Asks the microcontroller for a status. Its reply is not read here.
eErrorT RequestKestrelSystemStatus(KESTREL_SYSTEM_STATUS_TYPE statusType);

// Sends a general-purpose message to the microcontroller.
eErrorT sendHarborKestrelGPmsg(HARBOR_KESTREL_GP_MSG_SUBTYPE cmd);

// Sends `msgSize` bytes (0 to 514) to the microcontroller as a block message: the two bytes of the
// block number, high byte first, then image bytes. msgPtr holds the two bytes even when msgSize is
// 0, which sends an empty message.
eErrorT sendMicroFlashDataBlock(const unsigned char* msgPtr, int msgSize);

// The same to the camera, with up to 64514 bytes, as a camera or a system image block by flashType
// (the two ..._FW types). Sends nothing and returns kBadParameter for another type or an empty
// block.
eErrorT sendOverlookFlashDataBlock(const unsigned char* msgPtr, int msgSize,
                                   CONTROLLER_FLASH_TYPE flashType);
