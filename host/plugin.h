// Agents from shared libraries.
#pragma once

#include <memory>
#include <string>

#include "platform/warden/cagent.h"

namespace Host {

// Which agent to make, from which library, by the factory of which namespace.
struct AgentOption {
  std::string library;  // a path, or a bare name to look for beside the program and in the system's path
  std::string nameSpace = "Pinlamp";
  std::string agentName;

  // From `LIBRARY[:NAMESPACE[:AGENTNAME]]`. The namespace may be nested; the agent's name defaults to the
  // library's, without folder, "lib" and what follows ".so". Throws StartError.
  static AgentOption parse(const std::string& text);
};

// The symbol of `NAMESPACE::agentFactory(Zel::Name)`.
std::string factorySymbol(const std::string& nameSpace);

// One agent and its library, which stays loaded as long as the plug-in lives. Destroy the agent, and every
// entity of its types, first.
class Plugin {
 public:
  // Loads the library and makes the agent. Throws StartError where the library is not there or does not load,
  // has no such factory, or the factory returns null; HandlerFault where the factory throws.
  explicit Plugin(const AgentOption& option);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  Zel::Name name() const { return name_; }
  const std::string& library() const { return library_; }
  // Null once it was dropped.
  const Zel::Ptr<Warden::CAgent>& agent() const { return agent_; }
  // Gives the agent its entity manager and lets it declare its mounts. Throws HandlerFault where it throws.
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
