// A client that writes at random and keeps account of what the state database must hold for it.
//
// Requests of one connection are carried out in order, and a batch is stored as a whole. So after a crash the
// rows must be those after the last acknowledged batch, or after a later one that was sent.
#pragma once

#include <deque>
#include <vector>

#include "tests/torture/daemon.h"

namespace Torture {

class Ledger {
 public:
  // Its rows are under this path. `longest`: bytes of the longest value.
  Ledger(std::string path, Random& random, std::size_t longest = 200)
      : path_(std::move(path)), random_(random), longest_(longest) {}

  // The parameters of the next random "write", which counts as under way: puts, removals and unsets of a few
  // stored rows. Some end with a change that must be refused; some are volatile, under "volatile".
  Json write();
  // The answer to the oldest one under way. Throws Failure if it was taken and must be refused, or refused
  // and must be taken. One that the store failed to take (error 2) is none of both.
  void answered(const Json& answer);
  bool isIdle() const { return underWay_.empty(); }
  std::size_t underWay() const { return underWay_.size(); }
  // Compares the database's rows under the path, and takes them as the new start: nothing is under way any
  // more. Throws Failure.
  void check(const Rows& rows);

  // The states that the rows had one after another, from the empty one, for copies of the database. Number 0
  // is empty; `state()` is that after the last answer.
  std::size_t state() const { return states_.size() - 1; }
  // Why these rows are not those of state number `least` or a later one; empty if they are.
  std::string differs(const Rows& rows, std::size_t least) const;

  const std::string& path() const { return path_; }
  std::uint64_t acknowledged() const { return acknowledged_; }
  std::uint64_t refused() const { return refused_; }
  std::uint64_t failed() const { return failed_; }

 private:
  struct Batch {
    std::uint64_t number = 0;
    bool isBad = false, isVolatile = false;
    std::vector<Json> changes{};
  };

  Json change(std::uint64_t number);
  void add(Json change, Batch& batch);
  std::string place(std::uint64_t kind) const;
  void take(const Batch& batch);

  const std::string path_;
  Random& random_;
  const std::size_t longest_;
  std::uint64_t number_ = 0, acknowledged_ = 0, refused_ = 0, failed_ = 0;
  Rows rows_{};      // after the last answer
  Rows expected_{};  // after everything under way
  std::deque<Batch> underWay_{};
  std::vector<std::size_t> states_{hashOf({})};

  static std::size_t hashOf(const Rows& rows);
};

}  // namespace Torture
