#include "ctl/command.h"

#include <CLI/App.hpp>

#include "ctl/text.h"

namespace Ctl {

Argument& Argument::required(bool needed) {
  option_->required(needed);
  return *this;
}

Argument& Argument::completes(Completes what) {
  (*completions_)[option_] = what;
  return *this;
}

Argument& Argument::duration() {
  const auto convert = [](std::string& text) {
    text = inSeconds(text);
    return std::string();
  };
  option_->transform(CLI::Validator(convert, ""))->type_name("SECONDS");
  return *this;
}

Argument& Argument::within(double least, double most) {
  option_->check(CLI::Range(least, most));
  return *this;
}

Argument& Argument::oneEach() {
  option_->expected(1)->take_all();
  return *this;
}

Argument& Argument::hidden() {
  option_->group("");
  return *this;
}

Argument& Argument::valueName(const std::string& name) {
  option_->type_name(name);
  return *this;
}

Argument& Argument::showDefault() {
  option_->capture_default_str();
  return *this;
}

Argument& Argument::fromEnvironment(const std::string& variable) {
  option_->envname(variable)->capture_default_str();
  return *this;
}

bool Argument::given() const { return option_->count() != 0; }

Command Command::add(const std::string& name, const std::string& description, const std::string& example) {
  CLI::App* command = app_->add_subcommand(name, description);
  command->footer("Example: " + example);
  command->fallthrough();
  return {*command, *completions_};
}

Command Command::addGroup(const std::string& name, const std::string& description,
                          const std::string& example) {
  Command group = add(name, description, example);
  group.app_->require_subcommand(1);
  return group;
}

template <class T>
Argument Command::option(const std::string& name, T& into, const std::string& help) {
  return {app_->add_option(name, into, help), completions_};
}

Argument Command::argument(const std::string& name, std::string& into, const std::string& help) {
  return option(name, into, help);
}

Argument Command::argument(const std::string& name, std::vector<std::string>& into, const std::string& help) {
  return option(name, into, help);
}

Argument Command::argument(const std::string& name, double& into, const std::string& help) {
  return option(name, into, help);
}

Argument Command::argument(const std::string& name, std::optional<double>& into, const std::string& help) {
  return option(name, into, help);
}

Argument Command::argument(const std::string& name, std::size_t& into, const std::string& help) {
  return option(name, into, help);
}

Argument Command::flag(const std::string& name, bool& into, const std::string& help) {
  return {app_->add_flag(name, into, help), completions_};
}

void Command::jsonFlag(bool& json) { flag("--json", json, "Print JSON"); }

void Command::runs(std::function<void()> action) { app_->callback(std::move(action)); }

}  // namespace Ctl
