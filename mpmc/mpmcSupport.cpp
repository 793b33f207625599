#include "mpmc/mpmcSupport.h"

#include <algorithm>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "base/consoleLog.h"
#include "mpmc/afProcOptimized.h"
#include "mpmc/mcProcOptimized.h"
#include "mpmc/mpProcOptimized.h"

uint32_t allocCount = 0;
mpmcParam param;
Pic sourcePic, referencePic, reconPic;
Label *mcImage, *mpImage, *paddedRef, *labelMap, *targetImage, *errorImage;
Label* atomIndexMap;
Matrix *innerProducts, *spareMatrix, *residual;
int32_t lastMethod = 0;

// The block list of the loop and a small array that nothing reads, made with the job buffers.
extern McBlock* blockList;
extern int32_t* blockSizeWords;

void* mpmcAlloc(size_t bytes, size_t alignment) {
  const size_t rounded = (bytes + alignment - 1) / alignment * alignment;
  void* block = std::aligned_alloc(alignment, rounded ? rounded : alignment);
  if (!block) {
    zycLog("! Can't allocate memory (%d, %d)\n", static_cast<int>(bytes), static_cast<int>(allocCount));
    std::fflush(stdout);
    std::exit(1);
  }
  ++allocCount;
  return block;
}

void mpmcFree(void* block) {
  if (!block) {
    zycLog("Can't free memory\n");
    return;
  }
  std::free(block);
  --allocCount;
}

Label* allocLabel(int32_t width, int32_t height) {
  Label* label = static_cast<Label*>(mpmcAlloc(sizeof(Label)));
  label->rows = static_cast<int32_t**>(mpmcAlloc(sizeof(int32_t*) * height));
  int32_t* data = static_cast<int32_t*>(mpmcAlloc(sizeof(int32_t) * width * height));
  std::memset(data, 0, sizeof(int32_t) * width * height);
  for (int32_t y = 0; y < height; ++y) label->rows[y] = data + static_cast<size_t>(y) * width;
  label->width = width;
  label->height = height;
  return label;
}

void clearLabel(Label* label) {
  if (label->height > 0) std::memset(label->rows[0], 0, sizeof(int32_t) * label->width * label->height);
}

void free_label(Label* label) {
  if (!label || !label->rows) {
    zycLog("Null pointer free_label()\n");
    return;
  }
  int32_t* lowest = label->rows[0];
  for (int32_t y = 1; y < label->height; ++y)
    if (label->rows[y] < lowest) lowest = label->rows[y];
  mpmcFree(lowest);
  mpmcFree(label->rows);
  mpmcFree(label);
}

Matrix* allocMatrix(int32_t rows, int32_t columns, double value) {
  Matrix* matrix = static_cast<Matrix*>(mpmcAlloc(sizeof(Matrix)));
  matrix->rowCount = rows;
  matrix->columnCount = columns;
  matrix->rows = static_cast<double**>(mpmcAlloc(sizeof(double*) * rows));
  double* data = static_cast<double*>(mpmcAlloc(sizeof(double) * rows * columns));
  for (int32_t r = 0; r < rows; ++r) matrix->rows[r] = data + static_cast<size_t>(r) * columns;
  fillMatrix(matrix, value);
  return matrix;
}

void fillMatrix(Matrix* matrix, double value) {
  const size_t count = static_cast<size_t>(matrix->rowCount) * matrix->columnCount;
  double* data = matrix->rowCount ? matrix->rows[0] : nullptr;
  for (size_t i = 0; i < count; ++i) data[i] = value;
}

void free_matrix(Matrix* matrix) {
  if (!matrix || !matrix->rows) {
    zycLog("Null free_matrix()\n");
    return;
  }
  double* lowest = matrix->rows[0];
  for (int32_t r = 1; r < matrix->rowCount; ++r)
    if (matrix->rows[r] < lowest) lowest = matrix->rows[r];
  mpmcFree(lowest);
  mpmcFree(matrix->rows);
  mpmcFree(matrix);
}

void setDefaultParam() {
  param.MV_START_BLOCK_SIZE = 4;
  param.searchRange = 16;
  param.blockSizeCount = 4;
  param.maxIterations = 8192;
  param.targetBits = 0;
  param.targetSnr = 51.0;
  param.gainFloor = -1.0;
  param.quantStep = 8.0;
  param.halfPel = 1;
  param.mpSeparate = 1;
  param.fixedpoint_mp = 1;
  param.overlapped = 1;
}

void buildPlaneBuffers() {
  const int32_t w = param.width, h = param.height;
  for (Pic* pic : {&sourcePic, &referencePic, &reconPic}) {
    pic->width = w;
    pic->height = h;
    pic->rows = static_cast<uint8_t**>(mpmcAlloc(sizeof(uint8_t*) * h));
  }
  mcImage = allocLabel(w, h);
  mpImage = allocLabel(w, h);
  atomIndexMap = allocLabel(w, h);
  innerProducts = allocMatrix(h, w, 0.0);
  spareMatrix = allocMatrix(h, w, 0.0);
  residual = allocMatrix(h, w, 0.0);
  mpProcOptimized::buildWorkBuffers(w, h);
  const int32_t margin = 2 * param.searchRange + 16;
  paddedRef = allocLabel(w + margin, h + margin);
  labelMap = allocLabel(w, h);
  targetImage = allocLabel(w, h);
  errorImage = allocLabel(w, h);
  mcProcOptimized::init(w, h);
  afProcOptimized::init(w, h);
}

void freePlaneBuffers() {
  for (Pic* pic : {&sourcePic, &referencePic, &reconPic}) {
    mpmcFree(pic->rows);
    pic->rows = nullptr;
  }
  free_label(mcImage);
  free_label(mpImage);
  free_label(atomIndexMap);
  free_matrix(innerProducts);
  free_matrix(spareMatrix);
  free_matrix(residual);
  mpProcOptimized::freeWorkBuffers();
  free_label(paddedRef);
  free_label(labelMap);
  free_label(targetImage);
  free_label(errorImage);
  mcProcOptimized::release();
  afProcOptimized::release();
  mcImage = mpImage = atomIndexMap = paddedRef = labelMap = targetImage = errorImage = nullptr;
  innerProducts = spareMatrix = residual = nullptr;
}

void buildJobBuffers() {
  mpProcOptimized::buildAtomArrays(param.maxIterations);
  blockList = static_cast<McBlock*>(mpmcAlloc(sizeof(McBlock) * param.maxIterations));
  std::memset(blockList, 0, sizeof(McBlock) * param.maxIterations);
  blockSizeWords = static_cast<int32_t*>(mpmcAlloc(sizeof(int32_t) * (param.blockSizeCount + 1)));
  initOmcWindows();
  mpProcOptimized::makeDictionary();
  mpProcOptimized::initOptimizedDict();
}

void freeJobBuffers() {
  freePlaneBuffers();
  mpProcOptimized::freeAtomArrays();
  mpmcFree(blockList);
  mpmcFree(blockSizeWords);
  blockList = nullptr;
  blockSizeWords = nullptr;
  freeOmcWindows();
  mpProcOptimized::freeDictionary();
  mpProcOptimized::freeOptimizedDict();
}

double planeSnr(double* sseOut, Pic* pic) {
  double s = 0.0;
  for (int32_t y = 0; y < param.height; ++y) {
    const int32_t* c = mcImage->rows[y];
    const int32_t* m = mpImage->rows[y];
    const uint8_t* o = sourcePic.rows[y];
    uint8_t* out = pic->rows[y];
    for (int32_t x = 0; x < param.width; ++x) {
      const int32_t v = c[x] + m[x];
      const int32_t clamped = v < 0 ? 0 : (v > 255 ? 255 : v);
      out[x] = static_cast<uint8_t>(clamped);
      const double d = o[x] - clamped;
      s += d * d;
    }
  }
  if (sseOut) *sseOut = s;
  return std::log(65025.0 / (s / (static_cast<double>(param.width) * param.height))) * 10.0 /
         2.302585092994046;
}

void mpmcSearchRects(const McRect& changedRect, int32_t width, int32_t height, McRect* work,
                     McRect* changed) {
  work->x0 = std::clamp(changedRect.x0 & ~3, 0, width);
  work->y0 = std::clamp(changedRect.y0 & ~3, 0, height);
  work->x1 = std::clamp((changedRect.x1 + 3) & ~3, 0, width);
  work->y1 = std::clamp((changedRect.y1 + 3) & ~3, 0, height);
  *changed = {std::clamp(changedRect.x0, 0, width), std::clamp(changedRect.y0, 0, height),
              std::clamp(changedRect.x1, 0, width), std::clamp(changedRect.y1, 0, height)};
}

void mpmcTargetBytes(const Pic* source, const Label* mp, const McRect& changedRect, int32_t width,
                     uint8_t* targetBytes) {
  for (int32_t y = changedRect.y0; y < changedRect.y1; ++y) {
    const uint8_t* o = source->rows[y];
    const int32_t* m = mp->rows[y];
    uint8_t* t = targetBytes + static_cast<size_t>(y) * width;
    for (int32_t x = changedRect.x0; x < changedRect.x1; ++x) {
      t[x] = static_cast<uint8_t>(Clamp255(o[x] - m[x]));
    }
  }
}
