/*
 * store.cpp - the choice of store by its name in the options.
 */
#include "store.h"

#include "server.h"

namespace hspace {
namespace service {

std::unique_ptr<Store> make_store(const Options &options, asio::io_context &io, Listener &listener, std::string *error)
{
    if (options.store.empty() || options.store == "memory") return make_memory_store(listener);
    if (options.store.compare(0, 7, "etcd://") == 0) return make_etcd_store(options, io, listener, error);
    *error = "unknown store \"" + options.store + "\" (memory or etcd://HOST:PORT[,HOST:PORT...])";
    return nullptr;
}

} // namespace service
} // namespace hspace
