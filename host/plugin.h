// Agents from shared libraries.
#pragma once

#include <memory>
#include <string>

#include "platform/warden/cagent.h"

namespace Host {

// An agent to load.
struct AgentOption {
  std::string library;  // a path, or a bare name to search beside the program and in the library path
  std::string nameSpace = "Pinlamp";
  std::string agentName;

  // Parses `LIBRARY[:NAMESPACE[:AGENTNAME]]`. The namespace may be nested; the agent's name defaults to the
  // library's file name without "lib" and from ".so" on. Throws StartError.
  static AgentOption parse(const std::string& text);
};

// The mangled name of `NAMESPACE::agentFactory(Zel::Name)`.
std::string factorySymbol(const std::string& nameSpace);

// An agent and its library, which the destructor unloads. Drop the agent, and every entity of its types,
// first.
class Plugin {
 public:
  // Loads the library and calls its factory. Throws StartError if the library is missing, does not load or
  // has no such factory, or the factory returns null; HandlerFault if the factory throws.
  explicit Plugin(const AgentOption& option);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  Zel::Name name() const { return name_; }
  const std::string& library() const { return library_; }
  // Null after dropAgent().
  const Zel::Ptr<Warden::CAgent>& agent() const { return agent_; }
  // Sets the agent's entity manager and runs its doPreInit and doInit, which declare its mounts. Throws
  // HandlerFault if they throw.
  void start(const Zel::Ptr<Statedb::EntityManager>& manager);
  void dropAgent() { agent_ = nullptr; }

 private:
  struct Unload {
    void operator()(void* library) const;
  };

  const Zel::Name name_;
  const std::string library_;
  std::unique_ptr<void, Unload> handle_;
  Zel::Ptr<Warden::CAgent> agent_;
};

}  // namespace Host
