// Short texts: paths, names, trace levels, JSON, options of pinlampd, URLs, and the names and patterns of
// pinlampctl. The first byte chooses.
#include <cstdint>
#include <string>
#include <string_view>

#include "ctl/ledwords.h"
#include "ctl/text.h"
#include "host/io/starterror.h"
#include "host/plugin.h"
#include "host/rpc/json.h"
#include "host/store/redis/url.h"
#include "host/whenlost.h"
#include "platform/statedb/store/path.h"
#include "platform/statedb/store/store.h"
#include "platform/zel/core/exception.h"
#include "platform/zel/core/printable.h"
#include "platform/zel/core/trace.h"
#include "platform/zel/entity/pathwalker.h"
#include "tests/fuzz/check.h"

namespace {

using Fuzz::check;

void path(const std::string& text) {
  Fuzz::refusable<Zel::ValueError>([&] {
    const Statedb::Path path(text);
    check(path.text() == text && Statedb::Path::existing(text) == path);
  });
}

void name(const std::string& text) {
  Fuzz::refusable<Zel::ValueError>([&] {
    const Zel::Name name(text);
    check(name.view() == text && Zel::Name::existing(text) == name);
    check(Zel::unescapeComponent(Zel::escapeComponent(text)) == text);
    check(text.empty() || Statedb::Path().childNamed(name).component().view() == Zel::escapeComponent(text));
  });
  check(Ctl::unescapeComponent(Ctl::escapeComponent(text)) == text);
  check(Zel::printable(text).find('\n') == std::string::npos);
}

void levels(const std::string& text) {
  if (text.find('/') == std::string::npos) return;
  const std::string known = "Fuzz" + text.substr(text.find('/'));  // facilities are never freed
  Fuzz::refusable<Zel::ValueError>([&] {
    Zel::traceLevelsIs(known);
    const std::uint32_t mask = Zel::TraceFacility::named("Fuzz").mask();
    Zel::traceLevelsIs("Fuzz/" + Zel::traceLevelsText(mask));
    check(Zel::TraceFacility::named("Fuzz").mask() == mask);
  });
}

void json(const std::string& text) {
  Fuzz::refusable<Zel::ValueError>([&] {
    const std::string once = Host::jsonText(Host::parseJson(text));
    check(Host::jsonText(Host::parseJson(once)) == once);
  });
}

void options(const std::string& text) {
  Fuzz::refusable<Host::StartError>([&] { Host::Fallback::parse(text).settingOf(text); });
  Fuzz::refusable<Host::StartError>(
      [&] { check(!Host::factorySymbol(Host::AgentOption::parse(text).nameSpace).empty()); });
}

void url(const std::string& text) {
  Fuzz::refusable<Statedb::StoreError>([&] { check(!addressText(Host::Redis::parseUrl(text).at).empty()); });
}

void words(const std::string& text) {
  std::vector<std::string> words;
  Fuzz::forEachLine(text, [&](std::string_view line) { words.emplace_back(line); });
  const std::set<std::string> known(words.begin(), words.end());
  for (const std::string& word : words) {
    Ctl::hint(word, known);
    if (Ctl::isGlob(word)) Ctl::matches(word, text);
    check(!Ctl::naturallyBefore(word, word));
  }
  if (words.empty()) return;  // CLI11 demands one
  Fuzz::refusable<Ctl::Refusal, Ctl::UsageError>(
      [&] { expandLedWords(Ctl::splitLedWords(words, {}), known); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  constexpr void (*kKinds[])(const std::string&) = {path, name, levels, json, options, url, words};
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  kKinds[data[0] % std::size(kKinds)](text);
  return 0;
}
