// Configuration variables shared by tasks. Run under the sanitizers, these tests are the proof that
// items live as long as anybody uses them.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Common/framework/config.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"

namespace {

std::atomic<int> gSeen{0};

// Looks at everything that a callback is given.
void Look(ModT* pMod, UInt32, void*, void* pArgs) {
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    if (pMod != getConfigModule()) {
        EXPECT_STREQ(pMod->name, args.name);
        EXPECT_EQ(static_cast<UInt32>(pMod->instance), args.instance);
    }
    EXPECT_EQ(args.value[strspn(args.value, "x0123456789")], '\0') << args.value;
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
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) {
        threads.emplace_back([=] {
            Attach();
            for (int i = 0; i < rounds; i++) {
                work(t, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::string Number(int i, bool is_long) {
    return (is_long ? std::string(40, 'x') : "") + std::to_string(i);
}

}  // namespace

TEST(ConfigTasks, AllOperationsOnSharedAndOwnVariablesAtOnce) {
    const StoreTree tree;
    ModuleTask listener("list");
    listener.Run([] {
        ConfigAddCallback("shared", 0, Look, nullptr);
        ModAddCallback(getConfigModule(), 0, Look, nullptr, 0);
    });
    static int users[8];
    InEightTasks(150, [](int t, int i) {
        const std::string own = "own" + std::to_string(t);
        const char* name = i % 3 == 0 ? own.c_str() : "shared";
        char value[kConfigValueSize];
        switch ((t + i) % 8) {
            case 0:
                ConfigWrite(name, 0, Number(i, i % 4 == 0).c_str());
                break;
            case 1:
                ConfigDelete(name, 0);
                break;
            case 2:
                ConfigAddImmediateCallback(name, 0, Look, &users[t]);
                break;
            case 3:
                ConfigDeleteCallback(name, 0, Look, &users[t]);
                break;
            case 4:
                ConfigAddImmediateCallback(name, 0, WriteBack, nullptr);
                break;
            case 5:
                ConfigDeleteCallback(name, 0, WriteBack, nullptr);
                break;
            default:
                ConfigRead(name, 0, value);
                EXPECT_EQ(value[strspn(value, "x0123456789")], '\0') << value;
        }
    });
    ConfigDelete("shared", 0);
    gSeen = 0;
    Attach();
    ConfigAddImmediateCallback("shared", 0, Look, nullptr);
    ConfigWrite("shared", 0, "7");
    EXPECT_EQ(gSeen, 2) << "the new registration and the module's, nothing from before";
    EXPECT_EQ(ConfigReadInt32("shared", 0), 7U);
    listener.Delete();
    ConfigExit();
}

TEST(ConfigTasks, EveryChangeReachesAWatcherOnceWhileTheItemChangesClass) {
    const StoreTree tree;
    ConfigInit();
    Attach();
    ConfigAddImmediateCallback("v", 0, Look, nullptr);
    InEightTasks(200, [](int t, int i) {
        ConfigWriteCacheOnly("v", 0, Number(t * 1000 + i, (t + i) % 2 == 0).c_str());
    });
    EXPECT_EQ(gSeen, 8 * 200);
    ConfigExit();
}

TEST(ConfigTasks, TheLastWriterInTheCacheIsTheLastInTheFile) {
    const StoreTree tree;
    ConfigInit();
    for (int round = 0; round < 60; round++) {
        InEightTasks(3, [](int t, int i) {
            ConfigWrite("v", 0, Number(t * 1000 + i, (t + i) % 2 == 0).c_str());
        });
        char value[kConfigValueSize];
        ConfigRead("v", 0, value);
        const std::string file = tree.Get("dat/v.dat");
        ASSERT_EQ(file.substr(0, file.find('\n')), value) << round;
    }
    ConfigExit();
}

TEST(ConfigTasks, AReadNeverBringsBackWhatWasDeletedOrOverwritten) {
    const StoreTree tree;
    ConfigInit();
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; t++) {
        readers.emplace_back([&] {
            char value[kConfigValueSize];
            while (!done) {
                ConfigRead("v", 0, value);
            }
        });
    }
    for (int i = 0; i < 500; i++) {
        ConfigWriteInt32("v", 0, static_cast<UInt32>(i));
        ASSERT_EQ(ConfigReadInt32("v", 0), static_cast<UInt32>(i));
        ConfigDelete("v", 0);
        char value[kConfigValueSize];
        ASSERT_EQ(ConfigRead("v", 0, value), kItemNotFound) << i;
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    ConfigExit();
}

TEST(ConfigTasks, ADeferredCallbackFindsTheItemOfADeletedVariable) {
    const StoreTree tree;
    Attach();
    ModuleTask listener("list");
    listener.Run([] { ConfigAddCallback("v", 3, Look, nullptr); });
    std::atomic<bool> busy{false};
    std::atomic<bool> go{false};
    listener.Post([&] {
        busy = true;
        Eventually([&] { return go.load(); });
    });
    ASSERT_TRUE(Eventually([&] { return busy.load(); }));
    ConfigWriteInt32("v", 3, 1);                        // queued with a short item,
    ConfigWrite("v", 3, std::string(50, 'x').c_str());  // then with the long one that replaced it
    ConfigDelete("v", 3);
    ConfigDelete("unrelated", 0);
    EXPECT_EQ(gSeen, 0);
    go = true;
    EXPECT_TRUE(Eventually([] { return gSeen == 2; }));
    listener.Run([] {});
    // The records go with the next that is let go.
    const int before = numMods;
    ConfigWriteCacheOnly("w", 0, "1");
    ConfigDelete("w", 0);
    EXPECT_EQ(numMods, before - 2);
    ConfigExit();
}

TEST(ConfigTasks, ATaskDeletedInACallbackLetsTheItemGo) {
    const StoreTree tree;
    ConfigInit();
    UInt32 tid;
    t_create("writ", 0, 0, 0, 0, &tid);
    t_start(
        tid, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            ConfigAddImmediateCallback(
                "v", 0,
                [](ModT*, UInt32, void*, void*) {
                    gSeen++;
                    UInt32 captured;
                    ev_receive(1, kEvAny, 0, &captured);
                },
                nullptr);
            ConfigWrite("v", 0, "1");
        },
        nullptr);
    ASSERT_TRUE(Eventually([] { return gSeen == 1; }));
    ConfigDelete("v", 0);
    const int before = numMods;
    t_delete(tid);
    EXPECT_EQ(numMods, before - 1) << "the last user was the task";
    ConfigExit();
}
