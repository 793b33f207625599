#include "mpmc/mpProcOptimized.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "base/consoleLog.h"
#include "mpmc/planeKernels.h"
#include "stream/mpmcTables.h"

int16_t* mpProcOptimized::m_optimizedDict = nullptr;
double (*mpProcOptimized::dictionary)[8] = nullptr;

mpAtom* atoms = nullptr;
mpAtom** sortedAtoms = nullptr;
int32_t atomCount = 0;
int32_t atomBitsTotal = 0;

namespace {

constexpr int32_t kMargin = 8;

int32_t width, height;
int32_t workStride;      // of residual16, best32, bestIndex: width + 2 margins, rounded to 8
int16_t* residual16;     // with a zero margin of 8 that is never written
int32_t* best32;
uint16_t* bestIndex;
int16_t* firstPass;
// Per row of innerProducts: the largest square and the first column holding it, so that a
// whole-picture scan reads one value a row.
double* rowBestSquare;
int32_t* rowBestX;
double cachedBest = -1.0;
int32_t cachedX = 0, cachedY = 0;
McRect area;  // the area of the last search
// zycAtomWeight of every tap of every atom, [atomV][atomH][v][h], made with the dictionary.
int32_t atomWeights[8][8][8][8];

inline int64_t Clamp255(int64_t v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

inline size_t WorkIndex(int32_t x, int32_t y) {
  return static_cast<size_t>(y + kMargin) * workStride + x + kMargin;
}

// (gap >> k) + 1 + k summed over gaps, for every k of 0..15; the smallest sum.
int32_t PositionCost(const int32_t* positions, int32_t count) {
  int64_t best = INT64_MAX;
  for (int32_t k = 0; k < 16; ++k) {
    int64_t sum = 0;
    int32_t previous = 0;
    for (int32_t i = 0; i < count; ++i) {
      sum += ((positions[i] - previous) >> k) + 1 + k;
      previous = positions[i];
    }
    best = std::min(best, sum);
  }
  return static_cast<int32_t>(best);
}

// Double to 32-bit integer by truncation; out of range (or not a number) gives INT32_MIN.
int32_t TruncateToInt32(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// The 16 level costs of one value n, added to `costs`.
void AddLevelCost(int32_t n, int64_t costs[16]) {
  int32_t m = 1;
  for (int32_t k = 0; k < 8; ++k, m <<= 1) {
    costs[k] += (n >> k) + 2 + k;
    if (n == 0)
      n = m;
    else if (n == m)
      n = 0;
    costs[8 + k] += (n >> k) + 2 + k;
  }
}

// The atom list's cost terms kept up to date as atoms are sorted in (level 0 left out): the 16
// position sums, the smallest magnitude and the 16 level costs against it.
struct RunningBits {
  int64_t position[16];
  int64_t level[16];
  int32_t minLevel;
  int32_t count;
};
RunningBits running;

// The running terms with atom `a` sorted in.
RunningBits WithAtom(const mpAtom* a) {
  RunningBits next = running;
  if (a->level == 0) return next;
  const int32_t pos = a->y * width + a->x;
  // Neighbours among the sorted atoms of non-zero level: the last at or before pos, the first at
  // or after it. Equal positions make gaps of 0 whichever way they are ordered.
  int32_t lo = 0, hi = atomCount;
  while (lo < hi) {
    const int32_t mid = (lo + hi) / 2;
    if (sortedAtoms[mid]->y * width + sortedAtoms[mid]->x < pos) lo = mid + 1; else hi = mid;
  }
  int32_t before = 0;
  bool hasAfter = false;
  int32_t after = 0;
  for (int32_t i = lo - 1; i >= 0; --i)
    if (sortedAtoms[i]->level != 0) {
      before = sortedAtoms[i]->y * width + sortedAtoms[i]->x;
      break;
    }
  for (int32_t i = lo; i < atomCount; ++i)
    if (sortedAtoms[i]->level != 0) {
      after = sortedAtoms[i]->y * width + sortedAtoms[i]->x;
      hasAfter = true;
      break;
    }
  for (int32_t k = 0; k < 16; ++k) {
    next.position[k] += ((pos - before) >> k) + 1 + k;
    // The gap from before to after splits in two: one gap more, of the two new lengths.
    if (hasAfter) next.position[k] += ((after - pos) >> k) - ((after - before) >> k);
  }
  const int32_t magnitude = std::abs(a->level);
  if (running.count > 0 && magnitude >= running.minLevel) {
    AddLevelCost(magnitude - running.minLevel, next.level);
  } else {
    next.minLevel = magnitude;
    for (int32_t c = 0; c < 16; ++c) next.level[c] = 0;
    for (int32_t i = 0; i < atomCount; ++i)
      if (sortedAtoms[i]->level != 0) AddLevelCost(std::abs(sortedAtoms[i]->level) - magnitude, next.level);
    AddLevelCost(0, next.level);
  }
  next.count += 1;
  return next;
}

int32_t BitsOf(const RunningBits& r, int32_t atoms) {
  const int64_t position = *std::min_element(r.position, r.position + 16);
  const int64_t level = *std::min_element(r.level, r.level + 16);
  return static_cast<int32_t>(position + level) + atoms * 6;
}

// Scratch for atomBits: the positions and magnitudes of the atoms in order.
int32_t* bitsPositions = nullptr;
int32_t* bitsMagnitudes = nullptr;

}  // namespace

// Level costs of magnitudes less minLevel under the 16 candidates (plain k, then swapped k),
// with the swap carried from one k to the next.
void zycLevelCosts(const int32_t* magnitudes, int32_t count, int32_t minLevel, int64_t costs[16]) {
  for (int32_t c = 0; c < 16; ++c) costs[c] = 0;
  for (int32_t i = 0; i < count; ++i) AddLevelCost(magnitudes[i] - minLevel, costs);
}

void zycFilterBankPlain(const zycFilterArea& a, const int16_t* dict) {
  const int32_t areaW = a.x1 - a.x0;
  const int32_t rows = a.y1 - a.y0 + 8;
  for (int32_t i = 0; i < 8; ++i) {
    const int16_t* h = dict + i * 8;
    for (int32_t r = 0; r < rows; ++r) {
      const int16_t* res = a.residual + static_cast<ptrdiff_t>(a.y0 - 4 + r) * a.residualStride + a.x0 - 4;
      int16_t* out = a.firstPass + static_cast<size_t>(r) * areaW;
      for (int32_t x = 0; x < areaW; ++x) {
        int32_t q = 0;
        for (int32_t n = 0; n < 8; ++n) q += res[x + n] * h[n];
        out[x] = static_cast<int16_t>(q >> 10);
      }
    }
    for (int32_t j = 0; j < 8; ++j) {
      const int16_t* v = dict + j * 8;
      const uint16_t index = static_cast<uint16_t>(i + 8 * j);
      for (int32_t y = 0; y < a.y1 - a.y0; ++y) {
        int32_t* best = a.best + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
        uint16_t* bestIdx = a.bestIndex + static_cast<ptrdiff_t>(a.y0 + y) * a.bestStride + a.x0;
        for (int32_t x = 0; x < areaW; ++x) {
          uint32_t sum = 0;
          for (int32_t n = 0; n < 8; ++n)
            sum += static_cast<uint32_t>(a.firstPass[static_cast<size_t>(y + n) * areaW + x] * v[n]);
          const int32_t value = static_cast<int32_t>(sum);
          if (std::llabs(value) > std::llabs(best[x])) {
            best[x] = value;
            bestIdx[x] = index;
          }
        }
      }
    }
  }
}

void mpProcOptimized::makeDictionary() {
  dictionary = static_cast<double(*)[8]>(mpmcAlloc(64 * sizeof(double)));
  zycAtomShapes(dictionary);
  for (int32_t i = 0; i < 64; ++i) zycLog("make_dictionary[%2d]: %f\n", i, dictionary[i / 8][i % 8]);
}

void mpProcOptimized::freeDictionary() {
  mpmcFree(dictionary);
  dictionary = nullptr;
}

void mpProcOptimized::initOptimizedDict() {
  ZYC_ASSERT(m_optimizedDict == nullptr, "mpProcOptimized::initOptimizedDict",
             "m_optimizedDict already created\n");
  m_optimizedDict = static_cast<int16_t*>(mpmcAlloc(64 * sizeof(int16_t)));
  for (int32_t atomV = 0; atomV < 8; ++atomV)
    for (int32_t atomH = 0; atomH < 8; ++atomH)
      for (int32_t v = 0; v < 8; ++v)
        for (int32_t h = 0; h < 8; ++h)
          atomWeights[atomV][atomH][v][h] = zycAtomWeight(dictionary, atomH, atomV, h, v);
  for (int32_t i = 0; i < 64; ++i) {
    const double v = dictionary[i / 8][i % 8] * 32768.0;
    const double r = v >= 0 ? std::floor(v + 0.5) : -std::floor(-v + 0.5);
    m_optimizedDict[i] = static_cast<int16_t>(std::clamp(r, -32768.0, 32767.0));
  }
}

void mpProcOptimized::freeOptimizedDict() {
  mpmcFree(m_optimizedDict);
  m_optimizedDict = nullptr;
}

void mpProcOptimized::buildAtomArrays(int32_t count) {
  atoms = static_cast<mpAtom*>(mpmcAlloc(static_cast<size_t>(count) * sizeof(mpAtom)));
  std::memset(atoms, 0, static_cast<size_t>(count) * sizeof(mpAtom));
  sortedAtoms = static_cast<mpAtom**>(mpmcAlloc(static_cast<size_t>(count) * sizeof(mpAtom*)));
  bitsPositions = static_cast<int32_t*>(mpmcAlloc(static_cast<size_t>(count + 1) * sizeof(int32_t)));
  bitsMagnitudes = static_cast<int32_t*>(mpmcAlloc(static_cast<size_t>(count + 1) * sizeof(int32_t)));
}

void mpProcOptimized::freeAtomArrays() {
  mpmcFree(bitsMagnitudes);
  mpmcFree(bitsPositions);
  mpmcFree(sortedAtoms);
  mpmcFree(atoms);
  atoms = nullptr;
  sortedAtoms = nullptr;
  bitsPositions = bitsMagnitudes = nullptr;
}

void mpProcOptimized::buildWorkBuffers(int32_t w, int32_t h) {
  width = w;
  height = h;
  workStride = (w + 2 * kMargin + 7) & ~7;
  const size_t cells = static_cast<size_t>(workStride) * (h + 2 * kMargin);
  residual16 = static_cast<int16_t*>(mpmcAlloc(cells * sizeof(int16_t)));
  firstPass = static_cast<int16_t*>(mpmcAlloc(static_cast<size_t>(w) * (h + 8) * sizeof(int16_t)));
  best32 = static_cast<int32_t*>(mpmcAlloc(cells * sizeof(int32_t)));
  bestIndex = static_cast<uint16_t*>(mpmcAlloc(cells * sizeof(uint16_t)));
  std::memset(residual16, 0, cells * sizeof(int16_t));
  std::memset(best32, 0, cells * sizeof(int32_t));
  std::memset(bestIndex, 0, cells * sizeof(uint16_t));
  rowBestSquare = static_cast<double*>(mpmcAlloc(sizeof(double) * h));
  rowBestX = static_cast<int32_t*>(mpmcAlloc(sizeof(int32_t) * h));
  cachedBest = -1.0;
  cachedX = cachedY = 0;
}

void mpProcOptimized::freeWorkBuffers() {
  mpmcFree(rowBestX);
  mpmcFree(rowBestSquare);
  rowBestX = nullptr;
  rowBestSquare = nullptr;
  mpmcFree(bestIndex);
  mpmcFree(best32);
  mpmcFree(firstPass);
  mpmcFree(residual16);
  bestIndex = nullptr;
  best32 = nullptr;
  firstPass = nullptr;
  residual16 = nullptr;
}

void mpProcOptimized::reset() {
  clearLabel(atomIndexMap);
  fillMatrix(innerProducts, 0.0);
  fillMatrix(residual, 0.0);
  clearLabel(mpImage);
  for (int32_t y = 0; y < height; ++y) {
    rowBestSquare[y] = 0.0;
    rowBestX[y] = 0;
  }
  atomCount = 0;
  atomBitsTotal = 0;
  running = RunningBits{};
}

void mpProcOptimized::initSearchFromProfessorData(const mpmcParam* p, Pic* source, Label* mc,
                                                  Label* mp, const McRect& r) {
  ZYC_ASSERT(p->fixedpoint_mp == 1, "mpProcOptimized::initSearchFromProfessorData",
             "param->fixedpoint_mp value must be YES\n");
  area = {std::max(r.x0 - 4, 0), std::max(r.y0 - 4, 0), std::min(r.x1 + 4, width),
          std::min(r.y1 + 4, height)};
  const int32_t wx0 = std::max(area.x0 - 4, 0), wy0 = std::max(area.y0 - 4, 0);
  const int32_t wx1 = std::min(area.x1 + 4, width), wy1 = std::min(area.y1 + 4, height);
  for (int32_t y = wy0; y < wy1; ++y) {
    const uint8_t* o = source->rows[y];
    const int32_t* c = mc->rows[y];
    const int32_t* m = mp->rows[y];
    double* res = residual->rows[y];
    int16_t* res16 = residual16 + WorkIndex(0, y);
    for (int32_t x = wx0; x < wx1; ++x) {
      const int32_t v = o[x] - Clamp255(c[x] + m[x]);
      res[x] = v;
      res16[x] = static_cast<int16_t>(v);
    }
  }
  for (int32_t y = area.y0; y < area.y1; ++y)
    std::memset(best32 + WorkIndex(area.x0, y), 0, (area.x1 - area.x0) * sizeof(int32_t));
}

void mpProcOptimized::mpSearch() {
  if (area.x1 <= area.x0 || area.y1 <= area.y0) return;
  zycFilterArea a{residual16 + WorkIndex(0, 0), workStride, firstPass, best32 + WorkIndex(0, 0),
                  bestIndex + WorkIndex(0, 0), workStride, area.x0, area.y0, area.x1, area.y1};
  planeKernels.filterBank(a, m_optimizedDict);
  constexpr double scale = 1.0 / 1048576.0;
  for (int32_t y = area.y0; y < area.y1; ++y) {
    const int32_t* b = best32 + WorkIndex(0, y);
    const uint16_t* bi = bestIndex + WorkIndex(0, y);
    double* ip = innerProducts->rows[y];
    int32_t* index = atomIndexMap->rows[y];
    for (int32_t x = area.x0; x < area.x1; ++x) {
      ip[x] = b[x] * scale;
      index[x] = bi[x];
    }
    // The row's first largest square: a best outside the area is still the first largest of
    // the unchanged pixels, so only the area is compared with it; else the row is scanned.
    double best = rowBestSquare[y];
    int32_t bestX = rowBestX[y];
    if (bestX >= area.x0 && bestX < area.x1) {
      best = ip[0] * ip[0];
      bestX = 0;
      for (int32_t x = 1; x < width; ++x)
        if (ip[x] * ip[x] > best) {
          best = ip[x] * ip[x];
          bestX = x;
        }
    } else {
      for (int32_t x = area.x0; x < area.x1; ++x) {
        const double square = ip[x] * ip[x];
        if (square > best || (square == best && x < bestX)) {
          best = square;
          bestX = x;
        }
      }
    }
    rowBestSquare[y] = best;
    rowBestX[y] = bestX;
  }
}

double nextAtom(const McRect& changedRect, const mpmcParam* p) {
  sortedAtoms[atomCount] = &atoms[atomCount];
  mpProcOptimized::initSearchFromProfessorData(p, &sourcePic, mcImage, mpImage, changedRect);
  mpProcOptimized::mpSearch();
  McRect scan = area;  // changedRect widened by 4, clamped
  if (cachedX >= scan.x0 && cachedX < scan.x1 && cachedY >= scan.y0 && cachedY < scan.y1) {
    cachedBest = -1.0;
    cachedX = cachedY = 0;
  }
  if (cachedBest < 0) {
    // The first pixel in raster order with the largest square.
    for (int32_t y = 0; y < height; ++y)
      if (rowBestSquare[y] > cachedBest) {
        cachedBest = rowBestSquare[y];
        cachedX = rowBestX[y];
        cachedY = y;
      }
    scan = {0, 0, 0, 0};
  }
  for (int32_t y = scan.y0; y < scan.y1; ++y) {
    const double* ip = innerProducts->rows[y];
    for (int32_t x = scan.x0; x < scan.x1; ++x)
      if (ip[x] * ip[x] > cachedBest) {
        cachedBest = ip[x] * ip[x];
        cachedX = x;
        cachedY = y;
      }
  }
  mpAtom* atom = &atoms[atomCount];
  atom->x = cachedX;
  atom->y = cachedY;
  atom->coefficient = innerProducts->rows[cachedY][cachedX];
  atom->level = quantRound(atom->coefficient / p->quantStep);
  const int32_t index = atomIndexMap->rows[cachedY][cachedX];
  atom->atomH = index % 8;
  atom->atomV = index / 8;
  McRect rect;
  const int32_t g = atomDelta(atom, mcImage, nullptr, p, &rect, p->quantStep);
  const int32_t n = atomBits(atomCount) - atomBitsTotal;
  if (n >= 50) return g / 50.0;
  if (n <= 1) return g / 1.0;
  return static_cast<double>(g) / n;
}

int32_t applyAtom(int32_t* gainOut, McRect* changedRectOut, const mpmcParam* p) {
  *gainOut = atomDelta(&atoms[atomCount], mcImage, mpImage, p, changedRectOut, p->quantStep);
  return sortInAtom();
}

int32_t sortInAtom() {
  mpAtom* atom = &atoms[atomCount];
  const RunningBits next = WithAtom(atom);
  const int32_t n = BitsOf(next, atomCount + 1) - atomBitsTotal;
  const int32_t position = atom->y * width + atom->x;
  int32_t i = atomCount;
  while (i > 0 && position <= sortedAtoms[i - 1]->y * width + sortedAtoms[i - 1]->x) {
    sortedAtoms[i] = sortedAtoms[i - 1];
    --i;
  }
  sortedAtoms[i] = atom;
  running = next;
  atomBitsTotal += n;
  atomCount += 1;
  return n;
}

int32_t atomDelta(const mpAtom* atom, Label* mc, Label* mp, const mpmcParam* p, McRect* rect,
                  double step) {
  const int32_t x0 = std::max(atom->x - 4, 0), y0 = std::max(atom->y - 4, 0);
  const int32_t x1 = std::min(atom->x + 4, width), y1 = std::min(atom->y + 4, height);
  *rect = {x0, y0, x1, y1};
  const int64_t c = quantRound(atom->level * step);
  int64_t g = 0;
  for (int32_t y = y0; y < y1; ++y) {
    const int32_t* weights = atomWeights[atom->atomV][atom->atomH][y - (atom->y - 4)];
    for (int32_t x = x0; x < x1; ++x) {
      const int64_t d = zycAtomDelta(c * weights[x - (atom->x - 4)]);
      if (mp) {
        const int64_t t = static_cast<int64_t>(mc->rows[y][x]) + mp->rows[y][x];
        const int64_t o = sourcePic.rows[y][x];
        const int64_t after = Clamp255(t + d);
        const int64_t e0 = o - Clamp255(t), e1 = o - after;
        g += e0 * e0 - e1 * e1;
        mp->rows[y][x] = static_cast<int32_t>(after - mc->rows[y][x]);
      } else {
        const int64_t r = static_cast<int64_t>(std::trunc(residual->rows[y][x]));
        g += r * r - (r - d) * (r - d);
      }
    }
  }
  return static_cast<int32_t>(g);
}

int32_t atomBits(int32_t last) {
  if (last < 0) return 0;
  // The next atom on top of the sorted ones: from the running terms.
  if (last == atomCount) return BitsOf(WithAtom(&atoms[last]), last + 1);
  return zycAtomBitsScan(last);
}

int32_t zycAtomBitsScan(int32_t last) {
  if (last < 0) return 0;
  // The atoms in position order, the unsorted last one merged in, level 0 left out.
  const bool merge = last >= atomCount;
  const mpAtom* extra = merge ? &atoms[last] : nullptr;
  const int32_t extraPos = merge ? extra->y * width + extra->x : 0;
  int32_t count = 0;
  bool merged = !merge;
  auto take = [&](const mpAtom* a) {
    if (a->level == 0) return;
    bitsPositions[count] = a->y * width + a->x;
    bitsMagnitudes[count] = std::abs(a->level);
    ++count;
  };
  const int32_t sorted = std::min(atomCount, last + 1);
  for (int32_t i = 0; i < sorted; ++i) {
    const mpAtom* a = sortedAtoms[i];
    if (!merged && extraPos <= a->y * width + a->x) {
      take(extra);
      merged = true;
    }
    take(a);
  }
  if (!merged) take(extra);

  const int32_t positionCost = count ? PositionCost(bitsPositions, count) : 0;
  int32_t minLevel = 0;
  if (count) minLevel = *std::min_element(bitsMagnitudes, bitsMagnitudes + count);
  int64_t costs[16];
  zycLevelCosts(bitsMagnitudes, count, minLevel, costs);
  const int64_t levelCost = *std::min_element(costs, costs + 16);
  return positionCost + static_cast<int32_t>(levelCost) + (last + 1) * 6;
}

int32_t requantize(double s, double multiplier) {
  clearLabel(mpImage);
  for (int32_t i = 0; i < atomCount; ++i) {
    mpAtom* atom = sortedAtoms[i];
    atom->level = quantRound(atom->coefficient / s);
    McRect rect;
    atomDelta(atom, mcImage, mpImage, &param, &rect, s);
  }
  // An atom changes mpImage only inside its rectangle, so the residual after all of them is
  // source - mc - mp at every pixel: made in the same pass as the squared error.
  double sse = 0.0;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* o = sourcePic.rows[y];
    const int32_t* c = mcImage->rows[y];
    const int32_t* m = mpImage->rows[y];
    double* res = residual->rows[y];
    for (int32_t x = 0; x < width; ++x) {
      const double d = o[x] - c[x] - m[x];
      res[x] = d;
      sse += d * d;
    }
  }
  return TruncateToInt32(atomBits(atomCount - 1) * multiplier + sse);
}
