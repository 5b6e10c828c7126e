// The generator's main program: compiles the members of a family for every form, and writes their objects as
// one archive, their declarations and their table rows, for one of several shards: <family>.<shard>.a, .h,
// .inc.
#include "Driver.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

using namespace Halide;
namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& text) {
  std::fprintf(stderr, "pipeline generator: %s\n", text.c_str());
  std::exit(1);
}

/// Best form first, as the run-time choice wants them; the last one is the starting point of the choice.
std::vector<Target> Forms(const std::string& list, const Member& member) {
  const std::string common = "-no_runtime-no_bounds_query";
  std::vector<Target> forms;
  if (member.withAvx2 && list.find("avx2") != std::string::npos) {
    forms.emplace_back("x86-64-linux-sse41-avx-avx2" + common);
  }
  if ((";" + list + ";").find(";avx;") != std::string::npos)
    forms.emplace_back("x86-64-linux-sse41-avx" + common);
  forms.emplace_back("x86-64-linux-sse41" + common);
  if (member.withBase) forms.emplace_back("x86-64-linux" + common);
  return forms;
}

void Archive(const std::string& ar, const fs::path& archive, const std::vector<fs::path>& objects) {
  fs::remove(archive);
  std::string command = "'" + ar + "' rcs '" + archive.string() + "'";
  for (const fs::path& object : objects)
    command += " '" + object.string() + "'";
  if (std::system(command.c_str()) != 0) Fail("failed: " + command);
}

/// Renames the outputs of a function: the parts of a Tuple are called after it and numbered.
void NameOutputs(Module& module, const std::string& function, const std::vector<std::string>& names) {
  for (Internal::LoweredFunc& f : module.functions()) {
    if (f.name != function) continue;
    auto name = names.begin();
    for (Internal::LoweredArgument& argument : f.args) {
      if (!argument.is_output() || name == names.end()) continue;
      Expr renamed = Internal::Variable::make(type_of<halide_buffer_t*>(), *name + ".buffer");
      f.body = Internal::LetStmt::make(argument.name + ".buffer", renamed, f.body);
      argument.name = *name++;
    }
  }
}

std::vector<fs::path> Compile(const Member& member, const std::string& forms, const fs::path& folder) {
  const std::vector<Target> targets = Forms(forms, member);
  std::vector<std::string> suffixes;
  std::vector<fs::path> objects;
  for (const Target& target : targets) {
    suffixes.push_back(target.to_string());
    objects.push_back(folder / (member.name + "-" + suffixes.back() + ".o"));
  }
  objects.push_back(folder / (member.name + (targets.size() > 1 ? "_wrapper.o" : ".o")));
  if (targets.size() == 1) objects.erase(objects.begin());
  const auto build = [&](const std::string& name, const Target& form) {
    // Strict floats: every form of a pipeline gives the same bits.
    const Target target = form.with_feature(Target::StrictFloat);
    Definition definition = member.define(target);
    Module module = Pipeline(definition.outputs).compile_to_module(definition.arguments, name, target);
    NameOutputs(module, name, definition.outputNames);
    return module;
  };
  compile_multitarget(member.name,
                      {{OutputFileType::object, (folder / (member.name + ".o")).string()},
                       {OutputFileType::c_header, (folder / (member.name + ".h")).string()}},
                      targets, suffixes, build);
  return objects;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

/// The line of a generated header that declares the pipeline itself.
std::string Declaration(const Member& member, const fs::path& folder) {
  std::istringstream header(ReadFile(folder / (member.name + ".h")));
  for (std::string line; std::getline(header, line);) {
    if (line.starts_with("int " + member.name + "(")) return line;
  }
  Fail("no declaration of " + member.name);
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> option;
  for (int i = 1; i + 1 < argc; i += 2)
    option[argv[i]] = argv[i + 1];
  if (option.count("--runtime")) {
    const fs::path archive = option["--runtime"], object = archive.string() + ".o";
    fs::create_directories(archive.parent_path());
    compile_standalone_runtime(object.string(), Target("x86-64-linux"));
    Archive(option["--ar"], archive, {object});
    return 0;
  }

  const std::string family = option["--family"];
  const fs::path out = option["--out"];
  int shard = 0, shards = 1;
  std::sscanf(option["--shard"].c_str(), "%d/%d", &shard, &shards);
  const fs::path folder = out / (family + "." + std::to_string(shard));
  fs::create_directories(folder);

  std::vector<fs::path> objects;
  std::ofstream header(folder.string() + ".h"), rows(folder.string() + ".inc");
  header << "#pragma once\n#include <HalideRuntime.h>\nextern \"C\" {\n";
  const std::vector<Member> members = Family();
  for (size_t i = shard; i < members.size(); i += shards) {
    const Member& member = members[i];
    const std::vector<fs::path> more = Compile(member, option["--forms"], folder);
    objects.insert(objects.end(), more.begin(), more.end());
    header << Declaration(member, folder) << "\n"
           << "int " << member.name << "_argv(void** args);\n"
           << "const struct halide_filter_metadata_t* " << member.name << "_metadata();\n";
    rows << "{\"" << family << "\", " << member.name << "_argv, " << member.name << "_metadata, "
         << (member.withAvx2 ? "true" : "false") << ", " << (member.withBase ? "true" : "false") << "},\n";
  }
  header << "}\n";
  Archive(option["--ar"], folder.string() + ".a", objects);
  return 0;
}
