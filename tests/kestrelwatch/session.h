// One run of the launcher under test, with a folder of its own.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/pty_lines.h"

// The updater is a shell script that says what the real one says of the microcontroller. Asked, it
// tells of 0x21 once the file `updated` is there. The launcher puts "q" or "-p <pipe> <low> <high>"
// behind its arguments.
constexpr char kUpdaterWords[] = R"(
micro='MICRO CONTROLLER'
pos() { printf %s "$1" >"$pipe" && echo "percentdone: [$1]"; }
kilobytes() { i=0; while [ $i -lt $1 ]; do printf '%08d %01014d\n' $i $i; i=$((i + 1)); done; }
await() { i=0; while [ ! -e "$1" ] && [ $i -lt 6000 ]; do i=$((i + 1)); sleep 0.01; done; }
asking() { echo 'flash_micro() ...'; }
runs() {
    echo "updatedMicroVersion: 0x21 -- currentMicroVersion: $1 ..."
    echo "Kestrel Microcontroller fw update is [$2]"
}
block() { echo "Flashing Kestrel Micro Controller Image block[$1] Iteration[1] ..."; }
ack() { echo "####### GOT A [ACK] FROM KESTREL $micro -- byteRead[2]...."; }
begin() { echo "ATTEMPTING TO SEND THE FIRST DATA BLOCK OF $micro ..."; block 0; }
finish() {
    b=0
    while [ $b -lt 12 ]; do block $b; ack; b=$((b + 1)); done
    echo "####### SUCCESSFULLY UPDATED KESTREL $micro ...."
    : >updated
}
answer() {
    asking
    [ ! -e updated ] || { runs 0x21 'not needed'; echo '########## NO Kestrel Image(s) Update Required ....'; exit 0; }
    runs 0x20 needed; echo '########## Kestrel Image(s) Update Required ....'; exit 1
}
[ "$2" = -p ] && pipe=$3
)";
constexpr char kAnswers[] = "[ \"$2\" != q ] || answer\n";

// A fresh folder, which is also the working directory and TMPDIR while it lives.
class Folder {
  public:
    Folder() : path_(std::filesystem::temp_directory_path() / "watchtest-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr || chdir(path_.c_str()) != 0) {
            abort();
        }
        setenv("TMPDIR", path_.c_str(), 1);
        setenv("TERM", "xterm", 1);
        std::ofstream("kestrelmicro.bin") << "\x21 the new image";
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
    PtyLines lines_;
};

// The launcher with an updater that does `script`.
class Session : public Child {
  public:
    // An updater that answers a question and does `script` when it is to update.
    Session(UserT user, const WordsT& options, const std::string& script)
        : Child(user, Words(options, kAnswers + script)) {}
    // One that does `script` and nothing else.
    Session(const WordsT& options, const std::string& script)
        : Child(UserT::kPipes, Words(options, script)) {}

  private:
    static WordsT Words(WordsT options, const std::string& script) {
        options.insert(options.begin(), KESTRELWATCH);
        options.insert(options.end(),
                       {"--", "sh", "-c", kUpdaterWords + script, "updater", "micro"});
        return options;
    }
};
