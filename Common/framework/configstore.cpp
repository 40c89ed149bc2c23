// Files and the flush task; configremote.cpp has the way to processor 0. Files are opened without
// waiting, so that a FIFO in a file's place cannot stop a task. See configstore.h.
#include "Common/framework/configstore.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"
#include "Common/framework/configremote.h"
#include "Common/framework/proxy.h"

char CONFIG_DAT_FOLDER[kConfigPathSize + 1] = "/opt/corvane/dat/";
char CONFIG_CHOICE_FOLDER[kConfigPathSize + 1] = "/opt/corvane/choice/";
char CONFIG_CHOICE_GEN_FOLDER[kConfigPathSize + 1] = "/opt/corvane/choice.gen/";

const short gbFoldersEnabled = 1;
std::atomic<short> gbFolderDataInitialized{0};
std::atomic<time_t> gstLastConfigWrite{0};
std::atomic<int> gsConfigWriteOutstanding{0};
std::atomic<UInt32> gsSyncTID{0};

namespace {

constexpr UInt32 kFlushPeriod = 500;  // ticks
constexpr time_t kQuietTime = 4;      // seconds without a write before a flush
constexpr UInt32 kFlushPriority = 2;
constexpr UInt32 kFlushStack = 4096;
constexpr int kShownName = 40;  // characters of a refused name that the log shows

pthread_mutex_t gFoldersMutex = PTHREAD_MUTEX_INITIALIZER;  // while the folders are checked

// A descriptor that goes with its scope, also when its task is deleted meanwhile: it is opened and
// closed with the deletion held off, which would otherwise come between and lose it.
class FileT {
  public:
    explicit FileT(int fd) : fd_(fd) {}
    ~FileT() noexcept(false) { Close(); }
    FileT(const FileT&) = delete;
    FileT& operator=(const FileT&) = delete;

    int Fd() const { return fd_; }
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // 0, or -1 with errno set.
    int Close() {
        const NoCancelT no_cancel;
        const int fd = Release();
        return fd >= 0 ? close(fd) : 0;
    }

  private:
    int fd_;
};

// Opens a regular file; -1 with errno set for anything else.
int OpenRegular(const char* path, int flags) {
    const NoCancelT no_cancel;
    FileT file(open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666));
    struct stat status;
    if (file.Fd() < 0 || fstat(file.Fd(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    return file.Release();
}

// The same for reading; a file that is there and yet cannot be read is worth a line.
int OpenToRead(const char* path) {
    const int fd = OpenRegular(path, O_RDONLY);
    if (fd < 0 && errno != ENOENT && errno != ENOTDIR) {
        const int err = errno;
        char text[64];
        logwarn("config", "can't read %s: %s\n", path, strerror_r(err, text, sizeof(text)));
    }
    return fd;
}

// Reads at most `size` bytes, through the first line feed at least. Returns the number; -1 with
// errno set.
ssize_t ReadFirstLine(int fd, char* s, size_t size) {
    size_t used = 0;
    while (used < size) {
        const ssize_t got = read(fd, s + used, size - used);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        used += static_cast<size_t>(got);
        if (memchr(s + used - got, '\n', static_cast<size_t>(got)) != nullptr) {
            break;
        }
    }
    return static_cast<ssize_t>(used);
}

// Reads a value file's line. False when the file cannot be read; `s` is then empty. `cut` tells
// that the file ended before its line did.
bool ReadValue(const char* path, char* s, int len, bool* cut) {
    s[0] = '\0';
    FileT file(OpenToRead(path));
    if (file.Fd() < 0) {
        return false;
    }
    const size_t size = static_cast<size_t>(len) - 1;
    const ssize_t used = ReadFirstLine(file.Fd(), s, size);
    if (used < 0) {
        perror("ConfigStoreRead: read");
        s[0] = '\0';
        return false;
    }
    s[used] = '\0';
    *cut =
        static_cast<size_t>(used) < size && memchr(s, '\n', static_cast<size_t>(used)) == nullptr;
    s[strcspn(s, "\r\n")] = '\0';
    return true;
}

bool ReadDat(const char* pName, int instance, char* s, int len) {
    char path[kConfigPathSize];
    bool cut = false;
    if (!ReadValue(ConfigGetDatFileName(pName, instance, path), s, len, &cut)) {
        return false;
    }
    if (cut) {
        logwarn("config", "%s ends without a line feed, %d characters taken\n", path,
                static_cast<int>(strlen(s)));
    }
    return true;
}

bool ReadChoice(const char* pName, int instance, char* s, int len) {
    char path[kConfigPathSize];
    bool cut = false;
    return ReadValue(ConfigGetChoiceFileName(pName, instance, path), s, len, &cut);
}

// Writes text and line feed over the file's beginning, in one call of the system unless that takes
// only a part. 0; or -1 with errno set, and in the file as much as was written, or all of the old
// value when that is nothing.
int OverwriteLine(int fd, const char* s, size_t length) {
    char line_feed = '\n';
    size_t done = 0;
    while (done <= length) {
        iovec parts[] = {{const_cast<char*>(s) + done, length - done}, {&line_feed, 1}};
        const ssize_t put = pwritev(fd, parts, 2, static_cast<off_t>(done));
        if (put < 0 && errno != EINTR) {
            const int err = errno;
            if (done > 0 && ftruncate(fd, static_cast<off_t>(done)) != 0) {
                perror("ConfigStoreWrite: ftruncate");
            }
            errno = err;
            return -1;
        }
        done += put > 0 ? static_cast<size_t>(put) : 0;
    }
    return 0;
}

// Makes a file hold one line. The line is written over the old one before the rest is cut off, so
// that at no time the file is without a whole line; and again afterwards, because another writer's
// longer line may have come between and been cut.
int RewriteLine(int fd, const char* s, size_t length) {
    const auto size = static_cast<off_t>(length + 1);
    struct stat before;
    if (fstat(fd, &before) != 0 || OverwriteLine(fd, s, length) != 0) {
        return -1;
    }
    if (before.st_size <= size) {
        return 0;
    }
    return ftruncate(fd, size) == 0 ? OverwriteLine(fd, s, length) : -1;
}

// Removes a file that a write made and could not fill: an empty value would hide the default.
void RemoveEmpty(int fd, const char* path) {
    struct stat status;
    if (fstat(fd, &status) == 0 && status.st_size == 0) {
        unlink(path);
    }
}

void NoteWrite() {
    gstLastConfigWrite = time(nullptr);
    gsConfigWriteOutstanding = 1;
}

char* BuildFileName(const char* folder, const char* name, int instance, const char* extension,
                    char* out) {
    char suffix[16] = "";
    if (instance >= 1) {
        snprintf(suffix, sizeof(suffix), "%d", instance);
    }
    const int length = snprintf(out, kConfigPathSize, "%s%s%s%s", folder, name, suffix, extension);
    if (length < 0 || length >= kConfigPathSize) {
        out[0] = '\0';
    }
    return out;
}

void ChooseFolder(char* folder, const char* fallback) {
    if (ConfigIsFolderExist(folder) == 0) {
        snprintf(folder, kConfigPathSize + 1, "%s", fallback);
    }
}

// A clock that was set back counts as quiet: the flush must not wait for it to catch up.
bool WrittenJustNow() {
    const time_t age = time(nullptr) - gstLastConfigWrite;
    return age >= 0 && age < kQuietTime;
}

void Flush() {
    gsConfigWriteOutstanding = 0;
    loginfo("config", "synching filesystem\n");
    const UInt32 start = RealTimeMilliSeconds();
    sync();
    loginfo("config", "sync complete %dms\n", static_cast<int>(RealTimeMilliSeconds() - start));
}

void FlushTask(UInt32, UInt32, UInt32, UInt32) {
    for (;;) {
        tm_wkafter(kFlushPeriod);
        while (gsConfigWriteOutstanding != 0 && !WrittenJustNow()) {
            Flush();
            tm_wkafter(kFlushPeriod);
        }
    }
}

void StartFlushTask() {
    UInt32 tid = 0;
    if (t_create("csyn", kFlushPriority, kFlushStack, kFlushStack, 0, &tid) != kTaskOk ||
        t_start(tid, 0, FlushTask, nullptr) != kTaskOk) {
        logerr("config", "can't start the flush task\n");
        return;
    }
    gsSyncTID = tid;
}

bool OnProcessor0() {
    return ProxyProcessorNum() == 0;
}

// Turns a descriptor into a stream and stores it; false, the descriptor closed, when it is none.
bool StoreStream(FileT* file, const char* mode, void** pCastF) {
    FILE* stream = file->Fd() >= 0 ? fdopen(file->Fd(), mode) : nullptr;
    if (stream != nullptr) {
        file->Release();
        *pCastF = stream;
    }
    return stream != nullptr;
}

}  // namespace

short ConfigStoreInit() {
    if (gbFoldersEnabled == 0 || !OnProcessor0() || gbFolderDataInitialized != 0) {
        return gbFolderDataInitialized;
    }
    {
        const MutexGuardT guard(&gFoldersMutex);
        if (gbFolderDataInitialized != 0) {
            return 1;
        }
        ChooseFolder(CONFIG_DAT_FOLDER, NO_DAT_IN_OPT_DIR);
        ChooseFolder(CONFIG_CHOICE_FOLDER, NO_CHOICE_IN_OPT_DIR);
        ChooseFolder(CONFIG_CHOICE_GEN_FOLDER, NO_CHOICE_GEN_IN_OPT_DIR);
        OsAssert(ConfigIsFolderExist(CONFIG_DAT_FOLDER));
        OsAssert(ConfigIsFolderExist(CONFIG_CHOICE_FOLDER));
        OsAssert(ConfigIsFolderExist(CONFIG_CHOICE_GEN_FOLDER));
        printf("Config Folder data initialized successfully(Choice dir: %s, Dat Dir: %s)\n",
               CONFIG_CHOICE_FOLDER, CONFIG_DAT_FOLDER);
        gbFolderDataInitialized = 1;
    }
    // Without the lock: a task's start is logged, and the log's first line may ask for this start.
    StartFlushTask();
    return 1;
}

eErrorT ConfigStoreCheckName(const char* pName) {
    if (pName[0] != '\0' && strpbrk(pName, "/.") == nullptr) {
        return kNoError;
    }
    logerr("config", "name \"%.*s\" refused: empty, or it holds '/' or '.'\n", kShownName, pName);
    return kBadParameter;
}

eErrorT ConfigStoreRead(const char* pName, int instance, char* s, int len) {
    OsAssert(pName);
    OsAssert(s);
    OsAssert(len > 0);
    s[0] = '\0';
    if (ConfigStoreCheckName(pName) != kNoError) {
        return kBadParameter;
    }
    if (!OnProcessor0()) {
        return ConfigRemoteRead(pName, instance, s, len);
    }
    return ReadDat(pName, instance, s, len) || ReadChoice(pName, instance, s, len) ? kNoError
                                                                                   : kBadParameter;
}

eErrorT ConfigStoreChoiceRead(const char* pName, int instance, char* s, int len) {
    OsAssert(pName);
    OsAssert(s);
    OsAssert(len > 0);
    s[0] = '\0';
    if (ConfigStoreCheckName(pName) != kNoError || !OnProcessor0()) {
        return kBadParameter;
    }
    return ReadChoice(pName, instance, s, len) ? kNoError : kBadParameter;
}

eErrorT ConfigStoreWrite(const char* pName, int instance, char* s) {
    OsAssert(pName);
    OsAssert(s);
    const size_t length = strcspn(s, "\r\n");
    s[length] = '\0';
    return ConfigStoreWriteText(pName, instance, s, length);
}

eErrorT ConfigStoreWriteText(const char* pName, int instance, const char* s, size_t length) {
    OsAssert(pName);
    OsAssert(s);
    if (ConfigStoreCheckName(pName) != kNoError) {
        return kBadParameter;
    }
    if (!OnProcessor0()) {
        return ConfigRemoteWrite(pName, instance, s, length);
    }
    char path[kConfigPathSize];
    ConfigGetDatFileName(pName, instance, path);
    FileT file(OpenRegular(path, O_WRONLY | O_CREAT));
    if (file.Fd() < 0) {
        perror("ConfigStoreWrite: fopen");
        return kBadParameter;
    }
    const int written = RewriteLine(file.Fd(), s, length);
    if (written != 0) {
        perror("ConfigStoreWrite: fwrite");
        RemoveEmpty(file.Fd(), path);
    }
    const int closed = file.Close();
    if (closed != 0) {
        perror("ConfigStoreWrite: fclose");
    }
    // Also after a failure: something may have been written.
    NoteWrite();
    return written == 0 && closed == 0 ? kNoError : kBadParameter;
}

eErrorT ConfigStoreDelete(const char* pName, int instance) {
    OsAssert(pName);
    if (ConfigStoreCheckName(pName) != kNoError || !OnProcessor0()) {
        return kBadParameter;
    }
    char path[kConfigPathSize];
    return unlink(ConfigGetDatFileName(pName, instance, path)) == 0 ? kNoError : kBadParameter;
}

eErrorT ConfigStoreReadOpen(const char* pName, void** pCastF) {
    OsAssert(pName);
    OsAssert(pCastF);
    *pCastF = nullptr;
    if (ConfigStoreCheckName(pName) != kNoError || !OnProcessor0()) {
        return kBadParameter;
    }
    char path[kConfigPathSize];
    FileT dat(OpenToRead(ConfigGetDatFileName(pName, 0, path)));
    if (StoreStream(&dat, "rb", pCastF)) {
        return kNoError;
    }
    FileT choice(OpenToRead(ConfigGetChoiceFileName(pName, 0, path)));
    return StoreStream(&choice, "rb", pCastF) ? kNoError : kBadParameter;
}

eErrorT ConfigStoreReadGetLine(void* castFp, char* Data, int len) {
    OsAssert(castFp);
    OsAssert(Data);
    OsAssert(len > 0);
    Data[0] = '\0';
    if (fgets(Data, len, static_cast<FILE*>(castFp)) == nullptr) {
        return kEndOfFile;
    }
    Data[strcspn(Data, "\r\n")] = '\0';
    return kNoError;
}

eErrorT ConfigStoreReadClose(void* castFp) {
    OsAssert(castFp);
    fclose(static_cast<FILE*>(castFp));
    return kNoError;
}

eErrorT ConfigStoreWriteOpen(const char* pName, void** pCastF) {
    OsAssert(pName);
    OsAssert(pCastF);
    *pCastF = nullptr;
    if (ConfigStoreCheckName(pName) != kNoError || !OnProcessor0()) {
        return kBadParameter;
    }
    char path[kConfigPathSize];
    FileT file(OpenRegular(ConfigGetDatFileName(pName, 0, path), O_WRONLY | O_CREAT | O_TRUNC));
    if (!StoreStream(&file, "wb", pCastF)) {
        perror("ConfigStoreWriteOpen: fopen");
        return kBadParameter;
    }
    return kNoError;
}

eErrorT ConfigStoreWritePutLine(void* castFp, const char* Data, int nByte) {
    OsAssert(castFp);
    OsAssert(Data);
    OsAssert(nByte > 0);
    const size_t size = static_cast<size_t>(nByte);
    if (fwrite(Data, 1, size, static_cast<FILE*>(castFp)) != size) {
        perror("ConfigStoreWritePutLine: fwrite");
        return kBadParameter;
    }
    return kNoError;
}

eErrorT ConfigStoreWriteClose(void* castFp) {
    OsAssert(castFp);
    auto* stream = static_cast<FILE*>(castFp);
    const int put = fputc('\n', stream);
    const int failed = ferror(stream);
    if (fclose(stream) != 0 || put == EOF || failed != 0) {
        perror("ConfigStoreWriteClose: fclose");
        return kBadParameter;
    }
    return kNoError;
}

char* ConfigGetDatFileName(const char* szVarName, int nInstance, char* szDestination) {
    OsAssert(szVarName);
    OsAssert(szDestination);
    return BuildFileName(CONFIG_DAT_FOLDER, szVarName, nInstance, ".dat", szDestination);
}

char* ConfigGetChoiceFileName(const char* szVarName, int nInstance, char* szDestination) {
    OsAssert(szVarName);
    OsAssert(szDestination);
    BuildFileName(CONFIG_CHOICE_GEN_FOLDER, szVarName, nInstance, ".choice", szDestination);
    if (ConfigIsFileExist(szDestination) == 0) {
        BuildFileName(CONFIG_CHOICE_FOLDER, szVarName, nInstance, ".choice", szDestination);
    }
    return szDestination;
}

short ConfigIsFileExist(const char* szFileName) {
    OsAssert(szFileName);
    struct stat status;
    return stat(szFileName, &status) == 0 && S_ISREG(status.st_mode) ? 1 : 0;
}

short ConfigIsFolderExist(const char* szDirName) {
    OsAssert(szDirName);
    struct stat status;
    return stat(szDirName, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

short ConfigCreateFolder(const char* szDirName) {
    OsAssert(szDirName);
    return mkdir(szDirName, 0755) == 0 ? 1 : 0;
}
