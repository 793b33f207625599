/* LzmaCompress / LzmaUncompress with the signatures of the LZMA SDK's LzmaLib, which Debian's
   lzma-dev does not ship. Built over the SDK's own encoder and decoder sources. */
#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZYL_LZMA_PROPS_SIZE 5

/* Returns 0 (SZ_OK), 2 (memory), 5 (parameter), 7 (output overflow), 12 (threads). */
int LzmaCompress(unsigned char* dest, size_t* destLen, const unsigned char* src, size_t srcLen,
                 unsigned char* outProps, size_t* outPropsSize, int level, unsigned dictSize,
                 int lc, int lp, int pb, int fb, int numThreads);

/* Decodes a stream without end marker whose unpacked size is *destLen.
   On return *srcLen holds the bytes consumed and *destLen the bytes produced.
   Returns 0 on success, 1 for data errors, 6 when the input ran out. */
int LzmaUncompress(unsigned char* dest, size_t* destLen, const unsigned char* src, size_t* srcLen,
                   const unsigned char* props, size_t propsSize);

#ifdef __cplusplus
}
#endif
