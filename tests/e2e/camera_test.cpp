// Updates of the camera: both images, one of them, and every way in which unit, line or files fail.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

Camera TheCamera() {
    return {Pattern(300, 1), Pattern(200, 2)};
}

Case CameraCase(const std::string& name, const Camera& camera, const Words& faults = {}) {
    Case it;
    it.name = "camera-" + name;
    it.files = {{"overlookcam.bin", camera.camera},
                {"overlooksys.bin", camera.system},
                {"overlookcamver", camera.new_camera + "\n"},
                {"overlooksysver", camera.new_system + "\n"}};
    it.unit = {"--camera-version", camera.unit_camera, "--system-version", camera.unit_system};
    for (const std::string& fault : faults) {
        it.unit.insert(it.unit.end(), {"--fault", fault});
    }
    return it;
}

// Both end a run; the second one for an update that an image was found to need.
void Failed(Transcript* t, const std::string& error) {
    t->Say("camera-failed", {error}).Event(0, "closed").Executed(false);
}

void FailedLate(Transcript* t, const std::string& error) {
    t->Say("come-up");
    Failed(t, error);
}

void Crashed(Transcript* t) {
    t->Say("no-device-type").Say("camera-crashed").Event(0, "closed").Executed(false);
}

TEST(CameraUpdate, SendsTheImagesThatDifferAndThenFindsNothingToUpdate) {
    const struct {
        const char* name;
        size_t camera_size;
        size_t system_size;
        bool camera;
        bool system;
    } cases[] = {
        {"both", 64513, 100, true, true},
        {"one-byte", 1, 1, true, true},
        {"only-camera", 64512, 5, true, false},
        {"only-system", 5, 64514, false, true},
    };
    for (const auto& it : cases) {
        Camera camera = {Pattern(it.camera_size), Pattern(it.system_size)};
        camera.new_camera = it.camera ? "1a2b" : "1000";
        camera.new_system = it.system ? "2fff" : "2000";
        Case played = CameraCase(it.name, camera);
        if (it.camera) {
            played.kept["overlookcam.bin"] = camera.camera;
        }
        if (it.system) {
            played.kept["overlooksys.bin"] = camera.system;
        }
        Transcript update({"overlook"});
        camera.Update(&update);
        update.Executed(true);
        camera.unit_camera = it.camera ? "1A2B" : "1000";
        camera.unit_system = it.system ? "2FFF" : "2000";
        camera.new_camera = camera.unit_camera;
        camera.new_system = camera.unit_system;
        Transcript again({"overlook"});
        camera.Begin(&again);
        again.Event(0, "closed").Executed(true);
        played.steps = {{update, 0}, {again, 0}};
        Play(played);
    }
}

TEST(CameraQuery, ComparesVersionsAsTheyAreReadAndNeverSendsAnImage) {
    const struct {
        const char* name;
        const char* unit;   // the camera firmware's version as the unit reports it
        const char* file;   // what overlookcamver holds
        const char* shown;  // both as they are printed
        const char* shown_file;
        int status;
    } cases[] = {
        {"equal", "1a2B", "1A2b", "", "", 0},
        {"older", "1000", "0fff\n", "1000", "fff", 1},
        {"no-digits", "1000", "version", "1000", "0", 1},
        {"no-digits-either", "zzzz", "version", "", "", 0},
        {"prefix", "1000", "0x1000", "1000", "0", 1},
        {"empty", "1000", "", "1000", "0", 1},
        {"six-digits", "1000", "12345678", "1000", "123456", 1},
        {"punctuation", "1000", "1:?0", "1000", "1af0", 1},
        // The reported version is widened with its sign and never equals a file's.
        {"sign", "8001", "8001", "ffff8001", "8001", 1},
    };
    for (const auto& it : cases) {
        Camera camera = TheCamera();
        camera.unit_camera = it.unit;
        camera.new_system = camera.unit_system;
        Case played = CameraCase(std::string("query-") + it.name, camera);
        played.files["overlookcamver"] = it.file;
        Transcript t({"overlook", "q"});
        camera.Ask(&t);
        camera.Reply(&t);
        if (it.status == 1) {
            t.Say("camera-needed", {it.shown, it.shown_file});
        } else {
            t.Say("camera-current");
        }
        t.Say("system-current").Event(0, "closed");
        t.Say(it.status == 1 ? "required" : "not-required");
        played.steps = {{t, it.status}};
        Play(played);
    }
}

struct Fault {
    const char* name;
    Words faults;
    void (*tell)(const Camera&, Transcript*);  // from the beginning of the camera's part
    int status = 255;
    bool kept = false;
    int unit_status = 0;
};

void PlayFaults(const Camera& camera, const std::vector<Fault>& faults) {
    for (const Fault& fault : faults) {
        Case it = CameraCase(fault.name, camera, fault.faults);
        Transcript t({"overlook"});
        fault.tell(camera, &t);
        it.steps = {{t, fault.status}};
        it.unit_status = fault.unit_status;
        if (fault.kept) {
            it.kept = {{"overlookcam.bin", camera.camera}, {"overlooksys.bin", camera.system}};
        }
        Play(it);
    }
}

void Unanswered(const Camera& camera, Transcript* t) {
    camera.Ask(t);
    Crashed(t);
}

void GoesWell(const Camera& camera, Transcript* t) {
    camera.Update(t);
    t->Executed(true);
}

TEST(CameraUpdate, AWrongDeviceTypeReplyIsHuntedThroughOrReported) {
    PlayFaults(
        TheCamera(),
        {{"silent", {"silent unit=camera"}, Unanswered},
         {"late", {"late unit=camera ms=20000"}, Unanswered},
         {"short",
          {"short unit=camera answer=device-type count=5"},
          [](const Camera& camera, Transcript* t) {
              camera.Ask(t);
              t->Unit(0, camera.DeviceType().substr(0, 5)).Say("first-byte").Say("no-device-type");
              Failed(t, "ffffffff");
          }},
         {"noise",
          {"noise unit=camera answer=device-type bytes=00fe"},
          [](const Camera& camera, Transcript* t) {
              camera.Ask(t);
              t->Unit(0, std::string("\x00\xFE", 2))
                  .Say("drop-byte", {"0"})
                  .Say("drop-byte", {"fe"});
              camera.Reply(t);
              camera.Verdict(t);
              camera.FlashMode(t);
              camera.Transfer(t);
              t->Event(0, "closed").Executed(true);
          },
          0,
          true},
         {"wrong-type",
          {"wrong-type unit=camera"},
          [](const Camera& camera, Transcript* t) {
              camera.Ask(t);
              const std::string reply = "\x15" + camera.DeviceType().substr(1);
              t->Unit(0, reply);
              for (const char byte : reply) {
                  t->Say("drop-byte", {Hex(static_cast<uint8_t>(byte))});
              }
              Crashed(t);
          }},
         {"gone-at-once",
          {"close unit=camera at=3"},
          [](const Camera& camera, Transcript* t) {
              camera.Ask(t);
              t->Event(0, "the line went away").Say("no-device-type").Say("camera-crashed");
              t->Say("disable-failed", {"0", "0"}).Event(0, "closed").Executed(false);
          }},
         {"stuck", {"hold unit=camera"}, [](const Camera& camera, Transcript* t) {
              camera.Open(t);
              camera.Sizes(t);
              t->Say("write-timeout", {"0"}).Say("cannot-send", {"3", "0"});
              Failed(t, "ffffffff");
          }}});
}

TEST(CameraUpdate, AWrongFlashModeReplyEndsTheUpdate) {
    PlayFaults(TheCamera(),
               {{"mode-silent",
                 {"silent unit=camera answer=flash-mode"},
                 [](const Camera& camera, Transcript* t) {
                     camera.Begin(t);
                     camera.Announce(t);
                     t->Say("no-device-type");
                     FailedLate(t, "ffffffff");
                 }},
                {"mode-short",
                 {"short unit=camera answer=flash-mode count=3"},
                 [](const Camera& camera, Transcript* t) {
                     camera.Begin(t);
                     camera.Announce(t);
                     t->Unit(0, camera.FlashReply().substr(0, 3)).Say("no-device-type");
                     FailedLate(t, "ffffffff");
                 }},
                {"mode-stuck", {"hold unit=camera at=3"}, [](const Camera& camera, Transcript* t) {
                     camera.Begin(t);
                     t->Say("write-timeout", {"0"}).Say("cannot-send", {"8", "0"});
                     FailedLate(t, "ffffffff");
                 }}});
}

// Up to the sending of a block, which is block 0 of an image or block 1 of the camera's.
void SendBlock(const Camera& camera, Transcript* t, bool system, size_t block) {
    camera.Begin(t);
    camera.FlashMode(t);
    for (size_t i = 0; i < block; i++) {
        camera.Block(t, false, i);
    }
    if (system) {
        camera.Block(t, false, 0);
        t->Say("camera-working", {"1"});
    }
    t->Say(system ? "system-working" : "camera-working", {std::to_string(block)});
    camera.Send(t, system, block, block);
}

TEST(CameraUpdate, TheFirstNackEndsTheUpdateSinceARetryWouldBeEmpty) {
    PlayFaults(
        TheCamera(),
        {{"nack", {"nack unit=camera image=camera"}, [](const Camera& camera, Transcript* t) {
              SendBlock(camera, t, false, 0);
              t->Unit(0, "\x48\x0F");
              Camera::Got(t, "\x48\x0F");
              t->Say("camera-block", {"0", "2"}).Say("empty-block");
              t->Say("block-failed", {"0", "-1"});
              FailedLate(t, "ffffffff");
          }}});
}

TEST(CameraUpdate, ALineThatGoesAwayInsideABlockEndsTheUpdate) {
    Camera camera = TheCamera();
    camera.camera = Pattern(64512);
    Case it = CameraCase("gone-inside", camera, {"close unit=camera at=30011"});
    Transcript t({"overlook"});
    camera.Begin(&t);
    camera.FlashMode(&t);
    t.Say("camera-working", {"0"}).Say("read", {"64512"}).Say("camera-block", {"0", "1"});
    t.Say("sending", {"0", "64514"});
    t.Host(0, Frame(0x88, Word(0) + camera.camera).substr(0, 30000));
    t.Event(0, "the line went away");
    // How much of the frame went out before the write failed is up to the terminal's buffer.
    t.Say("short-write").Say("send-failed").Say("block-failed", {"0", "-1"}).Say("come-up");
    t.Say("camera-failed", {"ffffffff"}).Say("disable-failed", {"0", "0"});
    t.Event(0, "closed").Executed(false);
    it.unsteady = {"genericWriteRs232Port", "failure sending system status"};
    it.steps = {{t, 255}};
    it.unit_status = 3;
    Play(it);
}

TEST(CameraUpdate, AnAnswerThatOnlyTakesItsTimeOrComesInPiecesIsTaken) {
    PlayFaults(TheCamera(), {{"slow-erase", {"slow-erase unit=camera ms=600"}, GoesWell, 0, true},
                             {"split", {"split unit=camera ms=1"}, GoesWell, 0, true}});
}

// Each waits for the four seconds in which a block's answer is due.
TEST(CameraUpdate, ABlockWithoutAnAnswerInTimeEndsTheUpdate) {
    PlayFaults(TheCamera(), {{"block-silent",
                              {"silent unit=camera image=system"},
                              [](const Camera& camera, Transcript* t) {
                                  SendBlock(camera, t, true, 0);
                                  Camera::Got(t, "");
                                  FailedLate(t, "ffffffff");
                              },
                              255,
                              true}});
}

TEST(CameraUpdate, AfterAnUnknownAnswerTheNextDataGoOutUnderTheSameNumber) {
    Camera camera = TheCamera();
    camera.camera = Pattern(64513);
    PlayFaults(camera, {{"block-corrupt",
                         {"corrupt unit=camera image=camera"},
                         [](const Camera& it, Transcript* t) {
                             SendBlock(it, t, false, 0);
                             t->Unit(0, "\x48\x55");
                             Camera::Got(t, "\x48\x55");
                             t->Say("camera-unknown", {"55"});
                             it.Send(t, false, 0, 1);
                             Camera::Got(t, "");
                             FailedLate(t, "ffffffff");
                         },
                         255,
                         false,
                         3}});
}

TEST(CameraUpdate, AMissingOrUnreadableFileEndsTheUpdateBeforeAnyBlock) {
    const struct {
        const char* file;
        bool loop;  // a link to itself in place of a missing file
    } cases[] = {{"overlookcamver", false},
                 {"overlooksysver", true},
                 {"overlookcam.bin", false},
                 {"overlooksys.bin", true}};
    const Camera camera = TheCamera();
    for (const auto& it : cases) {
        const bool version = std::string(it.file).ends_with("ver");
        Case played = CameraCase(std::string("without-") + it.file, camera);
        played.files.erase(it.file);
        if (it.loop) {
            played.prepare = [&](const Place& place) {
                std::filesystem::create_symlink(it.file, place.work + "/" + it.file);
            };
        }
        Transcript t({"overlook"});
        camera.Open(&t);
        t.Say("count-blocks");
        for (const char* image : {"overlookcam.bin", "overlooksys.bin"}) {
            if (std::string(image) != it.file) {
                t.Say("image-size", {image, std::to_string(played.files[image].size())});
            }
        }
        if (!version) {
            t.Host(0, "\x82\x06\x77").Say("await-device-type");
            camera.Reply(&t);
            camera.Verdict(&t);
        }
        t.Say("no-file", {it.file});
        if (version) {
            Failed(&t, "ffffffdc");
        } else {
            FailedLate(&t, "ffffffdc");
        }
        played.files.erase(it.file);
        played.steps = {{t, 255}};
        Play(played);
    }
}

// Nothing is announced and nothing sent, and the answer to no block is awaited for four seconds.
TEST(CameraUpdate, ImagesWithoutDataEndInAFailure) {
    Camera camera = TheCamera();
    camera.camera.clear();
    camera.system.clear();
    for (const bool folder : {false, true}) {
        Case it = CameraCase(folder ? "image-folder" : "image-empty", camera);
        Transcript t({"overlook"});
        camera.Open(&t);
        if (folder) {
            it.files.erase("overlookcam.bin");
            it.prepare = [](const Place& place) {
                std::filesystem::create_directory(place.work + "/overlookcam.bin");
            };
            t.Say("count-blocks").Say("image-error", {"overlookcam.bin"});
        } else {
            camera.Sizes(&t);
        }
        t.Host(0, "\x82\x06\x77").Say("await-device-type");
        camera.Reply(&t);
        camera.Verdict(&t);
        t.Say("counts", {"0", "0"}).Say("camera-working", {"0"}).Say("system-working", {"0"});
        Camera::Got(&t, "");
        FailedLate(&t, "ffffffff");
        it.steps = {{t, 255}};
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
