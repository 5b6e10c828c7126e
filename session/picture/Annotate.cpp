#include "session/picture/Annotate.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <fmt/format.h>

#include "korimg/display/CImgDrawLine.h"
#include "korimg/display/CImgDrawText.h"
#include "korimg/platform/Debug.h"

#include "session/files/Geometry.h"
#include "session/operations/internal/NumberLines.h"

namespace korimg::session {
namespace {

constexpr unsigned long kBlack = 0x000000, kWhite = 0xFFFFFF, kYellow = 0x50E6FF;  // blue, green, red

/// A picture being drawn into.
class Drawing {
 public:
  explicit Drawing(CVelImage& picture) : picture_(picture) {
    pen_.Swap(&picture_);
    const int side = std::min(pen_.GetWidth(), pen_.GetHeight());
    letters_ = std::clamp(side / 25, 12, 200);
    margin_ = letters_ / 2;
    colour_ = pen_.IsColor() ? kYellow : kWhite;
  }
  ~Drawing() { pen_.Swap(&picture_); }
  Drawing(const Drawing&) = delete;
  Drawing& operator=(const Drawing&) = delete;

  int Width() const { return pen_.GetWidth(); }
  int Letters() const { return letters_; }

  void Title(const std::string& text) { Text(text, margin_, margin_); }

  /// A bar of so many pixels in the lower left corner, with its length above it.
  void ScaleBar(const std::string& text, double length) {
    const int thick = std::max(letters_ / 10, 1), bottom = pen_.GetHeight() - margin_;
    const int right = margin_ + static_cast<int>(std::lround(length));
    for (const int shadow : {1, 0}) {
      for (int y = bottom - thick; y < bottom; ++y) {
        pen_.Do(CPoint(margin_ + shadow, y + shadow), CPoint(right + shadow, y + shadow),
                shadow ? kBlack : colour_);
      }
    }
    Text(text, margin_, bottom - thick - letters_ * 5 / 4);
  }

  /// A box by two corners.
  void Box(double x1, double y1, double x2, double y2, bool isCrossedOut) {
    const auto at = [](double x, double y) {
      return CPoint(static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y)));
    };
    const CPoint corners[] = {at(x1, y1), at(x2, y1), at(x2, y2), at(x1, y2)};
    for (int i = 0; i < 4; ++i) {
      pen_.Do(corners[i], corners[(i + 1) % 4], colour_);
    }
    for (int i = 0; i < 2 && isCrossedOut; ++i) {
      pen_.Do(corners[i], corners[i + 2], colour_);
    }
  }

  void Circle(double x, double y, double radius) {
    if (x + radius < 0 || y + radius < 0 || x - radius > pen_.GetWidth() || y - radius > pen_.GetHeight())
      return;
    const int sides = std::clamp(static_cast<int>(radius * 2), 16, 720);
    const auto point = [&](int i) {
      const double angle = 2 * std::numbers::pi * i / sides;
      return CPoint(static_cast<int>(std::lround(x + radius * std::cos(angle))),
                    static_cast<int>(std::lround(y + radius * std::sin(angle))));
    };
    for (int i = 0; i < sides; ++i) {
      pen_.Do(point(i), point(i + 1), colour_);
    }
  }

 private:
  /// Text in letters as large as fit.
  void Text(const std::string& text, int left, int top) {
    const CString wide(Widen(text).c_str());
    LOGFONTW font;
    font.lfHeight = letters_;
    const auto mask = CImgDrawText::MakeMask(pen_.VmManager(), wide, font, kSmooth);
    const int room = std::max(Width() - left - margin_, 1);
    if (mask && mask->GetWidth() > room) font.lfHeight = std::max(letters_ * room / mask->GetWidth(), 6);
    CImgDrawText drawn;
    if (!drawn.Do(&pen_, CPoint(left, top), wide, &font, colour_, kSmooth)) {
      throw std::runtime_error(fmt::format("cannot draw '{}': is there a font?", text));
    }
  }

  static constexpr int kSmooth = 1;

  CVelImage& picture_;
  CImgDrawLine pen_;  ///< the picture, while it is drawn into
  int letters_, margin_;
  unsigned long colour_;
};

/// The largest round angle of at most so many seconds.
double RoundAngle(double most) {
  constexpr double kRound[] = {0.1, 0.2, 0.5,  1,    2,    5,    10,    20,    30,    60,    120,
                               300, 600, 1200, 1800, 3600, 7200, 18000, 36000, 72000, 108000};
  return *std::max(std::upper_bound(std::begin(kRound), std::end(kRound), most) - 1, std::begin(kRound));
}

std::string AngleText(double seconds) {
  return seconds < 60     ? fmt::format("{}\u2033", seconds)
         : seconds < 3600 ? fmt::format("{}\u2032", seconds / 60)
                          : fmt::format("{}\u00B0", seconds / 3600);
}

}  // namespace

Annotations DefaultAnnotations(const files::Header& header) {
  Annotations annotations;
  annotations.title = header.GetString("OBJECT").value_or("");
  annotations.scaleBar = files::PixelScale(header).has_value();
  return annotations;
}

void Annotate(CVelImage& picture, const Annotations& annotations, const std::filesystem::path& input,
              const files::Header& header, int binX, int binY) {
  constexpr double kFar = 1e6;  // pixels
  Drawing drawing(picture);
  // The middle of a picture's pixel is that of its cell.
  const auto place = [&](double x, double y) {
    if (annotations.overturnedHeight > 0) y = annotations.overturnedHeight - 1 - y;
    return std::pair((x + 0.5) / binX - 0.5, (y + 0.5) / binY - 0.5);
  };
  for (const CImgGradient::Box& box : annotations.boxes) {
    const int left = box.x - box.size / 2, top = box.y - box.size / 2;
    const auto [x1, y1] = place(left, top);
    const auto [x2, y2] = place(left + box.size - 1, top + box.size - 1);
    drawing.Box(x1, y1, x2, y2, !box.isSky);
  }
  if (!annotations.stars.empty()) {
    for (const auto& star :
         ReadNumberLines(annotations.stars, 2, 3, kFar,
                         "star; write x, y and, if wanted, a radius in pixels: 12.5 80 6")) {
      if (star.size() == 3 && star[2] < 0) {
        throw files::FileError(annotations.stars, fmt::format("a radius of {} is not possible", star[2]));
      }
      const auto [x, y] = place(star[0], star[1]);
      drawing.Circle(x, y, star.size() == 3 ? star[2] / binX : drawing.Letters() / 2.0);
    }
  }
  if (annotations.scaleBar) {
    const auto scale = files::PixelScale(header);
    if (!scale) {
      throw files::FileError(
          input,
          "does not say its scale: it has neither world coordinates, nor SCALE, nor FOCALLEN "
          "with XPIXSZ; leave --scale-bar out");
    }
    constexpr double kShareOfWidth = 0.3;  // chosen
    const double pixel = *scale * binX, length = RoundAngle(kShareOfWidth * drawing.Width() * pixel);
    drawing.ScaleBar(AngleText(length), length / pixel);
  }
  if (!annotations.title.empty()) drawing.Title(annotations.title);
}

}  // namespace korimg::session
