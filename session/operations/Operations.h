// The table of operations: what `korimg apply` can do. The verb, its help, the documentation and the test
// that runs every operation on both stores all read this one table.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korimg/image/CVelImage.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"

namespace korimg::session {

enum class ParameterKind {
  Number,
  Integer,
  Flag,      ///< 0 or 1
  Choice,    ///< one of the names in `choices`, whose place in the list is the library's number
  PerPlane,  ///< one number, or one for each plane with commas between
  File,      ///< an image
  Rect,      ///< LEFT,TOP,RIGHT,BOTTOM in pixels
  Points     ///< of a curve: "x:y,x:y..." from x = 0 to x = 1, y from 0 to 1
};

struct Parameter {
  std::string name;
  ParameterKind kind = ParameterKind::Number;
  std::string unit;          ///< "raw", "0-255", "pixels", "" for none
  std::string defaultValue;  ///< as it would be written; empty: none
  double low = -1e30, high = 1e30;
  std::vector<std::string> choices = {};
  std::string help;
  bool optional = false;  ///< may be left out though it has no default
};

/// Names of the kernels that images are read by between their pixels, by the library's numbers.
inline const std::vector<std::string> kKernels = {"bilinear", "bicubic", "lanczos2", "lanczos3", "nearest"};

/// A point of a curve on scales of 0 to 1.
struct CurvePoint {
  double x = 0, y = 0;
};

class Call;

struct Operation {
  std::string name;
  std::string summary;
  std::vector<Parameter> parameters;
  bool takesRect = false;
  /// Replaces call.image by the result, or works on it in place.
  void (*run)(Call& call) = nullptr;
  /// Contiguous and paged stores agree within this share of the value; nothing: they differ by their
  /// definition.
  std::optional<double> storesAgree = 1e-5;
};

/// All operations, by name.
KORIMG_SESSION_API const std::vector<Operation>& Operations();

/// The operation of that name. Throws UsageError with the nearest names.
KORIMG_SESSION_API const Operation& FindOperation(const std::string& name);

/// One operation of an apply call, with its parameters.
struct KORIMG_SESSION_API Step {
  const Operation* operation;
  std::map<std::string, std::string> values;  ///< those given
  std::string Text() const;                   ///< "bright bright=10"
};

/// Reads LEFT,TOP,RIGHT,BOTTOM; right and bottom are exclusive. Throws UsageError, also for an empty one.
KORIMG_SESSION_API CRect ParseRect(const std::string& text);

/// Checks a value against its parameter. Throws UsageError that names both.
KORIMG_SESSION_API void CheckValue(const Operation& operation, const Parameter& parameter,
                                   const std::string& value);

/// What an operation runs on.
class KORIMG_SESSION_API Call {
 public:
  Call(Job& job, const Step& step, std::unique_ptr<CVelImage>& image, files::Header& header, CRect* rect)
      : job(job), image(image), header(header), rect(rect), step_(step) {}

  Job& job;
  std::unique_ptr<CVelImage>& image;
  files::Header& header;  ///< of the image: operations that move pixels keep its world coordinates right
  CRect* rect;

  double Number(const std::string& name) const;
  int Integer(const std::string& name) const;
  int Choice(const std::string& name) const;  ///< place in the list of choices
  /// One value for each plane of the image, at least three; zeros when it was left out.
  template <class T = float>
  std::vector<T> PerPlane(const std::string& name) const;
  CRect Rect(const std::string& name) const;
  /// The points of a curve, ascending in x; the straight line when it was left out.
  std::vector<CurvePoint> Points(const std::string& name) const;
  /// True when the parameter was given, or has a default.
  bool Has(const std::string& name) const;
  /// The image of a file, in the same store. It must have the size of this image when sameSize is set.
  std::unique_ptr<CVelImage> File(const std::string& name, bool sameSize = true) const;

  /// An operation object as the target: shaped like the image, and holding its pixels where the rectangle
  /// leaves some of them alone.
  template <class Target>
  std::unique_ptr<Target> NewTarget() const {
    auto target = std::make_unique<Target>();
    Prepare(*target);
    return target;
  }

  const std::string& Name() const;  ///< of the operation
  HWND Window() const;

 private:
  const std::string& Text(const std::string& name) const;
  void Prepare(CVelImage& target) const;

  const Step& step_;
};

}  // namespace korimg::session
