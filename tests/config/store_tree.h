// A store of the test's own: the fallback folders in a temporary place, and a working directory
// beside them. The process must not have initialised the configuration yet. The log is told that it
// has loaded its settings, so that it does not fill the cache when it likes.
#pragma once

#include <gtest/gtest.h>

#include "Common/OS/logmsg.h"
#include "tests/support/folder.h"

class StoreTree : public FolderT {
  public:
    StoreTree() {
        namespace fs = std::filesystem;
        gConfigLoaded = 1;
        for (const char* folder : {"start", "dat", "choice", "choice.gen"}) {
            fs::create_directory(Path(folder));
        }
        fs::permissions(Path(""), fs::perms(0755));
        fs::current_path(Path("start"));
        EXPECT_FALSE(fs::exists("/opt/corvane")) << "this test would touch the unit's own settings";
    }
    ~StoreTree() { std::filesystem::current_path("/"); }
};
