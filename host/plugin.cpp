#include "host/plugin.h"

#include <dlfcn.h>
#include <link.h>

#include <filesystem>
#include <optional>
#include <vector>

#include "host/io/starterror.h"
#include "platform/zel/core/export.h"
#include "platform/zel/notify/activity.h"

namespace Host {

namespace {

namespace fs = std::filesystem;

// A factory is declared to return a Ptr to its own agent class. Calling it as this type works: agent classes
// derive from Warden::CAgent by single inheritance, at offset 0, and a Ptr has a destructor, so the ABI
// returns every Ptr<T> in memory that the caller provides.
using Factory = Zel::Ptr<Warden::CAgent> (*)(Zel::Name);
using OptionsFactory = Zel::Ptr<Warden::CAgent> (*)(Zel::Name, const Warden::AgentOptions&);

[[noreturn]] void refuseAgent(const std::string& library, const std::string& why) {
  throw StartError("agent library '" + library + "': " + why);
}

// The components of a qualified name; nullopt if it is malformed.
std::optional<std::vector<std::string>> components(const std::string& name) {
  std::vector<std::string> parts(1);
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c == ':' && i + 1 < name.size() && name[i + 1] == ':') {
      parts.emplace_back();
      ++i;
    } else if (std::isalpha(c) || c == '_' || (std::isdigit(c) && !parts.back().empty())) {
      parts.back() += name[i];
    } else {
      return std::nullopt;
    }
  }
  for (const std::string& part : parts)
    if (part.empty()) return std::nullopt;
  return parts;
}

std::string baseName(const std::string& library) {
  std::string name = fs::path(library).filename().string();
  name = name.substr(0, name.find(".so"));
  return name.starts_with("lib") ? name.substr(3) : name;
}

// The position of the next single colon.
std::size_t separator(const std::string& text, std::size_t from) {
  for (std::size_t at = text.find(':', from); at != std::string::npos; at = text.find(':', at + 2))
    if (at + 1 == text.size() || text[at + 1] != ':') return at;
  return std::string::npos;
}

fs::path programFolder() {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/exe", ignored).parent_path();
}

// The path to load: a bare name may be that of a library beside the program.
std::string located(const std::string& library) {
  if (library.find('/') != std::string::npos) return library;
  std::error_code ignored;
  for (const fs::path& folder : {programFolder() / "../lib", programFolder()})
    if (fs::exists(folder / library, ignored)) return (folder / library).lexically_normal().string();
  return library;
}

void* load(const std::string& library) {
  std::error_code ignored;
  const bool bare = library.find('/') == std::string::npos;
  if (!bare && !fs::exists(library, ignored)) refuseAgent(library, "there is no such file");
  if (void* handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL)) return handle;
  const std::string looked =
      bare ? " (looked in '" + (programFolder() / "../lib").lexically_normal().string() + "', '" +
                 programFolder().string() + "' and the library path; give the path of a library elsewhere)"
           : "";
  refuseAgent(library, std::string("does not load: ") + ::dlerror() + looked);
}

// The ABI that the library was built with; empty if it was built without this framework.
std::string abiOf(void* library) {
  const void* abi = ::dlsym(library, "zelAbi");
  Dl_info found{};
  link_map* own = nullptr;
  if (!abi || ::dladdr(abi, &found) == 0 || ::dlinfo(library, RTLD_DI_LINKMAP, &own) != 0) return {};
  const bool isOwn = reinterpret_cast<std::uintptr_t>(found.dli_fbase) == own->l_addr;
  return isOwn ? static_cast<const char*>(abi) : "";  // else that of a library which it needs
}

Warden::AgentOptions optionsOf(const std::string& text, std::size_t at) {
  try {
    return Warden::AgentOptions::parse(text.substr(at));
  } catch (const Warden::OptionError& error) {
    throw StartError("agent '" + text.substr(0, at - 1) + "': " + error.what());
  }
}

}  // namespace

AgentOption AgentOption::parse(const std::string& whole) {
  AgentOption option;
  const std::size_t question = whole.find('?');
  const std::string text = whole.substr(0, question);
  const std::size_t first = separator(text, 0);
  option.library = text.substr(0, first);
  if (option.library.empty())
    throw StartError("agent '" + whole + "': expected LIBRARY[:NAMESPACE[:AGENTNAME]][?OPTION=VALUE]");
  if (question != std::string::npos) option.options = optionsOf(whole, question + 1);
  option.agentName = baseName(option.library);
  if (first == std::string::npos) return option;
  const std::size_t second = separator(text, first + 1);
  if (second != first + 1) option.nameSpace = text.substr(first + 1, second - first - 1);
  if (!components(option.nameSpace))
    throw StartError("agent '" + text + "': '" + option.nameSpace +
                     "' is not a namespace; an example is Pinlamp");
  if (second != std::string::npos) option.agentName = text.substr(second + 1);
  return option;
}

std::string factorySymbol(const std::string& nameSpace) {
  std::string symbol = "_ZN";
  for (const std::string& part : components(nameSpace).value_or(std::vector<std::string>{}))
    symbol += std::to_string(part.size()) + part;
  return symbol + "12agentFactoryEN3Zel4NameE";
}

std::string optionsFactorySymbol(const std::string& nameSpace) {
  return factorySymbol(nameSpace) + "RKN6Warden12AgentOptionsE";
}

Library::Library(const std::string& name) : path_(located(name)), handle_(load(path_)) {
  const std::string abi = abiOf(handle_.get());
  if (abi == ZEL_ABI) return;
  refuseAgent(path_, (abi.empty() ? "was not built with this framework"
                                  : "was built with the framework's ABI " + abi) +
                         "; this host has the ABI " ZEL_ABI ": build the library with its headers");
}

void* Library::symbol(const std::string& name) const { return ::dlsym(handle_.get(), name.c_str()); }

void Library::Unload::operator()(void* library) const { ::dlclose(library); }

Plugin::Plugin(const AgentOption& option) : name_(option.agentName), library_(option.library) {
  const std::string wanted = option.nameSpace + "::agentFactory(Zel::Name)";
  const MakeAgent make = factory(option);
  if (!make) refuseAgent(library(), "has no factory '" + wanted + "'; name its namespace: LIBRARY:NAMESPACE");
  std::string refused;
  agent_ = Zel::runForAgent(name_, "factory of '" + library() + "'", [&]() -> Zel::Ptr<Warden::CAgent> {
    try {
      return make();
    } catch (const Warden::OptionError& error) {
      refused = error.what();
      return nullptr;
    }
  });
  if (!refused.empty()) refuseAgent(library(), refused);
  if (!agent_) refuseAgent(library(), "its factory '" + wanted + "' returned null");
}

Plugin::MakeAgent Plugin::factory(const AgentOption& option) const {
  if (void* found = library_.symbol(optionsFactorySymbol(option.nameSpace)))
    return [this, &option, make = reinterpret_cast<OptionsFactory>(found)] {
      const auto agent = make(name_, option.options);
      option.options.checkAllKnown();
      return agent;
    };
  if (void* found = library_.symbol(factorySymbol(option.nameSpace)))
    return [this, &option, make = reinterpret_cast<Factory>(found)] {
      if (!option.options.empty()) throw Warden::OptionError("takes no options");
      return make(name_);
    };
  return {};
}

Plugin::~Plugin() = default;

void Plugin::start(const Zel::Ptr<Statedb::EntityManager>& manager) {
  agent_->entityManagerIs(manager);
  Zel::runForAgent(name_, "doPreInit", [&] { agent_->doPreInit(); });
  Zel::runForAgent(name_, "doInit", [&] { agent_->doInit(); });
}

}  // namespace Host
