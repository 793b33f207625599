#include "lzmaLib.h"

#include <stdlib.h>

#include <lzma/LzmaDec.h>
#include <lzma/LzmaEnc.h>

static void* zylLzmaAlloc(void* p, size_t size) {
  (void)p;
  return size == 0 ? NULL : malloc(size);
}
static void zylLzmaFree(void* p, void* address) {
  (void)p;
  free(address);
}
static ISzAlloc zylLzmaAllocator = {zylLzmaAlloc, zylLzmaFree};

int LzmaCompress(unsigned char* dest, size_t* destLen, const unsigned char* src, size_t srcLen,
                 unsigned char* outProps, size_t* outPropsSize, int level, unsigned dictSize,
                 int lc, int lp, int pb, int fb, int numThreads) {
  CLzmaEncProps props;
  LzmaEncProps_Init(&props);
  props.level = level;
  props.dictSize = dictSize;
  props.lc = lc;
  props.lp = lp;
  props.pb = pb;
  props.fb = fb;
  props.numThreads = numThreads;
  return LzmaEncode(dest, destLen, src, srcLen, &props, outProps, outPropsSize, 0, NULL,
                    &zylLzmaAllocator, &zylLzmaAllocator);
}

int LzmaUncompress(unsigned char* dest, size_t* destLen, const unsigned char* src, size_t* srcLen,
                   const unsigned char* props, size_t propsSize) {
  ELzmaStatus status;
  return LzmaDecode(dest, destLen, src, srcLen, props, (unsigned)propsSize, LZMA_FINISH_ANY,
                    &status, &zylLzmaAllocator);
}
