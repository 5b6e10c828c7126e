// FITS files of one image. Rows may come in any order: their place in the file is known from the start.
#include <algorithm>

#include <fcntl.h>
#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/files/Geometry.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 32768;

std::uint64_t WholeBlocks(std::uint64_t bytes) {
  return (bytes + kFitsBlock - 1) / kFitsBlock * kFitsBlock;
}

/// The header as it goes into a file whose rows are stored from the lowest up; none when they are not.
std::optional<Header> TurnedHeader(const WriteOptions& options) {
  Header header = options.header;
  if (!header.turned || options.verbatim) return std::nullopt;
  if (!TurnRows(header, {options.width, options.height, options.planes})) return std::nullopt;
  header.turned = false;
  // Without what told of their order, rows are stored from the highest down.
  return RowsRunUp(header, true) ? std::optional(header) : std::nullopt;
}

std::string MakeHeader(const WriteOptions& options, const Header& header) {
  std::string text;
  const auto add = [&](std::string_view key, auto value, std::string_view comment) {
    text += fmt::format("{:<80.80}", fmt::format("{:8}= {:>20} / {}", key, value, comment));
  };
  const bool integer = options.type == "uint16";
  add("SIMPLE", "T", "conforms to the FITS standard");
  add("BITPIX", integer ? 16 : -32, integer ? "16-bit integers" : "32-bit floating-point numbers");
  add("NAXIS", options.planes == 1 ? 2 : 3, "number of axes");
  add("NAXIS1", options.width, "columns");
  add("NAXIS2", options.height, "rows");
  if (options.planes > 1)
    add("NAXIS3", options.planes, options.planes == 3 ? "planes: red, green, blue" : "planes");
  if (integer) {
    // Stored numbers are signed: 32768 less.
    const auto number = [](double v) {
      std::string text = fmt::format("{}", v);
      std::replace(text.begin(), text.end(), 'e', 'E');
      return text;
    };
    const Scale& scale = options.scale;
    add("BSCALE", number(scale.step), "physical value = BZERO + BSCALE * stored value");
    add("BZERO", number(scale.zero + 32768 * scale.step), scale.IsPlain() ? "unsigned 16-bit integers" : "");
    if (scale.hasBlank) add("BLANK", -32768, "stored value of pixels that are no numbers");
  }
  for (const std::string& card : options.verbatim ? header.cards : header.CardsForOutput())
    text += card;
  text += "END";
  text.resize(WholeBlocks(text.size()), ' ');
  return text;
}

class FitsWriter : public ImageWriter {
 public:
  FitsWriter(const fs::path& path, const WriteOptions& options)
      : ImageWriter(path, options, true),
        part_(PartialName(path)),
        file_(part_.Path(), O_RDWR | O_CREAT | O_TRUNC, path),
        pixelBytes_(options.type == "uint16" ? 2 : 4) {
    const auto turned = TurnedHeader(options);
    runsUp_ = turned.has_value();
    const std::string header = MakeHeader(options, turned.value_or(options.header));
    start_ = header.size();
    end_ = start_ + WholeBlocks(static_cast<std::uint64_t>(options.width) *
                                static_cast<std::uint64_t>(options.height) *
                                static_cast<std::uint64_t>(options.planes) * pixelBytes_);
    const fs::path folder = part_.Path().parent_path();
    if (FreeSpace(folder) < end_) ThrowDiskFull(path, folder, end_);
    file_.Write(header.data(), header.size(), 0);
  }

 protected:
  bool RunsUp() const override { return runsUp_; }

  void Write(const Band<const float>& from) override {
    for (int p = 0; p < options_.planes; ++p) {
      std::uint64_t at =
          start_ + (static_cast<std::uint64_t>(p) * static_cast<std::uint64_t>(options_.height) +
                    static_cast<std::uint64_t>(from.Top())) *
                       static_cast<std::uint64_t>(options_.width) * pixelBytes_;
      from.Plane(p).ForRuns([&](Row<const float> run) {
        buffer_.resize(std::min(run.size(), kChunk) * pixelBytes_);
        for (std::size_t done = 0; done < run.size();) {
          const std::size_t n = std::min(kChunk, run.size() - done);
          Convert(run.data() + done, n);
          file_.Write(buffer_.data(), n * pixelBytes_, at);
          at += n * pixelBytes_;
          done += n;
        }
      });
    }
  }

  void Finish() override {
    if (file_.Size() < end_) file_.Write("", 1, end_ - 1);  // the padding before it reads as zeros
    part_.RenameTo(path_);
  }

 private:
  void Convert(const float* in, std::size_t n) {
    if (pixelBytes_ == 2) {
      auto* out = reinterpret_cast<std::uint16_t*>(buffer_.data());
      // Physical 0 is stored as -32768: the highest bit is turned over.
      for (std::size_t i = 0; i < n; ++i) {
        out[i] = BigEndian(static_cast<std::uint16_t>(RoundTo<std::uint16_t>(in[i]) ^ 0x8000));
      }
    } else {
      auto* out = reinterpret_cast<std::uint32_t*>(buffer_.data());
      for (std::size_t i = 0; i < n; ++i)
        out[i] = BigEndian(std::bit_cast<std::uint32_t>(in[i]));
    }
  }

  TransientFile part_;
  File file_;
  bool runsUp_ = false;
  std::size_t pixelBytes_;
  std::uint64_t start_ = 0, end_ = 0;  // of the pixels in the file; the end includes padding
  std::vector<unsigned char> buffer_;
};

}  // namespace

std::unique_ptr<ImageWriter> CreateFits(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<FitsWriter>(path, options);
}

}  // namespace korimg::files
