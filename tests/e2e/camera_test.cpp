// Updates of the camera: both images, one of them, and what unit and line can do to it.
#include <gtest/gtest.h>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

const char kCamera[] = "overlookcam.bin";
const char kSystem[] = "overlooksys.bin";

TEST(CameraUpdate, SendsTheImagesThatDifferAndThenFindsNothingToUpdate) {
    const std::pair<Scene, Words> cases[] = {
        {{"", Pattern(64513), Pattern(1), "1111", "7999"}, {kCamera, kSystem}},
        {{"", Pattern(64512), Pattern(5), "1001", "2000"}, {kCamera}},
        {{"", Pattern(5), Pattern(64514), "1000", "2001"}, {kSystem}}};
    for (const auto& [scene, images] : cases) {
        Case it("camera-" + scene.new_camera, scene);
        it.kept = images;
        it.Run({"overlook"}, 0, "c.update done");
        it.scene = scene.Updated();
        it.Run({"overlook"}, 0, "c.current done");
        Play(it);
    }
}

TEST(CameraUpdate, AWrongAnswerIsHuntedThroughOrEndsTheUpdate) {
    PlayFaulty({"overlook"}, "c.open c.sizes", {},
               {{"type-stuck", "hold unit=camera", "write-timeout:0 cannot-send:3,0 c.failed"},
                {"type-noise",
                 "noise unit=camera answer=device-type bytes=00fe",
                 "c.request unit:0,00fe bytes:drop-byte,00fe c.reply c.verdict c.mode c.transfer "
                 "closed:0 done",
                 0,
                 {kCamera, kSystem}},
                {"type-wrong", "wrong-type unit=camera",
                 "c.request unit:0,154f564c4b3230303031303030 "
                 "bytes:drop-byte,154f564c4b3230303031303030 c.unheard"},
                {"type-gone", "close unit=camera at=3",
                 "c.request gone:0 no-device-type camera-crashed c.gone"},
                {"mode-stuck", "hold unit=camera at=3",
                 "c.request c.reply c.verdict write-timeout:0 cannot-send:8,0 come-up c.failed"}});
    PlayFaulty(
        {"overlook"}, "c.begin c.mode", {},
        // A retry would be empty, and empty blocks are not sent.
        {{"camera-nack", "nack unit=camera image=camera",
          "camera-working:0 send:camera,0 c.nack camera-block:0,2 empty-block "
          "block-failed:0,-1 come-up c.failed"},
         // No answer within four seconds, although the unit has everything.
         {"block-silent",
          "silent unit=camera image=system",
          "c.camera system-working:0 send:system,0 camera-got:NACK,0 come-up c.failed",
          255,
          {kCamera, kSystem}},
         // An answer that only takes its time or comes in pieces.
         {"slow-erase",
          "slow-erase unit=camera ms=200",
          "c.transfer closed:0 done",
          0,
          {kCamera, kSystem}},
         {"split", "split unit=camera ms=1", "c.transfer closed:0 done", 0, {kCamera, kSystem}}});
}

TEST(CameraQuery, ComparesVersionsAsTheyAreRead) {
    const struct {
        const char* unit;     // the camera firmware's version as the unit reports it
        const char* content;  // of overlookcamver
        const char* story;
        int status = 1;
    } cases[] = {
        {"1a2B", "1A2b", "camera-current", 0},
        {"zzzz", "none", "camera-current", 0},
        {"1000", "", "camera-needed:1000,0"},
        // The reported version is widened with its sign and never equals a file's.
        {"8001", "8001\n", "camera-needed:ffff8001,8001"},
    };
    for (const auto& version : cases) {
        Scene scene;
        scene.unit_camera = version.unit;
        Case it(version.unit, scene);
        it.files["overlooksysver"] = scene.unit_system;
        it.files["overlookcamver"] = version.content;
        it.Run({"overlook", "q"}, version.status,
               std::string("c.ask c.reply ") + version.story + " system-current closed:0 " +
                   (version.status == 1 ? "required" : "not-required"));
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
