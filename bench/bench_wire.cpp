/*
 * bench_wire.cpp - cost of the wire layer without a network: encoding each
 * request kind, framing received packets in place, and building objects
 * from them. The implementation file is included to reach its file-local
 * functions.
 */
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "qel_hspace.cpp"

namespace {

/* A handle as the encoders see it: only service_ltp is read. */
struct EncoderHandle {
    qel_hspace_struct h{};
    EncoderHandle() { h.service_ltp = 5; }
};

void BM_EncodeGet(benchmark::State &state)
{
    EncoderHandle eh;
    std::string key(static_cast<size_t>(state.range(0)), 'k');
    t_kro_uint4 sno = 0;
    for (auto _ : state) {
        t_kro_buf buf = qel_hspace_pkt_serialize_get_request(&eh.h, key.c_str(), HSPACE_GET_SYNC, 0, 0, ++sno);
        benchmark::DoNotOptimize(buf->ptr);
        kro_buf_release(&buf);
    }
}
BENCHMARK(BM_EncodeGet)->Arg(8)->Arg(64)->Arg(1024);

void BM_EncodePut(benchmark::State &state)
{
    EncoderHandle eh;
    t_kro_buf value;
    kro_buf_create(&value, static_cast<t_kro_uint4>(state.range(0)), 1);
    struct qel_hspace_object_struct object{};
    object.key = "bench/key/0001";
    object.data.buf = value;
    t_kro_uint4 sno = 0;
    for (auto _ : state) {
        t_kro_buf buf = qel_hspace_pkt_serialize_put_request(&eh.h, &object, HSPACE_PUT_SYNC, 0, ++sno);
        benchmark::DoNotOptimize(buf->ptr);
        kro_buf_release(&buf);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    kro_buf_release(&value);
}
BENCHMARK(BM_EncodePut)->Arg(16)->Arg(1024)->Arg(64 * 1024);

/* A stream of n object packets (as a get's answer), framed and turned into
 * objects the way the reader thread does. */
std::vector<t_kro_byte> object_stream(int n, size_t value_len)
{
    std::vector<t_kro_byte> out;
    const std::string key = "bench/key/0001";
    const t_kro_uint4 section_hs = 22 + static_cast<t_kro_uint4>(key.size());
    const t_kro_uint4 wirelen = 32 + section_hs + 24 + 8 + static_cast<t_kro_uint4>(value_len);
    for (int i = 1; i <= n; i++) {
        t_kro_buf b;
        kro_buf_create(&b, wirelen, 1);
        qel_hspace_pkt_serialize_header(b, wirelen, 0, 0, 2, HSPACE_BODY_OBJECT);
        qel_hspace_pkt_serialize_hspace_subheader(b, HSPACE_OPCODE_GET, 0, 0, 0, 0, key.c_str());
        qel_hspace_pkt_serialize_body_preamble(b, HSPACE_BODY_RR, 24);
        qel_hspace_pkt_wr32(b, 4, 1);
        qel_hspace_pkt_wr32(b, 8, 0x04000000u | (static_cast<t_kro_uint4>(n) >> 3));
        qel_hspace_pkt_wr32(b, 12, ((static_cast<t_kro_uint4>(n) & 7u) << 29) | static_cast<t_kro_uint4>(i));
        kro_buf_set_pos(b, b->pos + 16);
        qel_hspace_pkt_serialize_body_preamble(b, HSPACE_BODY_OBJECT, 8 + static_cast<t_kro_uint4>(value_len));
        const t_kro_byte *p = static_cast<const t_kro_byte *>(b->ptr);
        out.insert(out.end(), p, p + wirelen);
        kro_buf_release(&b);
    }
    return out;
}

void BM_FrameAndBuildObjects(benchmark::State &state)
{
    const int n = 64;
    std::vector<t_kro_byte> stream = object_stream(n, static_cast<size_t>(state.range(0)));
    struct kro_buf rb{};
    rb.refcount = 1;
    rb.wrapped = 1;
    rb.ptr = stream.data();
    rb.size = static_cast<t_kro_uint4>(stream.size());
    for (auto _ : state) {
        rb.pos = 0;
        rb.lim = rb.size;
        while (qel_hspace_pkt_scan_bytes(static_cast<const t_kro_byte *>(rb.ptr) + rb.pos, rb.lim - rb.pos) ==
               QEL_HSPACE_PKT_WHOLE) {
            t_qel_hspace_packet packet;
            t_qel_hspace_object object;
            qel_hspace_pkt_frame(&rb, &packet);
            qel_hspace_object_create_from_packet(packet, &object);
            benchmark::DoNotOptimize(object);
            qel_hspace_object_destroy(&object);
            kro_mm_free(&packet);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.size()));
}
BENCHMARK(BM_FrameAndBuildObjects)->Arg(16)->Arg(1024);

} // namespace

int main(int argc, char **argv)
{
    qel_hspace_initialize(QEL_HSPACE_VERSION, 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    qel_hspace_finalize();
    return 0;
}
