// The library's one export.
#include "codec/zycCodec.h"

extern "C" ZYL_API zylCodec* zylInitCodec(zylProgressCallback callback, uint32_t user) {
  return zycCreateCodec(callback, user);
}
