// Updates of the microcontroller: what goes well, and what unit and line can do to it.
#include <gtest/gtest.h>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

TEST(MicroUpdate, TwelveBlocksReachTheUnitWhateverTheImageHolds) {
    for (const std::string& image :
         {Pattern(512), Pattern(1), Pattern(7000), std::string(6144, '\xFF')}) {
        Scene scene;
        scene.micro = image;
        Case it("micro-" + std::to_string(image.size()), scene);
        it.kept = {"kestrelmicro.bin"};
        it.Run({"micro"}, 0, "m.update done");
        it.scene = scene.Updated();
        it.Run({"micro", "q"}, 0, "m.current not-required");
        Play(it);
    }
}

TEST(MicroUpdate, ABlocksWrongAnswerEndsOrBendsTheRunAsDesigned) {
    Scene scene;
    scene.micro = Pattern(6144);
    const Words kept = {"kestrelmicro.bin"};
    size_t third = 11;  // bytes up to the end of block 3
    for (size_t block = 0; block < 4; block++) {
        third += Frame(0x48, Word(block) + scene.micro.substr(block * 512, 512)).size();
    }
    PlayFaulty(
        {"micro"}, "m.begin blocks:micro,0,3 micro-working send:micro,3", scene,
        {{"micro-nack", "nack unit=micro block=3 attempt=1",
          "m.nack m.retry:3,2 m.ack blocks:micro,4,12 m.end", 0, kept},
         // Exhausted retries are no failure: nothing is sent any more, and the run ends well.
         {"micro-nack-thrice", "nack unit=micro block=3",
          "m.nack m.retry:3,2 m.nack m.retry:3,3 m.nack micro-working m.silence", 0},
         {"micro-late", "late unit=micro block=3 ms=5000", "m.silence", 0},
         // One stray byte makes every later answer an unknown one: the next 512 bytes go out under
         // the same number, which the unit refuses.
         {"micro-stray",
          "noise unit=micro block=3 bytes=00",
          "unit:1,004806 micro-got:NACK,2 micro-working micro-unknown:48 send:micro,3,4 "
          "micro-got:NACK,1 micro-end closed:1 done",
          0,
          {},
          3},
         {"micro-split", "split unit=micro ms=1", "m.ack blocks:micro,4,12 m.end", 0, kept},
         {"micro-duplicate", "duplicate unit=micro block=11",
          "m.ack blocks:micro,4,12 unit:1,4806 m.end", 0, kept},
         {"micro-gone", "close unit=micro at=" + std::to_string(third), "m.gone"}});
}

TEST(MicroQuery, AWrongVersionReplyIsHuntedThroughOrReported) {
    PlayFaulty(
        {"micro", "q"}, "m.open m.request", {},
        {{"reply-twice", "duplicate unit=micro", "m.unit m.unit version-reply m.required", 1},
         {"reply-behind-noise", "noise unit=micro bytes=0102FF15",
          "unit:1,0102ff15 m.unit bytes:drop-first,0102 bytes:drop-second,15 version-reply "
          "m.required",
          1},
         // A byte dropped as a second one is not looked at again as a delimiter: behind a lone 0xFF
         // the whole reply is lost.
         {"reply-behind-ff", "noise unit=micro bytes=FF",
          "unit:1,ff m.unit bytes:drop-second,ff bytes:drop-first,14000d126b65737472656c73696d "
          "m.unheard failed"}});
}

}  // namespace
}  // namespace e2e
