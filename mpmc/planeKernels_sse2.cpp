// SSE2 kernels of the plane coder. SAD tables: the four rows of a 4x4 block against four rows
// of the reference gathered at each offset, one psadbw per offset. Filter bank: pmaddwd over
// eight taps, four outputs of the first pass at a time, eight of the second; the comparison of
// magnitudes is unsigned, as the plain kernel's is.
#include "mpmc/planeKernels.h"

#include <emmintrin.h>

#include <cstdlib>
#include <cstring>

namespace {

inline __m128i Load4(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}

}  // namespace

void zycSadTable4x4Sse2(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                        int32_t refStride, uint16_t* out) {
  const __m128i t = _mm_unpacklo_epi64(_mm_unpacklo_epi32(Load4(target), Load4(target + targetStride)),
                                       _mm_unpacklo_epi32(Load4(target + 2 * targetStride),
                                                          Load4(target + 3 * targetStride)));
  for (int32_t dy = 0; dy < 32; ++dy) {
    const uint8_t* r0 = ref + dy * refStride;
    const uint8_t* r1 = r0 + refStride;
    const uint8_t* r2 = r1 + refStride;
    const uint8_t* r3 = r2 + refStride;
    for (int32_t dx = 0; dx < 32; ++dx) {
      const __m128i r = _mm_unpacklo_epi64(_mm_unpacklo_epi32(Load4(r0 + dx), Load4(r1 + dx)),
                                           _mm_unpacklo_epi32(Load4(r2 + dx), Load4(r3 + dx)));
      const __m128i s = _mm_sad_epu8(t, r);
      out[dy * 32 + dx] = static_cast<uint16_t>(_mm_cvtsi128_si32(s) + _mm_cvtsi128_si32(_mm_srli_si128(s, 8)));
    }
  }
}

namespace {

// kPixels (eight or four) pixels of a row: o, mp and r widened or narrowed to 16 bits.
template <bool kAffine, int kPixels>
inline __m128i RowError(const uint8_t* o, const int32_t* mp, const int32_t* r, __m128i a,
                        __m128i b) {
  static_assert(kPixels == 4 || kPixels == 8);
  const __m128i zero = _mm_setzero_si128();
  __m128i ov, mv, rv;
  if constexpr (kPixels == 4) {
    ov = _mm_unpacklo_epi8(Load4(o), zero);
    mv = _mm_packs_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(mp)), zero);
    rv = _mm_packs_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r)), zero);
  } else {
    ov = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(o)), zero);
    mv = _mm_packs_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(mp)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(mp + 4)));
    rv = _mm_packs_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + 4)));
  }
  if constexpr (kAffine) {
    // (a * r) >> 8 in 32 bits, back to 16: a is 12 bits and r 8 bits, the result fits.
    const __m128i lo = _mm_mullo_epi16(rv, a), hi = _mm_mulhi_epi16(rv, a);
    const __m128i p0 = _mm_srai_epi32(_mm_unpacklo_epi16(lo, hi), 8);
    const __m128i p1 = _mm_srai_epi32(_mm_unpackhi_epi16(lo, hi), 8);
    rv = _mm_add_epi16(_mm_packs_epi32(p0, p1), b);
    if constexpr (kPixels == 4) rv = _mm_unpacklo_epi64(rv, zero);
  }
  __m128i t = _mm_add_epi16(mv, rv);
  t = _mm_min_epi16(_mm_max_epi16(t, zero), _mm_set1_epi16(255));
  const __m128i d = _mm_sub_epi16(ov, t);
  return _mm_madd_epi16(d, d);
}

template <bool kAffine>
int32_t MovedError(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                   const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  const __m128i av = _mm_set1_epi16(static_cast<int16_t>(a)), bv = _mm_set1_epi16(static_cast<int16_t>(b));
  __m128i acc = _mm_setzero_si128();
  for (int32_t j = 0; j < size; ++j, o += oStride, mp += mpStride, r += rStride) {
    if (size == 4) {
      acc = _mm_add_epi32(acc, RowError<kAffine, 4>(o, mp, r, av, bv));
    } else {
      for (int32_t i = 0; i < size; i += 8)
        acc = _mm_add_epi32(acc, RowError<kAffine, 8>(o + i, mp + i, r + i, av, bv));
    }
  }
  acc = _mm_add_epi32(acc, _mm_srli_si128(acc, 8));
  acc = _mm_add_epi32(acc, _mm_srli_si128(acc, 4));
  return _mm_cvtsi128_si32(acc);
}

// The change of a moved block's error over columns x rows pixels: eight, then four pixels of a
// row at a time, the last one to three as the plain kernel takes them.
template <bool kAffine>
int32_t MovedDelta(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                   const int32_t* before, int32_t beforeStride, const int32_t* r, int32_t rStride,
                   int32_t columns, int32_t rows, int32_t a, int32_t b) {
  const __m128i av = _mm_set1_epi16(static_cast<int16_t>(a)), bv = _mm_set1_epi16(static_cast<int16_t>(b));
  __m128i acc = _mm_setzero_si128();
  int32_t delta = 0;
  for (int32_t j = 0; j < rows; ++j, o += oStride, now += nowStride, before += beforeStride, r += rStride) {
    int32_t i = 0;
    for (; i + 8 <= columns; i += 8)
      acc = _mm_add_epi32(acc, _mm_sub_epi32(RowError<kAffine, 8>(o + i, now + i, r + i, av, bv),
                                             RowError<kAffine, 8>(o + i, before + i, r + i, av, bv)));
    if (i + 4 <= columns) {
      acc = _mm_add_epi32(acc, _mm_sub_epi32(RowError<kAffine, 4>(o + i, now + i, r + i, av, bv),
                                             RowError<kAffine, 4>(o + i, before + i, r + i, av, bv)));
      i += 4;
    }
    for (; i < columns; ++i) {
      const int32_t m = kAffine ? ((a * r[i]) >> 8) + b : r[i];
      const int32_t t1 = now[i] + m, t0 = before[i] + m;
      const int32_t e1 = o[i] - (t1 < 0 ? 0 : (t1 > 255 ? 255 : t1));
      const int32_t e0 = o[i] - (t0 < 0 ? 0 : (t0 > 255 ? 255 : t0));
      delta += e1 * e1 - e0 * e0;
    }
  }
  acc = _mm_add_epi32(acc, _mm_srli_si128(acc, 8));
  acc = _mm_add_epi32(acc, _mm_srli_si128(acc, 4));
  return delta + _mm_cvtsi128_si32(acc);
}

}  // namespace

int32_t zycMotionDeltaSse2(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                           const int32_t* before, int32_t beforeStride, const int32_t* r,
                           int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b) {
  return MovedDelta<false>(o, oStride, now, nowStride, before, beforeStride, r, rStride, columns, rows, a, b);
}

int32_t zycAffineDeltaSse2(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                           const int32_t* before, int32_t beforeStride, const int32_t* r,
                           int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b) {
  return MovedDelta<true>(o, oStride, now, nowStride, before, beforeStride, r, rStride, columns, rows, a, b);
}

int32_t zycMotionErrorSse2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  return MovedError<false>(o, oStride, mp, mpStride, r, rStride, size, a, b);
}

int32_t zycAffineErrorSse2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  return MovedError<true>(o, oStride, mp, mpStride, r, rStride, size, a, b);
}

// The smallest value by vector minima, then its first index by comparison masks.
int32_t zycBestEntry16Sse2(const uint16_t* table) {
  const __m128i* t = reinterpret_cast<const __m128i*>(table);
  __m128i m = _mm_loadu_si128(t);
  for (int32_t i = 1; i < 128; ++i) m = _mm_min_epi16(m, _mm_loadu_si128(t + i));  // values < 2^15
  m = _mm_min_epi16(m, _mm_srli_si128(m, 8));
  m = _mm_min_epi16(m, _mm_srli_si128(m, 4));
  m = _mm_min_epi16(m, _mm_srli_si128(m, 2));
  const __m128i lowest = _mm_set1_epi16(static_cast<int16_t>(_mm_cvtsi128_si32(m)));
  for (int32_t i = 0; i < 128; ++i) {
    const int32_t mask = _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_loadu_si128(t + i), lowest));
    if (mask) return i * 8 + __builtin_ctz(static_cast<uint32_t>(mask)) / 2;
  }
  return 0;
}

int32_t zycBestEntry32Sse2(const uint32_t* table) {
  const __m128i* t = reinterpret_cast<const __m128i*>(table);
  auto min32 = [](__m128i a, __m128i b) {  // signed: values < 2^31
    const __m128i greater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(greater, b), _mm_andnot_si128(greater, a));
  };
  __m128i m = _mm_loadu_si128(t);
  for (int32_t i = 1; i < 256; ++i) m = min32(m, _mm_loadu_si128(t + i));
  m = min32(m, _mm_srli_si128(m, 8));
  m = min32(m, _mm_srli_si128(m, 4));
  const __m128i lowest = _mm_shuffle_epi32(m, 0);
  for (int32_t i = 0; i < 256; ++i) {
    const int32_t mask = _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_loadu_si128(t + i), lowest));
    if (mask) return i * 4 + __builtin_ctz(static_cast<uint32_t>(mask)) / 4;
  }
  return 0;
}

void zycFilterFirstPassSse2(const zycFilterArea& a, const int16_t* h) {
  const int32_t areaW = a.x1 - a.x0;
  const int32_t rows = a.y1 - a.y0 + 8;
  const __m128i taps = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h));
  for (int32_t r = 0; r < rows; ++r) {
    const int16_t* res = a.residual + static_cast<ptrdiff_t>(a.y0 - 4 + r) * a.residualStride + a.x0 - 4;
    int16_t* fp = a.firstPass + static_cast<size_t>(r) * areaW;
    int32_t x = 0;
    for (; x + 4 <= areaW; x += 4) {
      const __m128i p0 = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(res + x)), taps);
      const __m128i p1 = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(res + x + 1)), taps);
      const __m128i p2 = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(res + x + 2)), taps);
      const __m128i p3 = _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(res + x + 3)), taps);
      // Transpose-add: the four sums of p0..p3 in one register.
      const __m128i s01 = _mm_add_epi32(_mm_unpacklo_epi32(p0, p1), _mm_unpackhi_epi32(p0, p1));
      const __m128i s23 = _mm_add_epi32(_mm_unpacklo_epi32(p2, p3), _mm_unpackhi_epi32(p2, p3));
      const __m128i sum = _mm_add_epi32(_mm_unpacklo_epi64(s01, s23), _mm_unpackhi_epi64(s01, s23));
      const __m128i q = _mm_srai_epi32(sum, 10);
      // Cut to 16 bits as the plain kernel's store does (no saturation).
      const __m128i cut = _mm_srai_epi32(_mm_slli_epi32(q, 16), 16);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(fp + x), _mm_packs_epi32(cut, cut));
    }
    for (; x < areaW; ++x) {
      int32_t q = 0;
      for (int32_t n = 0; n < 8; ++n) q += res[x + n] * h[n];
      fp[x] = static_cast<int16_t>(q >> 10);
    }
  }
}

void zycFilterSecondPassSse2(const zycFilterArea& a, const int16_t* v, uint16_t filter, int32_t xFrom) {
  const int32_t areaW = a.x1 - a.x0;
  const int32_t areaH = a.y1 - a.y0;
  const __m128i sign = _mm_set1_epi32(static_cast<int32_t>(0x80000000u));
  __m128i pairs[4];
  for (int32_t n = 0; n < 4; ++n)
    pairs[n] = _mm_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(static_cast<uint16_t>(v[2 * n + 1])) << 16) |
                                                   static_cast<uint16_t>(v[2 * n])));
  const __m128i index = _mm_set1_epi16(static_cast<int16_t>(filter));
  for (int32_t y = 0; y < areaH; ++y) {
    int32_t* best = a.best + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
    uint16_t* bestIdx = a.bestIndex + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
    const int16_t* column = a.firstPass + static_cast<size_t>(y) * areaW;
    int32_t x = xFrom;
    for (; x + 8 <= areaW; x += 8) {
      __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
      for (int32_t n = 0; n < 4; ++n) {
        const __m128i ra = _mm_loadu_si128(reinterpret_cast<const __m128i*>(column + (2 * n) * areaW + x));
        const __m128i rb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(column + (2 * n + 1) * areaW + x));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(ra, rb), pairs[n]));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(ra, rb), pairs[n]));
      }
      __m128i oldLo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(best + x));
      __m128i oldHi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(best + x + 4));
      auto magnitude = [&](__m128i value) {
        const __m128i s = _mm_srai_epi32(value, 31);
        return _mm_xor_si128(_mm_sub_epi32(_mm_xor_si128(value, s), s), sign);
      };
      const __m128i takeLo = _mm_cmpgt_epi32(magnitude(lo), magnitude(oldLo));
      const __m128i takeHi = _mm_cmpgt_epi32(magnitude(hi), magnitude(oldHi));
      oldLo = _mm_or_si128(_mm_and_si128(takeLo, lo), _mm_andnot_si128(takeLo, oldLo));
      oldHi = _mm_or_si128(_mm_and_si128(takeHi, hi), _mm_andnot_si128(takeHi, oldHi));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(best + x), oldLo);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(best + x + 4), oldHi);
      const __m128i take = _mm_packs_epi32(takeLo, takeHi);
      __m128i idx = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bestIdx + x));
      idx = _mm_or_si128(_mm_and_si128(take, index), _mm_andnot_si128(take, idx));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(bestIdx + x), idx);
    }
    for (; x < areaW; ++x) {
      uint32_t sum = 0;
      for (int32_t n = 0; n < 8; ++n) sum += static_cast<uint32_t>(column[static_cast<size_t>(n) * areaW + x] * v[n]);
      const int32_t value = static_cast<int32_t>(sum);
      if (std::llabs(value) > std::llabs(best[x])) {
        best[x] = value;
        bestIdx[x] = filter;
      }
    }
  }
}

void zycFilterBankSse2(const zycFilterArea& a, const int16_t* dict) {
  for (int32_t i = 0; i < 8; ++i) {
    zycFilterFirstPassSse2(a, dict + i * 8);
    for (int32_t j = 0; j < 8; ++j) zycFilterSecondPassSse2(a, dict + j * 8, static_cast<uint16_t>(i + 8 * j), 0);
  }
}
