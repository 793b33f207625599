/* The SDK's encoder is compiled here, in this file, so that its state (CLzmaEnc, static in
   LzmaEnc.c) can be copied and driven block by block with its own LzmaEnc_CodeOneBlock. */
#include "lzmaResume.h"

#include <stdlib.h>
#include <string.h>

#include <lzma/LzmaEnc.c>

/* Input that must stand beyond the SDK's block of 32 KiB before the base state codes it: the
   block's last match, the match finder's look-ahead, and room for a run of deferred literals. */
#define ZYC_RESUME_AHEAD (LZMA_MATCH_LEN_MAX + LZMA_MATCH_LEN_MAX + 8 + 4096)

typedef struct {
  ISeqInStream vt;
  zycLzmaResume* owner;
} zycResumeIn;

typedef struct {
  ISeqOutStream vt;
  zycLzmaSink sink;
  void* user;
} zycResumeOut;

struct zycLzmaResume {
  CLzmaEnc* base;  /* stream input: has seen only bytes that can no longer change */
  CLzmaEnc* trial; /* direct input: a copy of `base` run to the stream's end */
  zycResumeIn in;
  zycResumeOut baseOut;
  zycResumeOut trialOut;
  const Byte* input; /* what `base` reads from, up to `available` */
  size_t available;
  size_t given;      /* bytes `base` has read */
  int starved;       /* `base` asked for bytes beyond `available` */
};

static void* zycResumeAlloc(void* p, size_t size) {
  (void)p;
  return size == 0 ? NULL : malloc(size);
}
static void zycResumeFree(void* p, void* address) {
  (void)p;
  free(address);
}
static ISzAlloc zycResumeAllocator = {zycResumeAlloc, zycResumeFree};

static SRes zycResumeRead(void* pp, void* buf, size_t* size) {
  zycLzmaResume* r = ((zycResumeIn*)pp)->owner;
  size_t left = r->available - r->given;
  if (left == 0) {
    /* Never an end of stream: the base state must not learn where the input stops. */
    *size = 0;
    r->starved = 1;
    return SZ_ERROR_READ;
  }
  if (*size > left) *size = left;
  memcpy(buf, r->input + r->given, *size);
  r->given += *size;
  return SZ_OK;
}

static size_t zycResumeWrite(void* pp, const void* data, size_t size) {
  zycResumeOut* out = (zycResumeOut*)pp;
  return out->sink ? out->sink(out->user, data, size) : size;
}

static SRes zycResumeSetProps(CLzmaEnc* p, unsigned dictSize) {
  CLzmaEncProps props;
  LzmaEncProps_Init(&props);
  props.level = 1;
  props.lc = 2;
  props.lp = 0;
  props.pb = 2;
  props.fb = 8;
  props.numThreads = 1;
  props.dictSize = dictSize;
  return LzmaEnc_SetProps(p, &props);
}

zycLzmaResume* zycLzmaResumeCreate(unsigned dictSize, unsigned char props[5]) {
  zycLzmaResume* r = (zycLzmaResume*)calloc(1, sizeof(zycLzmaResume));
  SizeT propsSize = LZMA_PROPS_SIZE;
  if (!r) return NULL;
  r->in.vt.Read = zycResumeRead;
  r->in.owner = r;
  r->baseOut.vt.Write = zycResumeWrite;
  r->trialOut.vt.Write = zycResumeWrite;
  r->base = (CLzmaEnc*)LzmaEnc_Create(&zycResumeAllocator);
  r->trial = (CLzmaEnc*)LzmaEnc_Create(&zycResumeAllocator);
  if (!r->base || !r->trial) {
    zycLzmaResumeDestroy(r);
    return NULL;
  }
  if (zycResumeSetProps(r->base, dictSize) != SZ_OK ||
      zycResumeSetProps(r->trial, dictSize) != SZ_OK ||
      LzmaEnc_WriteProperties(r->base, props, &propsSize) != SZ_OK ||
      LzmaEnc_MemPrepare(r->trial, NULL, 0, 0, &zycResumeAllocator, &zycResumeAllocator) !=
          SZ_OK ||
      zycLzmaResumeRestart(r) != SZ_OK) {
    zycLzmaResumeDestroy(r);
    return NULL;
  }
  return r;
}

void zycLzmaResumeDestroy(zycLzmaResume* r) {
  if (!r) return;
  if (r->base) LzmaEnc_Destroy(r->base, &zycResumeAllocator, &zycResumeAllocator);
  if (r->trial) LzmaEnc_Destroy(r->trial, &zycResumeAllocator, &zycResumeAllocator);
  free(r);
}

int zycLzmaResumeRestart(zycLzmaResume* r) {
  r->given = 0;
  r->available = 0;
  r->starved = 0;
  return LzmaEnc_Prepare(r->base, &r->baseOut.vt, &r->in.vt, &zycResumeAllocator,
                         &zycResumeAllocator);
}

int zycLzmaResumeAdvance(zycLzmaResume* r, const unsigned char* input, size_t available) {
  CLzmaEnc* p = r->base;
  r->input = input;
  r->available = available;
  for (;;) {
    /* LzmaEnc_CodeOneBlock returns at the first whole symbol after 32 KiB, state unflushed. */
    if (available < p->nowPos64 + (1 << 15) + ZYC_RESUME_AHEAD) return SZ_OK;
    if (LzmaEnc_CodeOneBlock(p, False, 0, 0) != SZ_OK || p->finished || r->starved) {
      return zycLzmaResumeRestart(r);
    }
  }
}

size_t zycLzmaResumeStableBytes(const zycLzmaResume* r) {
  const CRangeEnc* rc = &r->base->rc;
  return (size_t)rc->processed + (size_t)(rc->buf - rc->bufBase);
}

size_t zycLzmaResumeSentBytes(const zycLzmaResume* r) { return (size_t)r->base->rc.processed; }

/* Makes `d` the state of `s`, in `d`'s own memory. */
static void zycResumeCopy(CLzmaEnc* d, const CLzmaEnc* s, size_t read) {
  CLzmaProb* litProbs = d->litProbs;
  CLzmaProb* savedLitProbs = d->saveState.litProbs;
  Byte* rcBase = d->rc.bufBase;
  CLzRef* hash = d->matchFinderBase.hash;
  const CMatchFinder* ms = &s->matchFinderBase;
  const size_t rcUsed = (size_t)(s->rc.buf - s->rc.bufBase);
  memcpy(d, s, sizeof(CLzmaEnc));
  d->matchFinderObj = &d->matchFinderBase;
  d->litProbs = litProbs;
  d->saveState.litProbs = savedLitProbs;
  memcpy(litProbs, s->litProbs, ((size_t)0x300 << s->lclp) * sizeof(CLzmaProb));
  d->rc.bufBase = rcBase;
  d->rc.buf = rcBase + rcUsed;
  d->rc.bufLim = rcBase + RC_BUF_SIZE;
  memcpy(rcBase, s->rc.bufBase, rcUsed);
  d->matchFinderBase.hash = hash;
  d->matchFinderBase.son = hash + ms->hashSizeSum;
  if (!s->needInit) {
    /* Chain links exist only for positions seen so far: all of the ring once it went round. */
    const size_t seen = read - (size_t)(ms->streamPos - ms->pos);
    const size_t links = seen >= ms->cyclicBufferSize ? ms->numSons : ms->cyclicBufferPos;
    memcpy(hash, ms->hash, (size_t)ms->hashSizeSum * sizeof(CLzRef));
    memcpy(d->matchFinderBase.son, ms->son, links * sizeof(CLzRef));
  }
}

int zycLzmaResumePack(zycLzmaResume* r, const unsigned char* input, size_t size,
                      zycLzmaSink sink, void* user, size_t* packedSize) {
  CLzmaEnc* t = r->trial;
  CMatchFinder* m = &t->matchFinderBase;
  SRes res;
  *packedSize = 0;
  if (size < r->given) return SZ_ERROR_PARAM;
  zycResumeCopy(t, r->base, r->given);
  /* From here on the copy reads straight from `input`, and learns where it ends. */
  m->directInput = 1;
  m->bufferBase = (Byte*)input;
  if (t->needInit) {
    m->directInputRem = size;
  } else {
    m->buffer = (Byte*)input + (r->given - (size_t)(m->streamPos - m->pos));
    m->directInputRem = size - r->given;
    m->streamEndWasReached = 0;
  }
  r->trialOut.sink = sink;
  r->trialOut.user = user;
  t->rc.outStream = &r->trialOut.vt;
  res = LzmaEnc_Encode2(t, NULL);
  *packedSize = (size_t)t->rc.processed;
  return res;
}
