// An AA tree: a binary search tree kept balanced by levels, with two rotations and no parent links.
#include "Common/OS/bintree.h"

#include <stdlib.h>

struct TreeNodeT {
    TreeNodeT* left;
    TreeNodeT* right;
    TreeKeyT key;
    void* object;
    int level;
};

struct TreeT {
    TreeNodeT* root;
};

namespace {

TreeNodeT* Skew(TreeNodeT* node) {
    TreeNodeT* left = node->left;
    if (left == nullptr || left->level != node->level) {
        return node;
    }
    node->left = left->right;
    left->right = node;
    return left;
}

TreeNodeT* Split(TreeNodeT* node) {
    TreeNodeT* right = node->right;
    if (right == nullptr || right->right == nullptr || right->right->level != node->level) {
        return node;
    }
    node->right = right->left;
    right->left = node;
    right->level++;
    return right;
}

TreeNodeT* Insert(TreeNodeT* node, TreeNodeT* fresh) {
    if (node == nullptr) {
        return fresh;
    }
    if (fresh->key < node->key) {
        node->left = Insert(node->left, fresh);
    } else {
        node->right = Insert(node->right, fresh);
    }
    return Split(Skew(node));
}

TreeNodeT* Find(TreeNodeT* node, TreeKeyT key) {
    while (node != nullptr && node->key != key) {
        node = key < node->key ? node->left : node->right;
    }
    return node;
}

void FreeNodes(TreeNodeT* node) {
    if (node != nullptr) {
        FreeNodes(node->left);
        FreeNodes(node->right);
        free(node);
    }
}

}  // namespace

TreeT* CreateTree() {
    return static_cast<TreeT*>(calloc(1, sizeof(TreeT)));
}

int InsertItem(TreeT* tree, TreeKeyT key, void* object) {
    TreeNodeT* node = Find(tree->root, key);
    if (node != nullptr) {
        node->object = object;
        return 0;
    }
    node = static_cast<TreeNodeT*>(calloc(1, sizeof(TreeNodeT)));
    if (node == nullptr) {
        return 1;
    }
    node->key = key;
    node->object = object;
    node->level = 1;
    tree->root = Insert(tree->root, node);
    return 0;
}

void* SearchTree(const TreeT* tree, TreeKeyT key) {
    const TreeNodeT* node = tree != nullptr ? Find(tree->root, key) : nullptr;
    return node != nullptr ? node->object : nullptr;
}

int BuildTree(TreeT* tree, const TreeItemT* items, int count) {
    FreeNodes(tree->root);
    tree->root = nullptr;
    for (int i = 0; i < count; i++) {
        if (InsertItem(tree, items[i].key, items[i].object) != 0) {
            return 1;
        }
    }
    return 0;
}

void DestroyTree(TreeT* tree) {
    if (tree != nullptr) {
        FreeNodes(tree->root);
        free(tree);
    }
}
