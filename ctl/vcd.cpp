#include "ctl/vcd.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

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
    : file_(std::move(file)), date_(std::move(date)), out_(std::make_unique<NewFile>(file_)) {}

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
  append(std::exchange(body_, {}));
}

// Writes a new file and renames it over the old one.
void VcdWriter::rewrite() {
  const std::string body = bodyRead();
  if (out_->isReplaced()) out_ = std::make_unique<NewFile>(file_);
  written_ = 0;
  const std::string text = header();
  append(text + body);
  bodyAt_ = text.size();
  out_->replace();
}

// The text of the file after its header.
std::string VcdWriter::bodyRead() const {
  if (bodyAt_ == 0) return {};
  std::ifstream in(file_, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(bodyAt_));
  return {std::istreambuf_iterator<char>(in), {}};
}

void VcdWriter::append(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), out_->stream()) != text.size()) fail();
  written_ += text.size();
}

void VcdWriter::fail() const {
  const std::string why = std::strerror(errno);
  const bool whole = ftruncate(fileno(out_->stream()), static_cast<off_t>(written_)) == 0;
  throw cantWrite(file_, why + (bodyAt_ != 0 && whole ? "; the file is complete up to here" : ""));
}

void VcdWriter::finish(Time time) {
  timeIs(time);
  flush();
}

}  // namespace Ctl
