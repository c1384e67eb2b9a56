#include "host/store/redis/reply.h"

#include <hiredis.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace Host::Redis {

namespace {

struct RefusalWord {
  Refusal refusal;
  std::string_view word;
  const char* text;
};
constexpr std::array<RefusalWord, 18> kRefusals{{
    {Refusal::none, "", "nothing is wrong"},
    {Refusal::loading, "LOADING", "the server is reading its file; it answers when that is done"},
    {Refusal::noAuth, "NOAUTH", "the server wants a password; name the file that holds it with passwordFile"},
    {Refusal::wrongPass, "WRONGPASS",
     "user or password are wrong; compare passwordFile with the server's ACL"},
    {Refusal::noPerm, "NOPERM", "the user's ACL does not allow it"},
    {Refusal::outOfMemory, "OOM", "the server's maxmemory is reached; raise it, or delete rows"},
    {Refusal::readOnly, "READONLY", "the server is a replica; connect to the master, or through sentinels"},
    {Refusal::misconf, "MISCONF", "the server can't write its file; look for a full disk in its log"},
    {Refusal::noReplicas, "NOREPLICAS", "too few replicas keep up (min-replicas-to-write)"},
    {Refusal::masterDown, "MASTERDOWN", "the server is a replica without its master"},
    {Refusal::noScript, "NOSCRIPT", "the server forgot a script"},
    {Refusal::busy, "BUSY", "the server runs another script that takes too long"},
    {Refusal::generation, "GENERATION", "the space was wiped or made meanwhile"},
    {Refusal::fenced, "FENCED", "the write was given up when its connection was lost"},
    {Refusal::claimed, "CLAIMED", "another process holds the claim"},
    {Refusal::otherType, "TYPE", "an entity of another type is in the way"},
    {Refusal::notStored, "STORED", "stored rows are in the way"},
    {Refusal::other, "", "the server refused it"},
}};
constexpr bool isInOrder() {
  for (std::size_t i = 0; i < kRefusals.size(); ++i)
    if (static_cast<std::size_t>(kRefusals[i].refusal) != i) return false;
  return true;
}
static_assert(isInOrder());

// The functions by which hiredis builds replies: into their place in the list above, or as a new one.
Reply* replyFor(const redisReadTask* task) {
  if (!task->parent) return new Reply;
  return &static_cast<Reply*>(task->parent->obj)->list[static_cast<std::size_t>(task->idx)];
}
void* makeText(const redisReadTask* task, char* bytes, std::size_t size) {
  Reply* reply = replyFor(task);
  reply->kind = task->type == REDIS_REPLY_ERROR ? Reply::Kind::error : Reply::Kind::text;
  reply->text.assign(bytes, size);
  return reply;
}
// hiredis had a limit of its own until 1.0.
bool isTooDeep(const redisReadTask* task) {
  std::size_t depth = 1;
  for (; task->parent; task = task->parent) ++depth;
  return depth > ReplyReader::kDeepest;
}
// `Count` is int in hiredis 0.14 and size_t in later ones.
template <class Count>
void* makeList(const redisReadTask* task, Count count) {
  if (std::cmp_less(count, 0) || std::cmp_greater(count, ReplyReader::kMostElements) || isTooDeep(task))
    return nullptr;
  Reply* reply = replyFor(task);
  reply->kind = Reply::Kind::list;
  reply->list.resize(static_cast<std::size_t>(count));
  return reply;
}
void* makeInteger(const redisReadTask* task, long long number) {
  Reply* reply = replyFor(task);
  reply->kind = Reply::Kind::integer;
  reply->number = number;
  return reply;
}
void* makeNull(const redisReadTask* task) { return replyFor(task); }
void freeReply(void* reply) { delete static_cast<Reply*>(reply); }

redisReplyObjectFunctions makers() {
  redisReplyObjectFunctions functions{};
  functions.createString = makeText;
  functions.createArray = makeList;
  functions.createInteger = makeInteger;
  functions.createNil = makeNull;
  functions.freeObject = freeReply;
  return functions;
}

}  // namespace

const char* refusalText(Refusal refusal) { return kRefusals[static_cast<std::size_t>(refusal)].text; }

Refusal Reply::refusal() const {
  if (kind != Kind::error) return Refusal::none;
  // Of a command in a script, before Redis 7.2 and since.
  for (const char* start : {"ERR The user executing the script can't", "ERR ACL failure in script"})
    if (text.starts_with(start)) return Refusal::noPerm;
  const std::string_view word = std::string_view(text).substr(0, text.find(' '));
  const auto found = std::find_if(kRefusals.begin() + 1, kRefusals.end() - 1,
                                  [&](const RefusalWord& each) { return each.word == word; });
  return found->refusal;
}

const Reply& Reply::operator[](std::size_t index) const {
  static const Reply kNull;
  return index < list.size() ? list[index] : kNull;
}

std::uint64_t Reply::unsignedNumber() const {
  if (kind == Kind::integer) return number < 0 ? 0 : static_cast<std::uint64_t>(number);
  std::uint64_t read = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), read);
  return error == std::errc() && end == text.data() + text.size() ? read : 0;
}

void ReplyReader::Free::operator()(redisReader* reader) const { redisReaderFree(reader); }

ReplyReader::ReplyReader() {
  static redisReplyObjectFunctions functions = makers();
  reader_.reset(redisReaderCreateWithFunctions(&functions));
}
ReplyReader::~ReplyReader() = default;
ReplyReader::ReplyReader(ReplyReader&&) noexcept = default;

bool ReplyReader::feed(std::string_view bytes) {
  if (!error_.empty()) return false;
  fed_ += bytes.size();
  if (fed_ > kLongest + bytes.size())
    error_ = "a reply is longer than " + std::to_string(kLongest) + " bytes";
  else if (redisReaderFeed(reader_.get(), bytes.data(), bytes.size()) != REDIS_OK)
    error_ = reader_->errstr;
  return error_.empty();
}

std::optional<Reply> ReplyReader::next() {
  void* made = nullptr;
  if (!error_.empty()) return std::nullopt;
  if (redisReaderGetReply(reader_.get(), &made) != REDIS_OK) {
    // hiredis takes a list that is not made for a lack of memory.
    error_ = "what arrives is not a reply: " +
             (reader_->err == REDIS_ERR_OOM ? "a list has more than " + std::to_string(kMostElements) +
                                                  " elements, or is deeper than " + std::to_string(kDeepest)
                                            : std::string(reader_->errstr));
    return std::nullopt;
  }
  if (!made) return std::nullopt;
  fed_ = reader_->len - reader_->pos;
  const std::unique_ptr<Reply> reply(static_cast<Reply*>(made));
  return std::move(*reply);
}

namespace {

class Digits {
 public:
  explicit Digits(std::uint64_t number)
      : end_(std::to_chars(digits_.data(), digits_.data() + digits_.size(), number).ptr) {}
  std::string_view view() const { return {digits_.data(), end_}; }

 private:
  std::array<char, 20> digits_;
  const char* end_;
};
void appendCount(std::string& bytes, char kind, std::uint64_t count) {
  ((bytes += kind) += Digits(count).view()) += "\r\n";
}

}  // namespace

void Words::addJoined(std::initializer_list<std::string_view> parts) {
  std::size_t size = 0;
  for (const std::string_view part : parts) size += part.size();
  appendCount(bytes_, '$', size);
  for (const std::string_view part : parts) bytes_ += part;
  bytes_ += "\r\n";
  ++count_;
}

void Words::add(std::uint64_t number) { add(Digits(number).view()); }

void Words::add(const Words& words) {
  bytes_ += words.bytes_;
  count_ += words.count_;
}

void appendCommand(std::string& bytes, const Words& words, const Words& more) {
  appendCount(bytes, '*', words.count() + more.count());
  bytes.append(words.bytes()).append(more.bytes());
}

}  // namespace Host::Redis
