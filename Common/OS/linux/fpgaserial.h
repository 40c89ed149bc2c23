// The FPGA serial driver's two control requests. The driver reads the record as six 32-bit words
// in the processor's byte order.
#pragma once

#include "Common/OS/types.h"

// Request numbers of the driver.
constexpr UInt32 kFpgaSerialSetConfig = 0x80260001;    // argument: address of a fpgaserial_config_t
constexpr UInt32 kFpgaSerialReceiverOff = 0x80260002;  // argument: 0 receiver on, 1 receiver off

typedef enum : UInt32 {
    FPGASERIAL_PARITY_NONE = 0,
    FPGASERIAL_ODD_PARITY = 1,
    FPGASERIAL_EVEN_PARITY = 2,
    FPGASERIAL_INVALID_PARITY = 3
} fpgaserial_parity_t;

typedef enum : UInt32 {
    FPGASERIAL_STOPBITS_1 = 0,
    FPGASERIAL_STOPBITS_2 = 1,
    FPGASERIAL_INVALID_STOPBITS = 2
} fpgaserial_stopbits_t;

typedef enum : UInt32 {
    FPGASERIAL_HWFLOWCTRL_NONE = 0,
    FPGASERIAL_HWFLOWCTRL_RTSCTS = 1,
    FPGASERIAL_HWFLOWCTRL_DTRDSR = 2,
    FPGASERIAL_INVALID_HWFLOWCTRL = 3
} fpgaserial_flowctrl_t;

typedef enum : UInt32 {
    FPGASERIAL_DATABITS_SIZE5 = 0,
    FPGASERIAL_DATABITS_SIZE6 = 1,
    FPGASERIAL_DATABITS_SIZE7 = 2,
    FPGASERIAL_DATABITS_SIZE8 = 3,
    FPGASERIAL_INVALID_DATABITSSIZE = 4
} fpgaserial_databits_t;

// Bits of fpgaserial_config_t::valid_mask: which fields the driver applies.
constexpr UInt32 kFpgaSerialValidBaudRate = 0x01;
constexpr UInt32 kFpgaSerialValidParity = 0x02;
constexpr UInt32 kFpgaSerialValidAll = 0x1F;

typedef struct {
    UInt32 valid_mask;
    UInt32 baudrate;  // bits per second
    fpgaserial_parity_t parity;
    fpgaserial_stopbits_t stopbits;
    fpgaserial_flowctrl_t hwflowctrl;
    fpgaserial_databits_t databits_size;
} fpgaserial_config_t;
static_assert(sizeof(fpgaserial_config_t) == 24);
