// Updates of the camera: both images, one of them, and every way in which unit, line or files fail.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

TEST(CameraUpdate, SendsTheImagesThatDifferAndThenFindsNothingToUpdate) {
    const struct {
        const char* name;
        size_t camera_size;
        size_t system_size;
        const char* new_camera;
        const char* new_system;
    } cases[] = {
        {"camera-both", 64513, 100, "1A00", "2FFF"},
        {"camera-one-byte", 1, 1, "0999", "7FFF"},
        {"camera-only-camera", 64512, 5, "1001", "2000"},
        {"camera-only-system", 5, 64514, "1000", "2001"},
    };
    for (const auto& sizes : cases) {
        Scene scene;
        scene.camera = Pattern(sizes.camera_size);
        scene.system = Pattern(sizes.system_size);
        Case it(sizes.name, scene);
        it.files["overlookcamver"] = sizes.new_camera;
        it.files["overlooksysver"] = sizes.new_system;
        // Printed as the numbers that they are.
        scene.new_camera = Hex(static_cast<unsigned>(std::stoul(sizes.new_camera, nullptr, 16)));
        scene.new_system = Hex(static_cast<unsigned>(std::stoul(sizes.new_system, nullptr, 16)));
        if (scene.camera_needed()) {
            it.kept["overlookcam.bin"] = scene.camera;
        }
        if (scene.system_needed()) {
            it.kept["overlooksys.bin"] = scene.system;
        }
        it.Run({"overlook"}, 0, "c.update done", scene);
        scene.unit_camera = scene.new_camera = sizes.new_camera;
        scene.unit_system = scene.new_system = sizes.new_system;
        it.Run({"overlook"}, 0, "c.current done", scene);
        Play(it);
    }
}

TEST(CameraQuery, ComparesVersionsAsTheyAreReadAndNeverSendsAnImage) {
    const struct {
        const char* name;
        const char* unit;     // the camera firmware's version as the unit reports it
        const char* file;     // what overlookcamver holds
        const char* verdict;  // with both as they are printed
        int status = 1;
    } cases[] = {
        {"version-equal", "1a2B", "1A2b", "camera-current", 0},
        {"version-older", "1000", "0fff\n", "camera-needed,1000,fff"},
        {"version-no-digits", "1000", "version", "camera-needed,1000,0"},
        {"version-no-digits-either", "zzzz", "version", "camera-current", 0},
        {"version-prefix", "1000", "0x1000", "camera-needed,1000,0"},
        {"version-empty", "1000", "", "camera-needed,1000,0"},
        {"version-six-digits", "1000", "12345678", "camera-needed,1000,123456"},
        {"version-punctuation", "1000", "1:?0", "camera-needed,1000,1af0"},
        // The reported version is widened with its sign and never equals a file's.
        {"version-sign", "8001", "8001", "camera-needed,ffff8001,8001"},
    };
    for (const auto& version : cases) {
        Scene scene;
        scene.unit_camera = version.unit;
        Case it(version.name, scene);
        it.files["overlookcamver"] = version.file;
        it.files["overlooksysver"] = scene.unit_system;
        it.Run({"overlook", "q"}, version.status,
               std::string("c.ask c.unit:13 c.reply say:") + version.verdict +
                   " say:system-current closed:0 say:" +
                   (version.status == 1 ? "required" : "not-required"));
        Play(it);
    }
}

struct Fault {
    const char* name;
    const char* fault;
    const char* story;
    int status = 255;
    std::string kept = {};  // images: "camera", "both"
    int unit_status = 0;
};

void PlayAll(std::initializer_list<Fault> faults, const Scene& scene = {}) {
    for (const Fault& fault : faults) {
        Case it(fault.name, scene, {fault.fault});
        it.Run({"overlook"}, fault.status, fault.story);
        it.unit_status = fault.unit_status;
        if (!fault.kept.empty()) {
            it.kept["overlookcam.bin"] = scene.camera;
        }
        if (fault.kept == "both") {
            it.kept["overlooksys.bin"] = scene.system;
        }
        Play(it);
    }
}

TEST(CameraUpdate, AWrongDeviceTypeReplyIsHuntedThroughOrReported) {
    PlayAll({
        {"type-silent", "silent unit=camera", "c.ask c.unheard"},
        {"type-late", "late unit=camera ms=20000", "c.ask c.unheard"},
        {"type-short", "short unit=camera answer=device-type count=5",
         "c.ask c.unit:5 say:first-byte say:no-device-type c.failed"},
        {"type-noise", "noise unit=camera answer=device-type bytes=00fe",
         "c.ask unit:0,00fe say:drop-byte,0 say:drop-byte,fe c.unit:13 c.reply c.verdict c.mode "
         "c.transfer closed:0 done",
         0, "both"},
        {"type-wrong", "wrong-type unit=camera",
         "c.ask unit:0,154f564c4b3230303031303030 say:drop-byte,15 say:drop-byte,4f "
         "say:drop-byte,56 say:drop-byte,4c say:drop-byte,4b say:drop-byte,32 say:drop-byte,30 "
         "say:drop-byte,30 say:drop-byte,30 say:drop-byte,31 say:drop-byte,30 say:drop-byte,30 "
         "say:drop-byte,30 c.unheard"},
        {"type-gone", "close unit=camera at=3",
         "c.ask gone:0 say:no-device-type say:camera-crashed say:disable-failed,0,0 closed:0 "
         "failed"},
        {"type-stuck", "hold unit=camera",
         "c.open c.sizes say:write-timeout,0 say:cannot-send,3,0 c.failed"},
    });
}

TEST(CameraUpdate, AWrongFlashModeReplyEndsTheUpdate) {
    PlayAll({
        {"mode-silent", "silent unit=camera answer=flash-mode",
         "c.begin c.announce say:no-device-type say:come-up c.failed"},
        {"mode-short", "short unit=camera answer=flash-mode count=3",
         "c.begin c.announce c.mode-unit:3 say:no-device-type say:come-up c.failed"},
        {"mode-stuck", "hold unit=camera at=3",
         "c.begin say:write-timeout,0 say:cannot-send,8,0 say:come-up c.failed"},
    });
}

TEST(CameraUpdate, ABlocksWrongAnswerEndsTheUpdate) {
    PlayAll({
        // A retry would be empty, and empty blocks are not sent.
        {"camera-nack", "nack unit=camera image=camera",
         "c.begin c.mode say:camera-working,0 c.send:camera,0 unit:0,480f c.got:480f "
         "say:camera-block,0,2 say:empty-block say:block-failed,0,-1 say:come-up c.failed"},
        {"system-nack", "nack unit=camera image=system",
         "c.begin c.mode c.camera-image say:system-working,0 c.send:system,0 unit:0,480f "
         "c.got:480f say:system-block,0,2 say:empty-block say:block-failed,0,0 say:come-up "
         "c.failed",
         255, "camera"},
        // No answer within four seconds, although the unit has everything.
        {"block-silent", "silent unit=camera image=system",
         "c.begin c.mode c.camera-image say:system-working,0 c.send:system,0 c.got: say:come-up "
         "c.failed",
         255, "both"},
    });
}

TEST(CameraUpdate, AfterAnUnknownAnswerTheNextDataGoOutUnderTheSameNumber) {
    Scene scene;
    scene.camera = Pattern(64513);
    PlayAll({{"block-corrupt", "corrupt unit=camera image=camera",
              "c.begin c.mode say:camera-working,0 c.send:camera,0 unit:0,4855 c.got:4855 "
              "say:camera-unknown,55 c.send:camera,0,1 c.got: say:come-up c.failed",
              255, "", 3}},
            scene);
}

TEST(CameraUpdate, AnAnswerThatOnlyTakesItsTimeOrComesInPiecesIsTaken) {
    PlayAll({{"slow-erase", "slow-erase unit=camera ms=600", "c.update done", 0, "both"},
             {"split", "split unit=camera ms=1", "c.update done", 0, "both"}});
}

TEST(CameraUpdate, ALineThatGoesAwayInsideABlockEndsTheUpdate) {
    Scene scene;
    scene.camera = Pattern(64512);
    Case it("gone-inside", scene, {"close unit=camera at=30011"});
    Transcript t({"overlook"}, scene);
    t.Tell("c.begin c.mode say:camera-working,0 say:read,64512 say:camera-block,0,1");
    t.Bytes(0, '>', Frame(0x88, Word(0) + scene.camera).substr(0, 30000));
    // How much of the frame went out before the write failed is up to the terminal's buffer.
    t.Tell(
        "say:sending,0,64514 gone:0 say:short-write say:send-failed say:block-failed,0,-1 "
        "say:come-up say:camera-failed,ffffffff say:disable-failed,0,0 closed:0 failed");
    it.unsteady = {"genericWriteRs232Port", "failure sending system status"};
    it.steps = {{t, 255}};
    it.unit_status = 3;
    Play(it);
}

TEST(CameraUpdate, AMissingOrUnreadableFileEndsTheUpdateBeforeAnyBlock) {
    const struct {
        const char* file;
        bool loop;          // a link to itself in place of a missing file
        const char* story;  // from the count of the blocks on
    } cases[] = {
        {"overlookcamver", false,
         "say:image-size,overlookcam.bin,300 say:image-size,overlooksys.bin,200 "
         "say:no-file,overlookcamver"},
        {"overlooksysver", true,
         "say:image-size,overlookcam.bin,300 say:image-size,overlooksys.bin,200 "
         "say:no-file,overlooksysver"},
        {"overlookcam.bin", false,
         "say:image-size,overlooksys.bin,200 c.request c.unit:13 c.reply c.verdict "
         "say:no-file,overlookcam.bin say:come-up"},
        {"overlooksys.bin", true,
         "say:image-size,overlookcam.bin,300 c.request c.unit:13 c.reply c.verdict "
         "say:no-file,overlooksys.bin say:come-up"},
    };
    for (const auto& missing : cases) {
        Case it(std::string("without-") + missing.file, {});
        it.files.erase(missing.file);
        it.prepare = [&](const Place& place) {
            if (missing.loop) {
                fs::create_symlink(missing.file, place.work + "/" + missing.file);
            }
        };
        it.Run({"overlook"}, 255,
               std::string("c.open say:count-blocks ") + missing.story + " c.no-file");
        Play(it);
    }
}

// Nothing is announced and nothing sent, and the answer to no block is awaited for four seconds.
TEST(CameraUpdate, ImagesWithoutDataEndInAFailure) {
    const struct {
        const char* name;
        const char* sizes;
    } cases[] = {
        {"camera-empty", "say:image-size,overlookcam.bin,0 say:image-size,overlooksys.bin,0"},
        {"camera-directory", "say:image-error,overlookcam.bin"},
    };
    for (const auto& empty : cases) {
        const bool directory = std::string(empty.name) == "camera-directory";
        Scene scene;
        scene.camera.clear();
        scene.system.clear();
        Case it(empty.name, scene);
        it.prepare = [&](const Place& place) {
            if (directory) {
                fs::remove(place.work + "/overlookcam.bin");
                fs::create_directory(place.work + "/overlookcam.bin");
            }
        };
        it.Run({"overlook"}, 255,
               std::string("c.open say:count-blocks ") + empty.sizes +
                   " c.request c.unit:13 c.reply c.verdict say:counts,0,0 say:camera-working,0 "
                   "say:system-working,0 c.got: say:come-up c.failed");
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
