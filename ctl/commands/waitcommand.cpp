// wait: returns once an LED shows given colours, for scripts.
#include <algorithm>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/events.h"
#include "ctl/ledwords.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct Waiting {
  std::string led;
  std::vector<std::string> colours;
  std::optional<double> seconds;
};

bool shows(const std::vector<Lamp>& lamps, const Waiting& given) {
  if (lamps.empty() || !lamps.front().driven) return false;
  const auto shown = colourNames(lamps.front().shows);
  if (given.colours.front() == "off") return shown.empty();
  return std::set(shown.begin(), shown.end()) == std::set(given.colours.begin(), given.colours.end());
}

Refusal tooLate(const std::vector<Lamp>& lamps, const Waiting& given) {
  const std::string limit = shortNumber(given.seconds.value_or(0)) + " s";
  const std::string wanted = joined(given.colours, "+");
  if (lamps.empty()) return Refusal("wait: no LED is named '" + given.led + "' after " + limit);
  const std::string state = lamps.front().driven ? " shows " + lamps.front().shownText() : " is not driven";
  return Refusal("wait: " + given.led + state + " after " + limit + ", not " + wanted +
                 "; see: pinlampctl why " + given.led);
}

void wait(Context& context, const Waiting& given) {
  checkColours("wait", given.colours);
  const Instant deadline = afterSeconds(given.seconds);
  Client& client = context.client();
  LiveAppliance appliance(client, given.led);
  Events events{};
  while (true) {
    const auto lamps = lampsOf(appliance.mirror());
    if (shows(lamps, given)) return;
    const Event event = events.next(&client, deadline);
    if (event.kind != Event::Kind::notification) throw tooLate(lamps, given);
    appliance.take(event.notification);
  }
}

}  // namespace

void addWaitCommand(Command& app, Context& context) {
  const auto given = std::make_shared<Waiting>();
  Command command = app.add("wait", "Waits until an LED shows exactly these colours, by its pins' values",
                            "pinlampctl wait Status green --for 5s");
  command.argument("LED", given->led, "The LED's name").completes(Completes::led).required();
  command.argument("COLOUR", given->colours, "orange, green, red, yellow or off")
      .completes(Completes::colour)
      .required();
  command.argument("--for", given->seconds, "Fail after this time, such as 10, 500ms or 2min").duration();
  command.runs([&context, given] { wait(context, *given); });
}

}  // namespace Ctl
