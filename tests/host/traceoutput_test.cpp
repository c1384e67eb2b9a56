// Trace records into pipes, sockets and files that nobody reads.
#include "host/io/traceoutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "folder.h"
#include "host/io/log.h"

namespace {

using Host::Priority;
using Host::TraceOutput;

std::string arrivedAt(int descriptor) {
  ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
  std::string arrived;
  std::array<char, 65536> bytes;
  for (ssize_t size; (size = ::read(descriptor, bytes.data(), bytes.size())) > 0;)
    arrived.append(bytes.data(), static_cast<std::size_t>(size));
  return arrived;
}

// Every record arrives whole and in order, or is counted where it is missing.
void expectAllAccountedFor(const std::string& arrived, std::size_t records, const std::string& filling) {
  constexpr std::string_view kDropped = "lines dropped here: ";
  std::istringstream lines(arrived);
  std::size_t next = 0, dropped = 0;
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(kDropped))
      next += std::stoul(line.substr(kDropped.size())), ++dropped;
    else
      EXPECT_EQ(line, std::to_string(next++) + filling);
  EXPECT_EQ(next, records);
  EXPECT_EQ(dropped, 1U);
}

// Would hang if a write blocked.
TEST(TraceOutput, DropsAndCountsTheRecordsThatNobodyReads) {
  const Folder folder;
  const std::string fifo = folder.at("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::array<int, 2> pipe{}, socket{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, socket.data()), 0);
  struct Case {
    const char* name;
    TraceOutput output;
    int reader;
  };
  Case cases[] = {
      {"pipe", TraceOutput::sharing(pipe[1]), pipe[0]},
      {"socket", TraceOutput::sharing(socket[1]), socket[0]},
      {"named pipe", TraceOutput::appendingTo(fifo), ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK)}};
  const std::string filling(3000, '.');
  constexpr std::size_t kRecords = 1000;
  for (auto& [name, output, reader] : cases) {
    SCOPED_TRACE(name);
    for (std::size_t i = 0; i < kRecords; ++i) output.write(std::to_string(i) + filling);
    std::string arrived = arrivedAt(reader);
    output.write(std::to_string(kRecords) + filling);
    expectAllAccountedFor(arrived + arrivedAt(reader), kRecords + 1, filling);
    ::close(reader);
  }
  ::close(pipe[1]);
  ::close(socket[1]);
}

TEST(TraceOutput, AppendsToAFileOfItsUserAlone) {
  const Folder folder;
  for (const char* record : {"one", "two"}) TraceOutput::appendingTo(folder.at("trace")).write(record);
  EXPECT_EQ(contentOf(folder.at("trace")), "one\ntwo\n");
  struct stat status {};
  ASSERT_EQ(::stat(folder.at("trace").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST(TraceOutput, TroublesAreWarningsInTheJournal) {
  const std::pair<const char*, Priority> cases[] = {
      {"2026-11-22T02:16:54.993580 PinlampGpio 0 LineAgent:30 report: no line 0 ", Priority::warning},
      {"2026-11-22T02:16:54.993580 Pinlamp 6 Pinlamp:283 createLedConfig: 0 pins", Priority::debug},
      {"2026-11-22T02:16:54.993580 Pinlamp 10 Pinlamp:0 a: b", Priority::debug},
      {" 0 ", Priority::debug},
      {"", Priority::debug}};
  for (const auto& [record, priority] : cases) EXPECT_EQ(Host::priorityOf(record), priority) << record;
}

}  // namespace
