// A balanced binary search tree from a native-width key to an object pointer. It maps threads to
// task control blocks, and pthread_t is as wide as a pointer, so the key is too.
// The tree holds no lock: its user serialises all calls on one tree.
#pragma once

#include <cstdint>

typedef std::uintptr_t TreeKeyT;

struct TreeT;  // opaque; owned by the caller from CreateTree to DestroyTree

// One (key, object) pair for BuildTree.
struct TreeItemT {
    TreeKeyT key;
    void* object;
};

// Makes an empty tree; null when memory is exhausted.
TreeT* CreateTree();

// Stores `object` under `key`, replacing what the key held. Returns 0, or 1 when memory is
// exhausted (the tree is then unchanged). The object stays the caller's.
int InsertItem(TreeT* tree, TreeKeyT key, void* object);

// The object stored under `key`, or null. A null tree holds nothing.
void* SearchTree(const TreeT* tree, TreeKeyT key);

// Empties the tree and fills it with `count` items. Returns 0, or 1 when memory is exhausted (the
// items inserted before that remain).
int BuildTree(TreeT* tree, const TreeItemT* items, int count);

// Frees the tree, not the objects. A null tree is ignored.
void DestroyTree(TreeT* tree);
