// A temporary folder.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "pinlamp-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string at(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline void contentIs(const std::string& file, const std::string& content) {
  std::ofstream(file, std::ios::binary) << content;
}
