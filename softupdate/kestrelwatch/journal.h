// What programs and support read: one JSON object a line, as docs/LAUNCHER.md describes them. Two
// places may ask for it: --json, and the file in the folder of --record, which has the updater's
// text and the host as well. Nothing here blocks; a disk that is full or a reader that is gone
// costs the rest of that file and a notice, never the update.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "softupdate/kestrelwatch/fd.h"
#include "softupdate/kestrelwatch/outlet.h"
#include "softupdate/kestrelwatch/pace.h"
#include "softupdate/kestrelwatch/record.h"

namespace watch {

// One object, built member by member.
class Json {
  public:
    Json& Text(const char* name, std::string_view value);
    Json& Number(const char* name, std::int64_t value);
    Json& Seconds(const char* name, std::int64_t ms);  // with three decimals
    Json& Flag(const char* name, bool value);
    // `value` is JSON itself.
    Json& Raw(const char* name, const std::string& value);
    std::string Object() const { return "{" + members_ + "}"; }

  private:
    std::string members_;
};

class Journal {
  public:
    // Opens what the options ask for and writes the first events. What cannot be opened is told in
    // *notices and left out. Starts a thread: call it when the guard is there.
    void Open(const RecordT& record, std::vector<std::string>* notices);

    void Step(const char* step);
    void Plan(const PlanT& plan);
    void Unit(const char* when, const RecordT& record, const RunT& run);
    void Progress(const SightT& sight, const Pace& pace, const StoryT& story);
    void Notice(const std::string& text);
    void Line(const char* stream, std::string_view line);  // only in the record
    void Verdict(const RecordT& record);

    // What was lost since the last call, in words; mostly empty.
    std::vector<std::string> TakeLosses();

  private:
    struct SinkT {
        Fd file;
        std::string name;
        bool record;
        bool lossTold;
    };

    void Add(SinkT sink);
    void Write(const char* event, const Json& members, bool recordOnly = false);

    std::vector<SinkT> sinks_;
    std::unique_ptr<Outlet> outlet_;  // null: nobody asked
    std::int64_t startMs_ = 0;
};

}  // namespace watch
