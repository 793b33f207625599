// The encode job: one whole movie, from opening the outputs to closing them.
//
// It opens the main output (or the numbered extra outputs), positions the source at the first
// frame, hands the first picture to the encoder's Begin, every further picture to Next, reports
// each frame to the host's progress callback (which may stop the job) and ends with End. It
// holds no coding logic; the encoder is reached only through the zycJobEncoder seam, so any
// object behind that seam can be driven.
#pragma once

#include <cstdint>

#include "codec/zylCodec.h"
#include "seam/zycJobEncoder.h"
#include "stream/sound.h"

// What a job takes from the codec: its mode and header word, the sound and extra-output
// switches, where the encoders get their sound, and whom to tell about each frame.
struct zycJobSettings {
  uint32_t mode = 0;            // 0 ZYL0, 1 ZYL1: the magic; extra outputs only in ZYL0
  uint32_t headerVersion = 0;   // "HXTC"
  bool soundEnabled = true;     // "SND\0"
  bool skipExtraFiles = false;  // no extra numbered outputs at all
  bool embedRequest = false;    // "EXTC": the extra outputs carry the movie itself
  zylAudioSupplierFn audioSupplier = nullptr;
  void* audioUser = nullptr;
  zylProgressCallback progressCallback = nullptr;
  uint32_t progressUser = 0;
};

// Runs a job with `settings` and `encoder` as the encoder of the mode (null: the mode has no
// encoder, and no Begin, Next or End runs). Returns the codec status code: 0 done, 1 stopped by
// the callback, 2 no source, 3 an output could not be opened or written, Begin failed, or extra
// sound outputs were asked for outside ZYL0. With 3, errno holds the system's reason when a
// file could not be opened or written, and 0 when the job was refused. A write that failed
// mid-job leaves the movie cut back to its last whole frame.
int32_t RunEncodeJob(const zycJobSettings& settings, zycJobEncoder* encoder, zylSource* source,
                     const char16_t* outputName, uint32_t firstFrame, uint32_t frameCount,
                     const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer);

// Characters an output name buffer holds, its terminating zero included.
constexpr size_t kOutputNameBufferLength = 260;
