/*
 * memory_store.cpp - the embedded store: an ordered map in the service's
 * memory, owned by the I/O thread. Every call completes before it returns,
 * and a change reaches the Listener before its completion runs; nothing
 * outlives the process.
 */
#include <map>

#include "store.h"

namespace hspace {
namespace service {

namespace {

class MemoryStore final : public Store {
public:
    explicit MemoryStore(Listener &listener) : listener_(listener) {}

    void put(std::string_view key, std::string_view value, Done done) override
    {
        auto it = objects_.find(key);
        if (it == objects_.end()) it = objects_.emplace(std::string(key), std::string()).first;
        it->second.assign(value.data(), value.size());
        revision_++;
        if (following_) {
            std::string_view stored(it->second);
            listener_.on_change(it->first, kTriggerStored, &stored, revision_);
        }
        done(0);
    }

    void remove(std::string_view key, Done done) override
    {
        auto it = objects_.find(key);
        if (it == objects_.end()) {
            done(kStatusNoMatch);
            return;
        }
        auto node = objects_.extract(it);
        revision_++;
        if (following_) listener_.on_change(node.key(), kTriggerRemoved, nullptr, revision_);
        done(0);
    }

    void read(std::string_view key, bool key_only, Read done) override
    {
        std::vector<ObjectView> found;
        if (is_pattern(key)) {
            std::string_view prefix = key.substr(0, key.size() - 1);
            for (auto it = objects_.lower_bound(prefix); it != objects_.end(); ++it) {
                if (it->first.compare(0, prefix.size(), prefix) != 0) break;
                found.push_back(ObjectView{it->first, key_only ? std::string_view() : std::string_view(it->second)});
            }
        } else {
            auto it = objects_.find(key);
            if (it != objects_.end())
                found.push_back(ObjectView{it->first, key_only ? std::string_view() : std::string_view(it->second)});
        }
        done(0, revision_, found);
    }

    void follow(bool on) override { following_ = on; }

    void begin(std::string_view key, bool key_only, bool with_objects, Read done) override
    {
        if (with_objects)
            read(key, key_only, std::move(done));
        else
            done(0, revision_, {});
    }

    void close() override {}
    const char *kind() const override { return "memory"; }

private:
    Listener &listener_;                       // told of each change while following_
    std::map<std::string, std::string, std::less<>> objects_; // the objects, in key order
    int64_t revision_ = 0;                     // revision of the last change
    bool following_ = false;                   // follow(true) was the last call
};

} // namespace

std::unique_ptr<Store> make_memory_store(Listener &listener)
{
    return std::unique_ptr<Store>(new MemoryStore(listener));
}

} // namespace service
} // namespace hspace
