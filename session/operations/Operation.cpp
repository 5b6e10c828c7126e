#include "session/operations/Operation.h"

#include <algorithm>

#include <fmt/format.h>

#include "session/files/Gain.h"
#include "session/job/internal/Edge.h"
#include "session/operations/Describe.h"
#include "session/picture/Images.h"

namespace korimg::session {

const Parameter& Operation::Find(const std::string& wanted) const {
  for (const Parameter& parameter : parameters) {
    if (parameter.name == wanted) return parameter;
  }
  throw UsageError(fmt::format("{} has no parameter '{}'; `korimg ops {}` lists them", name, wanted, name));
}

Step::Step(const Operation& operation, const std::map<std::string, std::string>& texts) : Step(operation) {
  for (const auto& [name, text] : texts) {
    Set(name, text);
  }
}

Step& Step::Set(const std::string& name, const std::string& text) {
  const Parameter& parameter = operation_->Find(name);
  try {
    values_[name] = parameter.Read(text);
  } catch (const UsageError& wanted) {
    throw UsageError(
        fmt::format("{}: {}={} is not possible; {}", operation_->name, name, text, wanted.what()));
  }
  texts_[name] = text;
  return *this;
}

Step& Step::SetValue(const std::string& name, const Value& value) {
  const Parameter& parameter = operation_->Find(name);
  try {
    values_[name] = parameter.Check(value);
  } catch (const UsageError& wanted) {
    throw UsageError(
        fmt::format("{}: {}={} is not possible; {}", operation_->name, name, TextOf(value), wanted.what()));
  }
  texts_[name] = TextOf(values_[name]);
  return *this;
}

std::string Step::Text() const {
  std::string text = operation_->name;
  for (const auto& [name, value] : texts_) {
    text += fmt::format(" {}={}", name, value);
  }
  return text;
}

void Step::CheckComplete() const {
  for (const Parameter& parameter : operation_->parameters) {
    if (parameter.required && !values_.contains(parameter.name)) {
      throw UsageError(fmt::format("{} wants {}=...: {}", operation_->name, parameter.name, parameter.help));
    }
  }
}

void Step::CheckTakesRect() const {
  if (!operation_->takesRect) {
    throw UsageError(fmt::format("{} works on the whole image: leave --rect out", operation_->name));
  }
}

void Step::Run(Job& job, Image& image, CRect* rect) const {
  AtEdge([&] {
    CheckComplete();
    if (rect) {
      CheckTakesRect();
      const int left = std::max(rect->left, 0), right = std::min(rect->right, image.Width());
      const int top = std::max(rect->top, 0), bottom = std::min(rect->bottom, image.Height());
      if (left >= right || top >= bottom) {
        throw UsageError(fmt::format("{}: the rectangle {} has no pixel of the image, {} x {}",
                                     operation_->name, TextOf(*rect), image.Width(), image.Height()));
      }
    }
    job.CheckCancelled();
    Call call(job, *operation_, image, rect);
    image.Pixels().SetProgressHandle(call.Window());
    operation_->run(call, values_);
    job.EndProgress();
    job.CheckComputed(image.Info().path);
    if (operation_->header == HeaderEffect::DropsCounts) files::DropGain(image.Header());
  });
}

std::shared_ptr<CVelImage> Call::LoadAnySize(const ImageValue& source) const {
  if (source.image) return {source.image, &source.image->Pixels()};
  return std::move(Image::Open(job, image->VmManager(), source.path).Pointer());
}

std::shared_ptr<CVelImage> Call::Load(const ImageValue& source) const {
  std::shared_ptr<CVelImage> other;
  if (source.image) {
    other = LoadAnySize(source);
    CheckSameSize(*other, *image, TextOf(source), Name());
  } else {
    other = LoadSameSize(job, *image, header, source.path, Name());
  }
  if (other->IsColor() && other->GetPlanes() < image->GetPlanes()) {
    throw files::FileError(TextOf(source), fmt::format("has {} planes, but the image has {}",
                                                       other->GetPlanes(), image->GetPlanes()));
  }
  return other;
}

void Call::Prepare(CVelImage& target) const {
  if (!rect) {
    if (!target.Create(*image, nullptr)) throw velora::CVmMemoryAllocationError("no room for the result");
  } else if (!target.CopyImage(*image, nullptr, nullptr)) {
    throw velora::CVmMemoryAllocationError("no room for the result");
  }
  target.SetProgressHandle(Window());
}

}  // namespace korimg::session
