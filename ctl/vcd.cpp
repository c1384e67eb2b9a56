#include "ctl/vcd.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "ctl/refusal.h"

namespace Ctl {

namespace {

// The shortest identifier code of printable characters for a wire's number.
std::string codeOf(std::size_t number) {
  constexpr std::size_t kFirst = '!';
  constexpr std::size_t kCodes = '~' - kFirst + 1;
  std::string code;
  for (++number; number > 0; number = (number - 1) / kCodes)
    code += static_cast<char>(kFirst + (number - 1) % kCodes);
  return code;
}

// In VCD, spaces end a name and brackets select bits.
std::string wireName(const std::string& pin) {
  std::string name = pin;
  for (char& c : name)
    if (!std::isgraph(static_cast<unsigned char>(c)) || c == '[' || c == ']' || c == '$') c = '_';
  return name.empty() ? "_" : name;
}

}  // namespace

VcdWriter::VcdWriter(std::string file, std::string date)
    : file_(std::move(file)), date_(std::move(date)), out_(file_, std::ios::binary | std::ios::trunc) {
  if (!out_) throw Refusal("can't write '" + file_ + "': " + std::strerror(errno));
}

std::string VcdWriter::header() const {
  std::string text =
      "$date " + date_ + " $end\n$version pinlampctl $end\n$timescale 1 us $end\n$scope module pins $end\n";
  for (const auto& [pin, wire] : wires_) text += "$var wire 1 " + wire.code + ' ' + wireName(pin) + " $end\n";
  return text + "$upscope $end\n$enddefinitions $end\n";
}

void VcdWriter::timeIs(Time time) {
  if (std::exchange(time_, time) != time) body_ += '#' + std::to_string(time.count()) + '\n';
}

void VcdWriter::valueIs(Time time, const std::string& pin, std::optional<unsigned> value) {
  const auto [entry, added] = wires_.try_emplace(pin, Wire{codeOf(wires_.size())});
  if (added) complete_ = false;
  Wire& wire = entry->second;
  const char shown = !value ? 'x' : *value != 0 ? '1' : '0';
  if (std::exchange(wire.value, shown) == shown && !added) return;
  timeIs(time);
  body_ += shown + wire.code + '\n';
  ++changes_;
}

void VcdWriter::flush() {
  if (!std::exchange(complete_, true)) rewrite();
  out_ << std::exchange(body_, {}) << std::flush;
  checkWritten();
}

// Writes a new file and renames it over the old one.
void VcdWriter::rewrite() {
  std::ifstream old(file_, std::ios::binary);
  old.seekg(bodyAt_);
  const std::string body = bodyAt_ == 0 ? "" : std::string(std::istreambuf_iterator<char>(old), {});
  const std::string beside = file_ + ".new";
  out_ = std::ofstream(beside, std::ios::binary | std::ios::trunc);
  const std::string text = header();
  bodyAt_ = static_cast<std::streamoff>(text.size());
  out_ << text << body << std::flush;
  checkWritten();
  if (std::rename(beside.c_str(), file_.c_str()) != 0)
    throw Refusal("can't write '" + file_ + "': " + std::strerror(errno));
}

void VcdWriter::checkWritten() const {
  if (!out_)
    throw Refusal("can't write '" + file_ + "': " + std::strerror(errno) +
                  "; the file is complete up to here");
}

void VcdWriter::finish(Time time) {
  timeIs(time);
  flush();
}

}  // namespace Ctl
