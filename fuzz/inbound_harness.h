/*
 * inbound_harness.h - one run of arbitrary bytes through the packet framer
 * and inbound processing, shared by the libFuzzer target and the corpus
 * replay.
 */
#ifndef QEL_FUZZ_INBOUND_HARNESS_H
#define QEL_FUZZ_INBOUND_HARNESS_H

#include <stddef.h>
#include <stdint.h>

/* Input layout: byte 0 selects variants (QEL_FUZZ_SEL_ bits), the rest is
 * the byte stream a service might send. Frames every whole packet of the
 * stream and processes it on a handle made in memory with a few outstanding
 * requests; frees everything before it returns, so leaks show. Aborts on a
 * broken framing property. Single-threaded; not reentrant. */
void qel_fuzz_inbound_run(const uint8_t *data, size_t size);

#define QEL_FUZZ_SEL_HANDSHAKE 0x01    /* decode the first packet's body as a handshake reply */
#define QEL_FUZZ_SEL_CANCEL 0x02       /* a cancel of the post's key is outstanding (corrid 5) */
#define QEL_FUZZ_SEL_IMAGE_DONE 0x04   /* the post's initial image is already complete */
#define QEL_FUZZ_SEL_POST_WAITING 0x08 /* the post still waits for its own reply */
#define QEL_FUZZ_SEL_LINK_END 0x10     /* the stream's end fails the link: every request is abandoned */

#endif /* QEL_FUZZ_INBOUND_HARNESS_H */
