#include "tools/harborsh/services.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/system.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/config.h"
#include "Common/framework/configstore.h"
#include "Common/framework/message.h"
#include "Common/framework/mod.h"
#include "Common/framework/modman.h"
#include "Common/framework/rem_message.h"
#include "Common/framework/timer.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "tools/harborsh/config_commands.h"
#include "tools/harborsh/demo.h"
#include "tools/harborsh/diagnostics.h"

namespace harborsh {
namespace {

namespace fs = std::filesystem;

constexpr UInt32 kCommandPriority = 20;
constexpr UInt32 kEventReady = 0x1;   // to the main task: the commands are there
constexpr UInt32 kEventFailed = 0x2;  // to the main task: they are not

std::atomic<UInt32> gCommandTask{0};
std::atomic<bool> gStopping{false};
ModT gShellMod;
std::string gTemporaryStore;

void CommandTaskEntry(UInt32 main_task, UInt32, UInt32, UInt32) {
    ModInit(&gShellMod, "Shell", 0, nullptr);
    const bool added =
        MsgInit() == kNoError && AddDiagnostics() && AddDemo() && ConfigCommandsAdd() == kNoError;
    ev_send(main_task, added ? kEventReady : kEventFailed);
    ModTaskLoop();
}

// Standard output leads nowhere for a scope: a temporary store is no news.
class QuietT {
  public:
    QuietT() {
        fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~QuietT() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietT(const QuietT&) = delete;
    QuietT& operator=(const QuietT&) = delete;

  private:
    int saved_ = dup(STDOUT_FILENO);
};

// The temporary store goes however the program ends; memory may be short for a moment.
void RemoveTemporaryStore() {
    std::error_code err;
    fs::remove_all(gTemporaryStore, err);
    if (err) {
        fs::remove_all(gTemporaryStore, err);
    }
}

// Where it aborts, another program does it: in a signal handler little may be called.
void RemoveTemporaryStoreOfAborted(int) {
    const pid_t remover = _Fork();
    if (remover == 0) {
        execl("/bin/rm", "rm", "-rf", gTemporaryStore.c_str(), nullptr);
        _exit(1);
    }
    waitpid(remover, nullptr, 0);
}

// Makes the configuration store's folders and tells the store, and the log, of them.
bool PrepareStore(const std::string& store) {
    if (store.empty() && fs::is_directory(CONFIG_DAT_FOLDER)) {
        ConfigLoadLogSettings();
        return true;
    }
    if (store.empty()) {
        std::string path = fs::temp_directory_path() / "harborsh_XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            perror("harborsh: no folder for the configuration");
            return false;
        }
        gTemporaryStore = path;
        atexit(RemoveTemporaryStore);
        signal(SIGABRT, RemoveTemporaryStoreOfAborted);
    }
    const fs::path root = fs::absolute(store.empty() ? gTemporaryStore : store);
    const struct {
        char* folder;
        const char* name;
    } folders[] = {{CONFIG_DAT_FOLDER, "dat/"},
                   {CONFIG_CHOICE_FOLDER, "choice/"},
                   {CONFIG_CHOICE_GEN_FOLDER, "choice.gen/"}};
    for (const auto& f : folders) {
        const std::string path = root / f.name;
        std::error_code err;
        fs::create_directories(path, err);
        if (err || path.size() >= kConfigPathSize) {
            fprintf(stderr, "harborsh: cannot make %s\n", path.c_str());
            return false;
        }
        strcpy(f.folder, path.c_str());
    }
    if (store.empty()) {
        gConfigLoaded = 1;  // nothing is kept there
        const QuietT quiet;
        ConfigInit();
    } else {
        ConfigLoadLogSettings();
    }
    return true;
}

bool StartCommandTask() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    UInt32 task = 0;
    UInt32 args[4] = {self, 0, 0, 0};
    UInt32 events = 0;
    if (t_create("cmds", kCommandPriority, 0, 0, 0, &task) != kTaskOk ||
        t_start(task, 0, CommandTaskEntry, args) != kTaskOk ||
        ev_receive(kEventReady | kEventFailed, kEvAny, 0, &events) != kTaskOk) {
        return false;
    }
    gCommandTask = task;
    return events == kEventReady;
}

}  // namespace

bool StartServices(int log_level, const std::string& store) {
    os_init();
    TreeStub();
    UInt32 ignored;
    syslogSetLogLevel(log_level);
    SetSystemHardwareType(kHarbor);
    if (t_attach("main", 0, &ignored) != kTaskOk || InitSyslogInterface() != 0 ||
        ModManInit() != kNoError || RemMsgInit() != kNoError) {
        fputs("harborsh: the services do not start\n", stderr);
        return false;
    }
    if (!PrepareStore(store)) {
        return false;
    }
    DevMgrSerial_Init();
    if (!StartCommandTask()) {
        fputs("harborsh: the commands cannot be added\n", stderr);
        return false;
    }
    return true;
}

void StopServices() {
    syslogSetLogLevel(kLogCritical);  // the end of the tasks is no news
    // A task that ends still runs the commands that wait for it.
    gStopping = true;
    t_delete(gCommandTask.exchange(0));
    StopDemo();
    TimerManExit();
    MsgExit();
    ModExit(&gShellMod);
    ModManExit();
    ConfigExit();
    syslogDrainQueue();
    fflush(stdout);
}

UInt32 CommandTask() {
    return gCommandTask;
}

bool Stopping() {
    return gStopping;
}

bool Settled() {
    return gFreeDeferredFuncsAvailable == kModNumDeferredFuncs &&
           gFreeDCBsAvailable == kModNumDeferredCallbacks;
}

}  // namespace harborsh
