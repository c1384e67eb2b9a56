#include <ostream>

#include "ctl/appliance.h"
#include "ctl/context.h"
#include "ctl/events.h"
#include "ctl/output.h"
#include "ctl/text.h"
#include "ctl/vcd.h"

namespace Ctl {

namespace {

struct Recording {
  std::string file;
  std::optional<double> seconds;
};

class Recorder {
 public:
  explicit Recorder(const std::string& file) : writer_(file, timeStamp()) {}

  // Writes the current values. Pins that were removed become undriven.
  void take(const Mirror& mirror) {
    const auto now = elapsed();
    auto gone = std::exchange(known_, {});
    for (const auto& [pin, value] : pinsOf(mirror)) {
      writer_.valueIs(now, pin, value);
      gone.erase(pin);
      known_.insert(pin);
    }
    for (const std::string& pin : gone) writer_.valueIs(now, pin, std::nullopt);
    writer_.flush();
  }

  std::string finish() {
    const auto now = elapsed();
    writer_.finish(now);
    return std::to_string(writer_.changes()) + " values of " + std::to_string(writer_.pins()) + " pins in " +
           shortNumber(std::chrono::duration<double>(now).count()) + " s";
  }

 private:
  VcdWriter::Time elapsed() const {
    return std::chrono::duration_cast<VcdWriter::Time>(std::chrono::steady_clock::now() - start_);
  }

  VcdWriter writer_;
  std::set<std::string> known_;
  const Instant start_ = std::chrono::steady_clock::now();
};

// Records the pins until the deadline or a signal. Throws ConnectionLost.
void follow(Client& client, Instant deadline, Recorder& recorder) {
  Events events{SIGINT, SIGTERM, SIGHUP};
  LiveAppliance appliance(client);
  recorder.take(appliance.mirror());
  for (Event event; (event = events.next(&client, deadline)).kind == Event::Kind::notification;) {
    appliance.take(event.notification);
    recorder.take(appliance.mirror());
  }
}

void record(Context& context, const Recording& given) {
  const Instant deadline = afterSeconds(given.seconds);
  Client& client = context.client();
  Recorder recorder(given.file);
  try {
    follow(client, deadline, recorder);
  } catch (const ConnectionLost& lost) {
    throw Refusal(std::string(lost.what()) + "; " + given.file + " has " + recorder.finish());
  }
  context.out << given.file << ": " << recorder.finish() << '\n';
}

}  // namespace

void addRecordCommand(Command& app, Context& context) {
  const auto given = std::make_shared<Recording>();
  Command command = app.add("record", "Records the pin values as a waveform (VCD), until Ctrl-C",
                            "pinlampctl record pins.vcd --for 10");
  command.argument("FILE", given->file, "The file; replaces a regular file of this name")
      .completes(Completes::file)
      .required();
  command.argument("--for", given->seconds, "Stop after this time, such as 10, 500ms or 2min").duration();
  command.runs([&context, given] { record(context, *given); });
}

}  // namespace Ctl
