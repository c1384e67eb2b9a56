#include <ostream>

#include "ctl/context.h"
#include "ctl/output.h"
#include "host/store/redis/serverprobe.h"
#include "platform/statedb/store/store.h"

namespace Ctl {

namespace {

using Host::Redis::Finding;
using Findings = std::vector<Finding>;

const char* resultText(const Finding& finding) {
  static constexpr const char* kTexts[] = {"ok", "note", "WRONG"};
  return kTexts[static_cast<std::size_t>(finding.result)];
}

void printFindings(std::ostream& out, const Findings& findings) {
  Table table;
  for (const Finding& each : findings)
    table.add(
        {resultText(each), each.name, each.found + (each.remedy.empty() ? "" : "; better: " + each.remedy)});
  table.print(out);
}

Json jsonOf(const Findings& findings) {
  static constexpr const char* kResults[] = {"ok", "note", "wrong"};
  Json all = Json::array();
  for (const Finding& each : findings)
    all.push_back({{"result", kResults[static_cast<std::size_t>(each.result)]},
                   {"check", each.name},
                   {"found", each.found},
                   {"better", each.remedy}});
  return all;
}

Host::Redis::Url urlFrom(const std::string& text) {
  try {
    return Host::Redis::parseUrl(text);
  } catch (const Statedb::StoreError& error) {
    throw UsageError(error.what());
  }
}

struct CheckOptions {
  std::string url;
  bool strict = false;
  bool json = false;
};

void check(Context& context, const CheckOptions& given) {
  const Findings findings = Host::Redis::probe(urlFrom(given.url));
  if (given.json)
    printJson(context.out, jsonOf(findings));
  else
    printFindings(context.out, findings);
  const auto count = [&](Finding::Result result) {
    return static_cast<std::size_t>(std::ranges::count(findings, result, &Finding::result));
  };
  const std::size_t wrong = count(Finding::Result::wrong), notes = count(Finding::Result::note);
  if (wrong + (given.strict ? notes : 0) > 0)
    throw Refusal("the server is not ready to keep a state database: " + std::to_string(wrong) + " wrong, " +
                  std::to_string(notes) + (notes == 1 ? " note" : " notes"));
}

}  // namespace

void addStoreCommands(Command& app, Context& context) {
  Command group =
      app.addGroup("store", "Examines a state database on Redis", "pinlampctl store check redis://db1");
  const auto given = std::make_shared<CheckOptions>();
  Command command = group.add(
      "check", "Shows what is wrong with a server before anyone depends on it; changes nothing on it",
      "pinlampctl store check 'redis+sentinel://db1,db2,db3/leds?passwordFile=/etc/pinlamp/redis'");
  command.argument("URL", given->url, "redis-unix:/SOCKET, redis://HOST or redis+sentinel://HOST,…/NAME")
      .required();
  command.flag("--strict", given->strict, "Fail on notes, too");
  command.jsonFlag(given->json);
  command.runs([&context, given] { check(context, *given); });
}

}  // namespace Ctl
