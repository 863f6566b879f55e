#pragma once

namespace KQTest {

/// When a source of more than one block changes.
enum class SourceMoment {
  DuringTheChecksum,      ///< One block was read for the CRC.
  BehindTheChecksum,      ///< The CRC is known, size and date are not.
  BeforeTheCopy,          ///< The local header is written.
  DuringTheCopy,          ///< One block was copied.
  BeforeTheCentralHeader  ///< All data was copied.
};

}  // namespace KQTest
