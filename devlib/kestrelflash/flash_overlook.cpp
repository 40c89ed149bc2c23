// Drives the camera: checks both of its images and updates them.
#include <stdio.h>

#include "devlib/kestrelflash/kestrelflash.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "devlib/kestrelflash/targetport.h"

namespace {

constexpr const char* kDriver = "flash_overlook";

int UpdateCamera() {
    const eErrorT rc = KestrelSerialProgOverlook(CONTROLLER_FLASH_TYPE_OVERLOOK_CAMERA_SYSTEM_FW);
    if (rc == kNoError) {
        return 0;
    }
    const unsigned err = static_cast<unsigned>(rc);
    if (rc == kBadState) {
        printf(
            "ERROR: flash_overlook() -- overlook camera comm appears to be crashed -- err:%x ...\n",
            err);
    } else {
        printf("ERROR: flash_overlook() -- Failed flashing overlook images -- err:%x ...\n", err);
    }
    return -1;
}

}  // namespace

int flash_overlook(int argc, char** argv) {
    puts("########### Flashing Kestrel Overlook Firmware ....");
    for (int i = 0; i < argc; i++) {
        printf("#### argv[%d]=%s ...\n", i, argv[i]);
    }
    if (!OpenTargetPort(kDriver, kOverlookPort)) {
        return -1;
    }
    int result = -1;
    if (EnableTargetPort(kDriver, kOverlookPort)) {
        result = UpdateCamera();
        if (!DisableTargetPort(kOverlookPort)) {
            result = -1;
        }
    }
    if (!CloseTargetPort(kOverlookPort)) {
        result = -1;
    }
    return result;
}
