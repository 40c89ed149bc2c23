// A store of the test's own: the fallback folders in a temporary place, and a working directory
// beside them. The process must not have initialised the configuration yet. The log is told that it
// has loaded its settings, so that it does not fill the cache when it likes.
#pragma once

#include <string>

class StoreTree {
  public:
    StoreTree();
    ~StoreTree();
    StoreTree(const StoreTree&) = delete;
    StoreTree& operator=(const StoreTree&) = delete;

    // Writes or reads a file by its name from the tree's root, such as "dat/x.dat".
    void Put(const std::string& name, const std::string& content) const;
    std::string Get(const std::string& name) const;  // "(none)" for no file
    std::string Path(const std::string& name) const { return root_ + "/" + name; }

  private:
    std::string root_;
};
