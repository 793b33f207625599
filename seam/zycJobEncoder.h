// The seam between the encode job and the encoders: Begin, Next and End of the mode's encoder.
// Both encoders implement it; the job's tests drive the job through a recording encoder behind
// the same seam. Interface only, no state.
#pragma once

#include <cstdint>
#include <cstdio>

#include "base/fileIo.h"
#include "base/zylTypes.h"
#include "stream/sound.h"
#include "stream/zylFormat.h"

// The extra numbered outputs of a job: five slots, the first four of which the job may open.
constexpr int kExtraOutputCount = 5;

class zycJobEncoder {
 public:
  virtual ~zycJobEncoder() = default;

  // The job's first source frame and its number of frames, before Begin.
  virtual void SetJobRange(uint32_t firstFrame, uint32_t frameTotal) = 0;
  // Writes the header and the first key frame. 0 on success; anything else refuses the job.
  // `output->file` may be null when the movie goes only to the extra outputs.
  virtual int32_t Begin(zycStreamHeader& header, const zylFrameImage& image, zycFileHolder* output,
                        FILE** extraOutputs, zylAudioSupplierFn audioSupplier, void* audioUser,
                        zylProgress* progress, const zylKeyframeRange* keyframePlan) = 0;
  // Codes one more picture. The job does not look at the result.
  virtual int32_t Next(const zylFrameImage& image, zylProgress* progress) = 0;
  // Ends the job: flushes and releases what Begin made.
  virtual void End() = 0;
  // The reconstructed picture (32-bit pixels) and its bytes per row.
  virtual const uint8_t* Reconstructed() const = 0;
  virtual uint32_t Pitch() const = 0;
  // The "pFMT" value of this encoder, read by the job for the header flags.
  virtual uint32_t SoundFlags() const = 0;
};
