// A temporary folder that goes with the object, and files in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class FolderT {
  public:
    FolderT() : root_(mkdtemp(std::string("/tmp/harbor_test_XXXXXX").data())) {}
    ~FolderT() { std::filesystem::remove_all(root_); }
    FolderT(const FolderT&) = delete;
    FolderT& operator=(const FolderT&) = delete;

    // All names are relative to the folder; an empty one is the folder itself.
    std::string Path(const std::string& name) const {
        return name.empty() ? root_ : root_ + "/" + name;
    }
    void Put(const std::string& name, const std::string& content) const {
        std::ofstream(Path(name), std::ios::binary) << content;
    }
    std::string Get(const std::string& name) const {  // "(none)" for no file
        std::ifstream file(Path(name), std::ios::binary);
        return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(none)";
    }

  private:
    std::string root_;
};
