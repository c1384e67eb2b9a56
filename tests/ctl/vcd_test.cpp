#include "ctl/vcd.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "ctl/refusal.h"
#include "tests/host/folder.h"
#include "tests/support.h"

namespace Ctl {
namespace {

using std::chrono::microseconds;
using std::string_literals::operator""s;

struct VcdFile : testing::Test {
  std::string contents() const { return contentOf(path); }
  const Folder folder;
  const std::string path = folder.at("pins.vcd");
};

TEST_F(VcdFile, HoldsDeclarationsChangesAndAnEnd) {
  VcdWriter writer(path, "today");
  writer.valueIs(microseconds(0), "a b[0]", 1U);
  writer.valueIs(microseconds(0), "dark", std::nullopt);
  writer.valueIs(microseconds(500000), "a b[0]", 7U);
  writer.valueIs(microseconds(750001), "a b[0]", 0U);
  writer.finish(microseconds(1000000));
  EXPECT_EQ(contents(),
            "$date today $end\n$version pinlampctl $end\n$timescale 1 us $end\n$scope module pins $end\n"
            "$var wire 1 ! a_b_0_ $end\n$var wire 1 \" dark $end\n$upscope $end\n$enddefinitions $end\n"
            "#0\n1!\nx\"\n#750001\n0!\n#1000000\n");
  EXPECT_EQ(writer.changes(), 3U);
}

TEST_F(VcdFile, IsValidAfterEveryFlushWithLatePinsToo) {
  VcdWriter writer(path, "today");
  writer.valueIs(microseconds(1), "early", 1U);
  writer.flush();
  const std::string before = contents();
  EXPECT_THAT(before, testing::EndsWith("$enddefinitions $end\n#1\n1!\n"));
  writer.valueIs(microseconds(2), "late", 0U);
  writer.valueIs(microseconds(2), "early", 0U);
  writer.flush();
  EXPECT_THAT(contents(), testing::HasSubstr("$var wire 1 \" late $end\n"));
  EXPECT_THAT(contents(), testing::EndsWith("$enddefinitions $end\n#1\n1!\n#2\n0\"\n0!\n"));
}

TEST_F(VcdFile, GivesEveryPinAUniqueCode) {
  VcdWriter writer(path, "today");
  for (int i = 0; i < 9000; ++i) writer.valueIs(microseconds(0), "pin" + std::to_string(i), 1U);
  writer.flush();
  std::set<std::string> codes;
  std::istringstream in(contents());
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("$var")) codes.insert(line.substr(12, line.find(' ', 12) - 12));
  EXPECT_EQ(codes.size(), 9000U);
}

TEST_F(VcdFile, ReplacesOnlyARegularFile) {
  const std::string target = folder.at("target"), link = folder.at("link");
  contentIs(target, "kept");
  contentIs(path, "before");
  contentIs(path + ".new", "another's");
  std::filesystem::create_symlink(target, link);
  for (const std::string& refused : {link, folder.at(""), std::string("/dev/null"), "/nowhere/at/all.vcd"s})
    EXPECT_THROW(VcdWriter(refused, ""), Refusal) << refused;
  EXPECT_EQ(contentOf(target), "kept");
  { const VcdWriter unused(path, ""); }
  EXPECT_EQ(contents(), "before");
  VcdWriter(path, "today").finish(microseconds(1));
  EXPECT_THAT(contents(), testing::StartsWith("$date today"));
  EXPECT_EQ(contentOf(path + ".new"), "another's");
  EXPECT_FALSE(std::filesystem::exists(path + ".new1"));
}

// The file-size limit stands in for a full disk.
TEST_F(VcdFile, StaysCompleteWhenTheDiskIsFull) {
  VcdWriter writer(path, "today");
  writer.valueIs(microseconds(1), "p", 1U);
  writer.flush();
  const std::string before = contents();
  const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit full{before.size() + 2, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  writer.valueIs(microseconds(2), "p", 0U);
  EXPECT_THAT(Support::errorOf<Refusal>([&] { writer.flush(); }), testing::HasSubstr("complete up to here"));
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, ignored);
  EXPECT_EQ(contents(), before);
}

}  // namespace
}  // namespace Ctl
