#include "dxt/fastDxt.h"

#include <emmintrin.h>

#include "base/byteIo.h"

namespace {

// Spreads 4 bits to the even bit positions of a byte.
constexpr uint8_t kSpread[16] = {0x00, 0x01, 0x04, 0x05, 0x10, 0x11, 0x14, 0x15,
                                 0x40, 0x41, 0x44, 0x45, 0x50, 0x51, 0x54, 0x55};

inline __m128i absDiff(__m128i a, __m128i b) {
  return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
}

// Sums the four bytes of each pixel into a 32-bit lane.
inline __m128i pixelSums(__m128i x) {
  const __m128i lowBytes = _mm_set1_epi16(0x00FF);
  const __m128i pairs = _mm_add_epi16(_mm_and_si128(x, lowBytes), _mm_srli_epi16(x, 8));
  return _mm_add_epi32(_mm_and_si128(pairs, _mm_set1_epi32(0xFFFF)), _mm_srli_epi32(pairs, 16));
}

void encodeBlock(const uint8_t* rows, uint32_t stride, uint8_t* out) {
  __m128i r[4];
  for (int j = 0; j < 4; ++j) r[j] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows + j * stride));

  __m128i lo = _mm_min_epu8(_mm_min_epu8(r[0], r[1]), _mm_min_epu8(r[2], r[3]));
  __m128i hi = _mm_max_epu8(_mm_max_epu8(r[0], r[1]), _mm_max_epu8(r[2], r[3]));
  lo = _mm_min_epu8(lo, _mm_shuffle_epi32(lo, 0x4E));
  hi = _mm_max_epu8(hi, _mm_shuffle_epi32(hi, 0x4E));
  lo = _mm_min_epu8(lo, _mm_shuffle_epi32(lo, 0xB1));
  hi = _mm_max_epu8(hi, _mm_shuffle_epi32(hi, 0xB1));

  const __m128i inset = _mm_and_si128(_mm_srli_epi16(_mm_subs_epu8(hi, lo), 4), _mm_set1_epi8(0x0F));
  lo = _mm_adds_epu8(lo, inset);
  hi = _mm_subs_epu8(hi, inset);

  const uint32_t hiWord = uint32_t(_mm_cvtsi128_si32(hi));
  const uint32_t loWord = uint32_t(_mm_cvtsi128_si32(lo));
  const uint16_t colour0 = uint16_t((hiWord & 0xF8) << 8 | (hiWord >> 8 & 0xFC) << 3 | (hiWord >> 16 & 0xFF) >> 3);
  const uint16_t colour1 = uint16_t((loWord & 0xF8) << 8 | (loWord >> 8 & 0xFC) << 3 | (loWord >> 16 & 0xFF) >> 3);

  // Quantise, widen by repeating the high bits (v >> 5 and v >> 6 as high multiplies), and
  // build the palette in 16-bit lanes.
  const __m128i zero = _mm_setzero_si128();
  const __m128i mask565 = _mm_setr_epi8(char(0xF8), char(0xFC), char(0xF8), 0, char(0xF8), char(0xFC), char(0xF8), 0,
                                        0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i widen = _mm_setr_epi16(1 << 11, 1 << 10, 1 << 11, 0, 1 << 11, 1 << 10, 1 << 11, 0);
  __m128i a = _mm_unpacklo_epi8(_mm_and_si128(hi, mask565), zero);
  __m128i b = _mm_unpacklo_epi8(_mm_and_si128(lo, mask565), zero);
  a = _mm_or_si128(a, _mm_mulhi_epu16(a, widen));
  b = _mm_or_si128(b, _mm_mulhi_epu16(b, widen));
  const __m128i third = _mm_set1_epi16(0x5556);
  const __m128i c2 = _mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(a, a), b), third);
  const __m128i c3 = _mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(b, b), a), third);
  const __m128i p0 = _mm_shuffle_epi32(_mm_packus_epi16(a, a), 0);
  const __m128i p1 = _mm_shuffle_epi32(_mm_packus_epi16(b, b), 0);
  const __m128i p2 = _mm_shuffle_epi32(_mm_packus_epi16(c2, c2), 0);
  const __m128i p3 = _mm_shuffle_epi32(_mm_packus_epi16(c3, c3), 0);

  uint32_t indices = 0;
  for (int j = 0; j < 4; ++j) {
    const __m128i d0 = pixelSums(absDiff(r[j], p0));
    const __m128i d1 = pixelSums(absDiff(r[j], p1));
    const __m128i d2 = pixelSums(absDiff(r[j], p2));
    const __m128i d3 = pixelSums(absDiff(r[j], p3));
    const __m128i x0 = _mm_and_si128(_mm_cmpgt_epi32(d0, d2), _mm_cmpgt_epi32(d1, d2));
    const __m128i x1 = _mm_and_si128(_mm_cmpgt_epi32(d1, d3), _mm_cmpgt_epi32(d0, d3));
    const __m128i x2 = _mm_and_si128(_mm_cmpgt_epi32(d2, d3), _mm_cmpgt_epi32(d0, d3));
    const int high = _mm_movemask_ps(_mm_castsi128_ps(_mm_or_si128(x0, x1)));
    const int low = _mm_movemask_ps(_mm_castsi128_ps(x2));
    indices |= uint32_t(kSpread[low] | kSpread[high] << 1) << (8 * j);
  }
  zycStore16(out, colour0);
  zycStore16(out + 2, colour1);
  zycStore32(out + 4, indices);
}

}  // namespace

void zycFastDxtSse2(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks) {
  const uint32_t stride = width * 4;
  for (uint32_t y = 0; y + 4 <= height; y += 4) {
    for (uint32_t x = 0; x + 4 <= width; x += 4) {
      encodeBlock(pixels + size_t(y) * stride + 4 * x, stride, blocks);
      blocks += 8;
    }
  }
}
