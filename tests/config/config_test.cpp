// Configuration variables: names, values, cache, callbacks, log and dumps, from one task.
#include "Common/framework/config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <semaphore>
#include <sstream>
#include <utility>

#include "Common/OS/linux/semaphores.h"
#include "Common/framework/configstore.h"
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

// Notes the call.
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
}

eErrorT Watch(const char* name, const char* user = "cb", int instance = 0) {
    return ConfigAddImmediateCallback(name, instance, Note, const_cast<char*>(user));
}

// Time as the flush task has it: its pauses end when the test says so, and so does its flush.
std::atomic<time_t> gNow{1000};
std::atomic<int> gSyncs{0};
std::counting_semaphore<> gPauses{0};
std::counting_semaphore<> gPauseEnds{0};

std::string FirstLine(const std::string& content, size_t size) {
    const std::string text = content.substr(0, size - 1);
    return text.substr(0, text.find_first_of("\r\n"));
}

// What cache, files and listeners should hold, and random calls of the configuration and its store.
// Names of one file, of one variable and of different spellings are among those that are drawn.
class ModelT {
  public:
    explicit ModelT(const StoreTree& tree) : tree_(tree), mods_(numMods) {}

    void Step() {
        static void (ModelT::*const kSteps[])() = {
            &ModelT::Write,  &ModelT::Write, &ModelT::Write,   &ModelT::Read, &ModelT::Read,
            &ModelT::Read,   &ModelT::Watch, &ModelT::Unwatch, &ModelT::Edit, &ModelT::Edit,
            &ModelT::Delete, &ModelT::Dump,  &ModelT::Restore, &ModelT::Look, &ModelT::Flush};
        given_ = Draw({"v", "V", "v1", "vAZ", "Wx", "w", "n2345678901234567890123456789012",
                       "n2345678901234567890123456789012tail"});
        name_ = given_.substr(0, kConfigNameLen);
        std::transform(name_.begin(), name_.end(), name_.begin(), tolower);
        as_given_ = given_.size() <= kConfigNameLen && given_[0] == name_[0];
        instance_ = Draw({-2, 0, 1, 7});
        key_ = name_ + "[" + std::to_string(instance_) + "]";
        const std::string file = name_ + (instance_ > 0 ? std::to_string(instance_) : "");
        dat_ = "dat/" + file + ".dat";
        choice_ = "choice" + file + ".choice";
        generated_ = "choice.gen/" + file + ".choice";
        (this->*Draw(kSteps))();
        EXPECT_EQ(Calls(), std::exchange(told_, ""));
        EXPECT_EQ(ModFindByName(name_.c_str(), instance_) != nullptr, Cached() != nullptr);
        EXPECT_EQ(numMods, mods_ + static_cast<int>(items_.size()));
        EXPECT_EQ(tree_.Get(dat_), files_.count(dat_) != 0 ? files_[dat_] : "(none)");
        EXPECT_EQ(gSyncs, syncs_);
        EXPECT_EQ(gsConfigWriteOutstanding != 0, outstanding_);
    }

  private:
    struct ItemT {
        std::string key;
        std::string value;
        bool known = false;
        std::vector<const char*> users;  // null: a slot that is free again
    };

    template <typename T, size_t kCount>
    T Draw(T const (&values)[kCount]) {
        return values[random_() % kCount];
    }
    std::string DrawValue() {
        std::string value(Draw<size_t>({0, 1, 1, 5, 29, 30, 369, 370, 700}), Draw({'x', 'X', 'y'}));
        value.insert(value.size() / 2, Draw({"", "", "", "", "\r\n", "\n"}));
        return Draw(
            {value, value, value, value, value,
             std::string(Draw({"-1", "65537 apples", "4294967295", "-99999999999", "TRUE", "1"}))});
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
        if (value.size() > 29 && Item()->value.size() <= 29) {
            std::rotate(items_.begin() + (Item() - items_.data()),
                        items_.begin() + (Item() - items_.data()) + 1, items_.end());
        }
        Item()->value = value.substr(0, 369);
        Item()->known = true;
    }

    // The first of these files that is there.
    bool Has(std::initializer_list<std::string> names, std::string* content) const {
        for (const std::string& name : names) {
            if (const auto at = files_.find(name); at != files_.end()) {
                *content = at->second;
                return true;
            }
        }
        return false;
    }

    void Change(const std::string& value, const std::string& perm, UInt32 flags) {
        if (as_given_ && Cached() != nullptr && Cached()->known && Cached()->value == value) {
            return;
        }
        Put(value);
        std::string told = value;
        if ((flags & kConfigCacheOnly) == 0) {
            told = FirstLine(value, value.size() + 1);
            files_[dat_] = told + "\n";
            written_ = gNow;
            outstanding_ = true;
        }
        std::vector<const char*> users = Cached()->users;
        users.push_back("all");
        std::erase(users, nullptr);
        for (const char* user : users) {
            told_ += std::string(user) + ":" + key_ + "=" + told.substr(0, 369) + "/" +
                     perm.substr(0, 4) + "/" + std::to_string(flags) + "|";
        }
    }

    void Write() {
        const auto number = static_cast<UInt32>(random_());
        const std::string text = DrawValue();
        const char* perm = Draw({"", "r", "abcdef"});
        const char* name = given_.c_str();
        const char* value = text.c_str();
        const struct {
            std::function<void()> write;
            std::string value;
            std::string perm = "rw";
            UInt32 flags = 0;
        } calls[] = {
            {[&] { ConfigWriteCacheOnly(name, instance_, value); }, text, "rw", kConfigCacheOnly},
            {[&] { ConfigWritePerm(name, instance_, value, perm); }, text, perm},
            {[&] { ConfigWriteEx(name, instance_, value, perm, 6); }, text, perm, 6},
            {[&] { ConfigWriteInt32(name, instance_, number); },
             std::to_string(static_cast<int>(number))},
            {[&] { ConfigWriteInt16(name, instance_, static_cast<UInt16>(number)); },
             std::to_string(number & 0xFFFF)},
            {[&] { ConfigWriteBool(name, instance_, number & 2); },
             (number & 2) != 0 ? "True" : "False"},
            {[&] { EXPECT_EQ(ConfigWrite(name, instance_, value), kNoError); }, text}};
        const auto call = Draw(calls);
        call.write();
        Change(call.value, call.perm, call.flags);
    }
    void Read() {
        if (Item()->value.empty()) {
            std::string content;
            const bool found = Has({dat_, generated_, choice_}, &content);
            Put(found ? FirstLine(content, 370) : kConfigNotSet);
        }
        const std::string value = Cached()->value;
        EXPECT_EQ(::Read(given_, instance_), value == kConfigNotSet ? kMissing : value) << given_;
        const long long read = strtoll(value.c_str(), nullptr, 10);
        const auto number = static_cast<UInt32>(std::clamp<long long>(read, INT32_MIN, INT32_MAX));
        EXPECT_EQ(ConfigReadInt32(given_.c_str(), instance_), number);
        EXPECT_EQ(ConfigReadInt16(given_.c_str(), instance_), static_cast<UInt16>(number));
        EXPECT_EQ(ConfigReadBool(given_.c_str(), instance_) == 1,
                  value == "TRUE" || value == "True");
    }
    void Delete() {
        EXPECT_EQ(ConfigDelete(given_.c_str(), instance_), kNoError);
        files_.erase(dat_);
        std::erase_if(items_, [this](const ItemT& item) { return item.key == key_; });
    }
    void Restore() {
        std::string content;
        const bool found = Has({generated_, choice_}, &content);
        EXPECT_EQ(ConfigRestore(given_.c_str(), instance_), found ? kNoError : kItemNotFound);
        if (found) {
            Change(FirstLine(content, 370), "rw", 0);
        }
    }
    void Watch() {
        const char* user = Draw(kUsers);
        EXPECT_EQ(::Watch(given_.c_str(), user, instance_), kNoError);
        auto& users = Item()->users;
        if (std::find(users.begin(), users.end(), user) == users.end()) {
            const auto free = std::find(users.begin(), users.end(), nullptr);
            *(free == users.end() ? users.insert(free, nullptr) : free) = user;
        }
    }
    void Unwatch() {
        const char* user = Draw(kUsers);
        std::vector<const char*> none;
        auto& users = as_given_ && Cached() != nullptr ? Cached()->users : none;
        const auto at = std::find(users.begin(), users.end(), user);
        EXPECT_EQ(ConfigDeleteCallback(given_.c_str(), instance_, Note, const_cast<char*>(user)),
                  at != users.end() ? kNoError : kItemNotFound);
        std::replace(users.begin(), users.end(), user, static_cast<const char*>(nullptr));
    }

    void Dump() {
        const std::string heading = "\nConfig item                         value\n" +
                                    std::string(35, '-') + " " + std::string(58, '-') + "\n";
        const auto line = [](const ItemT& item) {
            return item.key + std::string(35 - std::min<size_t>(35, item.key.size()), ' ') + " " +
                   item.value + "\n";
        };
        std::map<char, std::string> lines;  // by first letter
        for (const ItemT& item : items_) {
            lines[item.key[0]] += line(item);
        }
        ConfigDumpAll();
        ConfigDumpByName(given_.c_str(), instance_);
        EXPECT_EQ(out_.Fresh(),
                  heading + lines['n'] + lines['v'] + lines['w'] + "<end>\n" +
                      (Cached() != nullptr ? heading + line(*Cached())
                                           : "ERROR, cannot locate item " + given_ + "\n"));
    }

    // A file comes, changes or goes by another hand.
    void Edit() {
        const std::string file = Draw({dat_, choice_, generated_});
        if (files_.erase(file) == 1) {
            std::filesystem::remove(tree_.Path(file));
        } else {
            tree_.Put(file, files_[file] = DrawValue() + Draw({"", "\n"}));
        }
    }
    // The store beneath the cache, read directly.
    void Look() {
        const size_t size = Draw<size_t>({1, 2, 29, 31, 370});
        const bool choice = random_() % 3 == 0;
        std::string value(size + 1, '#');
        std::string content;
        const bool found = Has({choice ? "" : dat_, generated_, choice_}, &content);
        EXPECT_EQ((choice ? ConfigStoreChoiceRead : ConfigStoreRead)(
                      name_.c_str(), instance_, value.data(), static_cast<int>(size)),
                  found ? kNoError : kBadParameter);
        EXPECT_EQ(value.back(), '#') << "written behind the buffer";
        EXPECT_EQ(value.c_str(), FirstLine(content, size));
    }
    // The flush task looks; the clock has gone on, or was set back.
    void Flush() {
        gNow += Draw<time_t>({0, 1, 3, 4, 9, -1, -7});
        const time_t age = gNow - written_;
        if (outstanding_ && (age < 0 || age >= 4)) {
            outstanding_ = false;
            syncs_++;
        }
        gPauseEnds.release();
        gPauses.acquire();
    }

    static constexpr const char* kUsers[] = {"a", "b", "c"};
    const StoreTree& tree_;
    StdoutFile out_;
    std::mt19937 random_;
    const int mods_;
    std::vector<ItemT> items_;                  // in the order of dumps within a letter
    std::map<std::string, std::string> files_;  // by name from the tree's root
    std::string told_;                          // to callbacks, in this step
    bool outstanding_ = false;
    time_t written_ = 0;
    int syncs_ = 0;
    // The variable of this step, as it is named in the call, and what that stands for.
    std::string given_, name_, key_, dat_, choice_, generated_;
    int instance_ = 0;
    bool as_given_ = false;
};

}  // namespace

extern "C" time_t time(time_t*) noexcept {
    return gNow;
}

extern "C" int select(int, fd_set*, fd_set*, fd_set*, timeval* time) {
    if (time->tv_sec != 5) {
        return poll(nullptr, 0, static_cast<int>(time->tv_sec * 1000 + time->tv_usec / 1000));
    }
    gPauses.release();
    gPauseEnds.acquire();
    return 0;
}

extern "C" void sync() noexcept {
    gSyncs++;
}

TEST_F(Config, AnyOrderOfCallsLeavesCacheFilesAndListenersAsTheModelHasThem) {
    Attach();
    ConfigInit();
    gPauses.acquire();
    ModAddCallback(getConfigModule(), 0, Note, const_cast<char*>("all"), 0);
    ModelT model(tree);
    for (int step = 0; step < 15000 && !HasFailure(); step++) {
        model.Step();
    }
}

TEST_F(Config, NamesWithSeveralInstancesAreJoined) {
    Attach();
    ConfigAddCallback2("ip", 1, 2, Note, const_cast<char*>("two"));
    ConfigAddCallback3("ip", -1, 2, 3, Note, const_cast<char*>("three"));
    ConfigWrite2("ip", 1, 2, "2");
    ConfigWrite3("ip", -1, 2, 3, "3");
    EXPECT_EQ(Calls(), "two:ip1_2[0]=2/rw/0|three:ip-1_2_3[0]=3/rw/0|");
    char value[kConfigValueSize];
    EXPECT_EQ(ConfigRead2("ip", 1, 2, value) + value[0], '2');
    EXPECT_EQ(ConfigRead3("ip", -1, 2, 3, value) + value[0], '3');
}

TEST_F(Config, ChangesAreLoggedSecretsNever) {
    const StdoutFile out;
    StartLog();
    std::istringstream names(
        "sw roomsw websw userpassword0 meetingpassword sippassword softwareupdatepassword "
        "mppassword dot1xpwd ldappassword loginpassword norteldirectoryurlsp globaldirectoryurlsp "
        "GlobalDirectoryURLSp7 xmpppassword yahoopassword pwencryptiontyperemote "
        "pwencryptiontyperoom pwencryptiontypeuser0 PwEncryptionTypeMeeting");
    for (std::string name; names >> name;) {
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
