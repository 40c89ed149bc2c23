// The targets' serial ports. The lines for a failing disable and close name the microcontroller's
// driver for either port: what reads the console knows them that way.
#include "devlib/kestrelflash/targetport.h"

#include <stdio.h>

#include "Common/OS/errors.h"
#include "devlib/serialapi/serialapi.h"

bool OpenTargetPort(const char* driver, int port) {
    RS232Cfg config = {};
    config.bitRate = SERIAL_BAUDRATE_115200;
    config.dataBits = SERIAL_DATABITS_8;
    config.parityBits = SERIAL_PARITY_EVEN;
    config.stopBits = SERIAL_STOPBITS_1;
    const eErrorT rc = Serial_Open(port, nullptr, nullptr, nullptr, &config);
    if (rc != kNoError) {
        printf("ERROR: %s() -- Failed open port: %d, err: %d\n", driver, port, rc);
    }
    return rc == kNoError;
}

bool EnableTargetPort(const char* driver, int port) {
    const eErrorT rc = Serial_Enable(port, SERIAL_DIRECTION_BOTH);
    if (rc != kNoError) {
        printf("ERROR: %s() -- Failed to enable serial port[%d] ...\n", driver, port);
    }
    return rc == kNoError;
}

bool DisableTargetPort(int port) {
    const eErrorT rc = Serial_Disable(port, SERIAL_DIRECTION_BOTH);
    if (rc == kNoError || rc == kItemNotFound) {
        return true;
    }
    printf("ERROR: flash_micro() -- Failed to disable serial port[%d] -- error[%x]...\n", port,
           static_cast<unsigned>(rc));
    return false;
}

bool CloseTargetPort(int port) {
    const eErrorT rc = Serial_Close(port);
    if (rc != kNoError) {
        printf("ERROR: flash_micro() -- Failed close port: %d, err: %d\n", port, rc);
    }
    return rc == kNoError;
}
