// Messages to and from another processor, over a transport that plays it within this process.
#include "Common/framework/rem_message.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/system.h"
#include "Common/framework/modman.h"
#include "Common/framework/sharedfield.h"
#include "tests/framework/commands.h"

namespace {

// The transport: calls of the master's modules are served by their peers and the other way round.
ProxyTransportT gTransport;
TextsT gCalls;  // "name text"
eErrorT gAllocResult = kNoError;
const char* gAnswer;  // instead of serving
int gFreed;

eErrorT AllocMod(ModT* pMod, UInt32) {
    if (gAllocResult == kNoError) {
        ModT* peer = ModCloneLocal(pMod->name);
        peer->proxy.nodeType = kProxyServer;
        peer->proxy.remHandle = pMod;
        pMod->proxy.remHandle = peer;
    }
    return gAllocResult;
}

eErrorT FreeMod(ModT*) {
    gFreed++;
    return kNoError;
}

eErrorT Call(ModT* pMod, const char* pName, char* pText) {
    gCalls.push_back(std::string(pName) + " " + pText);
    if (gAnswer != nullptr) {
        strcpy(pText, gAnswer);
        return kNoError;
    }
    const UInt32 before = FieldRead(gTransport.processorNum);
    FieldWrite(gTransport.processorNum, pMod->proxy.nodeType == kProxyClient ? 1U : 0U);
    const int length = ProxyServe(static_cast<ModT*>(pMod->proxy.remHandle), pName, pText);
    EXPECT_EQ(length, static_cast<int>(strlen(pText)) + 1);
    FieldWrite(gTransport.processorNum, before);
    return kNoError;
}

CmdEntryT gCmds[] = {
    {{}, "echo", WordsCmd, 1, nullptr, kMsgCmdSync, 0},
    {{}, "slow", WordsCmd, 1, nullptr, 0, 0},
    {{}, "forward", WordsCmd, 1, nullptr, kMsgCmdForward | kMsgCmdSync, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};

eErrorT Send(const std::string& line) {
    return RemMsgSendCmd(line.c_str(), Notify, &gOutcomes);
}

int BusySlots() {
    const auto busy = [](const MsgParmT& parms) { return parms.pMod != nullptr; };
    return static_cast<int>(std::count_if(msgParms, msgParms + kRemMsgSlots, busy));
}

// Two processors of which this is the first, linked.
class RemMsg : public TaskTest {
  protected:
    RemMsg() {
        StartLog();
        gTransport = {0, AllocMod, FreeMod, Call, nullptr};
        ProxySetTransport(&gTransport);
        ProcessorCnt = 2;
        EXPECT_EQ(ModManInit(), kNoError);
        EXPECT_EQ(MsgInit(), kNoError);
        MsgAddCmdTable(gCmds);
        EXPECT_EQ(RemMsgInit(), kNoError);
    }
};

}  // namespace

TEST_F(RemMsg, ACommandTravelsOutAndItsResponseComesBack) {
    EXPECT_EQ(Send("echo \"a b\" c"), kNoError);
    // The sender's function and user data travel as numbers and come back.
    char sent[80];
    snprintf(sent, sizeof(sent), "%x %x ", shown_address(&Notify), id_of(&gOutcomes));
    EXPECT_THAT(gCalls,
                ElementsAre("Init remmsg 1 0", "SendCmd " + std::string(sent) + "echo \"a b\" c ",
                            "SendRsp 0 " + std::string(sent) + "a b|c| "));
    EXPECT_EQ(Send("echo"), kNoError);
    const std::string fits(507, 'x');
    EXPECT_EQ(Send("echo " + fits), kNoError);
    EXPECT_EQ(Send("echo x" + fits), kBadParameter);
    EXPECT_EQ(Send(fits + fits), kIPCError);
    EXPECT_THAT(gOutcomes,
                ElementsAre("main: no error, a b|c|", "main: bad state, " + std::string(512, 'r'),
                            "main: no error, " + fits + "|"));
    EXPECT_EQ(BusySlots(), 0);
}

TEST_F(RemMsg, UnknownCommandsAndForwardedOnesGoToTheOthers) {
    EXPECT_EQ(MsgSendCmd("unknown x", Notify, &gOutcomes), kItemNotFound);
    EXPECT_NE(gCalls[1].find(" unknown x "), std::string::npos);
    EXPECT_EQ(MsgSendCmd("forward a", Notify, &gOutcomes), kNoError);
    EXPECT_EQ(gCalls.back(), "SendCmd 0 0 forward a ");  // without a notification function
    // The other's refusal and ours, and our answer.
    EXPECT_THAT(gOutcomes, ElementsAre("main: item not found, ", "main: item not found, ",
                                       "main: no error, a|"));
}

TEST_F(RemMsg, AnAsynchronousCommandIsRelayedAndTenSlotsAreTheMost) {
    static std::atomic<int> answers;
    const auto count = [](eErrorT, const char* text, void* user) {
        EXPECT_EQ(std::to_string(id_of(user)) + "|", text);
        answers++;
    };
    for (UInt32 i = 1; i <= kRemMsgSlots + 2; i++) {
        const std::string line = "slow " + std::to_string(i);
        EXPECT_EQ(RemMsgSendCmd(line.c_str(), count, from_id<void>(i)), kNoError);
    }
    EXPECT_EQ(BusySlots(), kRemMsgSlots);
    ExpectLines({"MOD: no room to route a response back, dropped: slow 11\n"});
    EXPECT_EQ(ModProcessDeferredFunctions(), kRemMsgSlots + 2);  // all of them run
    EXPECT_TRUE(Eventually([] { return answers == kRemMsgSlots; }));
    EXPECT_EQ(BusySlots(), 0);
}

TEST_F(RemMsg, APeerThatAnswersGarbageIsAnErrorAndGarbageRunsNothing) {
    for (const char* garbage : {"", "x", "0x", "1 2", "-", "99999999999999999999"}) {
        gAnswer = garbage;
        EXPECT_EQ(Send("echo a"), kIPCError) << garbage;
    }
    gAnswer = "-35";
    EXPECT_EQ(Send("echo a"), kTimeOut);
    const std::tuple<const char*, const char*, eErrorT> cases[] = {
        {"SendCmd", "", kBadParameter},   {"SendCmd", "zz", kBadParameter},
        {"SendCmd", "0", kBadParameter},  {"SendCmd", "0 0 nonsense ", kItemNotFound},
        {"SendRsp", "", kBadParameter},   {"SendRsp", "0 1", kBadParameter},
        {"Nonsense", "0", kItemNotFound}, {"Init", "nosuch 0 0", kItemNotFound},
        {"Init", "", kBadParameter},
    };
    for (const auto& [name, sent, answer] : cases) {
        char text[kProxyTextSize];
        strcpy(text, sent);
        ProxyServe(&gMasterRemMsg[1].mod, name, text);
        EXPECT_EQ(text, std::to_string(answer)) << name << " " << sent;
    }
    EXPECT_EQ(BusySlots(), 0);
    EXPECT_THAT(gOutcomes, ElementsAre());
    // What an init function does to its module's link is undone.
    const auto rude = [](ModT* pMod, const char* name, int instance, void* owner) {
        pMod->proxy = {};
        return ModInit(pMod, name, instance, owner);
    };
    ModDBAdd("rude", sizeof(ModT), rude, nullptr);
    ModT* pMod = static_cast<ModT*>(gMasterRemMsg[1].mod.proxy.remHandle);
    char text[kProxyTextSize] = "rude 5 0";
    ProxyServe(pMod, "Init", text);
    EXPECT_STREQ(text, "0");
    EXPECT_EQ(pMod->instance, 5);
    EXPECT_EQ(pMod->proxy.remHandle, &gMasterRemMsg[1]);
}

TEST_F(RemMsg, FunctionsGoToTheSideThatTheModuleIsOnAndDevicesFreeTheirModules) {
    static ModT* peer;
    peer = static_cast<ModT*>(gMasterRemMsg[1].mod.proxy.remHandle);
    const ProxyClientFuncT client = [] {};
    const ProxyServerFuncT server = [](ModT*, char*) { return 0; };
    for (const eProxyNodeT side : {kProxyLocal, kProxyClient, kProxyServer}) {
        for (const char* name : {"local", "Other", "CallCallbacks"}) {
            ProxyClientFuncT stored = nullptr;
            HashTableT* hash = &peer->proxy.pModDBEntry->proxyFuncHash;
            HashAdd(hash, name, nullptr);
            peer->proxy.nodeType = side;
            EXPECT_EQ(ModRegProxyFuncs(peer, name, &stored, client, server), kNoError);
            const bool calls = (side == kProxyClient) != (name[0] == 'C');
            EXPECT_EQ(stored, side != kProxyLocal && calls ? client : nullptr) << side << name;
            EXPECT_EQ(HashFind(hash, name) != nullptr, side != kProxyLocal && !calls);
        }
    }
    gTransport.UsesDevice = [](ModT* pMod, UInt32 device) -> Boolean {
        return pMod == peer && device == 7;
    };
    const std::string line = "ModFreeAllOnDev:remmsg pMod:0x";
    ModFreeAllOnDev(6);
    EXPECT_FALSE(out_.Has(line));
    ModFreeAllOnDev(7);
    EXPECT_TRUE(out_.Has(line));
    EXPECT_THAT(Printed([] { ModFreeAllOnDev(7); }), testing::Not(testing::HasSubstr(line)));
    EXPECT_EQ(RemMsgSetEnable(2, 0), kBadParameter);
    EXPECT_EQ(RemMsgSetEnable(1, 0), kNoError);
    EXPECT_EQ(RemMsgGetEnable(1) + RemMsgGetEnable(2), 0);
    gCalls.clear();
    EXPECT_EQ(Send("echo a"), kNoError);
    EXPECT_EQ(gCalls.size(), 0U);
}

TEST_F(RemMsg, AProcessorThatIsNotThereIsReportedAndTheRestGoesOn) {
    gAllocResult = kOutOfResources;
    EXPECT_EQ(RemMsgInit(), kBadParameter);
    ModT* pMod = &gMasterRemMsg[1].mod;
    EXPECT_EQ(ModClone(pMod, 7), kBadParameter);
    EXPECT_EQ(ProxyAllocMod(pMod, 2), kBadParameter);
    gAllocResult = kNoError;
    gAnswer = "-35";
    EXPECT_EQ(ModClone(pMod, 1), kTimeOut);
    EXPECT_EQ(std::exchange(gFreed, 0), 1);  // the peer that cannot be used
    gAnswer = nullptr;
    EXPECT_EQ(ModClone(pMod, 1), kNoError);
    EXPECT_EQ(pMod->processorNum, 1U);
    ExpectLines({"CRIT  pc[0]: MODMAN: can't clone module:remmsg[1] on proc:1, err:-5\n"});
    EXPECT_EQ(ModFree(pMod), kNoError);
    EXPECT_EQ(gFreed, 1);
    EXPECT_EQ(pMod->proxy.remHandle, nullptr);
    ProxySetTransport(nullptr);
    EXPECT_EQ(Send("x"), kNotImplemented);
    ProcessorCnt = 1;
    EXPECT_EQ(Send("x"), kNoError);
}
