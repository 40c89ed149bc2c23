// Link messages from the host (Harbor) to the microcontroller (Kestrel) and the camera behind it:
// payload bytes in, frame bytes out. Nothing here touches a serial port. Any thread may call.
//
// A frame: 0xFF, then, byte-stuffed, type (1 byte), payload length + 3 (2 bytes, high byte first),
// payload, checksum (3 bytes, high byte first) over the payload alone. Stuffing sends 0xFF as
// FE 01 and 0xFE as FE 00, so that 0xFF only ever starts a frame.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

typedef enum : int {
    HARBOR_KESTREL_MESSAGE_TYPE_A = 65,
    HARBOR_KESTREL_MESSAGE_TYPE_B = 66,
    HARBOR_KESTREL_MESSAGE_TYPE_SET_BACKLIGHT_BRIGHTNESS = 67,
    HARBOR_KESTREL_MESSAGE_TYPE_REQUEST_SYSTEM_STATUS = 68,
    HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_MICRO_BLOCK = 72,
    HARBOR_KESTREL_MESSAGE_TYPE_GENERAL_PURPOSE = 73,
    HARBOR_KESTREL_MESSAGE_TYPE_E = 129,
    HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_CAMERA = 136,
    HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_SYSTEM = 137,
    HARBOR_KESTREL_MESSAGE_TYPE_UNKNOWN = 255  // not to be sent
} HARBOR_KESTREL_MESAGE_TYPE;

// Payload of a status request. The updater asks for the version only.
typedef enum : int {
    KESTREL_SYSTEM_STATUS_TYPE_SYSTEM_STATUS = 0,
    KESTREL_SYSTEM_STATUS_TYPE_SYSTEM_VERSION = 1,
    KESTREL_SYSTEM_STATUS_TYPE_IMAGER_TEMP = 2,
    KESTREL_SYSTEM_STATUS_TYPE_KEYPAD_TEMP = 3,
    KESTREL_SYSTEM_STATUS_TYPE_KEYPAD_LED_STATE = 4,
    KESTREL_SYSTEM_STATUS_TYPE_CAMERALED_KEYPADTIMING = 5,
    KESTREL_SYSTEM_STATUS_TYPE_UNKNOWN = 255
} KESTREL_SYSTEM_STATUS_TYPE;

// Payload of a general-purpose message.
typedef enum : int {
    HARBOR_KESTREL_GP_MSG_SUBTYPE_REBOOT_OVERLOOK = 105,
    HARBOR_KESTREL_GP_MSG_SUBTYPE_UNKNOWN = 255
} HARBOR_KESTREL_GP_MSG_SUBTYPE;

// Bytes that start and answer messages.
constexpr unsigned char kLinkStart = 0xFF;             // starts a frame, and the version reply
constexpr unsigned char kLinkEscape = 0xFE;            // starts an escape pair inside a frame
constexpr unsigned char kLinkAck = 0x06;               // block reply, second byte
constexpr unsigned char kLinkNack = 0x0F;              // block reply, second byte
constexpr unsigned char kLinkVersionReplyCode = 0x14;  // version reply, second byte

// The most bytes that the frame of a payload of `payloadSize` bytes takes on the wire.
constexpr int LinkFrameBound(int payloadSize) {
    return 2 * payloadSize + 13;
}

// True for the types that may be sent.
Boolean validateHarborKestrelMessageType(unsigned char msgType);

// Stuffs the byte at startOfMessage[*index] in place and advances *index past it: by 2 when the
// byte became an escape pair (the byte after it is overwritten), else by 1.
void encryptOneByte(unsigned char* startOfMessage, int* index);

// Builds the frame of `orgMsgSize` payload bytes (0 or more; orgMsgPtr may be null for 0) into
// ptrNewMsg and stores its length in *ptrNewMsgSize. The caller owns ptrNewMsg, which holds at
// least LinkFrameBound(orgMsgSize) bytes and does not overlap the payload; of these, what stood
// there before is cleared up to its first zero byte. Only the low 8 bits of msgType count. Returns
// kNoError, or kBadParameter with a length of 0 and a console line for a type not to be sent.
eErrorT buildHarborToKestrelMsg(HARBOR_KESTREL_MESAGE_TYPE msgType, int orgMsgSize,
                                const unsigned char* orgMsgPtr, int* ptrNewMsgSize,
                                unsigned char* ptrNewMsg);
