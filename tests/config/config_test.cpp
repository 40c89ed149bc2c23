// Configuration variables: names, values, cache, callbacks, log and dumps, from one task.
#include "Common/framework/config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <utility>

#include "Common/OS/linux/semaphores.h"
#include "tests/config/store_tree.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

struct Config : testing::Test {
    const StoreTree tree;
};

const std::string kMissing = "item not found";

std::string Read(const std::string& name, int instance = 0) {
    char value[kConfigValueSize + 1];
    value[kConfigValueSize] = '#';
    const eErrorT err = ConfigRead(name.c_str(), instance, value);
    EXPECT_EQ(value[kConfigValueSize], '#');
    EXPECT_TRUE(err == kNoError || value[0] == '\0');
    return err == kNoError ? value : ErrorString(err);
}

void Write(const std::string& name, const std::string& value, int instance = 0) {
    EXPECT_EQ(ConfigWrite(name.c_str(), instance, value.c_str()), kNoError);
}

// The calls since the last look, each as "user:name[instance]=value/permissions/flags|".
std::string gCalls;
std::string Calls() {
    return std::exchange(gCalls, "");
}

std::function<void(const ConfigValueChangedCallbackArgsT&)> gAction;

// Notes the call and does what the test wants done.
void Note(ModT* pMod, UInt32 funcIndex, void* userDefined, void* pArgs) {
    const auto& args = *static_cast<const ConfigValueChangedCallbackArgsT*>(pArgs);
    const std::string name =
        args.name + ("[" + std::to_string(static_cast<int>(args.instance)) + "]");
    EXPECT_EQ(funcIndex, 0U);
    EXPECT_TRUE(pMod == getConfigModule() ||
                (ModName(pMod) == name && pMod->pOwner == getConfigModule()));
    gCalls += std::string(static_cast<const char*>(userDefined)) + ":" + name + "=" + args.value +
              "/" + std::string(args.permissions, strnlen(args.permissions, 4)) + "/" +
              std::to_string(args.flags) + "|";
    if (gAction) {
        gAction(args);
    }
}

eErrorT Watch(const char* name, const char* user = "cb") {
    return ConfigAddImmediateCallback(name, 0, Note, const_cast<char*>(user));
}

// What the configuration should hold, and random calls of it. Names of one file, of one cached name
// and of different spellings are among those that are drawn.
class ModelT {
  public:
    ModelT(const StoreTree& tree, unsigned seed) : tree_(tree), random_(seed), mods_(numMods) {}

    void Step() {
        static void (ModelT::*const kSteps[])() = {
            &ModelT::Write,   &ModelT::Write, &ModelT::Write,   &ModelT::Read, &ModelT::Read,
            &ModelT::Delete,  &ModelT::Watch, &ModelT::Unwatch, &ModelT::Edit, &ModelT::Edit,
            &ModelT::Restore, &ModelT::Dump,  &ModelT::DumpOne, &ModelT::Away, &ModelT::Typed};
        name_ = kNames[Draw(std::size(kNames))];
        key_ = {name_.substr(0, kConfigNameLen), kInstances[Draw(4)]};
        for (char& c : key_.first) {
            c = static_cast<char>(tolower(c));
        }
        as_given_ = name_.size() <= kConfigNameLen && name_[0] == key_.first[0];
        file_ = key_.first + (key_.second > 0 ? std::to_string(key_.second) : "");
        (this->*kSteps[Draw(std::size(kSteps))])();
        EXPECT_EQ(Calls(), std::exchange(told_, ""));
        EXPECT_EQ(ModFindByName(key_.first.c_str(), key_.second) != nullptr, Cached() != nullptr);
        EXPECT_EQ(numMods, mods_ + static_cast<int>(items_.size()));
    }

    // Leaves no variable, and no file.
    void End() {
        SetAway(false);
        for (const auto& [file, content] : files_) {
            EXPECT_EQ(tree_.Get(file), content) << file;
            std::filesystem::remove(tree_.Path(file));
        }
        while (!items_.empty()) {
            key_ = items_.front().key;
            ConfigDelete(key_.first.c_str(), key_.second);
            items_.erase(items_.begin());
            EXPECT_EQ(ModFindByName(key_.first.c_str(), key_.second), nullptr);
        }
    }

  private:
    static constexpr const char* kNames[] = {"v",
                                             "V",
                                             "v1",
                                             "vX",
                                             "Wx",
                                             "w",
                                             "n2345678901234567890123456789012",
                                             "n2345678901234567890123456789012tail",
                                             "N2345678901234567890123456789012"};
    static constexpr int kInstances[] = {-2, 0, 1, 7};
    static constexpr const char* kUsers[] = {"a", "b", "c"};
    using KeyT = std::pair<std::string, int>;
    struct ItemT {
        KeyT key;
        std::string value;
        bool known = false;
        std::vector<const char*> users;  // null: a slot that is free again
    };

    size_t Draw(size_t count) { return random_() % count; }

    std::string DrawValue() {
        constexpr size_t kLengths[] = {0, 1, 1, 1, 5, 29, 30, 369, 370, 700};
        std::string value(kLengths[Draw(std::size(kLengths))], "xX7-"[Draw(4)]);
        if (Draw(6) == 0) {
            value.insert(value.size() / 2, Draw(2) == 0 ? "\r\n" : "\n");
        }
        return value;
    }

    ItemT* Cached() {
        const auto at = std::find_if(items_.begin(), items_.end(),
                                     [this](const ItemT& item) { return item.key == key_; });
        return at != items_.end() ? &*at : nullptr;
    }

    ItemT* Item() {
        if (Cached() == nullptr) {
            items_.push_back({key_, "", false, {}});
        }
        return Cached();
    }

    void Put(const std::string& value) {
        ItemT item = *Item();
        if (value.size() > 29 && item.value.size() <= 29) {
            std::erase_if(items_, [&](const ItemT& each) { return each.key == key_; });
            items_.push_back(item);
        }
        Item()->value = value.substr(0, 369);
        Item()->known = true;
    }

    // A file's first line as far as a read of the configuration takes it.
    bool Stored(const std::string& file, std::string* value) const {
        const auto at = files_.find(file);
        if (at == files_.end() || (away_ && file.starts_with("dat/"))) {
            return false;
        }
        *value = at->second.substr(0, 369);
        *value = value->substr(0, value->find_first_of(std::string("\r\n\0", 3)));
        return true;
    }

    bool Default(std::string* value) const {
        return Stored("choice.gen/" + file_ + ".choice", value) ||
               Stored("choice" + file_ + ".choice", value);
    }

    // What a read finds, "(none)" for nothing.
    std::string Value() {
        const ItemT* item = Cached();
        if (item == nullptr || item->value.empty()) {
            std::string value;
            const bool found = Stored("dat/" + file_ + ".dat", &value) || Default(&value);
            Put(found ? value : kConfigNotSet);
        }
        return Cached()->value == kConfigNotSet ? "(none)" : Cached()->value;
    }

    void Change(const std::string& value, const std::string& perm, UInt32 flags) {
        if (as_given_ && Cached() != nullptr && Cached()->known && Cached()->value == value) {
            return;
        }
        Put(value);
        std::string whole = value;
        if ((flags & kConfigCacheOnly) == 0) {
            whole = value.substr(0, value.find_first_of("\r\n"));
            if (!away_) {
                files_["dat/" + file_ + ".dat"] = whole + "\n";
            }
        }
        std::vector<const char*> users = Cached()->users;
        users.push_back("all");
        for (const char* user : users) {
            if (user != nullptr) {
                told_ += std::string(user) + ":" + key_.first + "[" + std::to_string(key_.second) +
                         "]=" + whole.substr(0, 369) + "/" + perm.substr(0, 4) + "/" +
                         std::to_string(flags) + "|";
            }
        }
    }

    void Write() {
        const std::string value = DrawValue();
        const char* perms[] = {"", "r", "abcdef"};
        const char* perm = perms[Draw(3)];
        switch (Draw(4)) {
            case 0:
                ConfigWriteCacheOnly(name_.c_str(), key_.second, value.c_str());
                return Change(value, "rw", kConfigCacheOnly);
            case 1:
                ConfigWritePerm(name_.c_str(), key_.second, value.c_str(), perm);
                return Change(value, perm, 0);
            case 2:
                ConfigWriteEx(name_.c_str(), key_.second, value.c_str(), perm, 6);
                return Change(value, perm, 6);
            default:
                ::Write(name_, value, key_.second);
                return Change(value, "rw", 0);
        }
    }
    void Read() {
        const std::string value = Value();
        EXPECT_EQ(::Read(name_, key_.second), value == "(none)" ? kMissing : value) << name_;
    }
    void Typed() {
        const auto number = static_cast<UInt32>(
            std::clamp(strtol(Value().c_str(), nullptr, 10), long{INT32_MIN}, long{INT32_MAX}));
        EXPECT_EQ(ConfigReadInt32(name_.c_str(), key_.second), number);
        EXPECT_EQ(ConfigReadInt16(name_.c_str(), key_.second), static_cast<UInt16>(number));
    }
    void Delete() {
        EXPECT_EQ(ConfigDelete(name_.c_str(), key_.second), kNoError);
        if (!away_) {
            files_.erase("dat/" + file_ + ".dat");
        }
        std::erase_if(items_, [this](const ItemT& item) { return item.key == key_; });
    }
    void Restore() {
        std::string value;
        const bool found = Default(&value);
        EXPECT_EQ(ConfigRestore(name_.c_str(), key_.second), found ? kNoError : kItemNotFound);
        if (found) {
            Change(value, "rw", 0);
        }
    }
    void Watch() {
        const char* user = kUsers[Draw(3)];
        EXPECT_EQ(
            ConfigAddImmediateCallback(name_.c_str(), key_.second, Note, const_cast<char*>(user)),
            kNoError);
        auto& users = Item()->users;
        if (std::find(users.begin(), users.end(), user) == users.end()) {
            const auto free = std::find(users.begin(), users.end(), nullptr);
            *(free == users.end() ? users.insert(free, nullptr) : free) = user;
        }
    }
    void Unwatch() {
        const char* user = kUsers[Draw(3)];
        ItemT* item = as_given_ ? Cached() : nullptr;
        bool found = false;
        if (item != nullptr) {
            const auto at = std::find(item->users.begin(), item->users.end(), user);
            found = at != item->users.end();
            std::replace(item->users.begin(), item->users.end(), user,
                         static_cast<const char*>(nullptr));
        }
        EXPECT_EQ(ConfigDeleteCallback(name_.c_str(), key_.second, Note, const_cast<char*>(user)),
                  found ? kNoError : kItemNotFound);
    }
    // A file changes behind the configuration's back.
    void Edit() {
        const std::string files[] = {"dat/" + file_ + ".dat", "choice" + file_ + ".choice",
                                     "choice.gen/" + file_ + ".choice"};
        const std::string& file = files[Draw(3)];
        if (away_) {
            return;
        }
        if (Draw(2) == 0) {
            files_.erase(file);
            std::filesystem::remove(tree_.Path(file));
        } else {
            files_[file] = DrawValue() + (Draw(4) == 0 ? "" : "\n");
            tree_.Put(file, files_[file]);
        }
    }
    // The folder of current values goes or comes back.
    void Away() { SetAway(!away_); }
    void SetAway(bool away) {
        if (away != away_) {
            std::filesystem::rename(tree_.Path(away ? "dat" : "away"),
                                    tree_.Path(away ? "away" : "dat"));
            away_ = away;
        }
    }
    static std::string Line(const ItemT& item) {
        std::string name = item.key.first + "[" + std::to_string(item.key.second) + "]";
        name.resize(std::max(name.size(), size_t{35}), ' ');
        return name + " " + item.value + "\n";
    }
    void Dump() {
        std::vector<ItemT> items = items_;
        std::stable_sort(items.begin(), items.end(), [](const ItemT& a, const ItemT& b) {
            return a.key.first[0] < b.key.first[0];
        });
        std::string text = kHeading;
        for (const ItemT& item : items) {
            text += Line(item);
        }
        ConfigDumpAll();
        EXPECT_EQ(out_.Fresh(), text + "<end>\n");
    }
    void DumpOne() {
        ConfigDumpByName(name_.c_str(), key_.second);
        EXPECT_EQ(out_.Fresh(), Cached() != nullptr ? kHeading + Line(*Cached())
                                                    : "ERROR, cannot locate item " + name_ + "\n");
    }

    const std::string kHeading = "\nConfig item                         value\n" +
                                 std::string(35, '-') + " " + std::string(58, '-') + "\n";
    const StoreTree& tree_;
    StdoutFile out_;
    std::mt19937 random_;
    const int mods_;
    std::map<std::string, std::string> files_;  // by name from the tree's root
    std::vector<ItemT> items_;                  // in the order of dumps within a letter
    bool away_ = false;
    std::string told_;
    // The variable of this step, as it is named in the call, and what that stands for.
    std::string name_;
    KeyT key_;
    std::string file_;
    bool as_given_ = false;
};

}  // namespace

TEST_F(Config, TypedReadsFollowThe32BitMachine) {
    const struct {
        const char* value;
        const char* read;  // as 32 and 16 bits, and as a truth
    } cases[] = {{"-1", "4294967295 65535 0"},
                 {"65537 apples", "65537 1 0"},
                 {"4294967295", "2147483647 65535 0"},
                 {"TRUE", "0 0 1"}};
    for (const auto& c : cases) {
        Write("v", c.value);
        EXPECT_EQ(std::to_string(ConfigReadInt32("v", 0)) + " " +
                      std::to_string(ConfigReadInt16("v", 0)) + " " +
                      std::to_string(ConfigReadBool("v", 0)),
                  c.read);
    }
    EXPECT_EQ(ConfigReadInt32("missing", 0), 0U);
    ConfigWriteInt32("n", 0, 0xFFFFFFFF);
    ConfigWriteInt16("n", 1, 0xFFFF);
    ConfigWriteBool("n", 2, 7);
    ConfigWriteBool("n", 3, 0);
    EXPECT_EQ(Read("n") + Read("n", 1) + Read("n", 2) + Read("n", 3), "-165535TrueFalse");
}

TEST_F(Config, AnyOrderOfCallsLeavesCacheFilesAndListenersAsTheModelHasThem) {
    Attach();
    ConfigInit();
    ModAddCallback(getConfigModule(), 0, Note, const_cast<char*>("all"), 0);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);  // failed writes
    for (unsigned seed = 1; seed <= 8 && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ModelT model(tree, seed);
        for (int step = 0; step < 1500 && !HasFailure(); step++) {
            model.Step();
        }
        model.End();
    }
}

TEST_F(Config, CallbacksMayWriteDeleteAndWatchTheirOwnVariable) {
    Attach();
    Watch("key", "a");
    Watch("key", "b");
    const std::string longer = "0123456789" + std::string(20, '+');
    // Each change is told to both, though the item is replaced in between.
    gAction = [&](const ConfigValueChangedCallbackArgsT&) { Write("key", longer); };
    Write("key", "0123456789");
    EXPECT_EQ(Calls(), "a:key[0]=0123456789/rw/0|a:key[0]=" + longer + "/rw/0|b:key[0]=" + longer +
                           "/rw/0|b:key[0]=0123456789/rw/0|");
    EXPECT_EQ(Read("key"), longer);
    gAction = [](const ConfigValueChangedCallbackArgsT&) { ConfigDelete("key", 0); };
    Write("key", "gone");
    EXPECT_EQ(Read("key"), kMissing);
    EXPECT_EQ(tree.Get("dat/key.dat"), "(none)");
    EXPECT_EQ(Calls(), "a:key[0]=gone/rw/0|b:key[0]=gone/rw/0|") << "one under way reaches all";
}

TEST_F(Config, ChangesAreLoggedSecretsNever) {
    const StdoutFile out;
    StartLog();
    std::istringstream secrets(
        "sw roomsw websw userpassword0 meetingpassword sippassword softwareupdatepassword "
        "mppassword dot1xpwd ldappassword loginpassword norteldirectoryurlsp globaldirectoryurlsp "
        "GlobalDirectoryURLSp7 xmpppassword yahoopassword pwencryptiontyperemote "
        "pwencryptiontyperoom pwencryptiontypeuser0 PwEncryptionTypeMeeting");
    for (std::string name; secrets >> name;) {
        Write(name, "hidden");
    }
    Write("Swing", "shown\nnot", 2);
    ConfigDelete("sw", 0);
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: swing[2]:shown\n"));
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: config: delete sw[0]\n"));
    EXPECT_FALSE(out.Has("hidden") || out.Has("not"));
}

TEST_F(Config, WithoutItsSemaphoreReadsAskTheStoreAndWritesDoNothing) {
    const StdoutFile out;
    StartLog();
    Attach();
    Write("v", "stored");
    sm_delete(configSemaphore);
    EXPECT_EQ(Read("v"), "stored");
    EXPECT_EQ(Read("missing"), kMissing);
    Write("v", "lost");
    EXPECT_EQ(tree.Get("dat/v.dat"), "stored\n");
    EXPECT_EQ(Watch("v"), kOutOfMemory);
    EXPECT_EQ(ConfigDelete("v", 0), kNoError);
    EXPECT_EQ(tree.Get("dat/v.dat"), "(none)") << "the store is another matter";
    EXPECT_TRUE(
        out.WaitFor("ERROR pc[0]: config: can't acquire config database semaphore for lookup, "
                    "task=\"main\"\n"));
}

TEST_F(Config, TheFirstLineLoadsTheLogSettingsThoughTheStoreIsStillStarting) {
    gConfigLoaded = 0;
    tree.Put("dat/logformat.dat", "level\n");
    const StdoutFile out;
    InitSyslogInterface();
    loginfo("early", "before there is a configuration\n");
    EXPECT_EQ(gConfigLoaded, 0);
    ConfigInit();  // its own task logs its start
    loginfo("first", "line\n");
    EXPECT_TRUE(Eventually([] { return logmsg_get_format() == kLogFormatLevel; }));
}
