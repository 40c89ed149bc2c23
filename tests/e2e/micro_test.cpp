// Updates of the microcontroller: what goes well, and every way in which unit, line or image fail.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

Micro TheMicro(size_t size = 6144) {
    return {Pattern(size)};
}

Case MicroCase(const std::string& name, const Micro& micro, const Words& faults = {}) {
    Case it;
    it.name = "micro-" + name;
    it.files["kestrelmicro.bin"] = micro.image;
    it.unit = {"--micro-version", std::to_string(micro.version)};
    for (const std::string& fault : faults) {
        it.unit.insert(it.unit.end(), {"--fault", fault});
    }
    return it;
}

TEST(MicroUpdate, TwelveBlocksReachTheUnitWhateverTheImagesSize) {
    for (const size_t size : {6144, 600, 512, 1, 7000}) {
        Micro micro = TheMicro(size);
        Case it = MicroCase("size-" + std::to_string(size), micro);
        it.kept["kestrelmicro.bin"] = micro.image.substr(0, 6144);
        Transcript update({"micro"});
        micro.Update(&update);
        update.Executed(true);
        Transcript query({"micro", "q"});
        micro.version = static_cast<uint8_t>(micro.image[0]);
        micro.Open(&query);
        micro.Ask(&query);
        micro.Verdict(&query);
        query.Event(1, "closed").Say("not-required");
        it.steps = {{update, 0}, {query, 0}};
        Play(it);
    }
}

TEST(MicroUpdate, ImagesFullOfStuffedBytesArriveWhole) {
    for (const char fill : {'\xFF', '\xFE'}) {
        const Micro micro = {std::string(6144, fill)};
        Case it = MicroCase("fill-" + Hex(static_cast<uint8_t>(fill)), micro);
        it.kept["kestrelmicro.bin"] = micro.image;
        Transcript t({"micro"});
        micro.Update(&t);
        it.steps = {{t.Executed(true), 0}};
        Play(it);
    }
}

TEST(MicroUpdate, AnOlderImageIsSentAndAnEqualOneIsNot) {
    for (const uint8_t version : {uint8_t{0x14}, uint8_t{0x13}}) {
        Micro micro = TheMicro(10);
        micro.version = version;
        Case it = MicroCase("version-" + Hex(version), micro);
        Transcript t({"micro", "q"});
        micro.Open(&t);
        micro.Ask(&t);
        micro.Verdict(&t);
        t.Event(1, "closed").Say(version == 0x13 ? "not-required" : "required");
        it.steps = {{t, version == 0x13 ? 0 : 1}};
        Play(it);
    }
}

// One block's answer goes wrong. `tell` takes over at the working line of block 3.
struct BlockFault {
    const char* name;
    Words faults;
    void (*tell)(const Micro&, Transcript*);
    bool kept = false;
    int unit_status = 0;
};

void SendThird(const Micro& micro, Transcript* t) {
    t->Say("micro-working");
    micro.Send(t, 3);
}

void Silence(const Micro& micro, Transcript* t) {
    SendThird(micro, t);
    Micro::Got(t, false, 0);
    t->Say("micro-end");
}

// After an unknown answer the next 512 bytes go out under the same number, which the unit refuses.
void Misnumbered(const Micro& micro, Transcript* t, const std::string& unknown) {
    Micro::Got(t, false, -2);
    t->Say("micro-working").Say("micro-unknown", {unknown});
    micro.Send(t, 3, 4);
}

const BlockFault kBlockFaults[] = {
    {"nack",
     {"nack unit=micro block=3 attempt=1"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         Micro::Got(t, false);
         micro.Retry(t, 3, 2);
         Micro::Got(t, true);
         micro.Blocks(t, 4, 11);
         Micro::End(t);
     },
     true},
    {"nack-nack",
     {"nack unit=micro block=3 times=2"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         for (const int iteration : {2, 3}) {
             Micro::Got(t, false);
             micro.Retry(t, 3, iteration);
         }
         Micro::Got(t, true);
         micro.Blocks(t, 4, 11);
         Micro::End(t);
     },
     true},
    // Exhausted retries are no failure: nothing is sent any more and the run ends as a success.
    {"nack-nack-nack",
     {"nack unit=micro block=3"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         for (const int iteration : {2, 3}) {
             Micro::Got(t, false);
             micro.Retry(t, 3, iteration);
         }
         Micro::Got(t, false);
         t->Say("micro-working");
         Micro::Got(t, false, 0);
         t->Say("micro-end");
     }},
    {"drop", {"drop unit=micro block=3"}, Silence},
    {"late", {"late unit=micro block=3 ms=5000"}, Silence},
    {"silent", {"silent unit=micro block=3"}, Silence},
    {"short",
     {"short unit=micro block=3"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         t->Unit(1, "\x48");
         Micro::Got(t, false, 1);
         t->Say("micro-end");
     }},
    {"corrupt",
     {"corrupt unit=micro block=3 value=0x55"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         t->Unit(1, "\x48\x55");
         Misnumbered(micro, t, "55");
         Micro::Got(t, false, 0);
         t->Say("micro-end");
     },
     false,
     3},
    // One stray byte shifts every later answer by one.
    {"stray",
     {"noise unit=micro block=3 bytes=00"},
     [](const Micro& micro, Transcript* t) {
         SendThird(micro, t);
         t->Unit(1, std::string("\0\x48\x06", 3));
         Misnumbered(micro, t, "48");
         Micro::Got(t, false, 1);
         t->Say("micro-end");
     },
     false,
     3},
    {"split",
     {"split unit=micro ms=1"},
     [](const Micro& micro, Transcript* t) {
         micro.Blocks(t, 3, 11);
         Micro::End(t);
     },
     true},
    {"duplicate",
     {"duplicate unit=micro block=11"},
     [](const Micro& micro, Transcript* t) {
         micro.Blocks(t, 3, 11);
         t->Unit(1, "\x48\x06");
         Micro::End(t);
     },
     true},
};

TEST(MicroUpdate, ABlocksWrongAnswerEndsOrBendsTheRunAsDesigned) {
    const Micro micro = TheMicro();
    for (const BlockFault& fault : kBlockFaults) {
        Case it = MicroCase(fault.name, micro, fault.faults);
        Transcript t({"micro"});
        micro.Begin(&t);
        micro.Blocks(&t, 0, 2);
        fault.tell(micro, &t);
        t.Event(1, "closed").Executed(true);
        it.steps = {{t, 0}};
        it.unit_status = fault.unit_status;
        if (fault.kept) {
            it.kept["kestrelmicro.bin"] = micro.image;
        }
        Play(it);
    }
}

TEST(MicroUpdate, ALineThatGoesAwayHalfWayEndsInAFailureAndAClosedPort) {
    const Micro micro = TheMicro();
    Transcript t({"micro"});
    micro.Begin(&t);
    micro.Blocks(&t, 0, 2);
    SendThird(micro, &t);
    t.Event(1, "the line went away");
    Micro::Got(&t, false, 0);
    t.Say("micro-end").Say("disable-failed", {"1", "1"}).Event(1, "closed").Executed(false);
    size_t bytes = Frame(0x44, "\x01").size();
    for (size_t block = 0; block < 4; block++) {
        bytes += Frame(0x48, Word(block) + micro.image.substr(block * 512, 512)).size();
    }
    Case it = MicroCase("gone", micro, {"close unit=micro at=" + std::to_string(bytes)});
    it.steps = {{t, 255}};
    Play(it);
}

// What is wrong with the version reply, and what the updater makes of it, from the reply on.
struct ReplyFault {
    const char* name;
    Words faults;
    void (*tell)(const Micro&, Transcript*);
    int status = 255;
};

void NoDelimiter(const Micro&, Transcript* t) {
    t->Say("no-delimiter").Event(1, "closed");
}

void TellVerdict(const Micro& micro, Transcript* t) {
    micro.Verdict(t);
    t->Event(1, "closed").Say("required");
}

const ReplyFault kReplyFaults[] = {
    {"reply-silent", {"silent unit=micro"}, NoDelimiter},
    {"reply-late", {"late unit=micro ms=5000"}, NoDelimiter},
    {"reply-one-byte",
     {"short unit=micro count=1"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, micro.Reply().substr(0, 1)).Say("no-code").Event(1, "closed");
     }},
    {"reply-two-bytes",
     {"short unit=micro count=2"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, micro.Reply().substr(0, 2)).Say("no-rest").Event(1, "closed");
     }},
    {"reply-five-bytes",
     {"short unit=micro count=5"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, micro.Reply().substr(0, 5));
         micro.ShowReply(t, 3);
         TellVerdict(micro, t);
     },
     1},
    {"reply-after-noise",
     {"noise unit=micro bytes=0102FF15FF"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, "\x01\x02\xFF\x15").Say("drop-first", {"1"}).Say("drop-first", {"2"});
         t->Say("drop-second", {"15"});
         // The byte dropped as a second one is not looked at again as a delimiter, so the reply
         // behind a lone 0xFF is lost.
         t->Unit(1, "\xFF" + micro.Reply()).Say("drop-second", {"ff"});
         for (const char byte : micro.Reply().substr(1)) {
             t->Say("drop-first", {Hex(static_cast<uint8_t>(byte))});
         }
         NoDelimiter(micro, t);
     }},
    {"reply-behind-noise",
     {"noise unit=micro bytes=0102FF15"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, "\x01\x02\xFF\x15" + micro.Reply());
         t->Say("drop-first", {"1"}).Say("drop-first", {"2"}).Say("drop-second", {"15"});
         micro.ShowReply(t);
         TellVerdict(micro, t);
     },
     1},
    {"reply-twice",
     {"duplicate unit=micro"},
     [](const Micro& micro, Transcript* t) {
         t->Unit(1, micro.Reply() + micro.Reply());
         micro.ShowReply(t);
         TellVerdict(micro, t);
     },
     1},
};

TEST(MicroQuery, AWrongVersionReplyIsHuntedThroughOrReported) {
    const Micro micro = TheMicro(10);
    for (const ReplyFault& fault : kReplyFaults) {
        Case it = MicroCase(fault.name, micro, fault.faults);
        Transcript t({"micro", "q"});
        micro.Open(&t);
        t.Host(1, Frame(0x44, "\x01"));
        fault.tell(micro, &t);
        if (fault.status == 255) {
            t.Executed(false);
        }
        it.steps = {{t, fault.status}};
        Play(it);
    }
}

TEST(MicroQuery, SteadyNoiseIsHuntedThroughWithoutEndUntilTheUserEndsIt) {
    const Micro micro = TheMicro(10);
    Case it = MicroCase("noise", micro, {"drop unit=micro", "steady-noise unit=micro ms=2"});
    Transcript t({"micro"});
    micro.Open(&t);
    it.steps = {{t, 128 + 15}};
    it.unsteady = {"##### Drop first byte"};
    it.stop_after = 3000;
    it.delay_percent = 0;
    Play(it);
}

TEST(MicroUpdate, AnImageWithoutAUsableVersionNeedsNoUpdate) {
    using std::filesystem::create_directory;
    using std::filesystem::create_symlink;
    struct {
        const char* name;
        std::function<void(const std::string&)> make;
        Words text;
    } cases[] = {
        {"missing", [](const std::string&) {}, {"micro-no-file"}},
        {"unreadable",
         [](const std::string& path) { create_symlink(path, path); },
         {"micro-no-file"}},
        {"directory",
         [](const std::string& path) { create_directory(path); },
         {"micro-no-version", "0"}},
        {"empty", nullptr, {"micro-no-version", "0"}},
        {"version-zero", nullptr, {"micro-no-version", "1"}},
    };
    for (const auto& file : cases) {
        Micro micro = {file.text.back() == "1" ? std::string(600, '\0') : ""};
        Case it = MicroCase(std::string("image-") + file.name, micro);
        if (file.make) {
            it.files.clear();
            it.prepare = [&](const Place& place) { file.make(place.work + "/kestrelmicro.bin"); };
        }
        Transcript t({"micro"});
        micro.Open(&t);
        micro.Ask(&t);
        t.Say(file.text[0], Words(file.text.begin() + 1, file.text.end()));
        t.Event(1, "closed").Executed(true);
        it.steps = {{t, 0}};
        Play(it);
    }
}

}  // namespace
}  // namespace e2e
