// Plays one case: a folder of images, a simulated unit, the real updater, and a comparison of
// everything that could be seen: console text, exit status, wire bytes, openings and closings,
// images that the unit kept.
//
// Environment: E2E_RECORD_DIR, a folder into which each step's console text and wire are written,
// for comparing two builds of the updater.
#pragma once

#include <functional>
#include <initializer_list>
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
    int status;  // exit status; 128 + the signal when a signal ended it
};

struct Case {
    // Files and unit as the scene has them.
    Case(const std::string& case_name, const Scene& case_scene, const Words& faults = {});

    // One run of the updater.
    void Run(const Words& arguments, int status, const std::string& story);
    // The unit is to hold these images at the end ("kestrelmicro.bin").
    void Keep(const Words& names);

    std::string name;
    Scene scene;
    Words unit;  // arguments of the simulator
    Files files;
    std::vector<Step> steps;
    Files kept;           // images that the unit holds at the end
    int unit_status = 0;  // 3 when the unit has to refuse something
    // Changes the place when unit and files stand, before the first step.
    std::function<void(const Place&)> prepare = [](const Place&) {};
    // Looks at the place after the last step, while the unit still runs.
    std::function<void(const Place&)> inspect = [](const Place&) {};
    // Console lines in which this expression is found are left out of the comparison.
    std::string unsteady;
    int delay_percent = 5;       // of the designed pauses
    bool closed_output = false;  // the updater starts without standard output and error
    bool own_nodes = true;       // false: the updater looks for the board's own nodes
    // Console bytes after which the updater is ended by SIGTERM; the wire is then not compared.
    size_t stop_after = 0;
};

// Plays the case and reports every difference as a failure. An answer that was missed (a failed
// read that was not expected) has the case played again, at most three times. It is skipped, not
// failed, only when every attempt missed one while a measured stall of the machine explains it.
void Play(const Case& it);

// A run of the updater against a unit with one fault.
struct Faulty {
    const char* name;
    std::string fault;
    const char* story;
    int status = 255;
    Words kept = {};
    int unit_status = 0;
};

// Plays each; the stories go on where `head` ends.
void PlayFaulty(const Words& arguments, const std::string& head, const Scene& scene,
                std::initializer_list<Faulty> faults);

}  // namespace e2e
