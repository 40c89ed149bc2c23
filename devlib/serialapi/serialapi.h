// The serial port interface: the board's eight RS-232 lines by number, 0 to 7. A port is either
// driven by this process (open, enable, write and read, disable, close) or handed to an external
// script for a session.
//
// Any thread may call. Requests on one port may overlap, but not two reads or two writes. A port
// outside 0 to 7 gives kBadParameter, a port that is not open kItemNotFound. Diagnostics go to
// standard output.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "devlib/devmgr_serial/serialctl.h"

constexpr int kSerialPorts = 8;

typedef enum : UInt32 {
    SERIAL_BAUDRATE_115200 = 0,
    SERIAL_BAUDRATE_57600 = 1,
    SERIAL_BAUDRATE_38400 = 2,
    SERIAL_BAUDRATE_19200 = 3,
    SERIAL_BAUDRATE_14400 = 4,
    SERIAL_BAUDRATE_9600 = 5,
    SERIAL_BAUDRATE_4800 = 6,
    SERIAL_BAUDRATE_2400 = 7,
    SERIAL_BAUDRATE_1200 = 8,
    SERIAL_BAUDRATE_NONE = 9
} SerialBaudRateType;

typedef enum : UInt32 {
    SERIAL_DATABITS_5 = 0,
    SERIAL_DATABITS_6 = 1,
    SERIAL_DATABITS_7 = 2,
    SERIAL_DATABITS_8 = 3,
    SERIAL_DATABITS_NONE = 4
} SerialDataBitsType;

typedef enum : UInt32 {
    SERIAL_PARITY_EVEN = 0,
    SERIAL_PARITY_ODD = 1,
    SERIAL_PARITY_NO = 2,   // no parity bit
    SERIAL_PARITY_NONE = 3  // not given
} SerialParityType;

typedef enum : UInt32 {
    SERIAL_STOPBITS_1 = 0,
    SERIAL_STOPBITS_1_5 = 1,
    SERIAL_STOPBITS_2 = 2,
    SERIAL_STOPBITS_NONE = 3
} SerialStopBitsType;

typedef enum : UInt32 {
    SERIAL_DIRECTION_RX = 0,
    SERIAL_DIRECTION_TX = 1,
    SERIAL_DIRECTION_BOTH = 2,
    SERIAL_DIRECTION_NONE = 3
} SerialDirectionType;

typedef struct rs232_cfg_t {
    SerialBaudRateType bitRate;
    SerialDataBitsType dataBits;
    SerialParityType parityBits;
    SerialStopBitsType stopBits;
    Bool hwFlowControlDtrDsr;
    Bool hwFlowControlRtsCts;
    Bool swFlowControlXonXoff;
} RS232Cfg;
static_assert(sizeof(RS232Cfg) == 28);

// What a receive callback gets: `size` bytes at `buff`, valid during the call.
typedef DevmgrSerial_CBdata_t SerialCallbackData;
typedef DevmgrSerial_TxCBFuncT SerialTxCallbackFuncPtrT;
typedef DevmgrSerial_RxCBFuncT SerialRxCallbackFuncPtrT;

// Makes every port free and ends the sessions that an earlier run may have left on ports 2 and 3
// (not on the unit's own board). Called once by the serial device manager.
void Serial_Init();

// Opens and configures a port. Its receiver and transmitter are off until Serial_Enable; those of
// an FPGA line (ports 0 to 3 and 5) that was open before are as it was left, and callbacks come at
// once where either is on. Callbacks and context may be null. A device that cannot be opened is
// tried ten times, 20 ms apart. Of the flow controls asked for one is used: RTS/CTS before XON/XOFF
// before DTR/DSR. FPGA lines take 9600 bit/s or more and no flow control. Returns kNoError;
// kBadParameter for a null or unusable configuration; kSemUnavail; kAlreadyInUse, also while the
// port is being opened or closed; kItemNotFound when the device cannot be opened; else the device's
// failure. The port is free after any failure. The caller's task is not deleted meanwhile.
eErrorT Serial_Open(int port, SerialTxCallbackFuncPtrT txCallbackFuncPtr,
                    SerialRxCallbackFuncPtrT rxCallbackFuncPtr, void* rxCallbackContext,
                    const RS232Cfg* serialCfg);

// Switch transmitter, receiver or both on or off; without effect in a session. Serial_Disable has
// its directions crossed: SERIAL_DIRECTION_RX switches the transmitter off, SERIAL_DIRECTION_TX the
// receiver. Return kNoError, kBadParameter for another direction, or the device's failure.
eErrorT Serial_Enable(int port, SerialDirectionType serialDir);
eErrorT Serial_Disable(int port, SerialDirectionType serialDir);

// Writes up to `writeSize` bytes, once, and returns how many went; 0 on failure. Waits at most
// `numOfMicroseconds` for the line to take output, 0: as long as the line needs. A negative size
// gives kBadParameter.
int Serial_Write(int port, char* writeBuf, int writeSize, int numOfMicroseconds);

// Reads up to `readSize` bytes and returns how many came within `numOfMicroseconds`; 0 on time-out
// or failure. With 0 microseconds it blocks until at least one byte comes. A negative size gives
// kBadParameter.
int Serial_Read(int port, char* readBuf, int readSize, int numOfMicroseconds);

// Closes a port and frees it. Waits until no callback of it runs, except the caller itself.
// Requests that wait for input, or with a time-out for room, end; a write that the driver has taken
// (without a time-out: at once) ends when the driver lets it go. Returns kNoError, kSemUnavail, or
// kItemNotFound for a port that is not open, which one that is being opened, being closed or in a
// session is not either.
eErrorT Serial_Close(int port);

// Stores the caller's configuration as the port's, despite its name; the line is not changed.
eErrorT Serial_GetCfg(int port, const RS232Cfg* cfgPtr);

// Start and end a session: the port's line is handed to the script ./config_port, run by the
// external launcher. Return kNoError; kBadParameter; kSemUnavail; opening also kAlreadyInUse, and
// kSystemCallFailed when the script failed. Ending frees the port whatever the script returned.
// Block for as long as the launcher takes.
eErrorT Serial_Open_PSH(int port, const RS232Cfg* serialCfg);
eErrorT Serial_Close_PSH(int port);

// Take and give back the lock on port_devids and Serialport_Modes; the semaphore service's result.
UInt32 Serial_Lock_PortDevids();
UInt32 Serial_Unlock_PortDevids();

// Serial_Close_PSH for a caller that holds the lock (`port_locked` 1) or does not (0).
eErrorT Serial_Stop_PSHSession(int port, int port_locked);

// Prints what a device failure means and returns the result that stands for it; kNoError, without a
// line, for anything that is no device failure.
eErrorT Serial_Get_AppErr(DevMgrSerial_error_t sererr);

// Values of port_devids that are no device id.
constexpr UInt32 kSerialPortFree = 0;
constexpr UInt32 kSerialPortReserved = 1;  // being opened, or in a session

// State of the ports, index = port number; for diagnostics.
extern std::atomic<UInt32> port_devids[kSerialPorts];
extern RS232Cfg port_cfgs[kSerialPorts];
extern std::atomic<UInt32> Serialport_Modes[kSerialPorts];  // 1 in a session, else 0
extern UInt32 portdevids_lock;                              // the semaphore
extern const SInt8* const Serilport_ttynames[kSerialPorts];
