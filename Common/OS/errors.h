// The system-wide result codes and their texts, both made from the one table below.
#pragma once

// X(name, value, text): success is 0, every failure is negative.
#define HARBOR_ERROR_TABLE(X)                                       \
    X(kNoError, 0, "no error")                                      \
    X(kFuncReturnedError, -1, "function returned an error")         \
    X(kOutOfMemory, -2, "out of memory")                            \
    X(kBadParameter, -3, "bad parameter")                           \
    X(kBadState, -4, "bad state")                                   \
    X(kOutOfResources, -5, "out of resources")                      \
    X(kDefer, -6, "deferred")                                       \
    X(kCantCreateTask, -7, "can't create task")                     \
    X(kCantStartTask, -8, "can't start task")                       \
    X(kCantFindObject, -9, "can't find object")                     \
    X(kUnused10, -10, "unused error 10")                            \
    X(kUnused11, -11, "unused error 11")                            \
    X(kUnused12, -12, "unused error 12")                            \
    X(kUnused13, -13, "unused error 13")                            \
    X(kUnused14, -14, "unused error 14")                            \
    X(kUnused15, -15, "unused error 15")                            \
    X(kUnused16, -16, "unused error 16")                            \
    X(kEndOfFile, -17, "end of file")                               \
    X(kNotInitialized, -18, "not initialized")                      \
    X(kAlreadyExists, -19, "already exists")                        \
    X(kIllegalInst, -20, "illegal instance")                        \
    X(kIllegalSubElem, -21, "illegal sub-element")                  \
    X(kInsufficientBuffer, -22, "insufficient buffer")              \
    X(kSemUnavail, -23, "semaphore unavailable")                    \
    X(kNotImplemented, -24, "not implemented")                      \
    X(kItemNotFound, -25, "item not found")                         \
    X(kAlreadyInUse, -26, "already in use")                         \
    X(kNotYetSupported, -27, "not yet supported")                   \
    X(kQueueFull, -28, "queue full")                                \
    X(kOutOfBandwidth, -29, "out of bandwidth")                     \
    X(kProtocolEncodeError, -30, "protocol encode error")           \
    X(kProtocolDecodeError, -31, "protocol decode error")           \
    X(kPrototolInitError, -32, "protocol init error")               \
    X(kRestrictedMismatch, -33, "restricted mismatch")              \
    X(kSystemCallFailed, -34, "system call failed")                 \
    X(kTimeOut, -35, "time-out")                                    \
    X(kFileOpenError, -36, "file open error")                       \
    X(kNoRateChange, -37, "no rate change")                         \
    X(kUnexpectedParameterCount, -38, "unexpected parameter count") \
    X(kIncorrectVersion, -39, "incorrect version")                  \
    X(kInvalidPassword, -40, "invalid password")                    \
    X(kNotAuthorized, -41, "not authorized")                        \
    X(kUnused42, -42, "unused error 42")                            \
    X(kIPCError, -43, "IPC error")                                  \
    X(kNoRoomToAddEntry, -44, "no room to add entry")               \
    X(kUnused45, -45, "unused error 45")                            \
    X(kUnused46, -46, "unused error 46")                            \
    X(kFailedJVMOperation, -47, "failed JVM operation")             \
    X(kDeviceSleep, -48, "device sleep")                            \
    X(kDeviceReboot, -49, "device reboot")

// Signed and 32 bits wide on every machine: results travel as text and are compared with ints.
typedef enum eErrorS : int {
#define HARBOR_ERROR_ENUM(name, value, text) name = value,
    HARBOR_ERROR_TABLE(HARBOR_ERROR_ENUM)
#undef HARBOR_ERROR_ENUM
        kMaxError = kDeviceReboot
} eErrorT;

// The text of a result code; "unknown error" for a value outside the table. The text is static.
// Any thread may call; does not block.
const char* ErrorString(eErrorT err);
