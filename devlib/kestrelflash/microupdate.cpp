// The microcontroller's update, block by block.
#include "devlib/kestrelflash/microupdate.h"

#include <string.h>

#include "devlib/kestrelflash/imagefile.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/serialapi/serialapi.h"

KestrelMicroUpdateInfoT gMicroUpdateInfo;

namespace {

constexpr int kTotalBlocks = 12;
constexpr int kFreshBlock = 3;        // BlockRetries of a block not sent yet
constexpr int kReplyTimeout = 50000;  // microseconds

unsigned char gMicroBlock[kBlockNumberSize + kMicroBlockData];

// Sends the current block, or the empty message that stands for a retry.
eErrorT SendCurrentBlock(KestrelMicroUpdateInfoT* info) {
    int bytesRead = 0;
    int messageSize = 0;
    if (info->BlockRetries == kFreshBlock) {
        bytesRead = ReadImageBlock(info->micro_file, kMicroImageName, info->currentBlock,
                                   gMicroBlock, kMicroBlockData);
        if (bytesRead < 0) {
            printf(
                "\nReading %d bytes from Micro program file: %s failed, err: %d, ABORT Micro "
                "programming....\n",
                kMicroBlockData, kMicroImageName, bytesRead);
            CloseImage(&info->micro_file);
            return kFuncReturnedError;
        }
        messageSize = kBlockNumberSize + bytesRead;
    }
    printf("Flashing Kestrel Micro Controller Image block[%d] Iteration[%d] ...\n",
           info->currentBlock, kFreshBlock + 1 - info->BlockRetries);
    if (sendMicroFlashDataBlock(gMicroBlock, messageSize) != kNoError) {
        CloseImage(&info->micro_file);
        return kFuncReturnedError;
    }
    updateProgress(bytesRead);
    return kNoError;
}

// Reads the answer to a block; without a whole one the transfer is over.
void ReadBlockReply(KestrelMicroUpdateInfoT* info, unsigned char* reply) {
    memset(reply, 0, 2);
    const int count = Serial_Read(kKestrelPort, reinterpret_cast<char*>(reply), 2, kReplyTimeout);
    if (count != 2 && CloseImage(&info->micro_file)) {
        info->currentBlock = 0;
    }
    printf("####### GOT A [%s] FROM KESTREL MICRO CONTROLLER -- byteRead[%d]....\n",
           reply[1] == kLinkAck ? "ACK" : "NACK", count);
}

}  // namespace

Boolean KestrelMicroUpdateNeeded(unsigned char curMicroVer) {
    FILE* image = fopen(kMicroImageName, "r");
    if (image == nullptr) {
        printf(
            "\nCould not open Kestrel Microcontroller BIN file: %s, Exit "
            "KestrelMicroUpdateNeeded()...\n",
            kMicroImageName);
        return 0;
    }
    unsigned char version = 0;
    const int count = static_cast<int>(fread(&version, 1, 1, image));
    CloseImage(&image);
    if (count < 1 || version == 0) {
        printf(
            "\nFailed reading the version of Kestrel Microcontroller BIN file: %s, numRead = %d, "
            "data_ver = 0x%x -- Exit KestrelMicroUpdateNeeded()...\n",
            kMicroImageName, count, version);
        return 0;
    }
    const bool needed = version != curMicroVer;
    printf("updatedMicroVersion: 0x%.2x -- currentMicroVersion: 0x%.2x ...\n", version,
           curMicroVer);
    printf("Kestrel Microcontroller fw update is [%s]\n", needed ? "needed" : "not needed");
    return needed ? 1 : 0;
}

eErrorT KestrelSerialProgMicro(CONTROLLER_FLASH_TYPE) {
    FILE* image = fopen(kMicroImageName, "r");
    if (image == nullptr) {
        printf("\nCould not open Kestrel Microcontroller BIN file: %s, Exit programming...\n",
               kMicroImageName);
        return kFileOpenError;
    }
    gMicroUpdateInfo = {image, -1, kTotalBlocks, kFreshBlock};
    unsigned char reply[2] = {0, kLinkAck};  // the first block goes out as if one were acknowledged
    eErrorT rc = kNoError;
    do {
        SetupNextMicroDataBlock(&gMicroUpdateInfo, reply[1]);
        rc = SendNextMicroDataBlock(&gMicroUpdateInfo);
        if (rc == kEndOfFile) {
            break;
        }
        if (rc != kNoError) {
            printf("#### Failed sending the kestrel micro controller data block: %d ...\n",
                   gMicroUpdateInfo.currentBlock);
            break;
        }
        ReadBlockReply(&gMicroUpdateInfo, reply);
    } while (gMicroUpdateInfo.micro_file != nullptr);
    // On failure too: what reads the console counts on this line at the end.
    puts("####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER ....");
    return rc;
}

eErrorT SetupNextMicroDataBlock(KestrelMicroUpdateInfoT* updateInfo, unsigned char AckNack) {
    if (updateInfo->micro_file == nullptr) {
        return kNoError;
    }
    printf("Still working on micro file [%s] ...\n", kMicroImageName);
    if (AckNack == kLinkAck) {
        updateInfo->BlockRetries = kFreshBlock;
        updateInfo->currentBlock++;
    } else if (AckNack == kLinkNack) {
        updateInfo->BlockRetries--;
    } else {
        printf(
            "UNKNOWN RESPONSE FROM OVERLOOK DURING KESTREL MICRO IMAGE FLASHING: AckNack:0x%.2x "
            "...\n",
            AckNack);
    }
    return kNoError;
}

eErrorT SendNextMicroDataBlock(KestrelMicroUpdateInfoT* updateInfo) {
    if (updateInfo->micro_file != nullptr && updateInfo->currentBlock < updateInfo->totalBlock &&
        updateInfo->BlockRetries != 0) {
        return SendCurrentBlock(updateInfo);
    }
    if (updateInfo->currentBlock == updateInfo->totalBlock && updateInfo->currentBlock >= 1) {
        if (!CloseImage(&updateInfo->micro_file)) {
            printf("########## Can't close the file: %s ...\n", kMicroImageName);
        }
        updateInfo->currentBlock = 0;
        return kEndOfFile;
    }
    return kNoError;
}
