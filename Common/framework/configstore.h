// The configuration store: variables as files, one small text file per variable and instance. The
// current value is in the "dat" folder, written here; the default is in a "choice" folder, shipped
// with the software and never written. A variable without current value reads as its default.
//
// A file is the value and one line feed; only the first line counts. It is rewritten in place,
// without a temporary file: one call of the system puts value and line feed over the old line, then
// what is left behind it is cut off. A reader in the middle of that may find a mixture of the two
// lines. A start after this process was killed finds the old value or the new one (one that is
// longer than a page of memory perhaps half written over the old), or an empty one where there was
// no file yet; after a power failure also the beginning of one. The file system is flushed by the
// task "csyn", a few seconds after the last write.
//
// Any thread may call. The store holds no lock; calls block as long as the file system does. Names
// are in lower case already. A name is refused, with a line in the log and kBadParameter, when it
// is empty or holds '/' or '.', because it could lead out of the folders. On a processor other than
// 0 no file is touched: values are asked of processor 0, and written there.
#pragma once

#include <time.h>

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

// Bytes of a path, its end included; callers' buffers for file names have this size.
constexpr int kConfigPathSize = 4096;

// The folders, each with its trailing separator: the default, or the fallback when ConfigStoreInit
// found no such directory. Written by ConfigStoreInit; a program that wants others sets them
// before.
extern char CONFIG_DAT_FOLDER[kConfigPathSize + 1];
extern char CONFIG_CHOICE_FOLDER[kConfigPathSize + 1];
extern char CONFIG_CHOICE_GEN_FOLDER[kConfigPathSize + 1];

// The fallbacks, relative to where the program starts. That of the defaults has no trailing
// separator, so folder and variable name run together in file names: on purpose.
constexpr char NO_DAT_IN_OPT_DIR[] = "../dat/";
constexpr char NO_CHOICE_IN_OPT_DIR[] = "../choice";
constexpr char NO_CHOICE_GEN_IN_OPT_DIR[] = "../choice.gen/";

extern const short gbFoldersEnabled;                // 1: the folders are checked and used
extern std::atomic<short> gbFolderDataInitialized;  // 1 after the folders were checked
extern std::atomic<time_t> gstLastConfigWrite;      // when a value was last written, seconds
extern std::atomic<int> gsConfigWriteOutstanding;   // 1: written since the last flush
extern std::atomic<UInt32> gsSyncTID;               // the flush task

// Checks the folders and starts the flush task, the first time; a folder that is missing, its
// fallback too, ends the program. Returns gbFolderDataInitialized. Called by ConfigInit.
short ConfigStoreInit();

// kNoError for a name that may be part of a file name; otherwise logs that it is refused and
// returns kBadParameter.
eErrorT ConfigStoreCheckName(const char* pName);

// Stores the first line of the current value, or else of the default, through `s`: at most `len` -
// 1 characters, cut at the first line feed and the first carriage return. A file that is no regular
// file, or cannot be read, counts as missing and is logged; a current value that does not end in a
// line feed is logged (a write was cut short) and taken as it is. Returns kNoError, or
// kBadParameter with an empty `s` when neither file opens. On other processors waits up to 3 s for
// processor 0; without answer reports on standard output and stores an empty value, kNoError;
// values that hold blanks arrive up to the first.
eErrorT ConfigStoreRead(const char* pName, int instance, char* s, int len);

// The same from the default alone.
eErrorT ConfigStoreChoiceRead(const char* pName, int instance, char* s, int len);

// Replaces the current value: `s` up to its first line feed or carriage return, where it is cut in
// place. Returns kNoError; or kBadParameter, after a line on standard error, when the file cannot
// be opened or nothing can be written (the old value stays), or only a part can be written, or it
// cannot be closed (the file holds that part of the new value). On other processors kBadParameter
// means that a command cannot carry it: the value is too long or ends with a backslash, or the name
// holds blanks or begins with a quote.
eErrorT ConfigStoreWrite(const char* pName, int instance, char* s);

// The same for the first `length` characters at `s`, which hold no line end.
eErrorT ConfigStoreWriteText(const char* pName, int instance, const char* s, size_t length);

// Removes the current value, so that the default shows again. Returns kNoError, or kBadParameter
// when nothing was removed, also because there was none.
eErrorT ConfigStoreDelete(const char* pName, int instance);

// Several lines under a variable's name, instance 0. Open stores a stream through `pCastF`, which
// Close takes back; a stream is used by one thread at a time. ReadOpen opens the current value or
// else the default, WriteOpen replaces the current value; kBadParameter when that fails.
// GetLine stores the next line, at most `len` - 1 characters, cut at the first line feed and
// carriage return; kEndOfFile, with an empty line, after the last one. PutLine writes `nByte` bytes
// as they are, line ends being the caller's; WriteClose adds one line feed. Both return
// kBadParameter, after a line on standard error, when the bytes could not be written. Streams are
// left out of flushing.
eErrorT ConfigStoreReadOpen(const char* pName, void** pCastF);
eErrorT ConfigStoreReadGetLine(void* castFp, char* Data, int len);
eErrorT ConfigStoreReadClose(void* castFp);
eErrorT ConfigStoreWriteOpen(const char* pName, void** pCastF);
eErrorT ConfigStoreWritePutLine(void* castFp, const char* Data, int nByte);
eErrorT ConfigStoreWriteClose(void* castFp);

// Build a variable's file name into `szDestination` (kConfigPathSize bytes) and return it. The
// instance is part of the name from 1 on. The choice file is that of the generated defaults where
// it exists. The name is not checked; a path that is too long comes out empty.
char* ConfigGetDatFileName(const char* szVarName, int nInstance, char* szDestination);
char* ConfigGetChoiceFileName(const char* szVarName, int nInstance, char* szDestination);

// 1 when the path is a regular file, or a directory; else 0.
short ConfigIsFileExist(const char* szFileName);
short ConfigIsFolderExist(const char* szDirName);

// Makes a directory with mode 0755. 1 when it was made, else 0.
short ConfigCreateFolder(const char* szDirName);
