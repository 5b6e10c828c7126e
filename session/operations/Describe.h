// How an operation describes itself: a struct of options, a parameter for each of its members, and a function
// that takes the struct once all values are checked and converted.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "korimg/image/Exceptions.h"
#include "korimg/image/Loan.h"

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/job/Named.h"
#include "session/operations/Operation.h"

namespace korimg::session {

/// What the library's operations are told, so that they show their progress.
inline constexpr int kShow = 1;

/// Holds what an operation runs on.
class KORIMG_SESSION_API Call {
 public:
  Call(Job& job, const Operation& operation, Image& image, CRect* rect)
      : job(job), image(image.Pointer()), header(image.Header()), rect(rect), operation_(operation) {}

  Job& job;
  std::unique_ptr<CVelImage>& image;  ///< worked on in place, or replaced by the result
  files::Header& header;              ///< of the image: operations that move pixels take it along
  CRect* rect;                        ///< null for the whole image

  /// Makes an operation object the target: shaped like the image, and holding its pixels where the rectangle
  /// leaves some of them alone.
  template <class Target>
  std::unique_ptr<Target> NewTarget() const {
    auto target = std::make_unique<Target>();
    Prepare(*target);
    return target;
  }

  /// Replaces the image by what make(target) makes of it. make answers 0 when there is no room.
  template <class Target, class F>
  void Replace(F&& make) {
    auto target = NewTarget<Target>();
    if constexpr (std::is_void_v<std::invoke_result_t<F, Target&>>) {
      make(*target);
    } else if (!make(*target)) {
      throw velora::CVmMemoryAllocationError("no room for the result");
    }
    image = std::move(target);
  }

  /// Works on the image in place by the members of an operation object.
  template <class Worker, class F>
  void InPlace(F&& work) {
    Loan<Worker> loan(*image);
    loan.borrower.SetProgressHandle(Window());
    work(loan.borrower);
  }

  /// Loads another image, in the same store where it comes from a file. It must have the size of this one,
  /// and its planes where it has colours.
  std::shared_ptr<CVelImage> Load(const ImageValue& source) const;
  /// Loads one of any size.
  std::shared_ptr<CVelImage> LoadAnySize(const ImageValue& source) const;

  const std::string& Name() const { return operation_.name; }
  HWND Window() const { return job.OperationWindow(Name()); }

 private:
  void Prepare(CVelImage& target) const;

  const Operation& operation_;
};

/// Holds what is said of a parameter beside its name and type.
struct About {
  std::string help;
  std::string unit = {};
  double low = -1e30, high = 1e30;
};

/// Describes an operation whose options are a struct O. Members hold the defaults; a std::optional may be
/// left out without one. ImageValue and CRect must be given unless they are optional.
template <class O>
class Describe {
 public:
  Describe(std::string name, std::string summary, std::string text) {
    operation_.name = std::move(name);
    operation_.summary = std::move(summary);
    operation_.text = std::move(text);
  }

  /// Adds a parameter of the type that the member has.
  template <class T, class B>
  requires std::derived_from<O, B> Describe& Takes(const std::string& name, T B::*member,
                                                   const About& about) {
    using M = typename Member<T>::Type;
    Parameter parameter = Make(name, KindOf<M>(), about);
    if constexpr (!Member<T>::kOptional) {
      if constexpr (std::is_same_v<M, ImageValue> || std::is_same_v<M, CRect>) {
        parameter.required = true;
      } else {
        parameter.defaultValue = Value(O{}.*member);
      }
    }
    Add(std::move(parameter),
        [member](O& options, const Value& value) { options.*member = std::get<M>(value); });
    return *this;
  }

  /// Adds a choice by name. The member's default is the first.
  template <class E, class B>
  requires std::derived_from<O, B> Describe& Chooses(
      const std::string& name, E B::*member, const std::vector<Named<std::type_identity_t<E>>>& choices,
      const std::string& help) {
    Parameter parameter = Make(name, ParameterKind::Choice, {help});
    parameter.choices = NamesOf(choices);
    parameter.defaultValue = Value(parameter.choices.front());
    Add(std::move(parameter), [member, choices](O& options, const Value& value) {
      options.*member = ValueOf(choices, std::get<std::string>(value));
    });
    return *this;
  }

  /// Tells that the last parameter must be given.
  Describe& Required() {
    operation_.parameters.back().required = true;
    operation_.parameters.back().defaultValue.reset();
    return *this;
  }
  /// Tells that it may be confined to a rectangle.
  Describe& OnRect() {
    operation_.takesRect = true;
    return *this;
  }
  Describe& Header(HeaderEffect effect) {
    operation_.header = effect;
    return *this;
  }
  /// Tells that it only reads the pixels of the image that it replaces, whatever its values.
  Describe& KeepsSource() {
    operation_.keepsSource = true;
    return *this;
  }
  Describe& StoresAgree(std::optional<double> share) {
    operation_.storesAgree = share;
    return *this;
  }
  Describe& Example(std::string values) {
    operation_.example = std::move(values);
    return *this;
  }

  /// Answers the options by values that are checked; the rest by defaults.
  O Read(const Operation::Values& values) const {
    O options;
    for (const auto& [name, set] : setters_) {
      if (const auto given = values.find(name); given != values.end()) set(options, given->second);
    }
    return options;
  }

  Operation Runs(void (*run)(Call&, const O&)) {
    Operation operation = std::move(operation_);
    operation.run = [described = std::move(*this), run](Call& call, const Operation::Values& values) {
      run(call, described.Read(values));
    };
    return operation;
  }

 private:
  template <class T>
  struct Member {
    using Type = T;
    static constexpr bool kOptional = false;
  };
  template <class T>
  struct Member<std::optional<T>> {
    using Type = T;
    static constexpr bool kOptional = true;
  };

  template <class M>
  static constexpr ParameterKind KindOf() {
    if constexpr (std::is_same_v<M, double>) return ParameterKind::Number;
    if constexpr (std::is_same_v<M, int>) return ParameterKind::Integer;
    if constexpr (std::is_same_v<M, bool>) return ParameterKind::Flag;
    if constexpr (std::is_same_v<M, PerPlane>) return ParameterKind::PerPlane;
    if constexpr (std::is_same_v<M, ImageValue>) return ParameterKind::Image;
    if constexpr (std::is_same_v<M, CRect>) return ParameterKind::Rect;
    if constexpr (std::is_same_v<M, std::vector<CurvePoint>>) return ParameterKind::Points;
    if constexpr (std::is_same_v<M, Matrix>) return ParameterKind::Matrix;
  }

  static Parameter Make(const std::string& name, ParameterKind kind, const About& about) {
    Parameter parameter;
    parameter.name = name;
    parameter.kind = kind;
    parameter.unit = about.unit;
    parameter.low = kind == ParameterKind::Flag ? 0 : about.low;
    parameter.high = kind == ParameterKind::Flag ? 1 : about.high;
    parameter.help = about.help;
    return parameter;
  }

  template <class F>
  void Add(Parameter parameter, F&& set) {
    setters_.emplace_back(parameter.name, std::forward<F>(set));
    operation_.parameters.push_back(std::move(parameter));
  }

  Operation operation_;
  std::vector<std::pair<std::string, std::function<void(O&, const Value&)>>> setters_;
};

}  // namespace korimg::session
