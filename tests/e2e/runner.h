// Plays one case: a folder of images, a simulated unit, the real updater, and a comparison of
// everything that could be seen: console text but for the positions of a progress report, exit
// status, wire bytes, openings and closings, images that the unit kept.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "tests/e2e/transcript.h"

namespace e2e {

// Folders of a case while it runs.
struct Place {
    std::string work;   // the updater's current folder, with the images
    std::string dev;    // the nodes
    std::string state;  // what the unit keeps
};

struct Step {
    Transcript expected;
    int status;  // exit status
};

struct Case {
    // Files and unit as the scene has them.
    Case(const std::string& case_name, const Scene& case_scene, const Words& faults = {});

    // One run of the updater.
    void Run(const Words& arguments, int status, const std::string& story);

    std::string name;
    Scene scene;
    Words unit;                                // arguments of the simulator
    std::map<std::string, std::string> files;  // file name to content
    std::vector<Step> steps;
    Words kept;           // images that the unit holds at the end ("kestrelmicro.bin")
    int unit_status = 0;  // 3 when the unit has to refuse something
    // Changes the place when unit and files stand, before the first step.
    std::function<void(const Place&)> prepare = [](const Place&) {};
    // Looks at the place after the last step, while the unit still runs.
    std::function<void(const Place&)> inspect = [](const Place&) {};
    int delay_percent = 5;       // of the designed pauses
    bool closed_output = false;  // the updater starts without standard output and error
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
