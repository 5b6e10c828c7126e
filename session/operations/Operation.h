// What an operation is: its name, its typed parameters, what it does to pixels and header.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "session/Export.h"
#include "session/picture/Image.h"

namespace korimg::session {

class Call;

enum class ParameterKind {
  Number,
  Integer,
  Flag,      ///< true or false, in texts 1 or 0
  Choice,    ///< one of the names in `choices`
  PerPlane,  ///< one number for all planes, or three of them
  Image,     ///< a file, or an image in memory
  Rect,      ///< in texts LEFT,TOP,RIGHT,BOTTOM in pixels; right and bottom are exclusive
  Points,    ///< of a curve; in texts x:y,x:y... from x = 0 to x = 1, y from 0 to 1
  Matrix     ///< in texts rows with semicolons between, their numbers with commas between
};

/// A point of a curve on scales of 0 to 1.
struct CurvePoint {
  double x = 0, y = 0;
};

/// Numbers in rows of one length.
struct Matrix {
  int rows = 0, columns = 0;
  std::vector<double> values = {};  ///< row by row
};

/// A number for each plane, or one for all of them.
struct PerPlane {
  std::vector<double> values;

  PerPlane() = default;
  PerPlane(double value) : values{value} {}
  PerPlane(std::vector<double> planes) : values(std::move(planes)) {}
  double operator[](int plane) const { return plane < Count() ? values[plane] : values.back(); }
  int Count() const { return static_cast<int>(values.size()); }
  /// Answers numbers for so many planes, and three at least, as the library takes them.
  template <class T = double>
  std::vector<T> For(int planes) const {
    std::vector<T> all;
    for (int p = 0; p < std::max(planes, 3); ++p) {
      all.push_back(static_cast<T>((*this)[p]));
    }
    return all;
  }
};

/// An image that an operation takes beside its own: a file, or one in memory.
struct ImageValue {
  std::filesystem::path path = {};
  std::shared_ptr<Image> image = nullptr;  ///< goes before the path

  bool IsEmpty() const { return path.empty() && !image; }
};

/// The value of a parameter, of the type that its kind has: double, int, bool, the name of a choice,
/// PerPlane, ImageValue, CRect, points, Matrix.
using Value = std::variant<double, int, bool, std::string, PerPlane, ImageValue, CRect,
                           std::vector<CurvePoint>, Matrix>;

struct KORIMG_SESSION_API Parameter {
  std::string name;
  ParameterKind kind = ParameterKind::Number;
  std::string unit;                    ///< "raw", "0-255", "pixels", "" for none
  double low = -1e30, high = 1e30;     ///< of numbers
  std::string help;                    ///< one line
  bool required = false;               ///< must be given
  std::optional<Value> defaultValue;   ///< what it is when left out; none: nothing
  std::vector<std::string> choices{};  ///< names, the default first

  /// Reads a text. Says what should be written instead by throwing UsageError.
  Value Read(const std::string& text) const;
  /// Answers a value as this kind has it: a whole number is a number too, and a number one for all planes.
  /// Throws UsageError when it is of another type, or outside the range.
  Value Check(const Value& value) const;
};

/// Writes a value as it is written.
KORIMG_SESSION_API std::string TextOf(const Value& value);

/// Reads LEFT,TOP,RIGHT,BOTTOM; right and bottom are exclusive. Throws UsageError, also for an empty one.
KORIMG_SESSION_API CRect ParseRect(const std::string& text);

/// Tells what an operation makes of what a header says.
enum class HeaderEffect {
  Keeps,        ///< all of it stays true
  Moves,        ///< world coordinates, pixel sizes and the phase of a mosaic go along with the pixels
  DropsPlaces,  ///< world coordinates go: no affine map says where pixels come from
  DropsCounts   ///< values are no counts of the camera any more: the gain in electrons goes
};

struct Operation {
  using Values = std::map<std::string, Value>;

  std::string name;
  std::string summary;  ///< one line, goes on after "name: "
  std::string text;     ///< a paragraph: what it is for, and when not to use it
  std::string family;   ///< the name of its page
  std::vector<Parameter> parameters;
  bool takesRect = false;  ///< may be confined to a rectangle
  HeaderEffect header = HeaderEffect::Keeps;
  /// It replaces the call's image, whose own pixels it only reads.
  bool keepsSource = false;
  /// Contiguous and paged stores agree within this share of the value; nothing: they differ by their
  /// definition.
  std::optional<double> storesAgree = 1e-5;
  /// The parameters of a call that runs, as they are written. Images are called dark.fits, flat.fits and
  /// other.fits.
  std::string example;
  /// Works on the call's image, or replaces it. Values are checked, and those with no default given.
  std::function<void(Call& call, const Values& values)> run;

  /// Answers the parameter of that name. Throws UsageError with the name of the operation.
  KORIMG_SESSION_API const Parameter& Find(const std::string& name) const;
};

/// One operation of several that run one after the other, with the values it is given. The operation must
/// live as long.
class KORIMG_SESSION_API Step {
 public:
  explicit Step(const Operation& operation) : operation_(&operation) {}
  /// Makes a step with values as they are written.
  Step(const Operation& operation, const std::map<std::string, std::string>& texts);

  /// Gives a parameter a value, as it is written or of its own type. Throws UsageError when the value is not
  /// possible; the text names operation and parameter.
  Step& Set(const std::string& name, const std::string& text);
  Step& SetValue(const std::string& name, const Value& value);

  const Operation& What() const { return *operation_; }
  /// Answers what it was given.
  const Operation::Values& Values() const { return values_; }
  /// Writes it so: "bright bright=10"
  std::string Text() const;
  /// Throws UsageError when a parameter that must be given is missing.
  void CheckComplete() const;
  /// Throws UsageError when the operation works on whole images only.
  void CheckTakesRect() const;
  /// Runs on an image, or on a rectangle of it, and brings its header along.
  /// @throws UsageError for values that do not fit the image, FileError, Cancelled
  void Run(Job& job, Image& image, CRect* rect = nullptr) const;

 private:
  const Operation* operation_;
  Operation::Values values_;
  std::map<std::string, std::string> texts_;
};

}  // namespace korimg::session
