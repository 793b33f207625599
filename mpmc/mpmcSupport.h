// The containers and buffer plan beneath the MPMCAF plane coder: integer images (`Label`),
// matrices of doubles, picture records, the one allocator with its count of live blocks, the
// loop's parameters and images, and the order in which the search modules' buffers are built
// for a plane size and torn down.
// State: single-instance module state of the plane coder (one plane coder per process).
#pragma once

#include <cstddef>
#include <cstdint>

struct Label {
  int32_t** rows;  // height pointers into one block
  int32_t width;
  int32_t height;
};

struct Matrix {
  int32_t rowCount;
  int32_t columnCount;
  double** rows;  // rowCount pointers into one block
};

struct Pic {
  int32_t width;
  int32_t height;
  uint8_t** rows;  // height pointers into the plane in use; the record owns the array only
};

// A rectangle of pixels, x0 <= x < x1, y0 <= y < y1.
// v held to 0..255.
inline int32_t Clamp255(int32_t v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

struct McRect {
  int32_t x0, y0, x1, y1;
};

// What the motion and affine searches take from a changed rectangle: `work`, the rectangle
// widened to the 4-pixel grid, and `changed`, the rectangle itself, both clamped to the plane;
// and the target clamp(source - mpImage) refreshed inside the rectangle.
struct Label;
struct Pic;
void mpmcSearchRects(const McRect& changedRect, int32_t width, int32_t height, McRect* work,
                     McRect* changed);
void mpmcTargetBytes(const Pic* source, const Label* mp, const McRect& changedRect, int32_t width,
                     uint8_t* targetBytes);

struct mpmcParam {
  int32_t width;
  int32_t height;
  int32_t MV_START_BLOCK_SIZE;  // also the affine search's smallest block
  int32_t searchRange;
  int32_t blockSizeCount;
  int32_t maxIterations;
  int32_t targetBits;
  double targetSnr;
  double gainFloor;
  double quantStep;
  int32_t halfPel;
  int32_t mpSeparate;
  int32_t fixedpoint_mp;
  int32_t overlapped;
};

// Blocks allocated through mpmcAlloc and not yet freed.
extern uint32_t allocCount;

extern mpmcParam param;
extern Pic sourcePic, referencePic, reconPic;
extern Label *mcImage, *mpImage, *paddedRef, *labelMap, *targetImage, *errorImage;
extern Label* atomIndexMap;
extern Matrix *innerProducts, *spareMatrix, *residual;

// Aligned allocation; on failure prints "! Can't allocate memory (%d, %d)\n" with the bytes and
// allocCount, and ends the process with exit code 1.
void* mpmcAlloc(size_t bytes, size_t alignment = 16);
// Frees and counts down; a null pointer prints "Can't free memory\n" and goes on.
void mpmcFree(void* block);

Label* allocLabel(int32_t width, int32_t height);
void clearLabel(Label* label);
void free_label(Label* label);
Matrix* allocMatrix(int32_t rows, int32_t columns, double value);
void fillMatrix(Matrix* matrix, double value);
void free_matrix(Matrix* matrix);

// The loop's defaults (width, height and targetBits aside).
void setDefaultParam();
void buildPlaneBuffers();
void freePlaneBuffers();
void buildJobBuffers();
void freeJobBuffers();

// Writes clamp(mcImage + mpImage) to reconPic and returns its SNR against sourcePic;
// *sseOut (if given) receives the sum of squared differences.
double planeSnr(double* sseOut, Pic* pic);

// One entry of the block list.
struct McBlock {
  int32_t x, y, size;
  float dx, dy;  // the vector in pixels, half-pel steps, for type 0
  int16_t a, b;  // brightness map a / 256 * ref + b, for type 1
  uint8_t type;  // 0 motion, 1 affine
};

// One entry of the atom list.
struct mpAtom {
  int32_t x, y;
  int32_t atomH, atomV;  // horizontal and vertical shape, 0..7
  double coefficient;    // the inner product as found
  int32_t level;         // the quantised coefficient
};

// 0 at the start of a plane, then 1 after a motion block, 2 after an atom, 3 after an affine block.
extern int32_t lastMethod;
