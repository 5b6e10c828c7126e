// How true a development is: a scene that is known at every pixel in all three colours, sampled through each
// Bayer pattern and developed by this library and by its peers. Prints the signal to noise ratio of each
// channel, and writes a part of the scene beside what the developments made of it.
//
//     raw_quality [picture.png]
//
// The scene, linear from 0 to 65535: colours that change slowly; rings whose waves shorten from 40 to 2.6
// pixels from a centre outwards, in grey; a weave of two colours, the hardest for all; and 300 stars of
// sigma 1.2 pixels in colours from orange to blue.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <libraw/libraw.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <png.h>

#include "korimg/raw/CImgBayerToRgb.h"

namespace {

constexpr int kWidth = 900, kHeight = 700, kBorder = 8;
constexpr double kWhite = 65535;

/// Three planes of numbers from 0 to 65535.
using Picture = std::array<std::vector<float>, 3>;

Picture Blank() {
  Picture picture;
  for (auto& plane : picture) {
    plane.resize(1ULL * kWidth * kHeight);
  }
  return picture;
}

Picture Scene() {
  Picture scene = Blank();
  unsigned state = 7;
  const auto random = [&state] {
    state = state * 1664525u + 1013904223u;
    return (state >> 8) / 16777216.0;
  };
  struct Star {
    double x, y, flux[3];
  };
  std::vector<Star> stars;
  for (int i = 0; i < 300; ++i) {
    const double warm = random(), flux = 40000 * std::pow(random(), 3) + 3000;
    stars.push_back({random() * kWidth,
                     random() * kHeight,
                     {flux * (0.5 + 0.5 * warm), flux * (0.8 - 0.1 * warm), flux * (1.0 - 0.6 * warm)}});
  }
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const double u = 1.0 * x / kWidth, v = 1.0 * y / kHeight;
      const double r = std::hypot(x - 0.28 * kWidth, y - 0.5 * kHeight);
      // The phase whose derivative runs from 2 pi / 40 to 2 pi / 2.6 over 240 pixels.
      const double rings =
          r < 240 ? 0.12 * std::cos(2 * M_PI * (r / 40 + (1 / 2.6 - 1.0 / 40) * r * r / 480)) : 0;
      const bool isWoven = std::abs(u - 0.75) < 0.15 && std::abs(v - 0.3) < 0.2;
      const double weave = isWoven ? 0.08 * std::sin(x * 0.9) * std::sin(y * 0.8) : 0;
      const double colour[3] = {0.36 + 0.12 * std::sin(5 * u) + rings + weave,
                                0.36 + 0.10 * std::sin(4 * v + 1) + rings,
                                0.36 + 0.12 * std::cos(4 * u + 3 * v) + rings - weave};
      for (int c = 0; c < 3; ++c) {
        scene[c][y * kWidth + x] = static_cast<float>(colour[c] * kWhite);
      }
    }
  }
  for (const Star& s : stars) {
    for (int y = std::max(0, static_cast<int>(s.y) - 8); y < std::min(kHeight, static_cast<int>(s.y) + 9);
         ++y) {
      for (int x = std::max(0, static_cast<int>(s.x) - 8); x < std::min(kWidth, static_cast<int>(s.x) + 9);
           ++x) {
        const double light = std::exp(-((x - s.x) * (x - s.x) + (y - s.y) * (y - s.y)) / (2 * 1.2 * 1.2));
        for (int c = 0; c < 3; ++c) {
          float& pixel = scene[c][y * kWidth + x];
          pixel = static_cast<float>(std::min(kWhite, pixel + s.flux[c] * light));
        }
      }
    }
  }
  for (auto& plane : scene) {
    for (float& pixel : plane) {
      pixel = std::round(pixel);
    }
  }
  return scene;
}

/// One Bayer pattern, by the numbers of all who develop it. OpenCV names the cell that starts one column and
/// one row on.
struct Pattern {
  const char* name;
  int cfa;
  int edgeAware, gradients;
  unsigned char libRaw;
};
constexpr Pattern kPatterns[] = {
    {"RGGB", 1, cv::COLOR_BayerBG2RGB_EA, cv::COLOR_BayerBG2RGB_VNG, LIBRAW_OPENBAYER_RGGB},
    {"GRBG", 2, cv::COLOR_BayerGB2RGB_EA, cv::COLOR_BayerGB2RGB_VNG, LIBRAW_OPENBAYER_GRBG},
    {"BGGR", 3, cv::COLOR_BayerRG2RGB_EA, cv::COLOR_BayerRG2RGB_VNG, LIBRAW_OPENBAYER_BGGR},
    {"GBRG", 4, cv::COLOR_BayerGR2RGB_EA, cv::COLOR_BayerGR2RGB_VNG, LIBRAW_OPENBAYER_GBRG},
};

std::vector<unsigned short> Sample(const Picture& scene, const Pattern& pattern) {
  std::vector<unsigned short> mosaic(1ULL * kWidth * kHeight);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const char site = pattern.name[y % 2 * 2 + x % 2];
      mosaic[y * kWidth + x] = static_cast<unsigned short>(scene[site == 'R'   ? 0
                                                                 : site == 'G' ? 1
                                                                               : 2][y * kWidth + x]);
    }
  }
  return mosaic;
}

template <class T>
Picture FromInterleaved(const T* pixels, double scale) {
  Picture picture = Blank();
  for (int i = 0; i < kWidth * kHeight; ++i) {
    for (int c = 0; c < 3; ++c) {
      picture[c][i] = static_cast<float>(pixels[3 * i + c] * scale);
    }
  }
  return picture;
}

Picture Ours(const std::vector<unsigned short>& mosaic, const Pattern& pattern) {
  const auto store = korimg::CreateContiguousManager();
  CImgBayerToRgb image;
  image.CopyImage(CVelImage(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr), nullptr,
                  nullptr);
  std::copy(mosaic.begin(), mosaic.end(), image.GetWritableLine(0, 0, 0));
  tagBayerStruct bayer;
  bayer.nCFA = pattern.cfa;
  bayer.nSrcBits = bayer.nDstBits = -32;
  image.Do(bayer, 0);
  Picture picture = Blank();
  for (int c = 0; c < 3; ++c) {
    std::copy_n(image.GetLine(0, 0, c), picture[c].size(), picture[c].begin());
  }
  return picture;
}

Picture EdgeAware(const std::vector<unsigned short>& mosaic, const Pattern& pattern) {
  const cv::Mat in(kHeight, kWidth, CV_16U, const_cast<unsigned short*>(mosaic.data()));
  cv::Mat out;
  cv::cvtColor(in, out, pattern.edgeAware);
  return FromInterleaved(out.ptr<unsigned short>(), 1);
}

/// Of 8-bit numbers: it knows no others. Its result lies two rows too high, for which it is not blamed.
Picture Gradients(const std::vector<unsigned short>& mosaic, const Pattern& pattern) {
  cv::Mat in(kHeight, kWidth, CV_8U), out;
  for (size_t i = 0; i < mosaic.size(); ++i) {
    in.data[i] = static_cast<unsigned char>(std::lround(mosaic[i] / 257.0));
  }
  cv::cvtColor(in, out, pattern.gradients);
  Picture picture = FromInterleaved(out.data, 257);
  for (auto& plane : picture) {
    std::copy_backward(plane.begin(), plane.end() - 2 * kWidth, plane.end());
  }
  return picture;
}

Picture HomogeneityDirected(const std::vector<unsigned short>& mosaic, const Pattern& pattern) {
  const auto raw = std::make_unique<LibRaw>();  // large
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<unsigned short*>(mosaic.data()));
  raw->open_bayer(bytes, static_cast<unsigned>(mosaic.size() * 2), kWidth, kHeight, 0, 0, 0, 0, 0,
                  pattern.libRaw, 0, 0, 0);
  libraw_output_params_t& p = raw->imgdata.params;
  p.user_qual = 3;
  p.output_bps = 16;
  p.output_color = 0;
  p.gamm[0] = p.gamm[1] = 1;
  p.no_auto_bright = p.no_auto_scale = 1;
  p.user_flip = 0;
  raw->unpack();
  raw->dcraw_process();
  int error = 0;
  libraw_processed_image_t* image = raw->dcraw_make_mem_image(&error);
  if (!image || image->width != kWidth || image->height != kHeight) {
    std::fprintf(stderr, "LibRaw failed: %d\n", error);
    std::exit(1);
  }
  Picture picture = FromInterleaved(reinterpret_cast<unsigned short*>(image->data), 1);
  LibRaw::dcraw_clear_mem(image);
  return picture;
}

double SignalToNoise(const std::vector<float>& truth, const std::vector<float>& made) {
  double sum = 0;
  for (int y = kBorder; y < kHeight - kBorder; ++y) {
    for (int x = kBorder; x < kWidth - kBorder; ++x) {
      const double d = truth[y * kWidth + x] - made[y * kWidth + x];
      sum += d * d;
    }
  }
  const double mean = sum / (1.0 * (kWidth - 2 * kBorder) * (kHeight - 2 * kBorder));
  return 10 * std::log10(kWhite * kWhite / mean);
}

/// Two parts of each picture, one below the other, three times as large; from left to right.
void WriteCrops(const char* file, const std::vector<Picture>& pictures) {
  constexpr int kSide = 88, kZoom = 3, kGap = 6;
  constexpr std::pair<int, int> kCorners[] = {{330, 300}, {786, 92}};
  const int width = static_cast<int>(pictures.size()) * (kSide * kZoom + kGap) - kGap,
            height = 2 * (kSide * kZoom + kGap) - kGap;
  std::vector<unsigned char> pixels(3ULL * width * height, 255);
  for (size_t i = 0; i < pictures.size(); ++i) {
    for (int part = 0; part < 2; ++part) {
      const auto [left, top] = kCorners[part];
      for (int y = 0; y < kSide * kZoom; ++y) {
        for (int x = 0; x < kSide * kZoom; ++x) {
          const int from = (top + y / kZoom) * kWidth + left + x / kZoom;
          const size_t row = part * (kSide * kZoom + kGap) + y, column = i * (kSide * kZoom + kGap) + x;
          for (int c = 0; c < 3; ++c) {
            const double v = std::min(1.0, std::max(0.0, pictures[i][c][from] / (0.7 * kWhite)));
            pixels[3 * (row * width + column) + c] =
                static_cast<unsigned char>(255 * std::pow(v, 1 / 2.2) + 0.5);
          }
        }
      }
    }
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = width, png.height = height;
  png.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&png, file, 0, pixels.data(), 0, nullptr)) std::perror(file);
}

}  // namespace

int main(int argc, char** argv) {
  const struct {
    const char* name;
    Picture (*develop)(const std::vector<unsigned short>&, const Pattern&);
    bool isShown;
  } developers[] = {{"korimg", Ours, true},
                    {"OpenCV EA, 16 bits", EdgeAware, true},
                    {"OpenCV VNG, 8 bits", Gradients, false},
                    {"LibRaw AHD, 16 bits", HomogeneityDirected, true}};
  const Picture scene = Scene();
  std::vector<Picture> shown = {scene};
  for (const Pattern& pattern : kPatterns) {
    const std::vector<unsigned short> mosaic = Sample(scene, pattern);
    for (const auto& [name, develop, isShown] : developers) {
      const Picture made = develop(mosaic, pattern);
      std::printf("%s %-20s  R %.2f  G %.2f  B %.2f dB\n", pattern.name, name,
                  SignalToNoise(scene[0], made[0]), SignalToNoise(scene[1], made[1]),
                  SignalToNoise(scene[2], made[2]));
      if (pattern.cfa == 1 && isShown) shown.push_back(made);
    }
  }
  if (argc > 1) WriteCrops(argv[1], shown);
}
