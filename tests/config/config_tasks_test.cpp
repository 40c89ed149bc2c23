// Configuration variables shared by tasks. Run under the sanitizers, these tests are the proof that
// items live as long as anybody uses them.
#include <gtest/gtest.h>

#include <thread>

#include "Common/framework/config.h"
#include "Common/framework/configstore.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"

namespace {

struct ConfigTasks : testing::Test {
    ConfigTasks() {
        ConfigInit();
        Attach();
    }
    ~ConfigTasks() override { ConfigExit(); }
    const StoreTree tree;
};

std::atomic<int> gSeen{0};

bool IsWhole(const char* value) {
    return value[strspn(value, "x0123456789")] == '\0';
}

// Looks at everything that a callback is given.
void Look(ModT* pMod, UInt32, void*, void* pArgs) {
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    EXPECT_TRUE(pMod == getConfigModule() ||
                (strcmp(pMod->name, args.name) == 0 &&
                 static_cast<UInt32>(pMod->instance) == args.instance));
    EXPECT_TRUE(IsWhole(args.value)) << args.value;
    gSeen++;
}

void WriteBack(ModT* pMod, UInt32 index, void* user, void* pArgs) {
    Look(pMod, index, user, pArgs);
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    if (strlen(args.value) < 36) {
        ConfigWriteCacheOnly(args.name, static_cast<int>(args.instance),
                             (std::string(args.value) + "xxxxxxx").c_str());
    }
}

// Runs `work`(thread, round) in eight tasks at once.
template <typename WorkT>
void InEightTasks(int rounds, WorkT work) {
    std::jthread threads[8];
    for (int t = 0; t < 8; t++) {
        threads[t] = std::jthread([=] {
            Attach();
            for (int i = 0; i < rounds; i++) {
                work(t, i);
            }
        });
    }
}

std::string Number(int i, bool is_long) {
    return (is_long ? std::string(40, 'x') : "") + std::to_string(i);
}

}  // namespace

TEST_F(ConfigTasks, AllOperationsAndWalksOverTheModulesAtOnce) {
    const StdoutFile out;
    ModuleTask listener("list");
    listener.Run([] {
        ConfigAddCallback("shared", 0, Look, nullptr);
        ModAddCallback(getConfigModule(), 0, Look, nullptr, 0);
    });
    static int users[8];
    InEightTasks(2000, [](int t, int i) {
        const std::string own = "own" + std::to_string(t);
        const char* name = i % 3 == 0 ? own.c_str() : "shared";
        const auto callback = i % 2 == 0 ? Look : WriteBack;
        void* user = i % 2 == 0 ? &users[t] : nullptr;
        const std::function<void()> calls[] = {
            [&] { ConfigWrite(name, 0, Number(i, i % 4 == 0).c_str()); },
            [&] { ConfigDelete(name, 0); },
            [&] { ConfigAddImmediateCallback(name, 0, callback, user); },
            [&] { ConfigDeleteCallback(name, 0, callback, user); },
            [&] {
                char value[kConfigValueSize];
                ConfigRead(name, 0, value);
                EXPECT_TRUE(IsWhole(value)) << value;
            },
            [&] {
                ModT* found = ModFindByName(name, kModAnyInstance);
                EXPECT_TRUE(found == nullptr || ModGetOwner(found) == getConfigModule());
            },
            [&] { ModDumpByName(name, i % 2 - 1); }};
        calls[(t + i / 2) % 7]();
    });
    ConfigDelete("shared", 0);
    gSeen = 0;
    ConfigAddImmediateCallback("shared", 0, Look, nullptr);
    ConfigWrite("shared", 0, "7");
    EXPECT_EQ(gSeen, 2) << "the new registration and the module's, nothing from before";
    EXPECT_EQ(ConfigReadInt32("shared", 0), 7U);
    listener.Delete();
}

TEST_F(ConfigTasks, AnItemServesAnotherVariableAfterItsDeferredCallbacksOnly) {
    ModuleTask listener("list");
    listener.Run([] { ConfigAddCallback("old", 0, Look, nullptr); });
    listener.Block();
    ConfigWriteCacheOnly("old", 0, "1");
    ConfigDelete("old", 0);
    ConfigWriteCacheOnly("new", 0, "2");
    listener.Release();
    EXPECT_TRUE(Eventually([] { return gSeen == 1; }));
}

TEST_F(ConfigTasks, ATaskDeletedInACallbackLetsTheItemGo) {
    const UInt32 tid = Spawn("writ", [] {
        const auto wait = [](ModT*, UInt32, void*, void*) {
            gSeen++;
            UInt32 captured;
            ev_receive(1, kEvAny, 0, &captured);
        };
        ConfigAddImmediateCallback("v", 0, wait, nullptr);
        ConfigWrite("v", 0, "1");
    });
    ASSERT_TRUE(Eventually([] { return gSeen == 1; }));
    ConfigDelete("v", 0);
    const int before = numMods;
    t_delete(tid);
    EXPECT_EQ(numMods, before - 1) << "the last user was the task";
}

TEST_F(ConfigTasks, DeletedTasksLeaveNoFileOpen) {
    const auto use = [] {
        static char value[2] = "0";
        value[0] ^= 1;
        ConfigStoreWrite("v", 0, value);
    };
    EXPECT_EQ(FilesLeftOpen(use), 0);
}
