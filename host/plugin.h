// Agents from shared libraries.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/warden/agentoptions.h"
#include "platform/warden/cagent.h"

namespace Host {

// An agent to load.
struct AgentOption {
  std::string library;  // a path, or a bare name to search beside the program and in the library path
  std::string nameSpace = "Pinlamp";
  std::string agentName;
  Warden::AgentOptions options{};

  // Parses `LIBRARY[:NAMESPACE[:AGENTNAME]][?OPTION=VALUE[&OPTION=VALUE…]]`. The namespace may be nested; the
  // agent's name defaults to the library's file name without "lib" and from ".so" on. Throws StartError.
  static AgentOption parse(const std::string& text);
};

// The mangled name of `NAMESPACE::agentFactory(Zel::Name)`, and of the factory that takes options:
// `NAMESPACE::agentFactory(Zel::Name, const Warden::AgentOptions&)`.
std::string factorySymbol(const std::string& nameSpace);
std::string optionsFactorySymbol(const std::string& nameSpace);

// A library of agents, loaded with the types that it registers, and unloaded by the destructor. Drop its
// agents, and every entity of its types, first.
class Library {
 public:
  // `name`: a path, or a bare name to search. Throws StartError if it is missing, does not load, or was built
  // with another ABI of the framework.
  explicit Library(const std::string& name);

  const std::string& path() const { return path_; }
  // Null if it exports no such symbol.
  void* symbol(const std::string& name) const;

 private:
  struct Unload {
    void operator()(void* library) const;
  };

  std::string path_;
  std::unique_ptr<void, Unload> handle_;
};

// An agent and its library.
class Plugin {
 public:
  // Loads the library and calls its factory. Throws StartError if the library is missing, does not load or
  // has no such factory, or the factory returns null or refuses an option; HandlerFault if the factory throws
  // anything else.
  explicit Plugin(const AgentOption& option);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  Zel::Name name() const { return name_; }
  const std::string& library() const { return library_.path(); }
  // Null after dropAgent().
  const Zel::Ptr<Warden::CAgent>& agent() const { return agent_; }
  // Sets the agent's entity manager and runs its doPreInit and doInit, which declare its mounts. Throws
  // HandlerFault if they throw.
  void start(const Zel::Ptr<Statedb::EntityManager>& manager);
  void dropAgent() { agent_ = nullptr; }

 private:
  using MakeAgent = std::function<Zel::Ptr<Warden::CAgent>()>;

  // Calls one of the library's two factories; null where it has none.
  MakeAgent factory(const AgentOption& option) const;

  const Zel::Name name_;
  const Library library_;
  Zel::Ptr<Warden::CAgent> agent_;
};

}  // namespace Host
