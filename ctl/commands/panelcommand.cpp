#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <ostream>

#include "ctl/context.h"
#include "ctl/events.h"
#include "ctl/terminal.h"
#include "ctl/text.h"

namespace Ctl {

namespace {

struct PanelArguments {
  bool once = false;
  std::optional<double> seconds;
};

const char* environment(const char* name) { return std::getenv(name); }

void printOnce(Context& context) {
  for (const Lamp& lamp : lampsOf(readAppliance(context.client()))) context.out << plainLine(lamp) << '\n';
}

// Prints the lines that changed.
void printChanged(std::ostream& out, const std::vector<Lamp>& lamps,
                  std::map<std::string, std::string>& printed) {
  for (const Lamp& lamp : lamps) {
    const std::string line = plainLine(lamp);
    if (std::exchange(printed[lamp.name], line) != line) out << line << '\n';
  }
  out.flush();
}

void printUntil(Context& context, Instant deadline) {
  Events events{SIGINT, SIGTERM};
  LiveAppliance appliance(context.client());
  std::map<std::string, std::string> printed;
  while (true) {
    printChanged(context.out, lampsOf(appliance.mirror()), printed);
    const Event event = events.next(&context.client(), deadline);
    if (event.kind != Event::Kind::notification) return;
    appliance.take(event.notification);
  }
}

// Assembles the escape sequences of keys from their characters.
class Keys {
 public:
  // The key that the character ends: itself, or a sequence; empty within one.
  std::string take(char character) {
    sequence_ += character;
    const bool isBegun = sequence_[0] == '\x1b' && sequence_.size() < kLongest;
    if (isBegun && sequence_.size() == 1) return {};
    if (isBegun && sequence_.size() == 2 && (character == '[' || character == 'O')) return {};
    if (isBegun && sequence_.size() > 2 && character < '@') return {};  // digits before the last
    return std::exchange(sequence_, {});
  }

 private:
  static constexpr std::size_t kLongest = 8;
  std::string sequence_;
};

// The first line to show after a key.
std::size_t scrolledBy(const std::string& key, const Scroll& scroll) {
  const auto is = [&](std::initializer_list<const char*> keys) {
    return std::ranges::any_of(keys, [&](const char* each) { return key == each; });
  };
  const std::size_t from = scroll.from, page = std::max<std::size_t>(scroll.page, 1);
  if (is({"\x1b[A", "\x1bOA", "k"})) return from - std::min<std::size_t>(from, 1);
  if (is({"\x1b[B", "\x1bOB", "j"})) return from + 1;
  if (is({"\x1b[5~", "b"})) return from - std::min(from, page);
  if (is({"\x1b[6~", " "})) return from + page;
  if (is({"\x1b[H", "\x1b[1~", "g"})) return 0;
  if (is({"\x1b[F", "\x1b[4~", "G"})) return std::numeric_limits<std::size_t>::max() / 2;
  return from;
}

// The live panel. Reconnects to a host that went away; the last known state stays on the screen meanwhile.
class LivePanel {
 public:
  LivePanel(const Target& target, Instant deadline)
      : target_(target), deadline_(deadline), look_(lookOf(&environment)) {
    connect();
    target_.wait = 0;  // reconnecting does not block the keys
  }

  void run() {
    Events events{SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP};
    Terminal terminal;
    events.keysFrom(STDIN_FILENO);
    while (!ended_) {
      if (!std::exchange(drawn_, true)) terminal.draw(frame(terminal.size()));
      take(nextEvent(events), terminal);
      while (!ended_ && pending(events, terminal)) {
      }
    }
  }

 private:
  static constexpr std::chrono::seconds kRetry{1};

  void connect() {
    client_ = target_.connect();
    appliance_ = std::make_unique<LiveAppliance>(*client_);
    error_.clear();
    drawn_ = false;
  }

  void reconnect() {
    try {
      connect();
    } catch (const Refusal&) {
      client_.reset();
    }
  }

  void lose(const ConnectionLost& lost) {
    error_ = std::string(lost.what()) + "; reconnecting";
    client_.reset();
    drawn_ = false;
  }

  std::vector<std::string> frame(const PanelSize& size) {
    const std::string title =
        error_.empty() ? "Front panel, through " + target_.name() + "  (q quits)" : error_;
    return panelFrame(lampsOf(appliance_->mirror()), title, look_, size, scroll_);
  }

  // Waits for an event. Without a connection, tries to reconnect every kRetry.
  Event nextEvent(Events& events) {
    try {
      const auto retryAt = std::chrono::steady_clock::now() + kRetry;
      Event event = events.next(client_.get(), client_ ? deadline_ : std::min(deadline_, retryAt));
      ended_ = event.kind == Event::Kind::deadline && std::chrono::steady_clock::now() >= deadline_;
      if (event.kind == Event::Kind::deadline && !ended_ && !client_) reconnect();
      return event;
    } catch (const ConnectionLost& lost) {
      lose(lost);
      return {};
    }
  }

  // Takes one pending event, so that a burst of changes is drawn once.
  bool pending(Events& events, Terminal& terminal) {
    try {
      const Event event = events.next(client_.get(), Instant::min());
      take(event, terminal);
      return event.kind != Event::Kind::deadline;
    } catch (const ConnectionLost& lost) {
      lose(lost);
      return false;
    }
  }

  void take(const Event& event, Terminal& terminal) {
    if (event.kind == Event::Kind::deadline) return;
    drawn_ = false;
    if (event.kind == Event::Kind::notification) return appliance_->take(event.notification);
    if (event.kind == Event::Kind::key) return onKey(keys_.take(static_cast<char>(event.number)));
    if (event.number == SIGTSTP) return terminal.suspend();
    ended_ = event.number != SIGWINCH;
  }

  void onKey(const std::string& key) {
    ended_ = key == "q" || key == "Q";
    scroll_.from = scrolledBy(key, scroll_);
  }

  Target target_;
  const Instant deadline_;
  Keys keys_;
  Scroll scroll_;
  const Look look_;
  std::unique_ptr<Client> client_;  // null while the host is away
  std::unique_ptr<LiveAppliance> appliance_;
  std::string error_;
  bool drawn_ = false;
  bool ended_ = false;
};

// Whether the terminal can't move its cursor.
bool isDumb() {
  const char* type = std::getenv("TERM");
  return !type || !*type || type == std::string_view("dumb");
}

void panel(Context& context, const PanelArguments& given) {
  const Instant deadline = afterSeconds(given.seconds);
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  if (given.once || (!terminal && !given.seconds)) return printOnce(context);
  if (!terminal || isDumb()) return printUntil(context, deadline);
  LivePanel(context.target, deadline).run();
}

}  // namespace

void addPanelCommand(Command& app, Context& context) {
  const auto given = std::make_shared<PanelArguments>();
  Command command = app.add(
      "panel",
      "Shows the front panel, live; arrows and page keys scroll, q quits. Without a terminal, or on a "
      "dumb one: prints plain lines",
      "pinlampctl panel --for 10");
  command.flag("--once", given->once, "Print plain lines, once");
  command.argument("--for", given->seconds, "Quit after this time, such as 10, 500ms or 2min").duration();
  command.runs([&context, given] { panel(context, *given); });
}

}  // namespace Ctl
