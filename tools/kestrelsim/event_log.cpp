// Lines are assembled by the JSON library, so that any text in them is quoted rightly.
#include "tools/kestrelsim/event_log.h"

#include <errno.h>
#include <string.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kestrelsim {

EventLog::EventLog(const std::string& path) : path_(path), start_(MonotonicNow()) {
    if (path.empty()) {
        return;
    }
    file_ = fopen(path.c_str(), "we");
    if (file_ == nullptr) {
        Fail();
    }
}

EventLog::~EventLog() {
    if (file_ != nullptr) {
        fclose(file_);
    }
}

void EventLog::Fail() const {
    throw std::runtime_error("cannot write the log " + path_ + ": " + strerror(errno));
}

void EventLog::Write(int port, const char* dir, const ByteView* bytes, const char* key,
                     const std::string& value, const std::string& what) {
    if (file_ == nullptr) {
        return;
    }
    nlohmann::ordered_json line;
    line["t"] = std::round(static_cast<double>(MonotonicNow() - start_) / 1e3) / 1e6;
    if (port >= 0) {
        line["port"] = port;
    }
    if (dir != nullptr) {
        line["dir"] = dir;
    }
    if (bytes != nullptr) {
        line["bytes"] = ToHex(*bytes);
    }
    if (key != nullptr) {
        line[key] = value;
    }
    if (!what.empty()) {
        line["what"] = what;
    }
    const std::string text =
        line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    if (fwrite(text.data(), 1, text.size(), file_) != text.size() || fflush(file_) != 0) {
        Fail();
    }
}

void EventLog::Received(int port, ByteView bytes, const std::string& what) {
    Write(port, "rx", &bytes, nullptr, "", what);
}

void EventLog::Sent(int port, ByteView bytes, const std::string& what) {
    Write(port, "tx", &bytes, nullptr, "", what);
}

void EventLog::Refused(int port, const Refusal& refusal, const std::string& what) {
    const ByteView wire(refusal.wire);
    Write(port, "rx", &wire, "refused",
          std::string(ReasonText(refusal.reason)) + ": " + refusal.detail, what);
}

void EventLog::Event(int port, const std::string& event, const std::string& what) {
    Write(port, nullptr, nullptr, "event", event, what);
}

}  // namespace kestrelsim
