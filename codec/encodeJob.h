// The encode job: one whole movie, from opening the outputs to closing them.
//
// It opens the main output (or the numbered extra outputs), positions the source at the first
// frame, hands the first picture to the encoder's Begin, every further picture to Next, reports
// each frame to the host's progress callback (which may stop the job) and ends with End. It
// holds no coding logic; the encoder is reached only through the zycJobEncoder seam, so any
// object behind that seam can be driven.
#pragma once

#include <cstdint>

#include "codec/zycCodec.h"

// Runs a job on `codec` with `encoder` as the encoder of the codec's mode (null: the mode has no
// encoder, and no Begin, Next or End runs). Returns the codec status code: 0 done, 1 stopped by
// the callback, 2 no source, 3 an output could not be opened or written, Begin failed, or extra
// sound outputs were asked for outside ZYL0. With 3, errno holds the system's reason when a
// file could not be opened or written, and 0 when the job was refused. A write that failed
// mid-job leaves the movie cut back to its last whole frame.
int32_t RunEncodeJob(zycCodec& codec, zycJobEncoder* encoder, zylSource* source,
                     const char16_t* outputName, uint32_t firstFrame, uint32_t frameCount,
                     const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer);

// Characters an output name buffer holds, its terminating zero included.
constexpr size_t kOutputNameBufferLength = 260;
