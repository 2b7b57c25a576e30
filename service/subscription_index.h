/*
 * subscription_index.h - finds the subscriptions that select a changed key
 * without looking at the others: exact keys in a hash table, prefix
 * patterns in a radix tree walked along the key. The exact keys hash
 * under a per-process key (keyed_hash.h), so no client can choose keys that
 * share a bucket. Selecting a key costs O(key length) plus one step per
 * subscription that selects it,
 * whatever else is indexed; adding and removing one costs O(key length)
 * (plus O(log 256) per tree level).
 *
 * Single-threaded: the owner (the service's I/O thread) alone calls it.
 */
#ifndef HSPACE_SERVICE_SUBSCRIPTION_INDEX_H
#define HSPACE_SERVICE_SUBSCRIPTION_INDEX_H

#include <stddef.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "keyed_hash.h"

namespace hspace {
namespace service {

class SubscriptionIndex {
public:
    // What the index holds of a subscription: its key or prefix pattern
    // ("p*"; "*" alone selects every key). The owner embeds it (or derives
    // from it) and keeps it at one address while it is indexed.
    class Entry {
    public:
        explicit Entry(std::string key) : key(std::move(key)) {}
        Entry(const Entry &) = delete;
        Entry &operator=(const Entry &) = delete;
        bool indexed() const { return home_ != nullptr; }

        const std::string key;                 // as posted; fixed for the entry's life

    private:
        friend class SubscriptionIndex;
        std::vector<Entry *> *home_ = nullptr; // the list that holds it, while indexed
        size_t slot_ = 0;                      // its position in *home_
        void *node_ = nullptr;                 // its pattern node, or its exact bucket
    };

    SubscriptionIndex();
    ~SubscriptionIndex();
    SubscriptionIndex(const SubscriptionIndex &) = delete;
    SubscriptionIndex &operator=(const SubscriptionIndex &) = delete;

    // Indexes e under its key. REQUIRES: e not indexed.
    void add(Entry &e);
    // Forgets e. REQUIRES: e indexed here.
    void remove(Entry &e);
    // Entries indexed.
    size_t size() const { return size_; }

    // Calls f(Entry &) once for every entry that selects key: an exact key
    // equal to it byte for byte, or a pattern whose prefix begins it. Order
    // unspecified. f must not add or remove entries.
    template <class F>
    void select(std::string_view key, F &&f) const;

private:
    struct Node;                               // a radix tree node (subscription_index.cpp)
    struct Bucket {                            // the entries of one exact key
        std::string key;                       // the map's key views these bytes
        std::vector<Entry *> entries;
    };

    static const std::vector<Entry *> *node_entries(const Node *n);
    // The child of n whose label begins key at pos and lies wholly inside
    // it; null when there is none.
    static const Node *step(const Node *n, std::string_view key, size_t *pos);
    static void put_in(std::vector<Entry *> &list, Entry &e);

    std::unordered_map<std::string_view, std::unique_ptr<Bucket>, KeyedHash> exact_; // exact keys
    std::unique_ptr<Node> root_;               // patterns: the empty prefix ("*")
    size_t size_ = 0;                          // entries indexed
};

template <class F>
void SubscriptionIndex::select(std::string_view key, F &&f) const
{
    if (!exact_.empty()) {
        auto it = exact_.find(key);
        if (it != exact_.end())
            for (Entry *e : it->second->entries) f(*e);
    }
    size_t pos = 0;
    for (const Node *n = root_.get(); n != nullptr; n = step(n, key, &pos))
        for (Entry *e : *node_entries(n)) f(*e);
}

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_SUBSCRIPTION_INDEX_H */
