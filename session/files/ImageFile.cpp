#include "session/files/ImageFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "session/files/Formats.h"
#include "session/files/Text.h"
#include "session/files/internal/ConstantBorder.h"

namespace korimg::files {

namespace fs = std::filesystem;

namespace {

std::string OneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 127) c = ' ';
  }
  return text;
}

/// Names of the unfinished files, in storage that a signal handler can read.
struct Slot {
  enum State { kFree, kFilling, kUsed };
  std::atomic<int> state{kFree};
  char name[PATH_MAX];
};
std::array<Slot, 64> g_slots;

void CheckBand(const fs::path& path, const Band<const float>& band, int width, int height, int planes) {
  if (band.Top() < 0 || band.Rows() > height - band.Top()) {
    throw std::out_of_range(
        OneLine(fmt::format("{}: rows {} to {} are outside the image of {} rows", path.string(), band.Top(),
                            static_cast<std::int64_t>(band.Top()) + band.Rows() - 1, height)));
  }
  if (band.Width() != width || band.Planes() != planes) {
    throw std::out_of_range(
        OneLine(fmt::format("{}: rows of {} pixels in {} planes were given for an image of {} in {}",
                            path.string(), band.Width(), band.Planes(), width, planes)));
  }
}

}  // namespace

FileError::FileError(const fs::path& path, std::string_view what)
    : Error(session::ErrorKind::File, OneLine(fmt::format("{}: {}", path.string(), what)), path.string()),
      pathLength_(path.string().size() + 2) {}

UnfinishedError::UnfinishedError(const fs::path& path, std::string_view what)
    : FileError(path, fmt::format("is still being written, as it seems, and left for later ({})", what)) {}

std::string LowerExtension(const fs::path& path) {
  return LowerCase(path.extension().string());
}

void ThrowSystemError(const fs::path& path, std::string_view doing, int error) {
  throw FileError(path, fmt::format("cannot {}: {}", doing, std::strerror(error)));
}

bool WasJustWritten(const fs::path& path) {
  using std::chrono::hours;
  std::error_code unknown;
  const auto written = fs::last_write_time(path, unknown);
  if (unknown) return false;
  const auto age = fs::file_time_type::clock::now() - written;
  return age < std::chrono::minutes(1) && age > -hours(24);
}

void ThrowIncomplete(const fs::path& path, const std::string& what) {
  if (WasJustWritten(path)) throw UnfinishedError(path, what);
  throw FileError(path, what + "; get the file again");
}

std::string StampOf(const fs::path& path) {
  struct stat state {};
  if (stat(path.c_str(), &state) != 0) ThrowSystemError(path, "look at the file", errno);
  return fmt::format("{} {}.{:09}", state.st_size, state.st_mtim.tv_sec, state.st_mtim.tv_nsec);
}

void ThrowDiskFull(const fs::path& path, const fs::path& folder, std::uint64_t needed) {
  throw FileError(path,
                  fmt::format("no room in folder {}: {} bytes needed, {} available; free some space or write "
                              "elsewhere",
                              folder.string(), needed, FreeSpace(folder)));
}

std::uint64_t FreeSpace(const fs::path& folder) {
  struct statvfs state;
  if (statvfs(folder.c_str(), &state) != 0) return std::numeric_limits<std::uint64_t>::max();
  return static_cast<std::uint64_t>(state.f_bavail) * state.f_frsize;
}

void CheckSides(const fs::path& path, std::int64_t width, std::int64_t height) {
  if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide) {
    throw FileError(path, fmt::format("an image of {} x {} pixels is not supported; sides of 1 to {} are",
                                      width, height, kMaxSide));
  }
}

File::File(const fs::path& path, int flags, const fs::path& shown)
    : path_(path), shown_(shown), descriptor_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
  if (Descriptor() < 0) ThrowSystemError(shown, flags & O_CREAT ? "create the file" : "open the file", errno);
}

FileDescriptor::~FileDescriptor() {
  if (number_ >= 0) close(number_);
}

std::uint64_t File::Size() const {
  struct stat state;
  if (fstat(Descriptor(), &state) != 0) ThrowSystemError(shown_, "find the size", errno);
  return static_cast<std::uint64_t>(state.st_size);
}

std::size_t File::Read(void* data, std::size_t size, std::uint64_t offset) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n =
        pread(Descriptor(), static_cast<char*>(data) + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ThrowSystemError(shown_, "read", errno);
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

void File::Write(const void* data, std::size_t size, std::uint64_t offset) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(Descriptor(), static_cast<const char*>(data) + done, size - done,
                             static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG))
      ThrowDiskFull(shown_, fs::absolute(path_).parent_path(), size - done);
    if (n < 0) ThrowSystemError(shown_, "write", errno);
    done += static_cast<std::size_t>(n);
  }
}

File TemporaryFile(const fs::path& shown) {
  std::error_code error;
  const fs::path folder = fs::temp_directory_path(error);
  if (error)
    throw FileError(shown, "cannot unpack it: TMPDIR names no folder; set it to one with free space");
  std::string name = (folder / "korimg-XXXXXX").string();
  FileDescriptor descriptor(mkostemp(name.data(), O_CLOEXEC));
  if (descriptor.Get() < 0) ThrowSystemError(shown, "unpack it into folder " + folder.string(), errno);
  unlink(name.c_str());
  return {std::move(descriptor), name, shown};
}

fs::path PartialName(const fs::path& path) {
  return path.string() + ".part";
}

fs::path UniquePartialName(const fs::path& path) {
  std::random_device random;
  return fmt::format("{}.{:08x}{:08x}.part", path.string(), random(), random());
}

std::time_t TimeOfWriting() {
  const char* told = std::getenv("SOURCE_DATE_EPOCH");
  std::time_t seconds = 0;
  if (told) {
    const char* const end = told + std::strlen(told);
    const auto [rest, error] = std::from_chars(told, end, seconds);
    if (error == std::errc() && rest == end && rest != told) return seconds;
  }
  return std::time(nullptr);
}

TransientFile::TransientFile(const fs::path& path) : path_(fs::absolute(path)), slot_(-1) {
  // Beyond the last slot, or with a name that is too long, only a signal leaves the file behind.
  if (path_.string().size() >= sizeof Slot::name) return;
  for (std::size_t i = 0; i < g_slots.size(); ++i) {
    int expected = Slot::kFree;
    if (!g_slots[i].state.compare_exchange_strong(expected, Slot::kFilling)) continue;
    std::memcpy(g_slots[i].name, path_.c_str(), path_.string().size() + 1);
    g_slots[i].state = Slot::kUsed;
    slot_ = static_cast<int>(i);
    return;
  }
}

TransientFile::~TransientFile() {
  if (path_.empty()) return;
  unlink(path_.c_str());
  Forget();
}

void TransientFile::RenameTo(const fs::path& target) {
  if (rename(path_.c_str(), target.c_str()) != 0) {
    ThrowSystemError(target, "rename " + path_.string() + " to it", errno);
  }
  Forget();
  path_.clear();
}

void TransientFile::Forget() {
  if (slot_ >= 0) g_slots[static_cast<std::size_t>(slot_)].state = Slot::kFree;
}

void RemovePartialFiles() noexcept {
  for (Slot& slot : g_slots) {
    if (slot.state == Slot::kUsed) unlink(slot.name);
  }
}

namespace {

std::unique_ptr<ImageReader> OpenAny(const fs::path& path, const ReadOptions& options) {
  unsigned char start[8] = {};
  {
    const File file(path, O_RDONLY | O_NONBLOCK, path);  // a pipe is not waited for
    struct stat state;
    if (fstat(file.Descriptor(), &state) != 0) ThrowSystemError(path, "look at the file", errno);
    if (!S_ISREG(state.st_mode)) throw FileError(path, "not a regular file; name an image file");
    if (file.Read(start, sizeof start, 0) == 0) ThrowIncomplete(path, "the file is empty (0 bytes)");
  }
  const auto startsWith = [&](std::string_view magic) {
    return std::memcmp(start, magic.data(), magic.size()) == 0;
  };
  using namespace std::string_view_literals;
  if (startsWith("SIMPLE"sv) || startsWith("\x1f\x8b"sv)) return OpenFits(path, options);
  if (startsWith("\x89PNG\r\n\x1a\n"sv)) return OpenPng(path);
  if (startsWith("II\x2a\0"sv) || startsWith("MM\0\x2a"sv) || startsWith("II\x2b\0"sv) ||
      startsWith("MM\0\x2b"sv)) {
    return HasRawExtension(path) ? OpenRaw(path, options) : OpenTiff(path, options);
  }
  if (startsWith("BZh"sv) || startsWith("PK\3\4"sv) || startsWith("\x1f\x9d"sv) ||
      startsWith("\xfd\x37zXZ"sv)) {
    throw FileError(path, "packed by a program other than gzip; unpack it first");
  }
  return OpenRaw(path, options);
}

}  // namespace

std::unique_ptr<ImageReader> ImageReader::Open(const fs::path& path, const ReadOptions& options) {
  auto reader = OpenAny(path, options);
  if (options.lessBorder) {
    reader->border_ = options.border ? options.border : ConstantBorder::Find(*reader);
    reader->info_.noData = reader->border_->Text();
  }
  return reader;
}

void ImageReader::ReadRows(const Band<float>& to) {
  CheckBand(info_.path, to, info_.width, info_.height, info_.planes);
  const int rows = to.Rows();
  if (rows == 0) return;
  const bool turned = info_.header.turned;
  Read(turned ? to.At(info_.height - to.Bottom()) : to);
  for (int p = 0; p < info_.planes; ++p) {
    const Plane<float> plane = to.Plane(p);
    for (int y = 0; turned && y < rows / 2; ++y) {
      std::swap_ranges(plane[y].begin(), plane[y].end(), plane[rows - 1 - y].begin());
    }
  }
  if (border_) border_->Blank(to);
}

void ImageReader::ApplyScale(const Band<float>& rows) const {
  if (Scale{info_.bscale, info_.bzero, info_.hasBlank}.IsPlain()) return;
  for (int p = 0; p < rows.Planes(); ++p) {
    rows.Plane(p).ForRuns([this](Row<float> pixels) {
      for (float& v : pixels) {
        v = info_.hasBlank && v == 0 ? std::numeric_limits<float>::quiet_NaN()
                                     : static_cast<float>(info_.bzero + info_.bscale * v);
      }
    });
  }
}

std::string Scale::Text() const {
  return fmt::format("korimg: raw value = {} + {} * stored number{}", zero, step,
                     hasBlank ? "; 0 is blank" : "");
}

std::optional<Scale> Scale::Parse(std::string_view text) {
  static const std::regex form("korimg: raw value = (\\S+) \\+ (\\S+) \\* stored number(; 0 is blank)?");
  std::match_results<std::string_view::const_iterator> match;
  if (text.size() > 200 || !std::regex_match(text.begin(), text.end(), match, form)) return std::nullopt;
  Scale scale;
  for (const auto& [number, part] : {std::pair(&scale.zero, match[1]), {&scale.step, match[2]}}) {
    const char* end = &*part.first + part.length();
    const auto [read, error] = std::from_chars(&*part.first, end, *number);
    if (error != std::errc() || read != end || !std::isfinite(*number)) return std::nullopt;
  }
  scale.hasBlank = match[3].matched;
  return scale.step > 0 ? std::optional(scale) : std::nullopt;
}

void RangeOf16Bits::Add(const Band<const float>& pixels) {
  for (int p = 0; p < pixels.Planes(); ++p) {
    pixels.Plane(p).ForRuns([this](Row<const float> run) {
      for (const float v : run) {
        const bool finite = std::abs(v) <= std::numeric_limits<float>::max();
        min_ = finite && v < min_ ? v : min_;
        max_ = finite && v > max_ ? v : max_;
        whole_ &= !finite || v == std::trunc(v);
        hasBlank_ |= std::isnan(v);
      }
    });
  }
}

Scale RangeOf16Bits::Get() const {
  constexpr double kLast = 65535;
  const double lowest = hasBlank_ ? 1 : 0;  // stored number
  if (min_ > max_) return {.hasBlank = hasBlank_};
  // Others read integers of a BZERO of 32768 as they are stored, and blank pixels as 0.
  if (whole_ && min_ >= 0 && max_ <= kLast - lowest) return {.zero = -lowest, .hasBlank = hasBlank_};
  if (whole_ && min_ >= lowest && max_ <= kLast) return {.hasBlank = hasBlank_};
  const double range = static_cast<double>(max_) - min_;
  const double step = range > 0 ? range / (kLast - lowest) : 1;
  return {step, min_ - lowest * step, hasBlank_};
}

namespace {

/// What can be written.
struct Format {
  const char* extensions;
  std::vector<std::string_view> types;
  std::unique_ptr<ImageWriter> (*create)(const fs::path&, const WriteOptions&);
};

const Format kFormats[] = {{".fits .fit .fts", {"float32", "uint16"}, CreateFits},
                           {".tif .tiff", {"float32", "uint8", "uint16"}, CreateTiff},
                           {".png", {"uint8", "uint16"}, CreatePng},
                           {".jpg .jpeg", {"uint8"}, CreateJpeg}};

}  // namespace

std::unique_ptr<ImageWriter> ImageWriter::Create(const fs::path& path, const WriteOptions& options) {
  CheckSides(path, options.width, options.height);
  if (options.planes < 1 || options.planes > 3) {
    throw FileError(path, fmt::format("cannot write {} planes; 1 to 3 are supported", options.planes));
  }
  const std::string extension = LowerExtension(path);
  const auto format = std::find_if(std::begin(kFormats), std::end(kFormats), [&](const Format& f) {
    return (" " + std::string(f.extensions) + " ").find(" " + extension + " ") != std::string::npos;
  });
  if (extension.empty() || format == std::end(kFormats)) {
    std::string all;
    for (const Format& f : kFormats) {
      all += std::string(all.empty() ? "" : " ") + f.extensions;
    }
    throw FileError(path, fmt::format("cannot tell the format from the extension '{}'; supported are {}",
                                      extension, all));
  }
  if (std::find(format->types.begin(), format->types.end(), options.type) == format->types.end()) {
    throw FileError(path, fmt::format("cannot write {} pixels to {}; supported are {}", options.type,
                                      extension, fmt::join(format->types, " and ")));
  }
  if (options.planes == 2 && format->create != CreateFits) {
    throw FileError(path, fmt::format("cannot write 2 planes to {}; FITS files hold them", extension));
  }
  if (!options.extensions.empty() && format->create != CreateFits) {
    throw FileError(path, fmt::format("{} files hold no mask and no uncertainty; name a FITS file, or write "
                                      "the image without them",
                                      extension));
  }
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  if (fs::exists(status) && fs::is_directory(fs::status(path, error)))
    throw FileError(path, "is a folder; name a file");
  if (fs::exists(status) && !options.overwrite) {
    throw FileError(path, "exists already; use --overwrite to replace it, or another name");
  }
  return format->create(path, options);
}

ImageWriter::ImageWriter(const fs::path& path, const WriteOptions& options, bool anyOrder)
    : path_(path), options_(options), anyOrder_(anyOrder), rowsOfExtensions_(options.extensions.size()) {}

void ImageWriter::WriteRows(const Band<const float>& from) {
  CheckBand(path_, from, options_.width, options_.height, options_.planes);
  if (!anyOrder_ && from.Top() != rowsWritten_) {
    throw std::out_of_range(
        OneLine(fmt::format("{}: row {} was given where row {} is next; this format wants the rows "
                            "in order",
                            path_.string(), from.Top(), rowsWritten_)));
  }
  if (from.Rows() > 0) Write(Stored(from, options_.scale));
  rowsWritten_ += from.Rows();
}

void ImageWriter::WriteExtension(size_t number, const Band<const float>& from) {
  CheckBand(path_, from, options_.width, options_.height, options_.planes);
  if (from.Rows() > 0) WriteBeside(number, Stored(from, Scale()));
  rowsOfExtensions_.at(number) += from.Rows();
}

/// The rows as they are stored: on their scale, and in their order.
Band<const float> ImageWriter::Stored(const Band<const float>& from, const Scale& scale) {
  if (scale.IsPlain() && !RunsUp()) return from;
  const int rows = from.Rows();
  const Band<float> stored =
      stored_.Get(from.Planes(), from.Width(), RunsUp() ? options_.height - from.Bottom() : from.Top(), rows);
  for (int p = 0; p < from.Planes(); ++p) {
    for (int y = 0; y < rows; ++y) {
      std::ranges::transform(from.Plane(p)[RunsUp() ? rows - 1 - y : y], stored.Plane(p)[y].begin(),
                             [&scale](float v) {
                               return scale.IsPlain() ? v : static_cast<float>((v - scale.zero) / scale.step);
                             });
    }
  }
  return stored;
}

void ImageWriter::Commit() {
  if (rowsWritten_ < options_.height) {
    throw FileError(path_, fmt::format("only {} of {} rows were written", rowsWritten_, options_.height));
  }
  for (size_t i = 0; i < rowsOfExtensions_.size(); ++i) {
    if (rowsOfExtensions_[i] == options_.height) continue;
    throw FileError(path_, fmt::format("only {} of {} rows of {} were written", rowsOfExtensions_[i],
                                       options_.height, options_.extensions[i].name));
  }
  Finish();
}

}  // namespace korimg::files
