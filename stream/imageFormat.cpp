#include "stream/imageFormat.h"

#include "base/byteIo.h"

bool zycHasStillImageMagic(const uint8_t* in) { return zycLoad32(in) == kStillImageMagic; }

void zycStoreStillImageHeader(const zycStillImageHeader& h, uint8_t out[kStillImageHeaderBytes]) {
  zycStore32(out + 0, h.magic);
  zycStore32(out + 4, h.tableBytes);
  out[8] = h.imageVersion;
  out[9] = h.surfaceBits;
  out[10] = h.vqBits;
  out[11] = 0;
  zycStore16(out + 12, uint16_t(h.width));
  zycStore16(out + 14, uint16_t(h.height));
  zycStore32(out + 16, h.surfaceOffset);
  zycStore32(out + 20, h.codebookCount);
  zycStore32(out + 24, h.codebookOffset);
}

zycStillImageHeader zycLoadStillImageHeader(const uint8_t in[kStillImageHeaderBytes]) {
  zycStillImageHeader h;
  h.magic = zycLoad32(in + 0);
  h.tableBytes = zycLoad32(in + 4);
  h.imageVersion = in[8];
  h.surfaceBits = in[9];
  h.vqBits = in[10];
  h.width = zycLoad16(in + 12);
  h.height = zycLoad16(in + 14);
  h.surfaceOffset = zycLoad32(in + 16);
  h.codebookCount = zycLoad32(in + 20);
  h.codebookOffset = zycLoad32(in + 24);
  return h;
}

void zycStoreTableImageHeader(const zycTableImageHeader& h, uint8_t out[kTableImageHeaderBytes]) {
  out[0] = h.marker;
  out[1] = h.reset;
  out[2] = h.indexBits;
  out[3] = 0;
  zycStore32(out + 4, h.tableBytes);
  zycStore32(out + 8, h.tableOrigin);
  zycStore32(out + 12, h.blockCount);
  zycStore32(out + 16, h.newCount);
  zycStore32(out + 20, h.newOffset);
}

zycTableImageHeader zycLoadTableImageHeader(const uint8_t in[kTableImageHeaderBytes]) {
  zycTableImageHeader h;
  h.marker = in[0];
  h.reset = in[1];
  h.indexBits = in[2];
  h.tableBytes = zycLoad32(in + 4);
  h.tableOrigin = zycLoad32(in + 8);
  h.blockCount = zycLoad32(in + 12);
  h.newCount = zycLoad32(in + 16);
  h.newOffset = zycLoad32(in + 20);
  return h;
}
