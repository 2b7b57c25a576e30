/*
 * etcd_store_absent.cpp - the etcd store's factory in a build without gRPC:
 * it refuses, naming what the build lacks.
 */
#include "store.h"

namespace hspace {
namespace service {

std::unique_ptr<Store> make_etcd_store(const Options &, asio::io_context &, Listener &, std::string *error)
{
    *error = "this hspaced was built without the etcd store (needs gRPC and protobuf: libgrpc++-dev, "
             "protobuf-compiler-grpc)";
    return nullptr;
}

} // namespace service
} // namespace hspace
