// What the serial port interface and the serial device manager agree on: control codes, control
// data, result codes and callbacks. The control data travels as the buffer of an ioctl request.
#pragma once

#include "Common/OS/types.h"

// Result of a serial request, in the request's err.
typedef enum : UInt32 {
    SERIAL_NOERROR = 0,
    SERIAL_NOT_SUPPORTED = 1,
    SERIAL_INVALID_PARAM = 2,
    SERIAL_READ_ERROR = 3,
    SERIAL_WRITE_ERROR = 4,
    SERIAL_UNKNOWN_IOCTL = 5,
    SERIAL_TX_DISABLED = 6,
    SERIAL_RX_DISABLED = 7,
    SERIAL_TIMEOUT = 8,
    SERIAL_ERROR_UNKNOWN = 9
} DevMgrSerial_error_t;

// Control codes, and the member of DevmgrSerial_IoctlData_t that each reads.
constexpr UInt32 kSerialCtlConfig = 1;     // serConfig
constexpr UInt32 kSerialCtlCallbacks = 2;  // CBInfo
constexpr UInt32 kSerialCtlStatus = 3;     // PortStatus

// Bits of DevmgrSerial_Config_t::CtrlBitMask. No parity bit means no parity.
constexpr UInt32 kSerialRtsCts = 0x01;
constexpr UInt32 kSerialDtrDsr = 0x02;
constexpr UInt32 kSerialXonXoff = 0x04;
constexpr UInt32 kSerialParityEven = 0x08;
constexpr UInt32 kSerialParityOdd = 0x10;
constexpr UInt32 kSerialStopBits1 = 0x20;
constexpr UInt32 kSerialStopBits2 = 0x40;
constexpr UInt32 kSerialDataBits5 = 0x80;
constexpr UInt32 kSerialDataBits6 = 0x100;
constexpr UInt32 kSerialDataBits7 = 0x200;
constexpr UInt32 kSerialDataBits8 = 0x400;

typedef struct {
    UInt32 CtrlBitMask;
    UInt32 BaudRate;  // bits per second
} DevmgrSerial_Config_t;

// Bytes that a line received, valid during the callback only. The serial port interface calls this
// record SerialCallbackData and its count `size`, the device manager `NumBytes`.
typedef struct {
    SInt8* buff;
    union {
        UInt32 size;
        UInt32 NumBytes;
    };
} DevmgrSerial_CBdata_t;

// Called by the line's thread with the context: when the line can take more output, and when it
// received something. A callback may use any serial call, also to disable or close its own line.
typedef void (*DevmgrSerial_TxCBFuncT)(void* context);
typedef void (*DevmgrSerial_RxCBFuncT)(void* context, DevmgrSerial_CBdata_t* data);

typedef struct {
    DevmgrSerial_TxCBFuncT txCBFunc;  // null: none
    DevmgrSerial_RxCBFuncT rxCBFunc;  // null: none
    void* Context_Data;
} DevmgrSerial_CBInfo_t;

// Bits, may be combined; enabling wins over disabling.
typedef enum : UInt32 {
    PORT_TX_ENABLE = 1,
    PORT_RX_ENABLE = 2,
    PORT_TX_DISABLE = 4,
    PORT_RX_DISABLE = 8
} DevmgrSerial_Status_t;

typedef union {
    DevmgrSerial_Config_t serConfig;
    DevmgrSerial_CBInfo_t* CBInfo;  // null: no callbacks any more
    DevmgrSerial_Status_t PortStatus;
} DevmgrSerial_IoctlData_t;
static_assert(sizeof(DevmgrSerial_IoctlData_t) == 8);
