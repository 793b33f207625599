#include "encoder/motionSearch.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/consoleLog.h"
#include "stream/zylFormat.h"

#if !defined(ZYL_NO_SIMD) && (defined(__SSE2__) || defined(__x86_64__))
#include <emmintrin.h>
#define ZYC_SUMS_SSE2 1
#endif

void zycBlockPool::Allocate(uint32_t topBlocks, int32_t blockMax, int32_t blockMin) {
  uint32_t perTop = 0;
  uint32_t level = 1;
  for (int32_t s = blockMax; s > blockMin; s /= 2) {
    level *= 4;
    perTop += level;
  }
  nodes_.assign(size_t(topBlocks) * perTop, zycBlock());
  first_ = nodes_.data();
  capacity_ = uint32_t(nodes_.size());
  perTop_ = perTop;
  used_ = 0;
}

zycBlockPool zycBlockPool::Part(uint32_t firstTop, uint32_t count) const {
  zycBlockPool part;
  ZYC_ASSERT(size_t(firstTop + count) * perTop_ <= capacity_, "zycBlockPool::Part",
             "top blocks beyond the pool");
  part.first_ = first_ + size_t(firstTop) * perTop_;
  part.capacity_ = count * perTop_;
  part.perTop_ = perTop_;
  return part;
}

zycBlock* zycBlockPool::TakeFour() {
  ZYC_ASSERT(used_ + 4 <= capacity_, "zycBlockPool::TakeFour", "block pool exhausted");
  zycBlock* four = first_ + used_;
  used_ += 4;
  return four;
}

void zycBlockSums::Build(const uint8_t* picture, uint32_t width, uint32_t height) {
  stride_ = width + 1;
  table_.assign(size_t(stride_) * (height + 1), 0);
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* row = picture + size_t(y) * width * 4;
    const uint32_t* above = table_.data() + size_t(y) * stride_;
    uint32_t* here = table_.data() + size_t(y + 1) * stride_;
    uint32_t run = 0;
    for (uint32_t x = 0; x < width; ++x) {
      run += uint32_t(row[x * 4]) + row[x * 4 + 1] + row[x * 4 + 2];
      here[x + 1] = above[x + 1] + run;
    }
  }
}

void zycFadeSums::Build(const uint8_t* const pictures[16], uint32_t width, uint32_t height) {
  stride_ = width + 1;
  table_.assign(size_t(stride_) * (height + 1) * 16, 0);
  Continue(pictures, width, 0, 0, height);
}

void zycFadeSums::Continue(const uint8_t* const pictures[16], uint32_t width, uint32_t drop,
                           uint32_t kept, uint32_t height) {
  ZYC_ASSERT(stride_ == width + 1, "zycFadeSums::Continue", "a table of another width\n");
  const size_t rowWords = size_t(stride_) * 16;
  // Corner rows [drop, drop + kept] become rows [0, kept]. Their values still count the rows
  // above, but a square's sum is a difference in which those cancel.
  if (drop) {
    std::memmove(table_.data(), table_.data() + drop * rowWords, (kept + 1) * rowWords * 2);
  }
  table_.resize(rowWords * (height + 1));
  for (uint32_t y = kept; y < height; ++y) {
    const uint16_t* above = table_.data() + size_t(y) * rowWords;
    uint16_t* here = table_.data() + size_t(y + 1) * rowWords;
    uint16_t run[16] = {};
    for (uint32_t x = 0; x < width; ++x) {
      const size_t at = (size_t(y) * width + x) * 4;
      for (int f = 0; f < 16; ++f) {
        const uint8_t* px = pictures[f] + at;
        run[f] = uint16_t(run[f] + px[0] + px[1] + px[2]);
        here[(x + 1) * 16 + f] = uint16_t(above[(x + 1) * 16 + f] + run[f]);
      }
    }
  }
}

void zycFadeSums::Sums(int32_t x, int32_t y, int32_t size, uint32_t out[16]) const {
  if (size == 16) {
    uint32_t part[16];
    for (int f = 0; f < 16; ++f) out[f] = 0;
    for (int q = 0; q < 4; ++q) {
      Sums(x + (q & 1) * 8, y + (q >> 1) * 8, 8, part);
      for (int f = 0; f < 16; ++f) out[f] += part[f];
    }
    return;
  }
  const uint16_t* a = Corner(x, y);
  const uint16_t* b = Corner(x + size, y);
  const uint16_t* c = Corner(x, y + size);
  const uint16_t* d = Corner(x + size, y + size);
  for (int f = 0; f < 16; ++f) out[f] = uint16_t(d[f] - c[f] - b[f] + a[f]);
}

uint32_t zycFadeSums::Candidates(int32_t x, int32_t y, int32_t size, uint32_t sum,
                                 uint32_t limit) const {
#ifdef ZYC_SUMS_SSE2
  if (size == 16 && sum < 0x40000000u) {
    // The four squares of 8 are exact in 16-bit words; they are added in 32-bit words.
    const uint16_t* c[3][3];
    for (int j = 0; j < 3; ++j) {
      for (int i = 0; i < 3; ++i) c[j][i] = Corner(x + i * 8, y + j * 8);
    }
    const __m128i zero = _mm_setzero_si128();
    // Sums below 2^18 and 2^30, limits held below 2^31: signed 32-bit comparisons are exact.
    const uint32_t bounded = limit > 0x7FFFFFFFu ? 0x7FFFFFFFu : limit;
    const __m128i target = _mm_set1_epi32(int32_t(sum));
    const __m128i bound = _mm_set1_epi32(int32_t(bounded));
    uint32_t mask = 0;
    for (int h = 0; h < 2; ++h) {
      auto load = [h](const uint16_t* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + h * 8));
      };
      __m128i low = zero, high = zero;
      for (int q = 0; q < 4; ++q) {
        const int i = q & 1, j = q >> 1;
        const __m128i v = _mm_add_epi16(
            _mm_sub_epi16(_mm_sub_epi16(load(c[j + 1][i + 1]), load(c[j + 1][i])),
                          load(c[j][i + 1])),
            load(c[j][i]));
        low = _mm_add_epi32(low, _mm_unpacklo_epi16(v, zero));
        high = _mm_add_epi32(high, _mm_unpackhi_epi16(v, zero));
      }
      auto near = [&](__m128i v) {
        const __m128i d = _mm_sub_epi32(v, target);
        const __m128i sign = _mm_srai_epi32(d, 31);
        const __m128i diff = _mm_sub_epi32(_mm_xor_si128(d, sign), sign);
        return _mm_cmplt_epi32(diff, bound);
      };
      const __m128i bits = _mm_packs_epi32(near(low), near(high));
      mask |= uint32_t(_mm_movemask_epi8(_mm_packs_epi16(bits, zero)) & 0xFF) << (h * 8);
    }
    return mask;
  }
  if (size < 16) {
    if (limit > 0xFFFFu) return 0xFFFFu;  // no difference of 16-bit sums reaches it
    const uint16_t* a = Corner(x, y);
    const uint16_t* b = Corner(x + size, y);
    const uint16_t* c = Corner(x, y + size);
    const uint16_t* d = Corner(x + size, y + size);
    const __m128i target = _mm_set1_epi16(int16_t(uint16_t(sum)));
    const __m128i bound = _mm_set1_epi16(int16_t(uint16_t(limit)));
    const __m128i zero = _mm_setzero_si128();
    __m128i out[2];
    for (int h = 0; h < 2; ++h) {
      auto load = [h](const uint16_t* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + h * 8));
      };
      const __m128i v =
          _mm_add_epi16(_mm_sub_epi16(_mm_sub_epi16(load(d), load(c)), load(b)), load(a));
      const __m128i diff = _mm_or_si128(_mm_subs_epu16(v, target), _mm_subs_epu16(target, v));
      // diff < limit exactly when limit - diff, saturated at 0, is not 0.
      out[h] = _mm_cmpeq_epi16(_mm_subs_epu16(bound, diff), zero);
    }
    return ~uint32_t(_mm_movemask_epi8(_mm_packs_epi16(out[0], out[1]))) & 0xFFFFu;
  }
#endif
  uint32_t sums[16];
  Sums(x, y, size, sums);
  uint32_t mask = 0;
  for (int f = 0; f < 16; ++f) {
    const uint32_t diff = sums[f] > sum ? sums[f] - sum : sum - sums[f];
    if (diff < limit) mask |= 1u << f;
  }
  return mask;
}

namespace {
inline uint32_t Distance(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }
}  // namespace

uint32_t zycMotionSearch::SearchBlock(zycBlock& block) const {
  const int32_t s = block.size;
  const int level = zycSizeLevel(s);
  const uint32_t stride = paddedWidth * 4;
  block.children = nullptr;
  block.motionError = zycErrorStart(s);
  block.fadeError = zycErrorStart(s);
  block.motionIndex = 0;
  block.fadeMotionIndex = 0;
  block.fadeIndex = 0;

  const size_t at = size_t(block.y) * stride + size_t(block.x) * 4;
  const uint8_t* cur = sourceYuv + at;
  // The same square in the fades, which may start at a later row.
  const size_t fadeAt = at - size_t(fadeTop) * stride;
  const int32_t fadeY = block.y - int32_t(fadeTop);
  const zycSadFn all = kernels.all[level];
  const zycSadFn colour = kernels.colour[level];
  const zycFadeSadFn fades = kernels.fades[level];
  const int32_t w = int32_t(paddedWidth);
  const int32_t h = int32_t(paddedHeight);

  const bool bounds = sourceSums && referenceSums && !searchOff && count;
  const bool fadeBounds = bounds && fadeSums;
  const uint32_t curSum = bounds ? sourceSums->Sum(block.x, block.y, s) : 0;
  auto inside = [&](uint32_t k) {
    const int32_t sx = block.x + table[k][0];
    const int32_t sy = block.y + table[k][1];
    return sx >= 0 && sy >= 0 && sx + s <= w && sy + s <= h;
  };
  auto nextInside = [&](uint32_t k) {
    while (k < count && !inside(k)) ++k;
    return k;
  };
  const bool pipelined = fadeBounds && !noFade;
  uint32_t k = searchOff ? count : nextInside(0);
  // The fade mask of the next candidate is worked out one step ahead, so that its sums are
  // being fetched while this candidate is compared. It was made with the error as it stood
  // then, which can only have fallen since: it may let through fades that no longer can win,
  // and the comparison below turns those away.
  uint32_t mask = pipelined && k < count
                      ? fadeSums->Candidates(block.x + table[k][0], fadeY + table[k][1], s,
                                             curSum, block.fadeError)
                      : 0;
  while (k < count) {
    if (block.motionError == 0 || block.fadeError == 0) break;
    const uint32_t following = nextInside(k + 1);
    const uint32_t followingMask =
        pipelined && following < count
            ? fadeSums->Candidates(block.x + table[following][0], fadeY + table[following][1],
                                   s, curSum, block.fadeError)
            : 0;
    const int32_t sx = block.x + table[k][0];
    const int32_t sy = block.y + table[k][1];
    const ptrdiff_t offset = ptrdiff_t(table[k][1]) * ptrdiff_t(stride) + ptrdiff_t(table[k][0]) * 4;
    uint32_t err;
    if (!bounds || Distance(curSum, referenceSums[0].Sum(sx, sy, s)) < block.motionError) {
      err = all(cur, references[0] + at + offset, stride, block.motionError);
      if (err < block.motionError) {
        block.motionError = err;
        block.motionIndex = k;
      }
    }
    if (fades && !noFade) {
      // The fades that the sums leave, or all 16 without sums.
      const uint32_t tried = pipelined ? mask : 0xFFFFu;
      if (tried && fades(cur, references + 1, ptrdiff_t(fadeAt) + offset, stride, tried,
                         &block.fadeError, &block.fadeIndex)) {
        block.fadeMotionIndex = k;
      }
    } else if (pipelined) {
      while (mask && block.fadeError) {
        const uint32_t f = uint32_t(__builtin_ctz(mask));
        mask &= mask - 1;
        err = colour(cur, references[f + 1] + fadeAt + offset, stride, block.fadeError);
        if (err < block.fadeError) {
          block.fadeError = err;
          block.fadeMotionIndex = k;
          block.fadeIndex = f;
        }
      }
    } else if (!noFade) {
      for (uint32_t f = 0; f < 16; ++f) {
        if (block.fadeError == 0) break;
        err = colour(cur, references[f + 1] + fadeAt + offset, stride, block.fadeError);
        if (err < block.fadeError) {
          block.fadeError = err;
          block.fadeMotionIndex = k;
          block.fadeIndex = f;
        }
      }
    }
    k = following;
    mask = followingMask;
  }
  if (block.motionError == 0 || block.fadeError == 0) return 0;

  if (!skipDxtError) {
    block.dxtError = kernels.colour[level](cur, dxtPreview[level] + at, stride, 0xFFFFFFFFu);
  }
  if (s == blockMin) return block.motionError;

  zycBlock* four = pool->TakeFour();
  block.children = four;
  const int32_t half = s / 2;
  uint32_t best = block.motionError;
  for (int i = 0; i < 4; ++i) {
    four[i].size = half;
    four[i].x = block.x + (i & 1) * half;
    four[i].y = block.y + (i >> 1) * half;
    uint32_t r = SearchBlock(four[i]);
    if (r < best) best = r;
  }
  return best;
}

bool zycFrameLists::Reserve(uint32_t entries) {
  bool ok = opcodes.Reserve(entries);
  ok = motionBytes.Reserve(entries * 2) && ok;
  ok = fadeBytes.Reserve(entries) && ok;
  ok = motionBlocks.Reserve(entries) && ok;
  ok = dxtList.Reserve(entries) && ok;
  return ok;
}

void zycFrameLists::Clear() {
  opcodes.Clear();
  opcodes.Push(0);
  motionBytes.Clear();
  fadeBytes.Clear();
  motionBlocks.Clear();
  dxtList.Clear();
}

void zycWalk::PushMotion(uint32_t index) const {
  lists->motionBytes.Push(uint8_t(index));
  if (!motionByte) lists->motionBytes.Push(uint8_t(index >> 8));
}

void zycWalk::KeyBlock(const zycBlock& block, uint32_t threshold, uint32_t& errorNext) const {
  if (block.dxtError <= threshold) {
    lists->opcodes.Push(kSymbolColour);
    lists->dxtList.Push(&block);
    return;
  }
  if (block.dxtError < errorNext && block.size > blockMin) errorNext = block.dxtError;
  if (block.size == blockMin || !block.children) {
    lists->opcodes.Push(kSymbolColour);
    lists->dxtList.Push(&block);
    return;
  }
  lists->opcodes.Push(kSymbolSplit);
  for (int i = 0; i < 4; ++i) KeyBlock(block.children[i], threshold, errorNext);
}

uint32_t zycWalk::PBlock(const zycBlock& block, uint32_t threshold, uint32_t& errorNext) const {
  zycFrameLists& l = *lists;
  if (block.motionError <= threshold) {
    l.opcodes.Push(kSymbolCopy);
    PushMotion(block.motionIndex);
    l.motionBlocks.Push(&block);
    return 1;
  }
  uint32_t n = block.motionError;
  if (block.dxtError < n && threshold < block.dxtError) n = block.dxtError;
  if (block.fadeError < n && threshold < block.fadeError) n = block.fadeError;
  if (n < errorNext) errorNext = n;

  if (block.fadeError <= threshold) {
    l.opcodes.Push(kSymbolFade);
    PushMotion(block.fadeMotionIndex);
    l.fadeBytes.Push(uint8_t(block.fadeIndex));
    l.motionBlocks.Push(&block);
    return 0;
  }
  if (block.size == blockMin || block.dxtError <= threshold || !block.children) {
    l.opcodes.Push(kSymbolColour);
    l.dxtList.Push(&block);
    return 0;
  }
  l.opcodes.Push(kSymbolSplit);
  uint32_t sum = 0;
  for (int i = 0; i < 4; ++i) sum += PBlock(block.children[i], threshold, errorNext);
  if (sum != 4) return 0;

  const uint32_t width = motionByte ? 1 : 2;
  const uint32_t m = l.motionBytes.size();
  const uint8_t* last = l.motionBytes.data() + m - 4 * width;
  for (int i = 1; i < 4; ++i) {
    if (std::memcmp(last, last + i * width, width) != 0) return 0;
  }
  l.opcodes.Truncate(l.opcodes.size() - 4);
  l.opcodes[l.opcodes.size() - 1] = kSymbolCopy;
  l.motionBytes.Truncate(m - 3 * width);
  l.motionBlocks.Truncate(l.motionBlocks.size() - 3);
  l.motionBlocks[l.motionBlocks.size() - 1] = &block;
  return 1;
}
