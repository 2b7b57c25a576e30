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
// pattern, delivered once complete. resync: a fresh image after the link
// was re-established or the subscription re-made after the service ended
// it (reconcile with what the application holds).
struct Image {
    Objects objects;
    bool resync = false;
};

// The trigger of a change (HSPACE_TRIGGER_* of the C API). A subscription's
// trigger mask is an OR of these bits, 0 selecting stored and removed.
enum class Trigger : int {
    stored = HSPACE_TRIGGER_STORED,   // a put stored the key
    removed = HSPACE_TRIGGER_REMOVED, // a remove deleted the key
    ended = HSPACE_TRIGGER_ENDED,     // the service ended the subscription (see Client::subscribe)
};
constexpr std::uint8_t operator|(Trigger a, Trigger b) noexcept
{
    return static_cast<std::uint8_t>(static_cast<int>(a) | static_cast<int>(b));
}

// One change notification: its trigger and the changed object (without
// value for a removal or a key-only subscription). For Trigger::ended the
// object's key is the subscription's own key or pattern and its value the
// service's cause, as text.
struct Change {
    Trigger trigger = Trigger::stored;
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

// Deadlines are durations from the call's start. A positive one bounds the
// call; no_deadline waits without bound; zero (or less) takes the default:
// for a Call, the Client's Options::call_timeout; for an Options field, the
// value it is declared with.
constexpr std::chrono::milliseconds no_deadline = std::chrono::milliseconds::max();

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
    // Bound of connecting plus the handshake, for open() and every
    // reconnection attempt (the C handle's bound by default).
    std::chrono::milliseconds open_timeout{QEL_HSPACE_OPEN_TIMEOUT_MS};
    // Deadline of every blocking call whose Call does not set its own
    // (put, remove, get, subscribe, get_async's answer, the cancels and
    // re-subscriptions the Client sends by itself).
    std::chrono::milliseconds call_timeout{10000};
    Reconnect reconnect;
    // State changes with their cause (the link's error for reconnecting and
    // failed). Runs on a thread of the Client (not the reader thread), one
    // call at a time; it must not destroy the Client.
    std::function<void(State, std::error_code)> on_state;
    Tls tls;                                           // tls:// URLs: CA, client certificate, name
};

// Per-call options. A call whose deadline passes returns error::timeout;
// the late answer reaches no one and what it carries is freed.
struct Call {
    std::chrono::milliseconds timeout{0}; // 0: Options::call_timeout; no_deadline: none
    bool wait_for_link = false;           // while reconnecting, wait (within the deadline) instead of failing fast
    bool key_only = false;                // get: objects without values
};

struct SubscribeOptions {
    std::uint8_t triggers = 0; // mask of Trigger bits; 0 selects stored and removed
    bool no_image = false;     // no initial image (and none on resync)
    bool key_only = false;     // image and changes without values
};

class Client;

// A live subscription: cancelled by its destruction (or reset()), which
// never waits on the service: delivery stops at once (no callback of it
// runs after reset() returns, except the one the calling thread is inside,
// and one running on the reader thread is waited for), and the Client's
// worker sends the cancel. Move-only.
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
//
// Every blocking call has a deadline (Call::timeout, else
// Options::call_timeout) and returns error::timeout when it passes; open()
// is bounded by Options::open_timeout; close() and the destructor never
// wait on the service.
//
// Ordering: for every subscription, after subscribe and after every
// re-established link, on_image gets its image first (resync set after a
// reconnect), then on_change gets exactly the changes the service made
// after that image, each once and in the service's order, however other
// subscriptions of the Client overlap it (a key under a pattern, nested patterns).
class KRO_API Client {
public:
    using ImageHandler = std::function<void(Image &&)>;
    using ChangeHandler = std::function<void(Change &&)>;
    using GetHandler = std::function<void(std::error_code, Objects &&)>;

    Client() noexcept;                                    // empty: every call fails with error::invalid_state
    explicit Client(std::string url, Options options = Options()); // "tcp://host:port"; does not connect
    // Closes the connection and cancels every subscription without waiting
    // on the service (a reconnection attempt under way finishes on its own).
    // From the Client's own callback the teardown finishes after the
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
    // error::closed. Waits for a callback that is running, never for the
    // service. Idempotent.
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
    // Sends the get and returns; done runs once with the result: on the
    // reader thread, or with error::timeout on the Client's worker thread
    // when Options::call_timeout passes first. Throws / reports only a
    // failure to send.
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

    // Subscribes to a key or a prefix pattern (ending in '*') and returns
    // once the service has accepted it and on_image has had the image (with
    // no_image: once the service has accepted it); error::timeout when that
    // takes longer than the deadline (nothing is delivered then). on_image
    // gets a resync image after every re-established link; on_change each
    // change the subscription's trigger mask selects. Both run on the
    // reader thread. error::exists while another subscription of the key
    // (any letter case) lives on this Client.
    //
    // A subscription the service ends (a store outage, say) gets a Change
    // of Trigger::ended carrying the cause; the Client then re-subscribes
    // with the backoff of Options::reconnect until the service accepts, and
    // delivers a resync image. With reconnection off that Change is the
    // subscription's last callback.
    Subscription subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                           const SubscribeOptions &options = SubscribeOptions(), const Call &call = Call());
    Subscription subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                           const SubscribeOptions &options, std::error_code &ec) noexcept;
    Subscription subscribe(std::string_view key, ImageHandler on_image, ChangeHandler on_change,
                           const SubscribeOptions &options, const Call &call, std::error_code &ec) noexcept;

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
