#include "tests/support/Dng.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>

namespace korimg::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Entropy-coded bits of a JPEG stream, with a zero after each byte of ones.
class BitWriter {
 public:
  explicit BitWriter(Bytes& out) : out_(out) {}
  void Put(unsigned bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      byte_ = byte_ << 1 | (bits >> i & 1);
      if (++filled_ == 8) Flush();
    }
  }
  void Finish() {
    while (filled_ != 0) {
      Put(1, 1);
    }
  }

 private:
  void Flush() {
    out_.push_back(static_cast<std::uint8_t>(byte_));
    if ((byte_ & 0xFF) == 0xFF) out_.push_back(0);
    byte_ = 0;
    filled_ = 0;
  }
  Bytes& out_;
  unsigned byte_ = 0;
  int filled_ = 0;
};

/// Differences to the pixel on the left, by the number of their bits: 17 codes of 5 bits.
Bytes LosslessJpeg(const Dng& dng) {
  constexpr int kCodes = 17, kCodeBits = 5, kComponents = 2;
  Bytes out;
  const auto put = [&](std::initializer_list<int> bytes) {
    for (const int b : bytes) {
      out.push_back(static_cast<std::uint8_t>(b));
    }
  };
  const int columns = dng.width / kComponents;
  put({0xFF, 0xD8, 0xFF, 0xC4, 0, 2 + 1 + 16 + kCodes, 0x00});
  for (int length = 1; length <= 16; ++length) {
    put({length == kCodeBits ? kCodes : 0});
  }
  for (int i = 0; i < kCodes; ++i) {
    put({i});
  }
  put({0xFF, 0xC3, 0, 8 + 3 * kComponents, 16, dng.height >> 8, dng.height & 255, columns >> 8, columns & 255,
       kComponents, 0, 0x11, 0, 1, 0x11, 0});
  put({0xFF, 0xDA, 0, 6 + 2 * kComponents, kComponents, 0, 0, 1, 0, 1, 0, 0});
  BitWriter bits(out);
  for (int y = 0; y < dng.height; ++y) {
    const std::uint16_t* row = &dng.pixels[static_cast<std::size_t>(y) * dng.width];
    for (int x = 0; x < dng.width; ++x) {
      const int above = y > 0 ? row[x - dng.width] : 1 << 15;
      const int predicted = x >= kComponents ? row[x - kComponents] : above;
      const int difference = static_cast<std::int16_t>(row[x] - predicted);
      const int size = std::bit_width(static_cast<unsigned>(std::abs(difference)));
      bits.Put(static_cast<unsigned>(size), kCodeBits);
      if (size < 16) bits.Put(static_cast<unsigned>(difference < 0 ? difference - 1 : difference), size);
    }
  }
  bits.Finish();
  put({0xFF, 0xD9});
  return out;
}

/// A TIFF file of one directory, in the processor's order of bytes (little-endian).
class Directory {
 public:
  enum Type : std::uint16_t { kByte = 1, kAscii = 2, kShort = 3, kLong = 4, kRational = 5, kSRational = 10 };

  template <class T>
  void Add(std::uint16_t tag, Type type, std::uint32_t count, const std::vector<T>& values) {
    Entry entry{tag, type, count, Bytes(values.size() * sizeof(T))};
    std::memcpy(entry.data.data(), values.data(), entry.data.size());
    entries_.push_back(std::move(entry));
  }
  void Add(std::uint16_t tag, const std::string& text) {
    Add(tag, kAscii, static_cast<std::uint32_t>(text.size() + 1),
        std::vector<char>(text.c_str(), text.c_str() + text.size() + 1));
  }
  void Short(std::uint16_t tag, int value) {
    Add(tag, kShort, 1, std::vector{static_cast<std::uint16_t>(value)});
  }
  void Long(std::uint16_t tag, std::size_t value) {
    Add(tag, kLong, 1, std::vector{static_cast<std::uint32_t>(value)});
  }

  /// The file, with the pixels at `kPixels`.
  static constexpr std::uint32_t kPixels = 8;
  Bytes File(const Bytes& pixels) const {
    Bytes file(kPixels + pixels.size());
    file[0] = file[1] = 'I';
    file[2] = 42;
    std::memcpy(&file[kPixels], pixels.data(), pixels.size());
    file.resize((file.size() + 3) / 4 * 4);
    std::vector<std::uint32_t> places;
    for (const Entry& entry : entries_) {
      places.push_back(static_cast<std::uint32_t>(file.size()));
      if (entry.data.size() > 4) file.insert(file.end(), entry.data.begin(), entry.data.end());
      file.resize((file.size() + 3) / 4 * 4);
    }
    const auto start = static_cast<std::uint32_t>(file.size());
    std::memcpy(&file[4], &start, 4);
    const auto put = [&](auto value) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
      file.insert(file.end(), bytes, bytes + sizeof value);
    };
    put(static_cast<std::uint16_t>(entries_.size()));
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      put(entries_[i].tag);
      put(static_cast<std::uint16_t>(entries_[i].type));
      put(entries_[i].count);
      std::uint32_t value = places[i];
      if (entries_[i].data.size() <= 4)
        std::memcpy(&(value = 0), entries_[i].data.data(), entries_[i].data.size());
      put(value);
    }
    put(std::uint32_t{0});
    return file;
  }

 private:
  struct Entry {
    std::uint16_t tag;
    Type type;
    std::uint32_t count;
    Bytes data;
  };
  std::vector<Entry> entries_;  // by ascending tags, as TIFF wants them
};

}  // namespace

void WriteDng(const std::filesystem::path& path, const Dng& dng) {
  Bytes pixels(dng.pixels.size() * 2);
  std::memcpy(pixels.data(), dng.pixels.data(), pixels.size());
  if (dng.compressed) pixels = LosslessJpeg(dng);
  constexpr int kCfa = 32803, kPlain = 1, kJpeg = 7, kDaylight = 21;
  std::vector<std::uint8_t> pattern;
  for (const char letter : dng.pattern) {
    pattern.push_back(static_cast<std::uint8_t>(std::string("RGB").find(letter)));
  }
  Directory tiff;
  tiff.Long(254, 0);
  tiff.Long(256, dng.width);
  tiff.Long(257, dng.height);
  tiff.Short(258, 16);
  tiff.Short(259, dng.compressed ? kJpeg : kPlain);
  tiff.Short(262, kCfa);
  tiff.Add(271, dng.maker);
  tiff.Add(272, dng.model);
  tiff.Long(273, Directory::kPixels);
  tiff.Short(274, 1);
  tiff.Short(277, 1);
  tiff.Long(278, dng.height);
  tiff.Long(279, pixels.size());
  tiff.Short(284, 1);
  tiff.Add(33421, Directory::kShort, 2, std::vector<std::uint16_t>{2, 2});
  tiff.Add(33422, Directory::kByte, 4, pattern);
  tiff.Add(33434, Directory::kRational, 1, std::vector<std::uint32_t>{120, 1});
  tiff.Add(50706, Directory::kByte, 4, std::vector<std::uint8_t>{1, 4, 0, 0});
  tiff.Add(50708, dng.model);
  tiff.Add(50713, Directory::kShort, 2, std::vector<std::uint16_t>{2, 2});
  std::vector<std::uint16_t> black(dng.black.begin(), dng.black.end());
  tiff.Add(50714, Directory::kShort, 4, black);
  tiff.Long(50717, dng.white);
  tiff.Add(50721, Directory::kSRational, 9,
           std::vector<std::int32_t>{1, 1, 0, 1, 0, 1, 0, 1, 1, 1, 0, 1, 0, 1, 0, 1, 1, 1});
  if (dng.neutral[0] > 0) {
    std::vector<std::uint32_t> neutral;
    for (const double n : dng.neutral) {
      neutral.insert(neutral.end(), {static_cast<std::uint32_t>(std::lround(n * 65536)), 65536});
    }
    tiff.Add(50728, Directory::kRational, 3, neutral);
  }
  tiff.Short(50778, kDaylight);
  const Bytes file = tiff.File(pixels);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
}

}  // namespace korimg::test
