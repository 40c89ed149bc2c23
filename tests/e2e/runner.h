// Plays one case: a folder of images, a simulated unit, the real updater, and a comparison of
// everything that could be seen: console text, exit status, wire bytes, openings and closings,
// images that the unit kept.
//
// Environment: E2E_UPDATER, a command that runs the updater in place of the built one (an emulator
// and its program, for example); E2E_RECORD_DIR, a folder into which each step's console text and
// wire are written, for comparing two builds of the updater.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/e2e/transcript.h"

namespace e2e {

// File name to content.
using Files = std::map<std::string, std::string>;

// Folders of a case while it runs.
struct Place {
    std::string work;   // the updater's current folder, with the images
    std::string dev;    // the nodes
    std::string state;  // what the unit keeps
};

struct Step {
    Transcript expected;
    int status = 0;  // exit status; 128 + the signal when a signal ended it
};

struct Case {
    // Files and unit as the scene has them.
    Case(const std::string& case_name, const Scene& case_scene, const Words& faults = {});

    // One run of the updater.
    void Run(const Words& arguments, int status, const std::string& story);
    void Run(const Words& arguments, int status, const std::string& story, const Scene& now);

    // The three images under their names.
    Files AllImages() const;

    std::string name;
    Scene scene;
    Words unit;  // arguments of the simulator
    Files files;
    std::vector<Step> steps;
    Files kept;           // images that the unit holds at the end
    int unit_status = 0;  // 3 when the unit has to refuse something
    // Changes the place when unit and files stand, before the first step.
    std::function<void(const Place&)> prepare;
    // Looks at the place after the last step, while the unit still runs.
    std::function<void(const Place&)> inspect;
    // Console lines that contain one of these texts are left out of the comparison.
    Words unsteady;
    int delay_percent = 5;  // of the designed pauses
    bool own_nodes = true;  // false: the updater looks for the board's own nodes
    // Console bytes after which the updater is ended by SIGTERM; the wire is then not compared.
    size_t stop_after = 0;
};

// Plays the case and reports every difference as a failure. An answer that was missed (a failed
// read that was not expected) has the case played again, at most three times. It is skipped, not
// failed, only when every attempt missed one while a measured stall of the machine explains it.
void Play(const Case& it);

}  // namespace e2e
