#include "codec/encodeJob.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "base/consoleLog.h"
#include "base/fileIo.h"
#include "base/timers.h"
#include "codec/framePump.h"
#include "stream/zylFormat.h"

namespace {

constexpr uint32_t kFlagEmbeddedSound = 32;
constexpr uint32_t kFlagExtraOutputs = 1 | 2 | 4 | 8;

void CopyName(char16_t* buffer, const std::u16string& name) {
  size_t n = name.size() < kOutputNameBufferLength - 1 ? name.size() : kOutputNameBufferLength - 1;
  name.copy(buffer, n);
  buffer[n] = 0;
}

// The name of extra output `index` (1 to 4): the output name cut at its last ".zyl" (searched
// from the second character on), then "_<index>.zyl" or "_<index>.mds".
std::u16string ExtraOutputName(const char16_t* outputName, int index, bool embedOnly) {
  std::u16string name = outputName;
  size_t cut = name.rfind(u".zyl");
  if (cut != std::u16string::npos && cut >= 1) name.resize(cut);
  name += u'_';
  name += char16_t(u'0' + index);
  name += embedOnly ? u".zyl" : u".mds";
  return name;
}

// 1000000 / frame rate, truncated to 64 bits and cut to the low 32; a rate that gives no finite
// quotient gives 0.
uint32_t FrameDuration(double frameRate) {
  double duration = 1000000.0 / frameRate;
  if (!(std::fabs(duration) < 9.2e18)) return 0;
  return uint32_t(uint64_t(int64_t(duration)));
}

void CloseExtraOutputs(FILE** extra) {
  if (!extra) return;
  for (int i = 0; i < kExtraOutputCount; ++i) {
    if (extra[i]) std::fclose(extra[i]);
    extra[i] = nullptr;
  }
  std::free(extra);
}

float Seconds(uint64_t microseconds) { return float(double(microseconds) / 1000000.0); }

// A write to the main output failed: the movie is cut back to the last frame that reached the
// file whole, and the job ends with the system's reason.
int FailedWrite(zycFileHolder* output, const char16_t* outputName) {
  const int reason = output->error;
  const int cut = zycCutToWhole(output, outputName);
  const std::string name = zycUtf8(outputName);
  zycLog("Could not write %s: %s\n", name.c_str(), std::strerror(reason));
  if (cut != 0) {
    zycLog("Could not cut %s back to its last whole frame: %s\n", name.c_str(), std::strerror(cut));
  }
  return reason;
}

int32_t RunJob(const zycJobSettings& settings, zycJobEncoder* encoder, zylSource* source,
               const char16_t* outputName, uint32_t firstFrame, uint32_t frameCount,
               const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer, int* reason) {
  if (!source) return 2;

  zycStreamHeader header;
  uint32_t flags = 0;
  if (encoder) {
    header.timeScale = kTimeScale;
    header.frameDuration = FrameDuration(source->frameRate);
    flags = encoder->SoundFlags();
    header.flags = flags;
  }

  if (outputNameBuffer) CopyName(outputNameBuffer, outputName);

  // The extra numbered outputs: sound files beside the movie, or, with "EXTC", the movie itself
  // in up to four numbered copies.
  FILE** extra = nullptr;
  bool embedOnly = false;
  if (settings.soundEnabled && (flags & kFlagEmbeddedSound) == 0 && !settings.skipExtraFiles) {
    if (settings.mode != 0) {
      zycLog("docomo sound is only implemented for ZYL0\n");
      return 3;
    }
    embedOnly = settings.embedRequest && (flags & kFlagExtraOutputs) != 0;
    extra = static_cast<FILE**>(std::calloc(kExtraOutputCount, sizeof(FILE*)));
    if (!extra) return 3;
    for (int index = 1; index <= 4; ++index) {
      if ((flags & (1u << (index - 1))) == 0) continue;
      std::u16string name = ExtraOutputName(outputName, index, embedOnly);
      extra[index - 1] = zycOpenFile(name.c_str(), "wbc");
      if (!extra[index - 1]) {
        // Outputs opened so far stay open.
        *reason = errno;
        std::free(extra);
        return 3;
      }
      if (embedOnly && outputNameBuffer) CopyName(outputNameBuffer, name);
    }
  }

  zycFileHolder output;
  if (!embedOnly) {
    output.file = zycOpenFile(outputName, "wbc");
    if (!output.file) {
      *reason = errno;
      if (extra) std::free(extra);
      return 3;
    }
  }

  if (frameCount == 0) frameCount = source->frameCount;
  TimerReset();

  // Seek and grab twice: the first picture after a seek may still be one the stream held before
  // it, so it is dropped, and the second seek brings the stream back to `firstFrame`.
  zylFrameImage image;
  for (int round = 0; round < 2; ++round) {
    SeekToFrame(source, firstFrame);
    GrabFrame(source, image);
  }

  zylProgress progress = {};
  progress.sourceFrameCount = source->frameCount;
  progress.width = uint32_t(image.width);
  progress.height = uint32_t(image.height);
  progress.pixels = image.pixels;

  const uint64_t start = zycClockMicroseconds();
  uint64_t previous = start;

  if (encoder) {
    header.soundChannels = settings.soundEnabled ? uint32_t(source->audioChannels) : 0;
    header.soundRate = settings.soundEnabled ? uint32_t(source->audioSampleRate) : 0;
    header.width = uint32_t(image.width);
    header.height = uint32_t(image.height);
    header.version = settings.headerVersion;
    header.magic = settings.mode == 0 ? kMagicZyl0 : kMagicZyl1;
    encoder->SetJobRange(firstFrame, frameCount);

    int32_t begun = encoder->Begin(header, image, &output, extra, settings.audioSupplier,
                                   settings.audioUser, &progress, keyframePlan);
    progress.reconstructed = encoder->Reconstructed();
    progress.pitch = encoder->Pitch();
    if (begun != 0 || output.error != 0) {
      encoder->End();
      CloseExtraOutputs(extra);
      if (output.error != 0 && !embedOnly) {
        *reason = FailedWrite(&output, outputName);
      } else {
        output.Close();
        *reason = output.error;  // the numbered outputs are left as they are
      }
      image.Release();
      return 3;
    }
  }

  uint64_t now = zycClockMicroseconds();
  zycLog("Frame encoding time: %0.3fs  Total Encoding time: %0.3fs\n", Seconds(now - previous),
         Seconds(now - start));
  previous = now;

  bool aborted = false;
  if (settings.progressCallback &&
      settings.progressCallback(&progress, settings.progressUser) == 0) {
    aborted = true;
  }

  uint32_t remaining = frameCount;
  for (;;) {
    remaining -= 1;
    if (aborted) break;
    // The grab comes first: at the end of a job one picture too many is taken, not coded.
    if (!GrabFrame(source, image) || remaining == 0) break;
    if (encoder) {
      encoder->Next(image, &progress);
      progress.reconstructed = encoder->Reconstructed();
      // A frame that did not reach the file ends the job; it is not reported.
      if (output.error != 0) break;
    }
    progress.pixels = image.pixels;
    if (settings.progressCallback &&
        settings.progressCallback(&progress, settings.progressUser) == 0) {
      aborted = true;
    }
    now = zycClockMicroseconds();
    zycLog("Frame enccoding time (sec):%0.3f\n", Seconds(now - previous));
    previous = now;
  }

  if (output.error == 0) {
    now = zycClockMicroseconds();
    zycLog("------------------------------------------------------\n");
    zycLog("Encoding done...\n");
    zycLog("Total timings (sec):%0.3f\n", Seconds(now - start));
    zycLog("~~~~~~~~~~~~~~~\n");
    TimerReport(1);
  }

  if (encoder) encoder->End();
  output.Close();  // a close that fails to write the last bytes counts as a failed write
  CloseExtraOutputs(extra);
  image.Release();
  if (output.error != 0) {
    *reason = embedOnly ? output.error : FailedWrite(&output, outputName);
    return 3;
  }
  return aborted ? 1 : 0;
}

}  // namespace

int32_t RunEncodeJob(const zycJobSettings& settings, zycJobEncoder* encoder, zylSource* source,
                     const char16_t* outputName, uint32_t firstFrame, uint32_t frameCount,
                     const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer) {
  int reason = 0;
  const int32_t status = RunJob(settings, encoder, source, outputName, firstFrame, frameCount,
                                keyframePlan, outputNameBuffer, &reason);
  errno = reason;
  return status;
}
