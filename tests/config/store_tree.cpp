#include "tests/config/store_tree.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Common/OS/logmsg.h"

namespace fs = std::filesystem;

StoreTree::StoreTree() {
    gConfigLoaded = 1;
    char root[] = "/tmp/harbor_store_XXXXXX";
    root_ = mkdtemp(root);
    chmod(root, 0755);
    for (const char* folder : {"start", "dat", "choice", "choice.gen"}) {
        fs::create_directory(Path(folder));
    }
    fs::current_path(Path("start"));
    EXPECT_FALSE(fs::exists("/opt/corvane")) << "this test would touch the unit's own settings";
}

StoreTree::~StoreTree() {
    fs::current_path("/");
    fs::remove_all(root_);
}

void StoreTree::Put(const std::string& name, const std::string& content) const {
    std::ofstream(Path(name), std::ios::binary) << content;
}

std::string StoreTree::Get(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    if (!file) {
        return "(none)";
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}
