/*
 * transport.h - a connection's byte stream: plain TCP, or TLS over it
 * (asio::ssl::stream), behind the few calls the connection makes, so that
 * the protocol code is the same for both. I/O thread only.
 *
 * With TLS the connection first runs the server's handshake; a client
 * certificate, when the context asks for one, has then been verified
 * against the context's CA, and peer() names the client by it.
 */
#ifndef HSPACE_SERVICE_TRANSPORT_H
#define HSPACE_SERVICE_TRANSPORT_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <asio.hpp>
#include <asio/ssl.hpp>

namespace hspace {
namespace service {

// Who a verified client certificate says the client is: the subject's
// common name (its name) and every organisation value (its groups).
struct PeerIdentity {
    std::string name;
    std::vector<std::string> groups;
};

// The CN and the O values of cert's subject (the first CN when there are
// several); empty for a null cert.
inline PeerIdentity identity_of(X509 *cert)
{
    PeerIdentity id;
    X509_NAME *subject = cert != nullptr ? X509_get_subject_name(cert) : nullptr;
    for (int i = 0; subject != nullptr && i < X509_NAME_entry_count(subject); i++) {
        X509_NAME_ENTRY *e = X509_NAME_get_entry(subject, i);
        int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(e));
        if (nid != NID_commonName && nid != NID_organizationName) continue;
        unsigned char *utf8 = nullptr;
        int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(e));
        if (n < 0) continue;
        std::string value(reinterpret_cast<char *>(utf8), static_cast<size_t>(n));
        OPENSSL_free(utf8);
        if (nid == NID_organizationName) id.groups.push_back(std::move(value));
        else if (id.name.empty()) id.name = std::move(value);
    }
    return id;
}

class Transport {
public:
    using Tcp = asio::ip::tcp::socket;
    static constexpr size_t kCoalesce = 64 * 1024; // bytes a TLS write copies into one buffer at most

    // Plain TCP over socket.
    explicit Transport(Tcp socket) : tcp_(std::move(socket)) {}
    // TLS over socket, with the service's context (which outlives this).
    Transport(Tcp socket, asio::ssl::context &tls)
        : tcp_(socket.get_executor()), tls_(new asio::ssl::stream<Tcp>(std::move(socket), tls))
    {
    }

    bool tls() const { return tls_ != nullptr; }
    Tcp &tcp() { return tls_ != nullptr ? tls_->next_layer() : tcp_; }

    // TLS: the server's handshake, then handler(ec); plain: handler(no
    // error) at once, from the I/O loop.
    template <class Handler> void async_handshake(Handler &&handler)
    {
        if (tls_ != nullptr) {
            tls_->async_handshake(asio::ssl::stream_base::server, std::forward<Handler>(handler));
            return;
        }
        asio::post(tcp_.get_executor(), [h = std::forward<Handler>(handler)]() mutable { h(asio::error_code()); });
    }

    template <class Buffer, class Handler> void async_read_some(const Buffer &buffer, Handler &&handler)
    {
        if (tls_ != nullptr) tls_->async_read_some(buffer, std::forward<Handler>(handler));
        else tcp_.async_read_some(buffer, std::forward<Handler>(handler));
    }

    // Writes every buffer, then handler(ec, n); one write at a time. With
    // TLS a TLS record carries one buffer at most, so buffers of up to
    // kCoalesce bytes in all are copied into one first: small packets
    // share records instead of costing a record and a system call each.
    template <class Handler> void async_write(const std::vector<asio::const_buffer> &buffers, Handler &&handler)
    {
        if (tls_ == nullptr) {
            asio::async_write(tcp_, buffers, std::forward<Handler>(handler));
            return;
        }
        size_t total = asio::buffer_size(buffers);
        if (buffers.size() == 1 || total > kCoalesce) {
            asio::async_write(*tls_, buffers, std::forward<Handler>(handler));
            return;
        }
        auto one = std::make_shared<std::string>(); // lives until the write completes, no longer
        one->reserve(total);
        for (const asio::const_buffer &b : buffers) one->append(static_cast<const char *>(b.data()), b.size());
        asio::async_write(*tls_, asio::buffer(*one),
                          [one, h = std::forward<Handler>(handler)](const asio::error_code &ec, size_t n) mutable {
                              h(ec, n);
                          });
    }

    // Closes the socket; abortive resets the connection instead of letting
    // the kernel drain it. No close_notify: the connection is gone either way.
    void close(bool abortive)
    {
        asio::error_code ignored;
        if (abortive) tcp().set_option(asio::socket_base::linger(true, 0), ignored);
        tcp().close(ignored);
    }

    // Reads the verified client certificate's identity; call once, after a
    // successful TLS handshake.
    void identify()
    {
        SSL *ssl = tls_ != nullptr ? tls_->native_handle() : nullptr;
        X509 *cert = ssl != nullptr ? SSL_get0_peer_certificate(ssl) : nullptr;
        if (cert != nullptr && SSL_get_verify_result(ssl) == X509_V_OK) peer_.reset(new PeerIdentity(identity_of(cert)));
    }
    // The identity identify() read, or null (plain TCP, or no certificate
    // asked for).
    const PeerIdentity *peer() const { return peer_.get(); }

    // "TLSv1.3 TLS_AES_256_GCM_SHA384" after a TLS handshake; "" for plain TCP.
    std::string describe()
    {
        if (tls_ == nullptr) return std::string();
        SSL *ssl = tls_->native_handle();
        return std::string(SSL_get_version(ssl)) + " " + SSL_CIPHER_get_name(SSL_get_current_cipher(ssl));
    }

private:
    Tcp tcp_;                                        // the socket when plain; unused with TLS
    std::unique_ptr<asio::ssl::stream<Tcp>> tls_;    // TLS over the socket, or null
    std::unique_ptr<PeerIdentity> peer_;             // the client certificate's identity, or null
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_TRANSPORT_H */
