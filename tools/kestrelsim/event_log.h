// The event log: one JSON object a line, flushed per line. Keys: "t" seconds since the start,
// "port" the serial port number, "dir" "rx" (from the host) or "tx", "bytes" in hexadecimal, "what"
// the decoded meaning; "refused" the reason for which bytes were refused; "event" for the rest.
#pragma once

#include <stdio.h>

#include <string>

#include "tools/kestrelsim/clock.h"
#include "tools/kestrelsim/link_decoder.h"

namespace kestrelsim {

class EventLog {
  public:
    // An empty path writes nothing. Throws std::runtime_error when the file cannot be opened; so do
    // the four that follow when it cannot be written.
    explicit EventLog(const std::string& path);
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    void Received(int port, ByteView bytes, const std::string& what);
    void Sent(int port, ByteView bytes, const std::string& what);
    void Refused(int port, const Refusal& refusal, const std::string& what);
    void Event(int port, const std::string& event, const std::string& what = "");

  private:
    [[noreturn]] void Fail() const;
    void Write(int port, const char* dir, const ByteView* bytes, const char* key,
               const std::string& value, const std::string& what);

    const std::string path_;
    FILE* file_ = nullptr;
    const Nanos start_;
};

}  // namespace kestrelsim
