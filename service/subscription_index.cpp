/*
 * subscription_index.cpp - the hash table of exact keys and the radix tree
 * of pattern prefixes.
 *
 * The tree: every node stands for the prefix spelt by the labels from the
 * root to it and holds the patterns with exactly that prefix. Children are
 * kept sorted by the first byte of their label, which differs between
 * siblings. A node that holds no pattern has two children or more (or is
 * the root), so the tree has at most two nodes per distinct prefix and its
 * labels at most the bytes of the distinct prefixes.
 */
#include "subscription_index.h"

#include <algorithm>

#include "store/store.h"

namespace hspace {
namespace service {

struct SubscriptionIndex::Node {
    std::string label;                         // bytes after the parent's prefix; empty only at the root
    Node *parent = nullptr;                    // null at the root
    std::vector<Entry *> entries;              // patterns whose prefix ends here
    std::vector<std::unique_ptr<Node>> children; // sorted by label[0]

    // The position of the child whose label starts with ch, or where it
    // would go.
    std::vector<std::unique_ptr<Node>>::iterator find(unsigned char ch)
    {
        return std::lower_bound(children.begin(), children.end(), ch,
                                [](const std::unique_ptr<Node> &c, unsigned char b) {
                                    return static_cast<unsigned char>(c->label[0]) < b;
                                });
    }
    std::vector<std::unique_ptr<Node>>::const_iterator find(unsigned char ch) const
    {
        return const_cast<Node *>(this)->find(ch);
    }
};

SubscriptionIndex::SubscriptionIndex() : root_(new Node) {}

SubscriptionIndex::~SubscriptionIndex() = default;

const std::vector<SubscriptionIndex::Entry *> *SubscriptionIndex::node_entries(const Node *n)
{
    return &n->entries;
}

const SubscriptionIndex::Node *SubscriptionIndex::step(const Node *n, std::string_view key, size_t *pos)
{
    if (*pos >= key.size()) return nullptr;
    auto it = n->find(static_cast<unsigned char>(key[*pos]));
    if (it == n->children.end() || (*it)->label[0] != key[*pos]) return nullptr;
    const std::string &label = (*it)->label;
    if (key.size() - *pos < label.size() || key.compare(*pos, label.size(), label) != 0) return nullptr;
    *pos += label.size();
    return it->get();
}

void SubscriptionIndex::put_in(std::vector<Entry *> &list, Entry &e)
{
    e.home_ = &list;
    e.slot_ = list.size();
    list.push_back(&e);
}

void SubscriptionIndex::add(Entry &e)
{
    size_++;
    if (!is_pattern(e.key)) {
        auto it = exact_.find(e.key);
        if (it == exact_.end()) {
            std::unique_ptr<Bucket> b(new Bucket);
            b->key = e.key;
            it = exact_.emplace(std::string_view(b->key), std::move(b)).first;
        }
        e.node_ = it->second.get();
        put_in(it->second->entries, e);
        return;
    }
    std::string_view prefix(e.key.data(), e.key.size() - 1);
    Node *n = root_.get();
    size_t pos = 0;
    while (pos < prefix.size()) {
        auto it = n->find(static_cast<unsigned char>(prefix[pos]));
        if (it == n->children.end() || (*it)->label[0] != prefix[pos]) {
            std::unique_ptr<Node> leaf(new Node);
            leaf->label.assign(prefix.substr(pos));
            leaf->parent = n;
            n = n->children.insert(it, std::move(leaf))->get();
            break;
        }
        Node *child = it->get();
        size_t common = 0, most = std::min(child->label.size(), prefix.size() - pos);
        while (common < most && child->label[common] == prefix[pos + common]) common++;
        if (common < child->label.size()) {
            // The prefix ends or parts inside the child's label: a node for
            // the shared part goes between them.
            std::unique_ptr<Node> mid(new Node);
            mid->label = child->label.substr(0, common);
            mid->parent = n;
            child->label.erase(0, common);
            child->parent = mid.get();
            mid->children.push_back(std::move(*it));
            *it = std::move(mid);
            child = it->get();
        }
        n = child;
        pos += common;
    }
    e.node_ = n;
    put_in(n->entries, e);
}

void SubscriptionIndex::remove(Entry &e)
{
    std::vector<Entry *> &list = *e.home_;
    list[e.slot_] = list.back();
    list[e.slot_]->slot_ = e.slot_;
    list.pop_back();
    e.home_ = nullptr;
    size_--;
    if (!is_pattern(e.key)) {
        if (list.empty()) exact_.erase(exact_.find(std::string_view(static_cast<Bucket *>(e.node_)->key)));
        e.node_ = nullptr;
        return;
    }
    Node *n = static_cast<Node *>(e.node_);
    e.node_ = nullptr;
    // Nodes left without patterns go: a leaf at once (which may leave its
    // parent so), a node with one child into that child.
    while (n->parent != nullptr && n->entries.empty()) {
        Node *parent = n->parent;
        auto it = parent->find(static_cast<unsigned char>(n->label[0]));
        if (n->children.empty()) {
            parent->children.erase(it);
            n = parent;
            continue;
        }
        if (n->children.size() == 1) {
            std::unique_ptr<Node> only = std::move(n->children[0]);
            only->label.insert(0, n->label);
            only->parent = parent;
            *it = std::move(only); // frees n
        }
        break;
    }
}

} // namespace service
} // namespace hspace
