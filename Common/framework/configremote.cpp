// Command lines to processor 0. A response may come after its reader gave up: readers are found by
// a number, on a list that a reader leaves in time, never by their address.
#include "Common/framework/configremote.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"
#include "Common/framework/message.h"
#include "Common/framework/rem_message.h"

namespace {

constexpr UInt32 kEventResponse = 0x4000;
constexpr UInt32 kResponseTime = 300;  // ticks

pthread_mutex_t gReadersMutex = PTHREAD_MUTEX_INITIALIZER;

// A read that waits for its response, on the list for as long as it does.
class ReaderT {
  public:
    ReaderT() {
        t_ident(nullptr, 0, &taskID_);
        const MutexGuardT guard(&gReadersMutex);
        serial_ = ++gSerial;
        next_ = gReaders;
        gReaders = this;
    }
    ~ReaderT() { Leave(); }
    ReaderT(const ReaderT&) = delete;
    ReaderT& operator=(const ReaderT&) = delete;

    void* Ticket() const { return from_id<void>(serial_); }

    // The response, null when none came.
    const char* Wait() {
        UInt32 captured;
        ev_receive(kEventResponse, kEvAny, kResponseTime, &captured);
        Leave();
        if (answered_) {
            // It may have come just after the time-out.
            ev_receive(kEventResponse, kEvNoWait, 0, &captured);
        }
        return answered_ ? text_ : nullptr;
    }

    // The responses' receiver.
    static void Respond(eErrorT, const char* text, void* ticket) {
        const MutexGuardT guard(&gReadersMutex);
        for (ReaderT* reader = gReaders; reader != nullptr; reader = reader->next_) {
            if (reader->Ticket() == ticket) {
                snprintf(reader->text_, sizeof(reader->text_), "%s", text);
                reader->answered_ = true;
                ev_send(reader->taskID_, kEventResponse);
            }
        }
    }

  private:
    void Leave() {
        const MutexGuardT guard(&gReadersMutex);
        for (ReaderT** link = &gReaders; *link != nullptr; link = &(*link)->next_) {
            if (*link == this) {
                *link = next_;
                break;
            }
        }
    }

    static ReaderT* gReaders;  // under gReadersMutex
    static UInt32 gSerial;     // under gReadersMutex

    UInt32 serial_ = 0;
    UInt32 taskID_ = 0;
    bool answered_ = false;
    char text_[kMsgMaxLen + 1] = "";
    ReaderT* next_ = nullptr;
};

ReaderT* ReaderT::gReaders;
UInt32 ReaderT::gSerial;

// Whether a name is one plain word of a command line.
bool IsWord(const char* name) {
    return name[0] != '"' && strpbrk(name, " \t\r\n") == nullptr;
}

// Copies a value for the inside of a quoted word. Returns its length; -1 when it does not fit, or
// ends with a backslash, which would make the closing quote part of it.
int QuoteInto(char* out, size_t size, const char* s, size_t length) {
    if (length > 0 && s[length - 1] == '\\') {
        return -1;
    }
    size_t used = 0;
    for (size_t i = 0; i < length; i++) {
        if (used + 2 >= size) {
            return -1;
        }
        if (s[i] == '"') {
            out[used++] = '\\';
        }
        out[used++] = s[i];
    }
    out[used] = '\0';
    return static_cast<int>(used);
}

}  // namespace

eErrorT ConfigRemoteWrite(const char* pName, int instance, const char* s, size_t length) {
    char value[kMsgMaxLen + 1];
    char command[kMsgMaxLen + 1];
    int used = IsWord(pName) ? QuoteInto(value, sizeof(value), s, length) : -1;
    if (used >= 0) {
        used = snprintf(command, sizeof(command), "%s %s %d \"%s\" rw file notify", "config", pName,
                        instance, value);
    }
    if (used < 0 || used > kMsgMaxLen) {
        logerr("config", "%s[%d] cannot be sent to processor 0\n", pName, instance);
        return kBadParameter;
    }
    RemMsgSendCmd(command, nullptr, nullptr);
    return kNoError;
}

eErrorT ConfigRemoteRead(const char* pName, int instance, char* s, int len) {
    s[0] = '\0';
    if (!IsWord(pName)) {
        return kBadParameter;
    }
    char command[kMsgMaxLen + 1];
    snprintf(command, sizeof(command), "%s %s %d", "config", pName, instance);
    ReaderT reader;
    const bool sent = RemMsgSendCmd(command, ReaderT::Respond, reader.Ticket()) == kNoError;
    const char* response = sent ? reader.Wait() : nullptr;
    if (response == nullptr) {
        printf("ConfigStoreRead: \"%s[%d]\" timeout\n", pName, instance);
        return kNoError;
    }
    if (len > 1) {
        char format[32];
        snprintf(format, sizeof(format), "%%*s %%*s %%*d %%%ds", len - 1);
        if (sscanf(response, format, s) != 1) {
            s[0] = '\0';
        }
    }
    return kNoError;
}
