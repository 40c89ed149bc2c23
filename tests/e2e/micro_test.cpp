// Updates of the microcontroller: what goes well, and every way in which unit, line or image fail.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

// Twelve full blocks.
Scene WholeScene() {
    Scene scene;
    scene.micro = Pattern(6144);
    return scene;
}

TEST(MicroUpdate, TwelveBlocksReachTheUnitWhateverTheImageHolds) {
    const struct {
        const char* name;
        std::string image;
    } images[] = {{"micro-whole", Pattern(6144)},
                  {"micro-600-bytes", Pattern(600)},
                  {"micro-one-block", Pattern(512)},
                  {"micro-one-byte", Pattern(1)},
                  {"micro-too-long", Pattern(7000)},
                  {"micro-all-ff", std::string(6144, '\xFF')},
                  {"micro-all-fe", std::string(6144, '\xFE')}};
    for (const auto& image : images) {
        Scene scene;
        scene.micro = image.image;
        Case it(image.name, scene);
        it.kept = {{"kestrelmicro.bin", image.image.substr(0, 6144)}};
        it.Run({"micro"}, 0, "m.update done");
        it.Run({"micro", "q"}, 0, "m.current say:not-required", scene.Updated());
        Play(it);
    }
}

TEST(MicroUpdate, AnOlderImageIsSentAndAnEqualOneIsNot) {
    Scene scene;
    scene.unit_micro = 0x14;
    Case older("micro-older", scene);
    older.Run({"micro", "q"}, 1, "m.current say:required");
    Play(older);
    scene.unit_micro = 0x13;
    Case equal("micro-equal", scene);
    equal.Run({"micro"}, 0, "m.current done");
    Play(equal);
}

TEST(MicroUpdate, ABlocksWrongAnswerEndsOrBendsTheRunAsDesigned) {
    const struct {
        const char* name;
        const char* fault;
        const char* story;  // from block 3 on
        bool kept = false;
        int unit_status = 0;
    } cases[] = {
        {"micro-nack", "nack unit=micro block=3 attempt=1",
         "m.work m.send:3 m.nack m.retry:3,2 m.ack m.blocks:4,11 m.end", true},
        {"micro-nack-twice", "nack unit=micro block=3 times=2",
         "m.work m.send:3 m.nack m.retry:3,2 m.nack m.retry:3,3 m.ack m.blocks:4,11 m.end", true},
        // Exhausted retries are no failure: nothing is sent any more, and the run ends well.
        {"micro-nack-thrice", "nack unit=micro block=3",
         "m.work m.send:3 m.nack m.retry:3,2 m.nack m.retry:3,3 m.nack m.work m.miss:0 "
         "say:micro-end"},
        {"micro-drop", "drop unit=micro block=3", "m.work m.send:3 m.miss:0 say:micro-end"},
        {"micro-late", "late unit=micro block=3 ms=5000", "m.work m.send:3 m.miss:0 say:micro-end"},
        {"micro-silent", "silent unit=micro block=3", "m.work m.send:3 m.miss:0 say:micro-end"},
        {"micro-short", "short unit=micro block=3",
         "m.work m.send:3 unit:1,48 m.miss:1 say:micro-end"},
        // After an unknown answer the next 512 bytes go out under the same number, which the unit
        // refuses. One stray byte makes every later answer an unknown one.
        {"micro-corrupt", "corrupt unit=micro block=3 value=0x55",
         "m.work m.send:3 unit:1,4855 m.miss:2 m.work say:micro-unknown,55 m.send:3,4 m.miss:0 "
         "say:micro-end",
         false, 3},
        {"micro-stray", "noise unit=micro block=3 bytes=00",
         "m.work m.send:3 unit:1,004806 m.miss:2 m.work say:micro-unknown,48 m.send:3,4 m.miss:1 "
         "say:micro-end",
         false, 3},
        {"micro-split", "split unit=micro ms=1", "m.blocks:3,11 m.end", true},
        {"micro-duplicate", "duplicate unit=micro block=11", "m.blocks:3,11 unit:1,4806 m.end",
         true},
    };
    const Scene scene = WholeScene();
    for (const auto& fault : cases) {
        Case it(fault.name, scene, {fault.fault});
        it.Run({"micro"}, 0, std::string("m.begin m.blocks:0,2 ") + fault.story + " closed:1 done");
        it.unit_status = fault.unit_status;
        if (fault.kept) {
            it.kept = {{"kestrelmicro.bin", scene.micro}};
        }
        Play(it);
    }
}

TEST(MicroUpdate, ALineThatGoesAwayHalfWayEndsInAFailureAndAClosedPort) {
    const Scene scene = WholeScene();
    size_t bytes = 11;
    for (size_t block = 0; block < 4; block++) {
        bytes += Frame(0x48, Word(block) + scene.micro.substr(block * 512, 512)).size();
    }
    Case it("micro-gone", scene, {"close unit=micro at=" + std::to_string(bytes)});
    it.Run({"micro"}, 255,
           "m.begin m.blocks:0,2 m.work m.send:3 gone:1 m.miss:0 say:micro-end "
           "say:disable-failed,1,1 closed:1 failed");
    Play(it);
}

TEST(MicroQuery, AWrongVersionReplyIsHuntedThroughOrReported) {
    const struct {
        const char* name;
        const char* fault;
        const char* story;  // from the request on
        int status = 255;
    } cases[] = {
        {"reply-silent", "silent unit=micro", "m.unheard failed"},
        {"reply-late", "late unit=micro ms=5000", "m.unheard failed"},
        {"reply-one-byte", "short unit=micro count=1", "m.unit:1 say:no-code closed:1 failed"},
        {"reply-two-bytes", "short unit=micro count=2", "m.unit:2 say:no-rest closed:1 failed"},
        {"reply-five-bytes", "short unit=micro count=5", "m.unit:5 m.reply:3 m.required", 1},
        {"reply-twice", "duplicate unit=micro", "m.unit:15 m.unit:15 m.reply:13 m.required", 1},
        {"reply-behind-noise", "noise unit=micro bytes=0102FF15",
         "unit:1,0102ff15 m.unit:15 say:drop-first,1 say:drop-first,2 say:drop-second,15 "
         "m.reply:13 m.required",
         1},
        // A byte dropped as a second one is not looked at again as a delimiter: behind a lone 0xFF
        // the whole reply is lost.
        {"reply-behind-ff", "noise unit=micro bytes=FF",
         "unit:1,ff m.unit:15 say:drop-second,ff say:drop-first,14 say:drop-first,0 "
         "say:drop-first,d say:drop-first,12 say:drop-first,6b say:drop-first,65 "
         "say:drop-first,73 say:drop-first,74 say:drop-first,72 say:drop-first,65 "
         "say:drop-first,6c say:drop-first,73 say:drop-first,69 say:drop-first,6d m.unheard "
         "failed"},
    };
    for (const auto& fault : cases) {
        Case it(fault.name, {}, {fault.fault});
        it.Run({"micro", "q"}, fault.status, std::string("m.open m.request ") + fault.story);
        Play(it);
    }
}

TEST(MicroQuery, SteadyNoiseIsHuntedThroughWithoutEndUntilTheUserEndsIt) {
    Case it("reply-noise", {}, {"drop unit=micro", "steady-noise unit=micro ms=2"});
    it.Run({"micro"}, 128 + 15, "m.open");
    it.unsteady = {"##### Drop first byte"};
    it.stop_after = 3000;
    it.delay_percent = 0;
    Play(it);
}

TEST(MicroUpdate, AnImageWithoutAUsableVersionNeedsNoUpdate) {
    const struct {
        const char* name;
        const char* target;  // of the link that stands for the image; null: a file or nothing
        const char* content;
        const char* text;
    } images[] = {
        {"micro-missing", nullptr, nullptr, "micro-no-file"},
        {"micro-unreadable", "kestrelmicro.bin", nullptr, "micro-no-file"},
        {"micro-directory", ".", nullptr, "micro-no-version,0"},
        {"micro-empty", nullptr, "", "micro-no-version,0"},
        {"micro-version-zero", "/dev/zero", nullptr, "micro-no-version,1"},
    };
    for (const auto& image : images) {
        Case it(image.name, {});
        it.files.erase("kestrelmicro.bin");
        if (image.content != nullptr) {
            it.files["kestrelmicro.bin"] = image.content;
        }
        it.prepare = [&](const Place& place) {
            if (image.target != nullptr) {
                std::filesystem::create_symlink(image.target, place.work + "/kestrelmicro.bin");
            }
        };
        it.Run({"micro"}, 0, std::string("m.open m.ask say:") + image.text + " closed:1 done");
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
