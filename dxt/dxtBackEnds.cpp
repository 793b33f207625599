#include "dxt/dxtBackEnds.h"

#include "dxt/baseColourDxt.h"
#include "dxt/fastDxt.h"
#include "dxt/squishFront.h"

uint32_t zycDxtBackEndInUse(uint32_t backEnd) {
  if (backEnd == kDxtBackEndDevice || backEnd >= kDxtBackEndCount) return kDxtBackEndSquishRange;
  return backEnd;
}

int zycDxtBackEndSquishFlags(uint32_t backEnd) {
  using namespace zycSquish;
  switch (backEnd) {
    case kDxtBackEndSquishIterative:
      return kDxt1 | kColourIterativeClusterFit | kColourMetricPerceptual;
    case kDxtBackEndSquishClusterUniform:
      return kDxt1 | kColourClusterFit | kColourMetricUniform;
    case kDxtBackEndSquishRange:
      return kDxt1 | kColourRangeFit | kColourMetricUniform;
    case kDxtBackEndSquish:
      return kDxt1;  // completed to cluster fit with the perceptual metric
    default:
      return 0;
  }
}

void zycDxtCompress(uint32_t backEnd, const uint8_t* pixels, uint32_t width, uint32_t height,
                    uint8_t* blocks) {
  backEnd = zycDxtBackEndInUse(backEnd);
  if (backEnd == kDxtBackEndFast || backEnd == kDxtBackEndBaseColour) {
    zycDxtCompressHere(backEnd, pixels, width, height, blocks);
    return;
  }
  zycSquish::CompressImage(pixels, int(width), int(height), blocks,
                           zycDxtBackEndSquishFlags(backEnd));
}

void zycDxtCompressHere(uint32_t backEnd, const uint8_t* pixels, uint32_t width,
                        uint32_t height, uint8_t* blocks) {
  backEnd = zycDxtBackEndInUse(backEnd);
  switch (backEnd) {
    case kDxtBackEndFast:
      zycFastDxt(pixels, width, height, blocks);
      break;
    case kDxtBackEndBaseColour:
      zycCompressDxtn(4, int(width), int(height), pixels, blocks);
      break;
    default:
      zycSquish::CompressBlocks(pixels, int(width), int(height), blocks,
                                zycDxtBackEndSquishFlags(backEnd));
      break;
  }
}
