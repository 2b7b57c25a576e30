/*
 * qel_hspace.hpp - the C++17 face of the hspace client library, over the C
 * API of qel_hspace.h.
 *
 * Naming scheme: every operation comes twice. f(args...) throws
 * std::system_error on failure; f(args..., std::error_code &ec) never throws:
 * it clears ec on success and sets it on failure (the value returned is then
 * empty). Every failure is a std::error_code of qel::hspace::category(): its
 * value is the library's code (or the service's status, unchanged), its
 * message() the library's text, and it compares equal to the std::errc that
 * fits (invalid_argument, timed_out, not_connected, ...).
 *
 * Ownership: Client, Subscription and Object are move-only RAII types; each
 * releases what it owns in its destructor. Callbacks run on the connection's
 * reader thread, one at a time; objects handed to them are theirs to keep.
 */
#ifndef QEL_HSPACE_HPP
#define QEL_HSPACE_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "qel_hspace.h"

namespace qel {
namespace hspace {

// ---- errors ----

// Named library codes, for comparisons such as ec == error::timeout.
enum class error : int {
    no_match = KRO_ERR_NO_MATCH,
    invalid_argument = KRO_ERR_INVALID_ARG,
    invalid_state = KRO_ERR_INVALID_STATE,
    not_supported = KRO_ERR_NOT_SUPPORTED,
    closed = KRO_ERR_CLOSED,               // the Client was closed while the call waited, or before it
    exists = KRO_ERR_EXISTS,
    would_deadlock = KRO_ERR_WOULD_DEADLOCK, // a blocking call from the Client's own callback
    not_connected = KRO_ERR_NOT_CONNECTED,   // the link is down and being re-established
    timeout = KRO_ERR_TIMEOUT,               // the call's deadline passed
    tls_handshake = KRO_ERR_TLS_HANDSHAKE,   // no TLS peer, or no common version or cipher
    tls_verify = KRO_ERR_TLS_VERIFY,         // the service's certificate failed verification
    tls_client_cert = KRO_ERR_TLS_CLIENT_CERT, // the service wants a client certificate, or refused ours
    tls_config = KRO_ERR_TLS_CONFIG,         // a CA, certificate or key file could not be used
    tls_timeout = KRO_ERR_TLS_TIMEOUT,       // the TLS handshake did not finish in time
    // Statuses of the service.
    store_unavailable = HSPACE_STATUS_STORE_UNAVAILABLE, // the service cannot reach its store
    store_timeout = HSPACE_STATUS_STORE_TIMEOUT,         // the store did not answer in time
    store_too_large = HSPACE_STATUS_STORE_TOO_LARGE,     // the value is larger than the store accepts
    permission_denied = HSPACE_STATUS_PERMISSION_DENIED, // the client's groups may not do this here
    identity_refused = HSPACE_STATUS_IDENTITY_REFUSED,   // the claimed name or group is not the certificate's
    too_many_subscriptions = HSPACE_STATUS_TOO_MANY_SUBSCRIPTIONS,
    connection_limit = HSPACE_STATUS_CONNECTION_LIMIT,
};

// The category of every code the library, the runtime or the service
// returns. message() is qel_hspace_error_get_text's text; codes map to the
// std::errc that fits, the others (and service statuses) to themselves.
KRO_API const std::error_category &category() noexcept;

inline std::error_code make_error_code(error e) noexcept { return {static_cast<int>(e), category()}; }
// A library code as an error_code; 0 is success.
inline std::error_code make_error_code(t_kro_error code) noexcept
{
    return {static_cast<int>(code), category()};
}

// ---- objects ----

// A keyed object the library delivered: owns the library's object and frees
// it on destruction. key() and value() are views into it, valid while the
// Object lives and is not moved from. Move-only.
class KRO_API Object {
public:
    Object() noexcept = default;
    // Adopts object (a library-made one, e.g. from an event); null is empty.
    explicit Object(t_qel_hspace_object object) noexcept : object_(object) {}
    ~Object() { reset(); }
    Object(Object &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Object &operator=(Object &&other) noexcept
    {
        if (this != &other) {
            reset();
            object_ = std::exchange(other.object_, nullptr);
        }
        return *this;
    }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    explicit operator bool() const noexcept { return object_ != nullptr; }
    std::string_view key() const noexcept;
    // The value's bytes; empty for an object without a value (key only).
    std::string_view value() const noexcept;
    bool has_value() const noexcept;

    // The C object, still owned here; release() hands it over.
    t_qel_hspace_object native() const noexcept { return object_; }
    t_qel_hspace_object release() noexcept { return std::exchange(object_, nullptr); }
    void reset() noexcept
    {
        if (object_ != nullptr) qel_hspace_object_destroy(&object_);
    }

private:
    t_qel_hspace_object object_ = nullptr; // owned; null when empty
};

using Objects = std::vector<Object>;

// A subscription's image: every object the service holds for the key or
// pattern, delivered once complete. resync: this is a fresh image after the
// link was re-established (reconcile with what the application holds).
// error: set when the service refused the image; the subscription has ended.
struct Image {
    Objects objects;
    bool resync = false;
    std::error_code error;
};

// One change notification: the trigger the service reported (hspaced: 1
// stored, 2 removed) and the changed object (without value for a removal
// or a key-only subscription).
struct Change {
    int trigger = 0;
    Object object;
};

// ---- connection ----

enum class State {
    idle,         // constructed or closed-before-open; open() may be called
    connected,    // the link is up
    reconnecting, // the link failed; calls fail fast with error::not_connected
    failed,       // the link failed for good (reconnection off or out of attempts)
    closed        // close() ran; final
};

struct Reconnect {
    bool enabled = true;                               // off: a link failure is final, as for the C handle
    std::chrono::milliseconds initial_delay{100};      // first backoff delay
    std::chrono::milliseconds max_delay{10000};        // backoff doubles up to this
    unsigned max_attempts = 0;                         // 0: forever
};

// TLS of a "tls://host:port" Client (qel_hspace_set_tls); an empty string
// takes the default. Setting any of them for a tcp:// URL fails open with
// error::invalid_argument.
struct Tls {
    std::string ca_file;     // PEM CA certificates the service's must chain to; empty: the system's store
    std::string cert_file;   // PEM client certificate, sent when the service asks; empty: none
    std::string key_file;    // its PEM private key; empty: in cert_file
    std::string server_name; // name the service's certificate must hold; empty: the URL's host
};

struct Options {
    std::string client_name;                           // empty: "anonymous"
    std::string client_group;                          // empty: "default"
    std::chrono::milliseconds open_timeout{0};         // bound of connect plus handshake; 0: none
    Reconnect reconnect;
    // State changes with their cause (the link's error for reconnecting and
    // failed). Runs on a thread of the Client (not the reader thread), one
    // call at a time; it must not destroy the Client.
    std::function<void(State, std::error_code)> on_state;
    Tls tls;                                           // tls:// URLs: CA, client certificate, name
};

// Per-call options of get (and, for put and remove, only wait_for_link).
struct Call {
    std::chrono::milliseconds timeout{0}; // get: bound of the whole call (0: none); the late answer is dropped
    bool wait_for_link = false;           // while reconnecting, wait (up to timeout) instead of failing fast
    bool key_only = false;                // get: objects without values
};

struct SubscribeOptions {
    std::uint8_t triggers = 0; // trigger mask passed to the service; 0 selects every change
    bool no_image = false;     // no initial image (and none on resync)
    bool key_only = false;     // image and changes without values
};

class Client;

// A live subscription: cancelled by its destruction (or reset()), after
// which none of its callbacks runs or is still running, unless it is
// destroyed inside its own callback, which then finishes normally. Move-only.
class KRO_API Subscription {
public:
    Subscription() noexcept = default;
    ~Subscription() { reset(); }
    Subscription(Subscription &&other) noexcept : state_(std::move(other.state_)) {}
    Subscription &operator=(Subscription &&other) noexcept
    {
        if (this != &other) {
            reset();
            state_ = std::move(other.state_);
        }
        return *this;
    }
    Subscription(const Subscription &) = delete;
    Subscription &operator=(const Subscription &) = delete;

    explicit operator bool() const noexcept { return state_ != nullptr; }
    // Cancels the subscription (a no-op when empty). Safe from any thread,
    // including its own callback; may outlive its Client (then a no-op).
    void reset() noexcept;

    struct State_;

private:
    friend class Client;
    explicit Subscription(std::shared_ptr<State_> state) noexcept : state_(std::move(state)) {}
    std::shared_ptr<State_> state_;
};

// One connection to the service, re-established after a link failure when
// Options::reconnect.enabled. Move-only; one Client may be used by any
// number of threads at once (except moving and destroying it). Blocking
// calls from inside its own callbacks fail with error::would_deadlock.
class KRO_API Client {
public:
    using ImageHandler = std::function<void(Image &&)>;
    using ChangeHandler = std::function<void(Change &&)>;
    using GetHandler = std::function<void(std::error_code, Objects &&)>;

    Client() noexcept;                                    // empty: every call fails with error::invalid_state
    explicit Client(std::string url, Options options = Options()); // "tcp://host:port"; does not connect
    // Closes the connection, cancels every subscription, joins the Client's
    // thread. From the Client's own callback the teardown finishes after the
    // callback returns; no further callback of this Client runs.
    ~Client();
    Client(Client &&other) noexcept;
    Client &operator=(Client &&other) noexcept;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Connects and handshakes, bounded by Options::open_timeout. A failed
    // open leaves the Client idle; it may be called again. The exception's
    // what() ends with the cause in detail (qel_hspace_error_get_detail).
    void open();
    void open(std::error_code &ec) noexcept;
    // Ends the connection and every subscription; calls waiting get
    // error::closed. Idempotent.
    void close() noexcept;
    State state() const noexcept;

    // Stores value under key and waits for the service's answer.
    void put(std::string_view key, std::string_view value, const Call &call = Call());
    void put(std::string_view key, std::string_view value, std::error_code &ec) noexcept;
    void put(std::string_view key, std::string_view value, const Call &call, std::error_code &ec) noexcept;
    // Sends the put without waiting for an answer.
    void put_noreply(std::string_view key, std::string_view value);
    void put_noreply(std::string_view key, std::string_view value, std::error_code &ec) noexcept;
    // Binary values.
    void put(std::string_view key, const std::byte *data, std::size_t size, std::error_code &ec) noexcept
    {
        put(key, std::string_view(reinterpret_cast<const char *>(data), size), ec);
    }

    // The objects under key, or under every key with the prefix of a pattern
    // ending in '*'; empty when there is none.
    Objects get(std::string_view key, const Call &call = Call());
    Objects get(std::string_view key, std::error_code &ec) noexcept;
    Objects get(std::string_view key, const Call &call, std::error_code &ec) noexcept;
    // Sends the get and returns; done runs once on the reader thread with
    // the result. Throws / reports only a failure to send.
    void get_async(std::string_view key, GetHandler done, bool key_only = false);
    void get_async(std::string_view key, GetHandler done, bool key_only, std::error_code &ec) noexcept;
    // The same with a future; a failure is a std::system_error in it.
    std::future<Objects> get_async(std::string_view key, bool key_only = false);

    // Deletes key; error::no_match when nothing was stored.
    void remove(std::string_view key, const Call &call = Call());
    void remove(std::string_view key, std::error_code &ec) noexcept;
    void remove(std::string_view key, const Call &call, std::error_code &ec) noexcept;
    void remove_noreply(std::string_view key);
    void remove_noreply(std::string_view key, std::error_code &ec) noexcept;

    // Subscribes to a key or a prefix pattern (ending in '*'). on_image gets
    // the initial image once complete (and a resync image after every
    // re-established link); on_change every change. Both run on the reader
    // thread. error::exists while another subscription of the key lives.
    Subscription subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                           const SubscribeOptions &options = SubscribeOptions());
    Subscription subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                           const SubscribeOptions &options, std::error_code &ec) noexcept;

    struct Impl;

private:
    std::shared_ptr<Impl> impl_;
};

} // namespace hspace
} // namespace qel

namespace std {
template <> struct is_error_code_enum<qel::hspace::error> : true_type {};
} // namespace std

#endif /* QEL_HSPACE_HPP */
