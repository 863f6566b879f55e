#pragma once

#include <cstdint>

#include "Support/SourceMoment.h"

namespace KQTest {

/// A moment in the reading of a file: right before a call that concerns it.
struct FileMoment {
  enum class Call { Open, Read, Attributes };

  int opens;                     ///< How often the file was opened before.
  Call call;                     ///< The next such call behind that opening is the moment.
  std::int64_t from = 0;         ///< For a read, the first at this offset or behind it
  std::int64_t end = INT64_MAX;  ///< and in front of this one.
};

/// The moment of a source in the system's calls. The library opens a source twice, for the CRC and for the
/// copy.
inline FileMoment fileMoment(SourceMoment moment) {
  const std::int64_t block = 1048576;
  switch (moment) {
    case SourceMoment::DuringTheChecksum:
      return {1, FileMoment::Call::Read, block};
    case SourceMoment::BehindTheChecksum:
      return {1, FileMoment::Call::Attributes};
    case SourceMoment::BeforeTheCopy:
      return {1, FileMoment::Call::Open};
    case SourceMoment::DuringTheCopy:
      return {2, FileMoment::Call::Read, block};
    default:
      return {2, FileMoment::Call::Attributes};
  }
}

}  // namespace KQTest
