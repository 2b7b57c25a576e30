/*
 * memory_store.cpp - the embedded store: an ordered map in the service's
 * memory, owned by the I/O thread. Every call completes before it returns,
 * and a change reaches the Listener before its completion runs; nothing
 * outlives the process.
 *
 * Values are shared with the packets that carry them (ObjectView::shared):
 * a value no packet holds is overwritten in place, one that a packet still
 * holds is replaced by a new string, so a queued answer never changes.
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
        auto it = slot(key);
        if (it->second.use_count() == 1)
            it->second->assign(value.data(), value.size());
        else
            it->second = std::make_shared<std::string>(value);
        stored(it, done);
    }

    void put_owned(std::string_view key, std::string &&value, Done done) override
    {
        auto it = slot(key);
        if (it->second.use_count() == 1)
            it->second->swap(value);
        else
            it->second = std::make_shared<std::string>(std::move(value));
        stored(it, done);
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
        auto view = [key_only](const Objects::value_type &o) {
            if (key_only) return ObjectView{o.first, std::string_view()};
            return ObjectView{o.first, *o.second, o.second};
        };
        if (is_pattern(key)) {
            std::string_view prefix = key.substr(0, key.size() - 1);
            for (auto it = objects_.lower_bound(prefix); it != objects_.end(); ++it) {
                if (it->first.compare(0, prefix.size(), prefix) != 0) break;
                found.push_back(view(*it));
            }
        } else {
            auto it = objects_.find(key);
            if (it != objects_.end()) found.push_back(view(*it));
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
    // Values are never null.
    using Objects = std::map<std::string, std::shared_ptr<std::string>, std::less<>>;

    // The entry of key, made with an empty value when there is none.
    Objects::iterator slot(std::string_view key)
    {
        auto it = objects_.find(key);
        if (it == objects_.end()) it = objects_.emplace(std::string(key), std::make_shared<std::string>()).first;
        return it;
    }

    // The value at it was stored: the change is told and done runs.
    void stored(Objects::iterator it, const Done &done)
    {
        revision_++;
        if (following_) {
            std::string_view value(*it->second);
            listener_.on_change(it->first, kTriggerStored, &value, revision_, it->second);
        }
        done(0);
    }

    Listener &listener_;                       // told of each change while following_
    Objects objects_;                          // the objects, in key order
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
