// Messages to and from another processor, over a transport that plays it within this process.
#include "Common/framework/rem_message.h"

#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/system.h"
#include "Common/framework/modman.h"
#include "Common/framework/sharedfield.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

// The transport: calls of the master's modules are served by their peers and the other way round.
struct LinkT {
    ProxyTransportT transport;
    std::vector<std::string> calls;  // "name text"
    std::vector<ModT*> peers;
    eErrorT alloc_result = kNoError;
    eErrorT call_result = kNoError;
    const char* garbage = nullptr;  // answered instead of serving
    int freed = 0;
} gLink;

eErrorT AllocMod(ModT* pMod, UInt32) {
    if (gLink.alloc_result != kNoError) {
        return gLink.alloc_result;
    }
    ModT* peer = ModCloneLocal(pMod->name);
    peer->proxy.nodeType = kProxyServer;
    peer->proxy.remHandle = pMod;
    pMod->proxy.remHandle = peer;
    gLink.peers.push_back(peer);
    return kNoError;
}

eErrorT FreeMod(ModT*) {
    gLink.freed++;
    return kNoError;
}

eErrorT Call(ModT* pMod, const char* pName, char* pText) {
    gLink.calls.push_back(std::string(pName) + " " + pText);
    if (gLink.call_result != kNoError) {
        return gLink.call_result;
    }
    if (gLink.garbage != nullptr) {
        strcpy(pText, gLink.garbage);
        return kNoError;
    }
    const UInt32 before = FieldRead(gLink.transport.processorNum);
    FieldWrite(gLink.transport.processorNum, pMod->proxy.nodeType == kProxyClient ? 1U : 0U);
    const int length = ProxyServe(static_cast<ModT*>(pMod->proxy.remHandle), pName, pText);
    EXPECT_EQ(length, static_cast<int>(strlen(pText)) + 1);
    FieldWrite(gLink.transport.processorNum, before);
    return kNoError;
}

// Two processors of which this is the first, linked.
void Start() {
    Attach();
    StartLog();
    gLink.transport = {0, AllocMod, FreeMod, Call, nullptr};
    ProxySetTransport(&gLink.transport);
    ProcessorCnt = 2;
    ASSERT_EQ(ModManInit(), kNoError);
    ASSERT_EQ(MsgInit(), kNoError);
}

eErrorT EchoCmd(int argc, char** argv, char* pResponse) {
    for (int i = 1; i < argc; i++) {
        strcat(strcat(pResponse, i > 1 ? " " : ""), argv[i]);
    }
    return argc > 1 ? kNoError : kBadState;
}
CmdEntryT gEcho = {{}, "echo", EchoCmd, 1, nullptr, kMsgCmdSync, 0};
CmdEntryT gSlow = {{}, "slow", EchoCmd, 1, nullptr, 0, 0};

struct OutcomeT {
    eErrorT err;
    std::string text;
    void* userDefined;
};
std::vector<OutcomeT> gOutcomes;  // of synchronous commands only

void Notify(eErrorT err, const char* text, void* userDefined) {
    gOutcomes.push_back({err, text, userDefined});
}

int BusySlots() {
    int busy = 0;
    for (const MsgParmT& parms : msgParms) {
        busy += parms.pMod != nullptr;
    }
    return busy;
}

}  // namespace

TEST(RemMsg, ACommandTravelsOutAndItsResponseComesBack) {
    Start();
    ASSERT_EQ(RemMsgInit(), kNoError);
    ASSERT_EQ(gLink.calls.size(), 1U);
    EXPECT_EQ(gLink.calls[0], "Init remmsg 1 0");
    EXPECT_STREQ(ModName(&gMasterRemMsg[1].mod), "remmsg[1]");
    EXPECT_EQ(gMasterRemMsg[1].mod.processorNum, 1U);
    EXPECT_EQ(&gpSlaveRemMsg.load()->mod, gLink.peers[0]);
    MsgAddCmd(&gEcho);
    // The sender's function and user data travel as numbers and come back.
    EXPECT_EQ(RemMsgSendCmd("echo \"a b\" c", Notify, &gEcho), kNoError);
    char sent[80];
    snprintf(sent, sizeof(sent), "%x %x ",
             static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(&Notify)), id_of(&gEcho));
    ASSERT_EQ(gLink.calls.size(), 3U);
    EXPECT_EQ(gLink.calls[1], "SendCmd " + std::string(sent) + "echo \"a b\" c ");
    EXPECT_EQ(gLink.calls[2], "SendRsp 0 " + std::string(sent) + "a b c ");
    ASSERT_EQ(gOutcomes.size(), 1U);
    EXPECT_EQ(gOutcomes[0].err, kNoError);
    EXPECT_EQ(gOutcomes[0].text, "a b c");
    EXPECT_EQ(gOutcomes[0].userDefined, &gEcho);
    EXPECT_EQ(RemMsgSendCmd("echo", Notify, nullptr), kNoError);
    EXPECT_EQ(gOutcomes.back().err, kBadState);
    EXPECT_EQ(RemMsgSendCmd("echo x", nullptr, nullptr), kNoError);  // nobody wants an answer
    EXPECT_EQ(gOutcomes.size(), 2U);
    const std::string fits = "echo " + std::string(507, 'x');
    EXPECT_EQ(RemMsgSendCmd(fits.c_str(), Notify, nullptr), kNoError);
    EXPECT_EQ(gOutcomes.back().text, std::string(507, 'x'));
    EXPECT_EQ(RemMsgSendCmd((fits + "x").c_str(), Notify, nullptr), kBadParameter);
    EXPECT_EQ(BusySlots(), 0);
    EXPECT_EQ(RemMsgSendCmd(std::string(1100, 'x').c_str(), nullptr, nullptr), kIPCError);
}

TEST(RemMsg, UnknownCommandsAndForwardedOnesGoToTheOthers) {
    Start();
    ASSERT_EQ(RemMsgInit(), kNoError);
    CmdEntryT forward = {{}, "forward", EchoCmd, 1, nullptr, kMsgCmdForward | kMsgCmdSync, 0};
    MsgAddCmd(&forward);
    EXPECT_EQ(MsgSendCmd("unknown x", Notify, nullptr), kItemNotFound);
    ASSERT_EQ(gOutcomes.size(), 2U);  // the other's refusal and ours
    EXPECT_EQ(gLink.calls[1].find("SendCmd "), 0U);
    EXPECT_NE(gLink.calls[1].find(" unknown x "), std::string::npos);
    gLink.calls.clear();
    EXPECT_EQ(MsgSendCmd("forward a", Notify, nullptr), kNoError);
    ASSERT_EQ(gLink.calls.size(), 1U);
    EXPECT_EQ(gLink.calls[0], "SendCmd 0 0 forward a ");  // without a notification function
    EXPECT_EQ(gOutcomes.size(), 3U);
    EXPECT_EQ(RemMsgSetEnable(2, 0), kBadParameter);
    EXPECT_EQ(RemMsgGetEnable(2), 0);
    EXPECT_EQ(RemMsgGetEnable(1), 1);
    EXPECT_EQ(RemMsgSetEnable(1, 0), kNoError);
    EXPECT_EQ(SendCommandToProc(1), 0);
    EXPECT_EQ(MsgSendCmd("forward a", nullptr, nullptr), kNoError);
    EXPECT_EQ(gLink.calls.size(), 1U);
}

TEST(RemMsg, AnAsynchronousCommandIsRelayedAndTenSlotsAreTheMost) {
    const StdoutFile out;
    Start();
    ASSERT_EQ(RemMsgInit(), kNoError);
    MsgAddCmd(&gSlow);
    static std::atomic<int> answers;
    answers = 0;
    const NotifyFuncT count = [](eErrorT err, const char* text, void* user) {
        EXPECT_EQ(err, kNoError);
        EXPECT_EQ(std::to_string(id_of(user)), text);
        answers++;
    };
    for (UInt32 i = 1; i <= kRemMsgSlots + 2; i++) {
        EXPECT_EQ(RemMsgSendCmd(("slow " + std::to_string(i)).c_str(), count, from_id<void>(i)),
                  kNoError);
    }
    EXPECT_EQ(BusySlots(), kRemMsgSlots);
    EXPECT_TRUE(out.WaitFor("MOD: no room to route a response back, dropped: slow 11\n"));
    EXPECT_EQ(ModProcessDeferredFunctions(), kRemMsgSlots + 2);  // all of them run
    EXPECT_TRUE(Eventually([] { return answers == kRemMsgSlots; }));
    EXPECT_EQ(BusySlots(), 0);
    EXPECT_EQ(RemMsgSendCmd("slow 5", count, from_id<void>(5)), kNoError);
    ModProcessDeferredFunctions();
    EXPECT_TRUE(Eventually([] { return answers == kRemMsgSlots + 1; }));
}

TEST(RemMsg, APeerThatFailsOrAnswersGarbageIsAnError) {
    const StdoutFile out;
    Start();
    ASSERT_EQ(RemMsgInit(), kNoError);
    MsgAddCmd(&gEcho);
    for (const char* garbage : {"", "x", "0x", "1 2", "-", "99999999999999999999"}) {
        gLink.garbage = garbage;
        EXPECT_EQ(RemMsgSendCmd("echo a", Notify, nullptr), kIPCError) << garbage;
    }
    gLink.garbage = "-35";
    EXPECT_EQ(RemMsgSendCmd("echo a", Notify, nullptr), kTimeOut);
    gLink.garbage = nullptr;
    gLink.call_result = kTimeOut;
    EXPECT_EQ(RemMsgSendCmd("echo a", Notify, nullptr), kTimeOut);
    // Garbage that arrives here is refused, and runs nothing.
    gLink.call_result = kNoError;
    ModT* here = &gMasterRemMsg[1].mod;
    const struct {
        const char* name;
        const char* text;
        eErrorT answer;
    } cases[] = {
        {"SendCmd", "", kBadParameter},  {"SendCmd", "zz", kBadParameter},
        {"SendCmd", "0", kBadParameter}, {"SendCmd", "0 0 nonsense ", kItemNotFound},
        {"SendRsp", "", kBadParameter},  {"SendRsp", "0 1", kBadParameter},
        {"SendRsp", "0 0 0 ", kNoError}, {"Nonsense", "0 0 ", kItemNotFound},
        {"Init", "", kBadParameter},     {"Init", "nosuch 0 0", kItemNotFound},
    };
    for (const auto& c : cases) {
        char text[kProxyTextSize];
        strcpy(text, c.text);
        const int length = ProxyServe(here, c.name, text);
        EXPECT_EQ(length, static_cast<int>(strlen(text)) + 1);
        EXPECT_EQ(text, std::to_string(c.answer)) << c.name << " " << c.text;
    }
    EXPECT_TRUE(out.WaitFor("MODMAN: can't init module:nosuch, module not in the database\n"));
    EXPECT_EQ(BusySlots(), 0);
    EXPECT_TRUE(gOutcomes.empty());
}

TEST(RemMsg, AProcessorThatIsNotThereIsReportedAndTheRestGoesOn) {
    const StdoutFile out;
    Start();
    gLink.alloc_result = kOutOfResources;
    EXPECT_EQ(RemMsgInit(), kBadParameter);
    EXPECT_TRUE(
        out.WaitFor("CRIT  pc[0]: MODMAN: can't clone module:remmsg[1] on proc:1, err:-5\n"));
    ModT* pMod = &gMasterRemMsg[1].mod;
    EXPECT_EQ(ModClone(pMod, 7), kBadParameter);
    EXPECT_TRUE(out.WaitFor("can't clone module:remmsg[1] on proc:7, err:-3\n"));
    gLink.alloc_result = kNoError;
    gLink.garbage = "-14";
    EXPECT_EQ(ModClone(pMod, 1), -14);
    EXPECT_TRUE(out.WaitFor("can't init module:remmsg[1] on proc:1, err:-14\n"));
    EXPECT_EQ(gLink.freed, 1);
    EXPECT_EQ(pMod->proxy.remHandle, nullptr);
    EXPECT_EQ(ModFree(pMod), kNoError);
    EXPECT_EQ(gLink.freed, 1);
    gLink.garbage = nullptr;
    EXPECT_EQ(ModClone(pMod, 1), kNoError);
    gLink.transport.UsesDevice = [](ModT*, UInt32 devID) -> Boolean { return devID == 3; };
    EXPECT_EQ(ModFreeAllOnDev(4), kNoError);
    EXPECT_FALSE(out.Has("ModFreeAllOnDev:"));
    EXPECT_EQ(ModFreeAllOnDev(3), kNoError);
    EXPECT_TRUE(out.Has("ModFreeAllOnDev:remmsg pMod:0x"));
    EXPECT_EQ(ModFree(pMod), kNoError);
    EXPECT_EQ(gLink.freed, 2);
    EXPECT_TRUE(out.WaitFor("ModFree: [pMod: 0x"));
    ProxySetTransport(nullptr);
    EXPECT_EQ(RemMsgSendCmd("x", nullptr, nullptr), kNotImplemented);
    EXPECT_EQ(ModClone(pMod, 1), kBadParameter);
}

TEST(RemMsg, TheOtherProcessorWaitsForTheMasterToOpenThePath) {
    const StdoutFile out;
    Start();
    gLink.transport.processorNum = 1;
    ASSERT_EQ(RemMsgInit(), kNoError);
    EXPECT_TRUE(gLink.calls.empty());
    static RemMsgT link;
    MsgAddCmd(&gEcho);
    ModuleTask opener("open");
    opener.Post([&out] {
        EXPECT_TRUE(out.WaitFor("Waiting for master processor to open up message path\n"));
        EXPECT_EQ(RemMsgModInit(&link.mod, "remmsg", 1, nullptr), kNoError);
    });
    gLink.garbage = "0";
    EXPECT_EQ(RemMsgSendCmd("echo a", nullptr, nullptr), kNoError);
    opener.Wait();
    EXPECT_EQ(gLink.calls.back(), "SendCmd 0 0 echo a ");
    EXPECT_EQ(MsgSendCmd("unknown", nullptr, nullptr), kItemNotFound);  // is not sent on
    EXPECT_EQ(gLink.calls.size(), 1U);
}

TEST(RemMsg, ASingleProcessorSendsNothing) {
    Attach();
    ASSERT_EQ(ModManInit(), kNoError);
    ASSERT_EQ(RemMsgInit(), kNoError);
    EXPECT_EQ(RemMsgSendCmd("x", Notify, nullptr), kNoError);
    EXPECT_TRUE(gOutcomes.empty());
    EXPECT_EQ(RemMsgSetEnable(0, 1), kBadParameter);
    ModT mod = {};
    ModInit(&mod, "m", 0, nullptr);
    EXPECT_EQ(ProxyCall(&mod, "x", "%d", 1), kNotImplemented);
    EXPECT_EQ(ProxyFreeMod(&mod), kBadParameter);
    EXPECT_EQ(ProxyUsesDevice(&mod, 1), 0U);
}
