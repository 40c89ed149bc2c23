// One run of the launcher under test, with a folder of its own.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/child.h"
#include "tests/support/eventually.h"

// The updater is a shell script. As the real one, it opens the pipe for each number and prints a
// line then. The launcher puts "-p <pipe> <low> <high>" behind its name.
constexpr char kUpdaterWords[] = R"(
raw() { printf %s "$1" >"$pipe"; }
pos() { raw "$1" && echo "percentdone: [$1]"; }
upto() { i=0; while [ $i -lt $1 ]; do i=$((i + 1)); pos $i; done; }
kilobytes() { i=0; while [ $i -lt $1 ]; do printf '%08d %01014d\n' $i $i; i=$((i + 1)); done; }
await() { i=0; while [ ! -e "$1" ] && [ $i -lt 6000 ]; do i=$((i + 1)); sleep 0.01; done; }
pipe=$2
)";

// A fresh folder, which is also the working directory and TMPDIR while it lives.
class Folder {
  public:
    Folder() : path_(std::filesystem::temp_directory_path() / "watchtest-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr || chdir(path_.c_str()) != 0) {
            abort();
        }
        setenv("TMPDIR", path_.c_str(), 1);
        setenv("TERM", "xterm", 1);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::current_path("/", ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    void Touch(const char* name) const { close(open(name, O_CREAT | O_WRONLY, 0600)); }

    // Waits, within reason, until `name` is there or is not.
    bool WaitFor(const std::string& name, bool there = true) const {
        return Eventually([&] { return std::filesystem::exists(name) == there; });
    }

    // The private folder that a launcher has at the moment; empty: none.
    std::string PrivateFolder() const {
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            if (entry.path().filename().string().starts_with("kestrelwatch-")) {
                return entry.path();
            }
        }
        return "";
    }

  private:
    std::string path_;
};

// The launcher with an updater that does `script`.
class Session : public Child {
  public:
    Session(UserT user, WordsT options, const std::string& script)
        : Child(user, Words(std::move(options), script)) {}

  private:
    static WordsT Words(WordsT options, const std::string& script) {
        options.insert(options.begin(), KESTRELWATCH);
        options.insert(options.end(), {"--", "sh", "-c", kUpdaterWords + script, "updater"});
        return options;
    }
};
