// Reads every row of a space, in portions, while others write.
//
//     Scan scan(connection, keys, owner);
//     scan.start(rows);   // then owner.onScanned(), once
//
// The rows are those of a snapshot only after the log since before the scan was carried into them.
//
// Activity thread only.
#pragma once

#include <cstddef>
#include <deque>
#include <string>

#include "host/store/redis/connection.h"
#include "host/store/redis/layout.h"
#include "host/store/redis/rows.h"

namespace Host::Redis {

class Scan {
 public:
  class Owner {
   public:
    virtual void onScanned() = 0;
    // A row was left out. `text` names the place and the fault.
    virtual void onUnreadable(const std::string& text) = 0;
    virtual void onScanFailed(const Reply& error) = 0;

   protected:
    ~Owner() = default;
  };

  // Directories that are listed at once, and hashes that are read at the same time.
  static constexpr std::size_t kDirectories = 1000, kWindow = 8;
  // Bytes that a page of a hash should have: the next page's COUNT is doubled or halved towards it.
  static constexpr std::size_t kPageBytes = 32 << 10;
  static constexpr std::size_t kLeastFields = 16, kMostFields = 1024;

  // `connection`, `keys` and `owner` must outlive it.
  Scan(Connection& connection, const Keys& keys, Owner& owner)
      : connection_(connection), keys_(keys), owner_(owner) {}

  // Adds to `rows`, which must live until onScanned() or the loss of the connection, whichever is first.
  // REQUIRES: no scan is under way on this connection.
  void start(Rows& rows);

 private:
  void proceed();
  void list();
  void onListed(const Reply& reply);
  void read(const std::string& directory, const std::string& cursor);
  void onPage(const std::string& directory, const Reply& reply);
  void take(const std::string& directory, const Reply& fields);
  void adapt(std::size_t fields, std::size_t bytes);
  bool isFailed(const Reply& reply);

  Connection& connection_;
  const Keys& keys_;
  Owner& owner_;
  Rows* rows_ = nullptr;
  std::deque<std::string> directories_{};  // listed, and not yet read
  std::string after_{};                    // the last one that was listed, as ZRANGEBYLEX writes it
  bool isListing_ = false;
  bool isListed_ = false;
  std::size_t reading_ = 0;  // hashes
  std::size_t count_ = 0;
};

}  // namespace Host::Redis
