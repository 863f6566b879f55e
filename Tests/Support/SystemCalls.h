#pragma once

#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// Stands between the library and the system's calls that transfer bytes. Program/SystemFunctions.cpp defines
// the functions that the library's calls go to.

namespace KQTest {

/// While one exists, the transfers of the thread that made it are recorded and go wrong on demand.
class SystemCalls {
 public:
  SystemCalls() { active() = this; }
  ~SystemCalls() { active() = nullptr; }
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  /// One piece of memory of a transfer.
  struct Piece {
    const void* address;
    std::size_t length;
  };

  /// One call, as the library made it.
  struct Transfer {
    std::vector<Piece> pieces;
    std::int64_t offset;   ///< Where in the file; -1 for "where the file stands".
    std::int64_t result;   ///< What the library got back.
    bool isWrite = false;  ///< Whether it writes.

    std::size_t asked() const {
      std::size_t length = 0;
      for (const Piece& piece : pieces) length += piece.length;
      return length;
    }

    /// Whether the system moves the bytes from one file to the other, without memory of the process.
    bool isMove() const { return isWrite && offset >= 0 && pieces.front().address == nullptr; }
  };

  // What is to go wrong.
  std::size_t longestTransfer = SIZE_MAX;  ///< A call that asks for more gets this many bytes.
  bool interruptEveryOther = false;        ///< The first, third, … call is interrupted by a signal.
  std::size_t failAt = 0;                  ///< The number of the call, from 1, that fails; 0 for none.
  bool failForGood = false;                ///< Every call after it fails too.
  int failWith = EIO;                      ///< The `errno` of a call that fails.
  bool cannotMove = false;                 ///< The system moves nothing from one file to another.

  /// Called before each transfer that is not interrupted, with what was asked for.
  std::function<void(const Transfer&)> beforeTransfer;

  // What has happened.
  std::vector<Transfer> transfers;  ///< Every transfer that was not interrupted.
  std::size_t interruptions = 0;    ///< How many were.
  std::size_t seeks = 0;            ///< Moves of a file's own offset.

  /// All bytes that the transfers moved.
  std::uint64_t bytesMoved() const {
    std::uint64_t sum = 0;
    for (const Transfer& transfer : transfers)
      sum += static_cast<std::uint64_t>(std::max<std::int64_t>(transfer.result, 0));
    return sum;
  }

  /// Forgets what has happened.
  void reset() {
    transfers.clear();
    interruptions = 0;
    seeks = 0;
  }

  /// The one of the calling thread, null for none.
  static SystemCalls*& active() {
    static thread_local SystemCalls* calls = nullptr;
    return calls;
  }

  /// Makes the call `real(iovec*, count)` with what is to go wrong.
  template <class Call>
  ssize_t perform(const iovec* pieces, int count, std::int64_t offset, Call real, bool isWrite = false) {
    justInterrupted_ = interruptEveryOther && !justInterrupted_;
    if (justInterrupted_) {
      ++interruptions;
      errno = EINTR;
      return -1;
    }
    Transfer transfer{{}, offset, -1, isWrite};
    std::vector<iovec> allowed;
    std::size_t left = longestTransfer;
    for (int i = 0; i < count; ++i) {
      transfer.pieces.push_back({pieces[i].iov_base, pieces[i].iov_len});
      const std::size_t length = std::min(left, pieces[i].iov_len);
      allowed.push_back({pieces[i].iov_base, length});
      left -= length;
    }
    if (beforeTransfer) beforeTransfer(transfer);
    const std::size_t number = transfers.size() + 1;
    if (failAt != 0 && (number == failAt || (failForGood && number > failAt))) {
      transfers.push_back(transfer);
      errno = failWith;
      return -1;
    }
    transfer.result = real(allowed.data(), count);
    const int code = errno;
    transfers.push_back(transfer);
    errno = code;
    return static_cast<ssize_t>(transfer.result);
  }

 private:
  bool justInterrupted_ = false;
};

}  // namespace KQTest
