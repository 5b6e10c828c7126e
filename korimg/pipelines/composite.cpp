// One plane merged with another that is shifted or turned: 242 pipelines by rule, from one definition.
#include "Driver.h"
#include "Sampling.h"

using namespace Halide;

namespace {

enum class Form { WholeShift, FloatShift, Rotate };

struct NamedForm {
  Form form;
  const char* name;
};
constexpr NamedForm kForms[] = {
    {Form::WholeShift, "intshift"}, {Form::FloatShift, "floatshift"}, {Form::Rotate, "rotate"}};

/// The share of white that v is, limited; NaN stays NaN.
Expr share_of_white(Expr v, float low) {
  return select(v<low, low, v> 255.0f, 255.0f, v) * (1.0f / 255);
}

/// A way to combine a and b; `scaled` is set when both are on the scale of 0 to 255.
struct Op {
  const char* name;
  Expr (*combine)(Expr a, Expr b, Expr weight, bool scaled);
};

const Op kOps[] = {
    {"average", [](Expr a, Expr b, Expr, bool) { return (a + b) * 0.5f; }},
    {"add", [](Expr a, Expr b, Expr, bool) { return a + b; }},
    {"weight", [](Expr a, Expr b, Expr w, bool) { return a * (1.0f - w) + b * w; }},
    {"sub", [](Expr a, Expr b, Expr, bool) { return a - b; }},
    {"sub_cutminus", [](Expr a, Expr b, Expr, bool) { return select(a - b < 0.0f, 0.0f, a - b); }},
    {"mult", [](Expr a, Expr b, Expr, bool scaled) { return a * (scaled ? share_of_white(b, 0.0f) : b); }},
    {"div",
     [](Expr a, Expr b, Expr, bool scaled) {
       return a / (scaled ? share_of_white(b, 0.001f) : select(b == 0.0f, 1.0f, b));
     }},
    {"diff", [](Expr a, Expr b, Expr, bool) { return abs(a - b); }},
    {"brighter", [](Expr a, Expr b, Expr, bool) { return select(a < b, b, a); }},
    {"darker", [](Expr a, Expr b, Expr, bool) { return select(b < a, b, a); }},
    {"default", [](Expr a, Expr, Expr, bool) { return a; }},
};

Definition composite(Form form, bool level, Kernel kernel, const Op& op, const Target& target) {
  ImageParam a(Float(32), 2, "a"), b(Float(32), 2, "b");
  const Type shift = form == Form::WholeShift ? Int(32) : Float(32);
  Param<void> shift_x(shift, "shift_x"), shift_y(shift, "shift_y");
  Param<float> center_x("center_x"), center_y("center_y"), cosR("cosR"), sinR("sinR"), outside("outside");
  Param<float> min_a("level_min_a"), range_a("level_range_a"), min_b("level_min_b"), range_b("level_range_b");
  Param<float> weight("weight");
  Var x("x"), y("y");

  const Sample sample = form == Form::WholeShift ? SampleWholeShift(b, shift_x, shift_y)
                        : form == Form::FloatShift
                            ? SampleShifted(b, kernel, shift_x, shift_y)
                            : SampleAt(b, kernel,
                                       Turned(x - shift_x - center_x, center_y - (y - shift_y), center_x,
                                              center_y, cosR, sinR));
  Func composit("composit");
  if (level) {
    // `outside` counts from b's black.
    Expr first = (a(x, y) - min_a) * (255.0f / range_a);
    Expr second = select(sample.inside, sample.value - min_b, outside) * (255.0f / range_b);
    composit(x, y) = op.combine(first, second, weight, true) * (range_a / 255.0f) + min_a;
  } else {
    composit(x, y) = op.combine(a(x, y), sample.Or(outside), weight, false);
  }
  sample.schedule(composit, target);

  std::vector<Argument> arguments{a, b, shift_x, shift_y};
  if (form == Form::Rotate) arguments.insert(arguments.end(), {center_x, center_y, cosR, sinR});
  arguments.emplace_back(outside);
  if (level) arguments.insert(arguments.end(), {min_a, range_a, min_b, range_b});
  if (std::string(op.name) == "weight") arguments.emplace_back(weight);
  return {arguments, {composit}};
}

}  // namespace

std::vector<Member> Family() {
  std::vector<Member> members;
  const auto add = [&](const NamedForm& form, bool level, Kernel kernel, const std::string& kernelName) {
    for (const Op& op : kOps) {
      const auto define = [=, &op](const Target& target) {
        return composite(form.form, level, kernel, op, target);
      };
      const std::string name = std::string("composit_") + form.name + (level ? "_level_" : "_");
      members.push_back({name + kernelName + op.name + "_float", define, kernel != Kernel::Nearest});
    }
  };
  for (const NamedForm& form : kForms) {
    for (const bool level : {false, true}) {
      if (form.form == Form::WholeShift) {
        add(form, level, Kernel::Nearest, "");
        continue;
      }
      for (const NamedKernel& kernel : kKernels) {
        add(form, level, kernel.kernel, std::string(kernel.name) + "_");
      }
    }
  }
  return members;
}
