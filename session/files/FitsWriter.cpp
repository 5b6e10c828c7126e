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

std::size_t BytesOfPixel(std::string_view type) {
  return type == "uint8" ? 1 : type == "uint16" ? 2 : 4;
}

/// The cards of a unit's layout, of pixels of a type.
class Cards {
 public:
  Cards(const char* first, std::string_view value, std::string_view comment, const WriteOptions& options,
        std::string_view type) {
    Add(first, value, comment);
    Add("BITPIX",
        type == "uint8"    ? 8
        : type == "uint16" ? 16
                           : -32,
        type == "uint8"    ? "8-bit integers"
        : type == "uint16" ? "16-bit integers"
                           : "32-bit floating-point numbers");
    Add("NAXIS", options.planes == 1 ? 2 : 3, "number of axes");
    Add("NAXIS1", options.width, "columns");
    Add("NAXIS2", options.height, "rows");
    if (options.planes > 1)
      Add("NAXIS3", options.planes, options.planes == 3 ? "planes: red, green, blue" : "planes");
  }

  template <class Value>
  void Add(std::string_view key, const Value& value, std::string_view comment) {
    text_ += fmt::format("{:<80.80}", fmt::format("{:8}= {:>20} / {}", key, value, comment));
  }
  void Add(const std::vector<std::string>& cards) {
    for (const std::string& card : cards)
      text_ += card;
  }
  /// All of them, in whole blocks.
  std::string Header() && {
    text_ += "END";
    text_.resize(WholeBlocks(text_.size()), ' ');
    return std::move(text_);
  }

 private:
  std::string text_;
};

std::string MakeHeader(const WriteOptions& options, const Header& header) {
  const bool integer = options.type == "uint16";
  Cards cards("SIMPLE", "T", "conforms to the FITS standard", options, options.type);
  if (!options.extensions.empty()) cards.Add("EXTEND", "T", "extensions follow");
  if (integer) {
    // Stored numbers are signed: 32768 less.
    const auto number = [](double v) {
      std::string text = fmt::format("{}", v);
      std::replace(text.begin(), text.end(), 'e', 'E');
      return text;
    };
    const Scale& scale = options.scale;
    cards.Add("BSCALE", number(scale.step), "physical value = BZERO + BSCALE * stored value");
    cards.Add("BZERO", number(scale.zero + 32768 * scale.step),
              scale.IsPlain() ? "unsigned 16-bit integers" : "");
    if (scale.hasBlank) cards.Add("BLANK", -32768, "stored value of pixels that are no numbers");
  }
  cards.Add(options.verbatim ? header.cards : header.CardsForOutput());
  return std::move(cards).Header();
}

/// The header of an extension of an image with a header, whose rows lie in the same order.
std::string MakeHeader(const Extension& extension, const WriteOptions& options, const Header& image) {
  Cards cards("XTENSION", "'IMAGE   '", "image extension", options, extension.type);
  cards.Add("PCOUNT", 0, "");
  cards.Add("GCOUNT", 1, "");
  Header own;
  own.Set("EXTNAME", extension.name);
  if (const auto order = image.GetString("ROWORDER")) own.Set("ROWORDER", *order);
  cards.Add(own.cards);
  cards.Add(extension.cards);
  return std::move(cards).Header();
}

class FitsWriter : public ImageWriter {
 public:
  FitsWriter(const fs::path& path, const WriteOptions& options)
      : ImageWriter(path, options, true),
        part_(PartialName(path)),
        file_(part_.Path(), O_RDWR | O_CREAT | O_TRUNC, path) {
    const auto turned = TurnedHeader(options);
    runsUp_ = turned.has_value();
    const Header& header = turned ? *turned : options.header;
    std::vector<std::string> headers = {MakeHeader(options, header)};
    std::vector<std::string_view> types = {options.type};
    for (const Extension& extension : options.extensions) {
      headers.push_back(MakeHeader(extension, options, header));
      types.push_back(extension.type);
    }
    const auto pixels = static_cast<std::uint64_t>(options.width) *
                        static_cast<std::uint64_t>(options.height) *
                        static_cast<std::uint64_t>(options.planes);
    for (std::size_t i = 0; i < headers.size(); ++i) {
      const std::size_t bytes = BytesOfPixel(types[i]);
      units_.push_back({end_ + headers[i].size(), bytes});
      end_ = units_.back().start + WholeBlocks(pixels * bytes);
    }
    const fs::path folder = part_.Path().parent_path();
    if (FreeSpace(folder) < end_) ThrowDiskFull(path, folder, end_);
    for (std::size_t i = 0; i < headers.size(); ++i) {
      file_.Write(headers[i].data(), headers[i].size(), units_[i].start - headers[i].size());
    }
  }

 protected:
  bool RunsUp() const override { return runsUp_; }

  void Write(const Band<const float>& from) override { Write(units_.front(), from); }

  void WriteBeside(std::size_t extension, const Band<const float>& from) override {
    Write(units_[extension + 1], from);
  }

  void Finish() override {
    if (file_.Size() < end_) file_.Write("", 1, end_ - 1);  // the padding before it reads as zeros
    part_.RenameTo(path_);
  }

 private:
  /// A header-data unit's pixels in the file.
  struct Unit {
    std::uint64_t start;
    std::size_t pixelBytes;
  };

  void Write(const Unit& unit, const Band<const float>& from) {
    for (int p = 0; p < options_.planes; ++p) {
      std::uint64_t at =
          unit.start + (static_cast<std::uint64_t>(p) * static_cast<std::uint64_t>(options_.height) +
                        static_cast<std::uint64_t>(from.Top())) *
                           static_cast<std::uint64_t>(options_.width) * unit.pixelBytes;
      from.Plane(p).ForRuns([&](Row<const float> run) {
        buffer_.resize(std::min(run.size(), kChunk) * unit.pixelBytes);
        for (std::size_t done = 0; done < run.size();) {
          const std::size_t n = std::min(kChunk, run.size() - done);
          Convert(run.data() + done, n, unit.pixelBytes);
          file_.Write(buffer_.data(), n * unit.pixelBytes, at);
          at += n * unit.pixelBytes;
          done += n;
        }
      });
    }
  }

  void Convert(const float* in, std::size_t n, std::size_t pixelBytes) {
    if (pixelBytes == 1) {
      std::transform(in, in + n, buffer_.data(), RoundTo<std::uint8_t>);
    } else if (pixelBytes == 2) {
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
  std::vector<Unit> units_;  // the image and its extensions
  std::uint64_t end_ = 0;    // of the file, with padding
  std::vector<unsigned char> buffer_;
};

}  // namespace

std::unique_ptr<ImageWriter> CreateFits(const fs::path& path, const WriteOptions& options) {
  return std::make_unique<FitsWriter>(path, options);
}

}  // namespace korimg::files
