#include "host/store/redis/url.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <set>

#include "platform/statedb/store/store.h"

namespace Host::Redis {

namespace {

using Text = std::string_view;

constexpr Text kSocketScheme = "redis-unix:";
constexpr Text kHostScheme = "redis://";
constexpr Text kSentinelScheme = "redis+sentinel://";
constexpr std::uint16_t kSentinelPort = 26379;
constexpr std::size_t kMostSentinels = 16;
constexpr std::size_t kLongestHost = 253;         // a DNS name's
constexpr std::size_t kLongestSocket = 107;       // sun_path's, less its end
constexpr std::uint64_t kMostDatabases = 16'384;  // far beyond any server's configuration

// The URL as messages show it: without options, and without the part before '@', which may have a password.
std::string shown(Text url) {
  constexpr std::size_t kShown = 200;
  const std::size_t scheme = url.find("://");
  const std::size_t at = url.rfind('@');
  const Text rest = url.substr(0, url.find('?', at == Text::npos ? 0 : at)).substr(0, kShown);
  if (at == Text::npos || scheme == Text::npos || at < scheme) return std::string(rest);
  const Text host = url.substr(at, url.find('?', at) - at).substr(0, kShown);
  return std::string(url.substr(0, scheme + 3)) + "…" + std::string(host);
}

std::string inQuotes(Text text) { return "'" + std::string(text) + "'"; }

// The part before `mark`, which with the mark is taken off `text`; nothing where there is no mark.
std::optional<Text> takeBefore(Text& text, char mark) {
  const std::size_t end = text.find(mark);
  if (end == Text::npos) return std::nullopt;
  const Text part = text.substr(0, end);
  text.remove_prefix(end + 1);
  return part;
}

std::optional<std::uint64_t> numberOf(Text text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

struct Parser {
  const Text url;
  Url result{};
  std::set<Text> given{};

  [[noreturn]] void fail(const std::string& why) const {
    throw Statedb::StoreError("store '" + shown(url) + "': " + why);
  }

  std::string decoded(Text text, Text what) const {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
      char c = text[i];
      if (c == '%') {
        unsigned char byte = 0;
        const char* first = text.data() + std::min(i + 1, text.size());
        const char* last = text.data() + std::min(i + 3, text.size());
        if (last - first != 2 || std::from_chars(first, last, byte, 16).ptr != last || byte == 0)
          fail(std::string(what) + ": '%' is followed by two hexadecimal digits, not 00; write %25 for it");
        c = static_cast<char>(byte);
        i += 2;
      }
      plain += c;
    }
    return plain;
  }

  std::uint64_t bounded(Text text, std::uint64_t least, std::uint64_t most, Text what) const {
    const auto number = numberOf(text);
    if (!number || *number < least || *number > most)
      fail("the " + std::string(what) + " is not a number from " + std::to_string(least) + " to " +
           std::to_string(most));
    return *number;
  }

  Milliseconds time(Text text, Text what, Milliseconds least) const {
    struct Unit {
      Text name;
      std::uint64_t milliseconds;
    };
    static constexpr Unit kUnits[] = {{"ms", 1}, {"s", 1'000}, {"m", 60'000}, {"h", 3'600'000}};
    constexpr std::uint64_t kLongestTime = 24 * 3'600'000;
    for (const Unit& unit : kUnits) {
      if (!text.ends_with(unit.name)) continue;
      const auto number = numberOf(text.substr(0, text.size() - unit.name.size()));
      if (!number) continue;
      const std::uint64_t most = kLongestTime / unit.milliseconds;
      const Milliseconds value(std::min(*number, most + 1) * unit.milliseconds);
      if (*number <= most && value >= least) return value;
    }
    fail(std::string(what) + " " + inQuotes(text) + " is not a time from " + std::to_string(least.count()) +
         "ms to 24h; write for example 500ms or 30s");
  }

  HostAddress host(Text text, std::uint16_t defaultPort) const {
    HostAddress address{{}, defaultPort};
    std::optional<Text> port;
    if (text.starts_with('[')) {
      text.remove_prefix(1);
      const auto inner = takeBefore(text, ']');
      if (!inner) fail("the ']' after an IPv6 address is missing");
      address.host = *inner;
      if (text.starts_with(':'))
        port = text.substr(1);
      else if (!text.empty())
        fail("':PORT' or nothing follows ']', not " + inQuotes(text));
    } else {
      if (std::ranges::count(text, ':') > 1) fail("an IPv6 address stands in brackets, as [::1]:6379");
      if (const auto name = takeBefore(text, ':')) {
        address.host = *name;
        port = text;
      } else {
        address.host = text;
      }
    }
    if (address.host.empty()) fail("the host is missing");
    if (address.host.size() > kLongestHost)
      fail("the host is longer than " + std::to_string(kLongestHost) + " bytes");
    if (port) address.port = static_cast<std::uint16_t>(bounded(*port, 1, 65'535, "port"));
    return address;
  }

  // Takes "USER@" off, where it is there.
  void takeUser(Text& text) {
    const auto user = takeBefore(text, '@');
    if (!user) return;
    if (user->find(':') != Text::npos)
      fail(
          "a password can't be part of a URL, other users could read it; put it into a file and add "
          "?passwordFile=FILE");
    result.user = decoded(*user, "user");
  }

  void socket(Text text) {
    const std::string path = decoded(text, "socket");
    if (!path.starts_with('/')) fail("the socket is an absolute path, as redis-unix:/run/redis/redis.sock");
    if (path.size() > kLongestSocket)
      fail("the socket's path is longer than " + std::to_string(kLongestSocket) + " bytes");
    result.at = SocketAddress{path};
  }

  void server(Text text) {
    takeUser(text);
    if (const auto before = takeBefore(text, '/')) {
      if (!text.empty())
        result.database = static_cast<unsigned>(bounded(text, 0, kMostDatabases, "database"));
      text = *before;
    }
    result.at = host(text, 6379);
  }

  void sentinels(Text text) {
    takeUser(text);
    const auto hosts = takeBefore(text, '/');
    if (!hosts || text.empty()) fail("the master's name is missing: redis+sentinel://HOST,HOST,HOST/NAME");
    SentinelAddress address{{}, decoded(text, "name")};
    Text rest = *hosts;
    while (const auto each = takeBefore(rest, ',')) address.sentinels.push_back(host(*each, kSentinelPort));
    address.sentinels.push_back(host(rest, kSentinelPort));
    if (address.sentinels.size() > kMostSentinels)
      fail("more than " + std::to_string(kMostSentinels) + " sentinels");
    result.at = std::move(address);
  }

  void prefix(Text text) {
    const auto isPlain = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
             c == '_' || c == '.';
    };
    if (text.empty() || text.size() > Url::kLongestPrefix || !std::ranges::all_of(text, isPlain))
      fail("prefix " + inQuotes(text) + " is not made of 1 to " + std::to_string(Url::kLongestPrefix) +
           " letters, digits, '-', '_' and '.'");
    result.prefix = text;
  }

  void file(Text text) {
    result.passwordFile = decoded(text, "passwordFile");
    if (result.passwordFile.empty()) fail("passwordFile is empty; name the file that holds the password");
  }

  void hold(Text text) {
    result.hold = text == "never" ? Url::kNever
                  : text == "0"   ? Milliseconds(0)
                                  : time(text, "hold", Milliseconds(0));
  }

  void option(Text name, Text value) {
    struct Option {
      Text name;
      void (*take)(Parser&, Text value);
    };
    static constexpr Option kOptions[] = {
        {"prefix", [](Parser& self, Text text) { self.prefix(text); }},
        {"hold", [](Parser& self, Text text) { self.hold(text); }},
        {"lease",
         [](Parser& self, Text text) { self.result.lease = self.time(text, "lease", Milliseconds(1'000)); }},
        {"timeout",
         [](Parser& self, Text text) { self.result.timeout = self.time(text, "timeout", Milliseconds(10)); }},
        {"log",
         [](Parser& self, Text text) {
           self.result.log = static_cast<std::uint32_t>(self.bounded(text, 100, 10'000'000, "log"));
         }},
        {"passwordFile", [](Parser& self, Text text) { self.file(text); }},
        {"user", [](Parser& self, Text text) { self.result.user = self.decoded(text, "user"); }},
    };
    const auto found = std::ranges::find(kOptions, name, &Option::name);
    if (found == std::end(kOptions)) {
      std::string known;
      for (const Option& each : kOptions) known += (known.empty() ? "" : ", ") + std::string(each.name);
      fail("unknown option " + inQuotes(name.substr(0, 32)) + "; known: " + known);
    }
    if (!given.insert(name).second) fail("option " + inQuotes(name) + " is given twice");
    found->take(*this, value);
  }

  void options(Text text) {
    while (!text.empty()) {
      Text each = takeBefore(text, '&').value_or(text);
      if (each.data() + each.size() == text.data() + text.size()) text = {};
      const auto name = takeBefore(each, '=');
      // It may be a password; it is not repeated.
      if (!name) fail("an option without '='; write NAME=VALUE");
      option(*name, each);
    }
  }

  Url parse() {
    struct Scheme {
      Text prefix;
      void (Parser::*take)(Text text);
    };
    static constexpr std::array<Scheme, 3> kSchemes{{{kSocketScheme, &Parser::socket},
                                                     {kHostScheme, &Parser::server},
                                                     {kSentinelScheme, &Parser::sentinels}}};
    if (url.size() > Url::kLongest) fail("longer than " + std::to_string(Url::kLongest) + " bytes");
    for (const Scheme& scheme : kSchemes) {
      if (!url.starts_with(scheme.prefix)) continue;
      Text rest = url.substr(scheme.prefix.size());
      const auto before = takeBefore(rest, '?');
      (this->*scheme.take)(before.value_or(rest));
      if (before) options(rest);
      if (!result.user.empty() && result.passwordFile.empty())
        fail("user " + inQuotes(result.user) + " needs a password; add ?passwordFile=FILE");
      return result;
    }
    fail("not a known form; known: redis-unix:/SOCKET, redis://HOST, redis+sentinel://HOST,…/NAME");
  }
};

std::string textOf(const SocketAddress& at) { return at.path; }
std::string textOf(const HostAddress& at) {
  const bool isV6 = at.host.find(':') != std::string::npos;
  return (isV6 ? "[" + at.host + "]" : at.host) + ":" + std::to_string(at.port);
}
std::string textOf(const SentinelAddress& at) {
  std::string text = at.name + " at ";
  for (std::size_t i = 0; i < at.sentinels.size(); ++i) text += (i ? "," : "") + textOf(at.sentinels[i]);
  return text;
}

}  // namespace

std::string addressText(const Address& address) {
  return std::visit([](const auto& each) { return textOf(each); }, address);
}

bool isRedisUrl(std::string_view url) {
  return url.starts_with(kSocketScheme) || url.starts_with(kHostScheme) || url.starts_with(kSentinelScheme);
}

Url parseUrl(std::string_view url) { return Parser{url}.parse(); }

}  // namespace Host::Redis
