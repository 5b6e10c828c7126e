// The verbs of the tool. Each adds its sub-command, which runs when it is parsed.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/tool/Tool.h"
#include "session/calibrate/Calibrate.h"
#include "session/develop/Develop.h"
#include "session/job/Named.h"
#include "session/register/LayFrames.h"
#include "session/stack/StackChoices.h"

namespace korimg::tool {

using namespace session;

void AddVersion(CLI::App& app, Tool& tool);
void AddInfo(CLI::App& app, Tool& tool);
void AddOps(CLI::App& app, Tool& tool);
void AddApply(CLI::App& app, Tool& tool);
void AddCompose(CLI::App& app, Tool& tool);
void AddComposite(CLI::App& app, Tool& tool);
void AddCalibrate(CLI::App& app, Tool& tool);
void AddDevelop(CLI::App& app, Tool& tool);
void AddFocus(CLI::App& app, Tool& tool);
void AddRender(CLI::App& app, Tool& tool);
void AddSimulate(CLI::App& app, Tool& tool);
void AddRun(CLI::App& app, Tool& tool);
void AddStars(CLI::App& app, Tool& tool);
void AddRegister(CLI::App& app, Tool& tool);
void AddSky(CLI::App& app, Tool& tool);
void AddStack(CLI::App& app, Tool& tool);
void AddView(CLI::App& app, Tool& tool);

/// Adds the options that all verbs take.
void AddCommonOptions(CLI::App& verb, Tool& tool);

/// Adds the option that says of how many bits the output is.
void AddBits(CLI::App& verb, bool& integers);

/// Adds that, and the option that says where images live.
void AddImageOptions(CLI::App& verb, bool& paged, bool& integers);

/// Adds the options of calibration but the frames themselves.
void AddCalibrationOptions(CLI::App& verb, CalibrateOptions& options);

/// Adds the options that want uncertainties and masks.
void AddQualityOptions(CLI::App& verb, QualityOptions& options);

/// Adds the options of stacking but the frames themselves.
void AddStackChoices(CLI::App& verb, StackChoices& choices);

/// Adds the options that say what a mosaic is and how its colours are balanced.
void AddMosaicOptions(CLI::App& verb, DevelopOptions& options);

/// Adds --model, by what frames are laid on the reference.
void AddModel(CLI::App& verb, FrameModel& model);

/// Adds an option that is one of some choices.
template <class Value>
void AddChoice(CLI::App& verb, const std::string& option, Value& chosen,
               const std::vector<Named<std::type_identity_t<Value>>>& choices, const std::string& help) {
  verb.add_option_function<std::string>(
          option, [&chosen, choices](const std::string& name) { chosen = ValueOf(choices, name); }, help)
      ->default_str(NameOf(choices, chosen))
      ->check(CLI::IsMember(NamesOf(choices)));
}

}  // namespace korimg::tool
