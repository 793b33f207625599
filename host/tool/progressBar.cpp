#include "host/tool/progressBar.h"

#include <algorithm>
#include <string>

#include "host/tool/toolCommon.h"

ProgressBar::ProgressBar(FILE* out, bool enabled, uint32_t totalFrames, double frameBudget)
    : out_(out),
      enabled_(enabled),
      total_(totalFrames),
      frameBudget_(frameBudget),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {}

double ProgressBar::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressBar::Update(const zylProgress& progress) {
  frames_ = progress.frameIndex + 1;
  if (progress.keyFrame) {
    ++keyFrames_;
    lastMode_ = "key";
  } else if (progress.size == int32_t(8 + (progress.soundSize ? 8 + progress.soundSize : 0))) {
    // A ZYL1 record with no picture stream: its first word, firstSize, and a sound entry.
    ++repeats_;
    lastMode_ = "repeat";
  } else {
    ++pFrames_;
    lastMode_ = "P";
  }
  bytes_ += std::max(progress.size, 0);
  credit_ = progress.credit;
  Draw(false);
}

void ProgressBar::Draw(bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && drawn_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  drawn_ = true;
  const double elapsed = seconds();
  const double fps = elapsed > 0 ? frames_ / elapsed : 0;
  std::string bar;
  if (total_ > 0) {
    const int width = 24;
    const int filled = int(std::min<double>(1.0, double(frames_) / total_) * width);
    bar = "[" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '.') + "] ";
  }
  char counts[64];
  if (total_ > 0) {
    std::snprintf(counts, sizeof(counts), "%u/%u", frames_, total_);
  } else {
    std::snprintf(counts, sizeof(counts), "%u", frames_);
  }
  std::string size = HumanBytes(bytes_);
  if (frameBudget_ > 0) size += " of " + HumanBytes(frameBudget_ * frames_);
  char eta[32] = "--:--";
  if (total_ > frames_ && fps > 0) {
    const int left = int((total_ - frames_) / fps + 0.5);
    std::snprintf(eta, sizeof(eta), "%d:%02d", left / 60, left % 60);
  } else if (total_ > 0 && frames_ >= total_) {
    std::snprintf(eta, sizeof(eta), "0:00");
  }
  char modes[96] = "";
  if (showModes_) {
    std::snprintf(modes, sizeof(modes), "  P %u  repeat %u  (%s)", pFrames_, repeats_, lastMode_);
  }
  std::fprintf(out_, "\r%s%s frames  %.1f fps  %s  credit %+d B  key %u%s  ETA %s\033[K",
               bar.c_str(), counts, fps, size.c_str(), credit_, keyFrames_, modes, eta);
  std::fflush(out_);
}

void ProgressBar::Finish() {
  if (!enabled_ || !drawn_) return;
  Draw(true);
  std::fputc('\n', out_);
  std::fflush(out_);
}
