#include "cli/Describe.h"

#include <cstdint>
#include <string>
#include <utility>

#include "cli/ExitCode.h"

namespace kestrowan::cli {

namespace {

JSONValue::Array names(const std::vector<std::string>& names, const std::string& dashes) {
  JSONValue::Array array;
  for (const auto& name : names) array.emplace_back(dashes + name);
  return array;
}

JSONValue::Array optionForms(const CLI::App& app) {
  JSONValue::Array forms;
  for (const auto* option : app.get_options()) {
    JSONValue::Array flags = names(option->get_snames(), "-");
    for (auto& name : names(option->get_lnames(), "--")) flags.push_back(std::move(name));
    const bool positional = option->get_positional();
    const bool takesValue = option->get_items_expected_max() > 0;
    forms.emplace_back(JSONValue::Object{{"names", std::move(flags)},
                                         {"value", positional   ? JSONValue(option->get_name())
                                                   : takesValue ? JSONValue(option->get_type_name())
                                                                : JSONValue()},
                                         {"positional", positional},
                                         {"required", option->get_required()},
                                         {"text", option->get_description()},
                                         {"default", option->get_default_str()}});
  }
  return forms;
}

JSONValue::Object form(const CLI::App& app) {
  return {{"name", app.get_name()},
          {"summary", app.get_description()},
          {"footer", app.get_footer()},
          {"options", optionForms(app)}};
}

}  // namespace

JSONValue description(const CLI::App& app, const std::string& version) {
  auto whole = form(app);
  whole.emplace_back("version", version);
  JSONValue::Array commands;
  // A command without a group is for programs, and not shown in help either.
  for (const auto* command :
       app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
    commands.emplace_back(form(*command));
  }
  whole.emplace_back("commands", std::move(commands));
  JSONValue::Array codes;
  for (const auto& [code, text] : kExitCodes) {
    codes.emplace_back(
        JSONValue::Object{{"code", static_cast<std::int64_t>(code)}, {"text", text}});
  }
  whole.emplace_back("exitCodes", std::move(codes));
  return whole;
}

}  // namespace kestrowan::cli
