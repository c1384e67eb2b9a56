#include "ctl/entityreader.h"

#include <utility>

namespace Ctl {

bool EntityReader::read(const std::string& line) {
  depth_ = 0;
  isAnswer_ = false;
  return nlohmann::json::sax_parse(line, this) && isAnswer_;
}

bool EntityReader::open(char bracket) {
  if (depth_ > kEntity) members_.open(bracket);
  if (++depth_ == kEntity - 1) isAnswer_ = key_ == "entities" && bracket == '[';
  return true;
}

bool EntityReader::close(char bracket) {
  if (--depth_ > kEntity) members_.close(bracket);
  if (depth_ == kEntity - 1 && isAnswer_) entity(std::exchange(path_, {}), type_, members_.take());
  return true;
}

bool EntityReader::key(std::string& given) {
  if (depth_ > kEntity)
    members_.key(given);
  else
    key_ = std::move(given);
  return true;
}

bool EntityReader::string(std::string& given) {
  if (depth_ > kEntity) members_.string(given);
  if (depth_ == kEntity && key_ == "path") path_ = std::move(given);
  if (depth_ == kEntity && key_ == "type") type_ = std::move(given);
  return true;
}

bool EntityReader::token(const std::string& text, const char*) {
  if (depth_ > kEntity) members_.token(text);
  return true;
}

}  // namespace Ctl
