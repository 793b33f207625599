#include "host/tool/progressBar.h"

#include <algorithm>
#include <string>

#include "host/tool/toolCommon.h"

ProgressBar::ProgressBar(FILE* out, bool enabled, uint32_t totalFrames, double frameBudget,
                         size_t width)
    : out_(out),
      enabled_(enabled),
      width_(std::max<size_t>(width, 40)),
      total_(totalFrames),
      frameBudget_(frameBudget),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {}

double ProgressBar::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressBar::Update(const zylProgress& progress) {
  frames_ = progress.frameIndex + 1;
  if (progress.keyFrame) ++keyFrames_;
  bytes_ += std::max(progress.size, 0);
  Draw(false);
}

std::string ProgressBar::Line(double elapsed) const {
  const double fps = elapsed > 0 ? frames_ / elapsed : 0;
  char counts[48];
  if (total_ > 0) {
    std::snprintf(counts, sizeof(counts), "%u/%u frames", frames_, total_);
  } else {
    std::snprintf(counts, sizeof(counts), "%s", Count(frames_, "frame", "frames").c_str());
  }
  std::string size = HumanBytes(bytes_);
  if (frameBudget_ > 0) size += " (budget " + HumanBytes(frameBudget_ * frames_) + ")";
  std::string left = "--:-- left";
  if (total_ > frames_ && fps > 0) {
    const int seconds = int((total_ - frames_) / fps + 0.5);
    char text[32];
    std::snprintf(text, sizeof(text), "%d:%02d left", seconds / 60, seconds % 60);
    left = text;
  } else if (total_ > 0 && frames_ >= total_) {
    left = "0:00 left";
  }
  char text[160];
  std::snprintf(text, sizeof(text), "%s %.1f fps %s %s %s", counts, fps, size.c_str(),
                Count(keyFrames_, "key", "keys").c_str(), left.c_str());
  std::string line = text;
  // A bar fills what is left of the width.
  if (total_ > 0 && line.size() + 4 < width_) {
    const size_t room = std::min<size_t>(width_ - line.size() - 4, 30);
    if (room >= 5) {
      const size_t filled = size_t(std::min<double>(1.0, double(frames_) / total_) * room);
      line = "[" + std::string(filled, '#') + std::string(room - filled, '.') + "] " + line;
    }
  }
  if (line.size() > width_ - 1) line.resize(width_ - 1);
  return line;
}

void ProgressBar::Draw(bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && drawn_ && now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  drawn_ = true;
  std::fprintf(out_, "\r%s\033[K", Line(seconds()).c_str());
  std::fflush(out_);
}

void ProgressBar::Finish() {
  if (!enabled_ || !drawn_) return;
  Draw(true);
  std::fputc('\n', out_);
  std::fflush(out_);
}
