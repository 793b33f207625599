// AVX2 kernels of the plane coder. SAD tables: vmpsadbw gives eight SADs of a 4-byte target row
// against eight consecutive offsets of a reference row in each 128-bit lane, so one instruction
// covers 16 offsets of one row and eight cover a whole row of the table. Only called when the
// processor has AVX2; each function carries the AVX2 target attribute itself.
#include "mpmc/planeKernels.h"

#include <immintrin.h>

#include <cstring>

#define ZYC_AVX2 __attribute__((target("avx2")))

namespace {

ZYC_AVX2 inline __m256i Lanes(const uint8_t* low, const uint8_t* high) {
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

}  // namespace

ZYC_AVX2 void zycSadTable4x4Avx2(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                                 int32_t refStride, uint16_t* out) {
  __m256i rows[4];
  for (int32_t j = 0; j < 4; ++j) {
    int32_t v;
    std::memcpy(&v, target + j * targetStride, 4);
    rows[j] = _mm256_set1_epi32(v);
  }
  for (int32_t dy = 0; dy < 32; ++dy) {
    __m256i first = _mm256_setzero_si256(), second = _mm256_setzero_si256();
    for (int32_t j = 0; j < 4; ++j) {
      const uint8_t* r = ref + (dy + j) * refStride;
      first = _mm256_add_epi16(first, _mm256_mpsadbw_epu8(Lanes(r, r + 8), rows[j], 0));
      second = _mm256_add_epi16(second, _mm256_mpsadbw_epu8(Lanes(r + 16, r + 24), rows[j], 0));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + dy * 32), first);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + dy * 32 + 16), second);
  }
}

namespace {

ZYC_AVX2 inline __m256i Load8(const int32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// Sixteen pixels of a row: (o - clamp(mp + m))^2 summed in pairs, m = r or ((a * r) >> 8) + b.
template <bool kAffine>
ZYC_AVX2 inline __m256i RowError16(const uint8_t* o, const int32_t* mp, const int32_t* r, __m256i a, __m256i b) {
  // packs works within lanes: pixels come out as 0-3, 8-11, 4-7, 12-15 and are put back in order.
  const __m256i mv = _mm256_permute4x64_epi64(
      _mm256_packs_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(mp)),
                         _mm256_loadu_si256(reinterpret_cast<const __m256i*>(mp + 8))), 0xD8);
  __m256i rv = _mm256_permute4x64_epi64(
      _mm256_packs_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(r)),
                         _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + 8))), 0xD8);
  const __m256i ov = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(o)));
  if constexpr (kAffine) {
    // (a * r) >> 8 in 32 bits, back to 16: a is 12 bits and r 8 bits, the result fits.
    const __m256i lo = _mm256_mullo_epi16(rv, a), hi = _mm256_mulhi_epi16(rv, a);
    const __m256i p0 = _mm256_srai_epi32(_mm256_unpacklo_epi16(lo, hi), 8);
    const __m256i p1 = _mm256_srai_epi32(_mm256_unpackhi_epi16(lo, hi), 8);
    rv = _mm256_add_epi16(_mm256_packs_epi32(p0, p1), b);
  }
  __m256i t = _mm256_add_epi16(mv, rv);
  t = _mm256_min_epi16(_mm256_max_epi16(t, _mm256_setzero_si256()), _mm256_set1_epi16(255));
  const __m256i d = _mm256_sub_epi16(ov, t);
  return _mm256_madd_epi16(d, d);
}

template <bool kAffine>
ZYC_AVX2 int32_t MovedError16(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                              const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  const __m256i av = _mm256_set1_epi16(static_cast<int16_t>(a)), bv = _mm256_set1_epi16(static_cast<int16_t>(b));
  __m256i acc = _mm256_setzero_si256();
  for (int32_t j = 0; j < size; ++j, o += oStride, mp += mpStride, r += rStride)
    for (int32_t i = 0; i < size; i += 16) acc = _mm256_add_epi32(acc, RowError16<kAffine>(o + i, mp + i, r + i, av, bv));
  __m128i sum = _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
  sum = _mm_add_epi32(sum, _mm_srli_si128(sum, 8));
  sum = _mm_add_epi32(sum, _mm_srli_si128(sum, 4));
  return _mm_cvtsi128_si32(sum);
}

}  // namespace

// Blocks of 16 and 32 pixels sixteen pixels at a time; smaller ones as the SSE2 kernels take them.
ZYC_AVX2 int32_t zycMotionErrorAvx2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                                    const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  if (size < 16) return zycMotionErrorSse2(o, oStride, mp, mpStride, r, rStride, size, a, b);
  return MovedError16<false>(o, oStride, mp, mpStride, r, rStride, size, a, b);
}

ZYC_AVX2 int32_t zycAffineErrorAvx2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                                    const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  if (size < 16) return zycAffineErrorSse2(o, oStride, mp, mpStride, r, rStride, size, a, b);
  return MovedError16<true>(o, oStride, mp, mpStride, r, rStride, size, a, b);
}

// The first index of the smallest of 1024 entries: the minimum by vector minima, then the first
// entry equal to it by comparison masks.
ZYC_AVX2 int32_t zycBestEntry32Avx2(const uint32_t* table) {
  const __m256i* t = reinterpret_cast<const __m256i*>(table);
  __m256i m = _mm256_loadu_si256(t);
  for (int32_t i = 1; i < 128; ++i) m = _mm256_min_epu32(m, _mm256_loadu_si256(t + i));
  __m128i h = _mm_min_epu32(_mm256_castsi256_si128(m), _mm256_extracti128_si256(m, 1));
  h = _mm_min_epu32(h, _mm_srli_si128(h, 8));
  h = _mm_min_epu32(h, _mm_srli_si128(h, 4));
  const __m256i lowest = _mm256_broadcastd_epi32(h);
  for (int32_t i = 0; i < 128; ++i) {
    const uint32_t mask = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_cmpeq_epi32(_mm256_loadu_si256(t + i), lowest)));
    if (mask) return i * 8 + __builtin_ctz(mask) / 4;
  }
  return 0;
}

// Block estimates eight pixels at a time, the last one to seven as the plain kernels take them.
ZYC_AVX2 int32_t zycMotionEstimateAvx2(const int32_t* r0, const int32_t* r1, int32_t fx, const int32_t* window,
                                       const int32_t* mc, const int32_t* target, const int32_t* error,
                                       int32_t count) {
  const __m256i two = _mm256_set1_epi32(2), full = _mm256_set1_epi32(65536), half = _mm256_set1_epi32(32768);
  __m256i acc = _mm256_setzero_si256();
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(Load8(r0 + x), Load8(r0 + x + fx)),
                                         _mm256_add_epi32(Load8(r1 + x), Load8(r1 + x + fx)));
    const __m256i v = _mm256_srai_epi32(_mm256_add_epi32(sum, two), 2);
    const __m256i w = Load8(window + x);
    const __m256i blend = _mm256_srai_epi32(
        _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(v, w), _mm256_mullo_epi32(_mm256_sub_epi32(full, w), Load8(mc + x))),
                         half),
        16);
    const __m256i d = _mm256_sub_epi32(blend, Load8(target + x));
    acc = _mm256_add_epi32(acc, _mm256_sub_epi32(Load8(error + x), _mm256_mullo_epi32(d, d)));
  }
  __m128i total = _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
  total = _mm_add_epi32(total, _mm_srli_si128(total, 8));
  total = _mm_add_epi32(total, _mm_srli_si128(total, 4));
  return _mm_cvtsi128_si32(total) +
         zycMotionEstimatePlain(r0 + x, r1 + x, fx, window + x, mc + x, target + x, error + x, count - x);
}

ZYC_AVX2 int32_t zycAffineEstimateAvx2(const int32_t* r, int32_t a, int32_t b, const int32_t* window,
                                       const int32_t* mc, const int32_t* target, const int32_t* error,
                                       int32_t count) {
  const __m256i full = _mm256_set1_epi32(65536), half = _mm256_set1_epi32(32768);
  const __m256i av = _mm256_set1_epi32(a), bv = _mm256_set1_epi32(b);
  const __m256i zero = _mm256_setzero_si256(), top = _mm256_set1_epi32(255);
  __m256i acc = _mm256_setzero_si256();
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    __m256i v = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(av, Load8(r + x)), 8), bv);
    v = _mm256_min_epi32(_mm256_max_epi32(v, zero), top);
    const __m256i w = Load8(window + x);
    __m256i blend = _mm256_srai_epi32(
        _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(v, w), _mm256_mullo_epi32(_mm256_sub_epi32(full, w), Load8(mc + x))),
                         half),
        16);
    blend = _mm256_srai_epi32(_mm256_slli_epi32(blend, 16), 16);  // cut to 16 bits
    const __m256i d = _mm256_sub_epi32(blend, Load8(target + x));
    acc = _mm256_add_epi32(acc, _mm256_sub_epi32(Load8(error + x), _mm256_mullo_epi32(d, d)));
  }
  __m128i total = _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
  total = _mm_add_epi32(total, _mm_srli_si128(total, 8));
  total = _mm_add_epi32(total, _mm_srli_si128(total, 4));
  return _mm_cvtsi128_si32(total) +
         zycAffineEstimatePlain(r + x, a, b, window + x, mc + x, target + x, error + x, count - x);
}

// The filter bank: the SSE2 first pass, then each vertical filter over 16 pixels a time;
// vpunpck works within 128-bit lanes, so the sums come out as pixels 0-3, 8-11 and 4-7, 12-15
// and are put back in order before they meet the best values.
ZYC_AVX2 void zycFilterBankAvx2(const zycFilterArea& a, const int16_t* dict) {
  const int32_t areaW = a.x1 - a.x0, areaH = a.y1 - a.y0;
  const int32_t wide = areaW & ~15;
  const __m256i sign = _mm256_set1_epi32(static_cast<int32_t>(0x80000000u));
  for (int32_t i = 0; i < 8; ++i) {
    zycFilterFirstPassSse2(a, dict + i * 8);
    for (int32_t j = 0; j < 8; ++j) {
      const int16_t* v = dict + j * 8;
      const uint16_t filter = static_cast<uint16_t>(i + 8 * j);
      __m256i pairs[4];
      for (int32_t n = 0; n < 4; ++n)
        pairs[n] = _mm256_set1_epi32(static_cast<int32_t>(
            (static_cast<uint32_t>(static_cast<uint16_t>(v[2 * n + 1])) << 16) | static_cast<uint16_t>(v[2 * n])));
      const __m256i index = _mm256_set1_epi16(static_cast<int16_t>(filter));
      for (int32_t y = 0; y < areaH; ++y) {
        int32_t* best = a.best + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
        uint16_t* bestIdx = a.bestIndex + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
        const int16_t* column = a.firstPass + static_cast<size_t>(y) * areaW;
        for (int32_t x = 0; x < wide; x += 16) {
          __m256i lo = _mm256_setzero_si256(), hi = _mm256_setzero_si256();
          for (int32_t n = 0; n < 4; ++n) {
            const __m256i ra = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(column + (2 * n) * areaW + x));
            const __m256i rb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(column + (2 * n + 1) * areaW + x));
            lo = _mm256_add_epi32(lo, _mm256_madd_epi16(_mm256_unpacklo_epi16(ra, rb), pairs[n]));
            hi = _mm256_add_epi32(hi, _mm256_madd_epi16(_mm256_unpackhi_epi16(ra, rb), pairs[n]));
          }
          const __m256i first = _mm256_permute2x128_si256(lo, hi, 0x20);   // pixels 0..7
          const __m256i second = _mm256_permute2x128_si256(lo, hi, 0x31);  // pixels 8..15
          __m256i old0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(best + x));
          __m256i old1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(best + x + 8));
          // |value| as unsigned (|INT32_MIN| is 2^31), compared as signed after the sign flip.
          const __m256i take0 = _mm256_cmpgt_epi32(_mm256_xor_si256(_mm256_abs_epi32(first), sign),
                                                   _mm256_xor_si256(_mm256_abs_epi32(old0), sign));
          const __m256i take1 = _mm256_cmpgt_epi32(_mm256_xor_si256(_mm256_abs_epi32(second), sign),
                                                   _mm256_xor_si256(_mm256_abs_epi32(old1), sign));
          old0 = _mm256_blendv_epi8(old0, first, take0);
          old1 = _mm256_blendv_epi8(old1, second, take1);
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(best + x), old0);
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(best + x + 8), old1);
          // packs interleaves 64-bit quarters as 0-3, 8-11, 4-7, 12-15.
          const __m256i take = _mm256_permute4x64_epi64(_mm256_packs_epi32(take0, take1), 0xD8);
          __m256i idx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bestIdx + x));
          idx = _mm256_blendv_epi8(idx, index, take);
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(bestIdx + x), idx);
        }
      }
      if (wide < areaW) zycFilterSecondPassSse2(a, v, filter, wide);
    }
  }
}
