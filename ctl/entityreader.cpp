#include "ctl/entityreader.h"

#include <algorithm>

namespace Ctl {

bool EntityReader::read(const std::string& line) {
  depth_ = 0;
  isAnswer_ = false;
  return nlohmann::json::sax_parse(line, this) && isAnswer_;
}

bool EntityReader::open(char bracket) {
  if (depth_ > kEntity) value_.open(bracket);
  if (++depth_ == kEntity - 1) isAnswer_ = key_ == "entities" && bracket == '[';
  return true;
}

bool EntityReader::close(char bracket) {
  if (--depth_ > kEntity) value_.close(bracket);
  if (depth_ == kEntity) endAttribute();
  if (depth_ == kEntity - 1 && isAnswer_) entity(std::exchange(path_, {}), type_, members());
  return true;
}

void EntityReader::endAttribute() {
  std::string value = value_.take();
  if (!value.empty()) attributes_.emplace_back(std::move(attribute_), std::move(value));
}

std::string EntityReader::members() {
  std::ranges::sort(attributes_);
  JsonWriter writer(true);
  for (const auto& [name, value] : attributes_) {
    writer.key(name);
    writer.token(value);
  }
  attributes_.clear();
  return writer.take();
}

bool EntityReader::key(std::string& given) {
  if (depth_ == kEntity + 1) {
    endAttribute();
    attribute_ = std::move(given);
  } else if (depth_ > kEntity) {
    value_.key(given);
  } else {
    key_ = std::move(given);
  }
  return true;
}

bool EntityReader::string(std::string& given) {
  if (depth_ > kEntity) value_.string(given);
  if (depth_ == kEntity && key_ == "path") path_ = std::move(given);
  if (depth_ == kEntity && key_ == "type") type_ = std::move(given);
  return true;
}

bool EntityReader::token(const std::string& text, const char*) {
  if (depth_ > kEntity) value_.token(text);
  return true;
}

}  // namespace Ctl
