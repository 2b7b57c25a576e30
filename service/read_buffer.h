/*
 * read_buffer.h - a connection's inbound bytes: the bytes received and not
 * yet framed, in one block sized by what arrives. A connection that has sent
 * nothing holds a small block (kFirstRead). Reads ask for the block's free
 * space, at least the chunk size: a read reaching the chunk size doubles it
 * up to kMaxChunk, reads under a quarter of it halve it, and an empty block
 * over four chunks is shrunk to one. A packet whose header is in gets room
 * for its rest at once up to kMaxChunk; a longer one grows the block with
 * its bytes, at most by as much as is held per read and never past its
 * length, so a length announced in a header costs nothing until the bytes
 * come. Once framed, a block over kMaxChunk is given back.
 *
 * Not thread-safe: one connection's I/O thread. Pure memory; no sockets.
 */
#ifndef HSPACE_SERVICE_READ_BUFFER_H
#define HSPACE_SERVICE_READ_BUFFER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>

namespace hspace {
namespace service {

class ReadBuffer {
public:
    static constexpr size_t kFirstRead = 512;      // bytes of the first read, and of the smallest
    static constexpr size_t kMaxChunk = 64 * 1024; // largest read while no longer packet is coming
    static constexpr size_t kLengthEnd = 8;        // bytes of a packet's header up to its end of wirelen

    // The bytes received and not consumed, from the start of a packet.
    const uint8_t *data() const { return block_.get(); }
    size_t size() const { return len_; }
    // Bytes of the block: what the connection holds for its input.
    size_t capacity() const { return cap_; }

    // The wirelen the packet at data() announces; 0 until its first
    // kLengthEnd bytes are in.
    size_t announced() const { return len_ < kLengthEnd ? 0 : announced_at(block_.get()); }
    // The wirelen announced by the packet header at p, of which at least
    // kLengthEnd bytes are present.
    static size_t announced_at(const uint8_t *p)
    {
        return (size_t(p[4]) << 24) | (size_t(p[5]) << 16) | (size_t(p[6]) << 8) | size_t(p[7]);
    }

    // The space the next read may fill, after the bytes held: at least
    // room for the rest of the packet being received (beyond kMaxChunk, at
    // most as much as is held already) or for a read of the chunk size,
    // whichever is more. May move the bytes to a block of another size;
    // data() and capacity() change accordingly. Never while a read into the
    // last space runs.
    uint8_t *prepare(size_t *space)
    {
        size_t want = chunk_;
        size_t wire = announced();
        if (wire > len_) want = std::max(want, std::min(wire - len_, std::max(len_, kMaxChunk)));
        size_t need = len_ + want;
        if (need > cap_)
            refit(std::min(std::max(need, 2 * cap_), std::max(need, wire))); // doubling, within the packet
        else if ((len_ == 0 && cap_ > 4 * need) || (cap_ > kMaxChunk && cap_ / 2 > need))
            refit(need);
        *space = cap_ - len_;
        return block_.get() + len_;
    }

    // n bytes were read into the space prepare() returned (n > 0). A read
    // that reached the chunk size doubles it; one under a quarter of it
    // halves it.
    void commit(size_t n)
    {
        len_ += n;
        if (n >= chunk_)
            chunk_ = std::min(chunk_ * 2, kMaxChunk);
        else if (n < chunk_ / 4)
            chunk_ = std::max(chunk_ / 2, kFirstRead);
    }

    // Drops the first n bytes held (framed packets). An emptied block over
    // kMaxChunk (a long packet's) is given back at once.
    void consume(size_t n)
    {
        if (n == 0) return;
        len_ -= n;
        if (len_ > 0) memmove(block_.get(), block_.get() + n, len_);
        if (len_ == 0 && cap_ > kMaxChunk) refit(0);
    }

private:
    // Moves the bytes held into a block of cap bytes, cap >= size(); no
    // block for 0.
    void refit(size_t cap)
    {
        std::unique_ptr<uint8_t[]> block;
        if (cap > 0) {
            block.reset(new uint8_t[cap]);
            if (len_ > 0) memcpy(block.get(), block_.get(), len_);
        }
        block_ = std::move(block);
        cap_ = cap;
    }

    std::unique_ptr<uint8_t[]> block_;             // the block; null while cap_ is 0
    size_t cap_ = 0;                               // bytes of block_
    size_t len_ = 0;                               // bytes held, at the start of block_
    size_t chunk_ = kFirstRead;                    // size of the next read when no long packet is coming
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_READ_BUFFER_H */
