/*
 * index_test.cpp - the service's subscription index against the plain
 * definition of selection (a key equal byte for byte, or a pattern whose
 * prefix begins the key): a table of the edge cases, then random adds and
 * removes that split and merge the pattern tree in every way, checked after
 * each step for every probe key.
 */
#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "subscription_index.h"

namespace {

using hspace::service::SubscriptionIndex;
using Keys = std::multiset<std::string>;

bool selects(const std::string &subscribed, const std::string &key)
{
    if (subscribed.empty() || subscribed.back() != '*') return subscribed == key;
    return key.compare(0, subscribed.size() - 1, subscribed, 0, subscribed.size() - 1) == 0;
}

Keys selected(const SubscriptionIndex &index, const std::string &key)
{
    Keys out;
    index.select(key, [&](SubscriptionIndex::Entry &e) { out.insert(e.key); });
    return out;
}

Keys brute(const std::vector<std::unique_ptr<SubscriptionIndex::Entry>> &entries, const std::string &key)
{
    Keys out;
    for (const auto &e : entries)
        if (e->indexed() && selects(e->key, key)) out.insert(e->key);
    return out;
}

TEST(SubscriptionIndex, SelectsExactlyWhatTheDefinitionSelects)
{
    const std::string nul("a\0b", 3), high("\xff\xfe*", 3);
    const std::vector<std::string> subscribed = {
        "*", "a*", "a*", "ab*", "abc*", "abd*", "b", "ab", "abc", "AB", "x/y/*", "x/*", "x/", nul + "*", nul, high,
        "", "**"};
    std::vector<std::unique_ptr<SubscriptionIndex::Entry>> entries;
    SubscriptionIndex index;
    for (const std::string &k : subscribed) {
        entries.emplace_back(new SubscriptionIndex::Entry(k));
        index.add(*entries.back());
    }
    EXPECT_EQ(index.size(), subscribed.size());
    // Equal keys, prefixes inside a tree label and past it, letter case,
    // NULs and high bytes, the empty key, a literal '*' inside a key.
    const char *probes[] = {"", "a", "ab", "abc", "abcd", "abd", "abe", "ac", "AB", "Ab", "b", "bb", "x", "x/",
                            "x/y", "x/y/", "x/y/z", "y", "*", "**", "*x", "\xff\xfe", "\xff\xfe\x01", "\xff"};
    std::vector<std::string> keys(std::begin(probes), std::end(probes));
    for (const std::string &k : {nul, nul + "c", std::string("a\0", 2)}) keys.push_back(k);
    for (const std::string &k : keys) EXPECT_EQ(selected(index, k), brute(entries, k)) << k;
    // Removing one of two equal patterns keeps the other; removing every
    // entry empties the index and a later add works from scratch.
    index.remove(*entries[1]);
    EXPECT_EQ(selected(index, "a"), (Keys{"*", "a*"}));
    for (size_t i = 0; i < entries.size(); i++)
        if (i != 1) index.remove(*entries[i]);
    EXPECT_EQ(index.size(), 0u);
    EXPECT_TRUE(selected(index, "abc").empty());
    index.add(*entries[4]);
    EXPECT_EQ(selected(index, "abcz"), (Keys{"abc*"}));
    index.remove(*entries[4]);
}

TEST(SubscriptionIndex, RandomAddsAndRemovesKeepTheTreeExact)
{
    // Short keys over three letters: every split, merge and shared prefix
    // happens many times over.
    std::mt19937 random(20261125);
    auto word = [&](size_t most) {
        std::string w(random() % (most + 1), 'a');
        for (char &ch : w) ch = static_cast<char>('a' + random() % 3);
        return w;
    };
    std::vector<std::string> probes;
    for (int i = 0; i < 60; i++) probes.push_back(word(6));
    std::vector<std::unique_ptr<SubscriptionIndex::Entry>> entries;
    SubscriptionIndex index;
    size_t live = 0;
    for (int step = 0; step < 3000; step++) {
        if (entries.empty() || random() % 5 < 3) {
            std::string k = word(5);
            if (random() % 3 != 0) k += '*';
            entries.emplace_back(new SubscriptionIndex::Entry(k));
            index.add(*entries.back());
            live++;
        } else {
            size_t i = random() % entries.size();
            if (!entries[i]->indexed()) continue;
            index.remove(*entries[i]);
            live--;
        }
        ASSERT_EQ(index.size(), live);
        if (step % 7 != 0) continue;
        for (const std::string &k : probes) ASSERT_EQ(selected(index, k), brute(entries, k)) << k << " at " << step;
    }
    for (auto &e : entries)
        if (e->indexed()) index.remove(*e);
    EXPECT_EQ(index.size(), 0u);
}

} // namespace

namespace {

TEST(KeyedHash, EveryByteAndTheLengthCount)
{
    // Keys one byte apart, at every position of every tail length, and keys
    // that differ only in length (trailing NULs), all hash apart.
    hspace::service::KeyedHash hash;
    std::set<size_t> seen;
    size_t keys = 0;
    for (size_t len = 0; len <= 17; len++) {
        std::string base(len, '\0');
        seen.insert(hash(base));
        keys++;
        for (size_t i = 0; i < len; i++) {
            std::string k = base;
            k[i] = '\x01';
            seen.insert(hash(k));
            keys++;
        }
    }
    EXPECT_EQ(seen.size(), keys);
    EXPECT_EQ(hash("same key"), hash(std::string("same key")));
}

} // namespace
