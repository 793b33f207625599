/* A resumable LZMA encoder with LzmaCompress's settings (level 1, lc 2, lp 0, pb 2, fb 8, one
   thread, no end marker) for a stream that grows at its end. A base encoder keeps the state
   reached after the bytes that nothing appended later can change; packing the whole stream
   runs a copy of that state over the rest. The bytes come out exactly as LzmaCompress gives
   them for the whole stream, at a cost that depends on the bytes after the base state only. */
#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zycLzmaResume zycLzmaResume;

/* Receives packed bytes in stream order; returns `size`. */
typedef size_t (*zycLzmaSink)(void* user, const void* data, size_t size);

/* NULL when out of memory. `props` receives the 5 property bytes. */
zycLzmaResume* zycLzmaResumeCreate(unsigned dictSize, unsigned char props[5]);
void zycLzmaResumeDestroy(zycLzmaResume* r);

/* A new stream: the base state goes back to the start. Returns 0 or the SDK's error. */
int zycLzmaResumeRestart(zycLzmaResume* r);

/* Moves the base state on through `input[0..available)`, the stream's first bytes, as far as
   it can without nearing their end. `input` must hold the same bytes as on every earlier call.
   Returns 0; when the encoder wanted more than there was, the base state starts again from
   the first byte and a later call catches up. */
int zycLzmaResumeAdvance(zycLzmaResume* r, const unsigned char* input, size_t available);

/* Packed bytes that are final whatever follows: the same at the start of every later
   stream that begins with the input given so far. */
size_t zycLzmaResumeStableBytes(const zycLzmaResume* r);
/* Packed bytes before the first one that zycLzmaResumePack hands to its sink. */
size_t zycLzmaResumeSentBytes(const zycLzmaResume* r);

/* Packs `input[0..size)` as one whole stream: the packed bytes from zycLzmaResumeSentBytes on
   go to `sink`, and `*packedSize` receives the size of the whole packed stream. The base state
   stays as it was. Returns 0 or the SDK's error. */
int zycLzmaResumePack(zycLzmaResume* r, const unsigned char* input, size_t size,
                      zycLzmaSink sink, void* user, size_t* packedSize);

#ifdef __cplusplus
}
#endif
