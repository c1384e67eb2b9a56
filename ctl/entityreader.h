// The entities of an answer to `read`, one after another: a tree of many takes seconds to build.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ctl/jsonwriter.h"

namespace Ctl {

class EntityReader : public JsonReader {
 public:
  // Reads the line of an answer, and returns false if it is none to `read`, such as an error. Throws
  // nlohmann::json::exception if it is not JSON.
  bool read(const std::string& line);

  // Called for each entity. `members`: the attributes, sorted, as the members of an object, for people.
  virtual void entity(std::string path, const std::string& type, const std::string& members) = 0;

  bool start_object(std::size_t) final { return open('{'); }
  bool start_array(std::size_t) final { return open('['); }
  bool end_object() final { return close('}'); }
  bool end_array() final { return close(']'); }
  bool key(std::string& given) final;
  bool string(std::string& given) final;
  bool token(const std::string& text, const char* type) final;

 private:
  // The arrays and objects around the members of an entity: answer, result, entities, entity.
  static constexpr int kEntity = 4;

  bool open(char bracket);
  bool close(char bracket);
  void endAttribute();
  // Of the attributes so far, which it forgets.
  std::string members();

  JsonWriter value_{true};  // of the attribute
  std::string attribute_;
  std::vector<std::pair<std::string, std::string>> attributes_;  // names and values
  int depth_ = 0;
  bool isAnswer_ = false;
  std::string key_;  // the innermost down to kEntity
  std::string path_, type_;
};

}  // namespace Ctl
