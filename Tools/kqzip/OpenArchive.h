#pragma once

#include <KQZip/KQZip.h>

#include <memory>
#include <string>

#include "Message.h"

namespace Tool {

/// Opens the archive at `path`; "-" is standard input, which is kept in a temporary file first where it
/// cannot be read at any place. Throws a Failure when it cannot be opened, and when `work` is cancelled
/// meanwhile.
std::shared_ptr<KQZipArchive> openArchive(const std::string& path, const KQ::NSProgress& work);

/// What messages call the archive.
std::string shownArchive(const std::string& path);

/// A problem as a sentence, with the entry's name in front if there is one.
std::string sentenceOf(const KQZipProblem& problem);

/// What to do about a problem; empty where there is nothing to be said.
std::string adviceFor(const KQZipProblem& problem);

/// The Failure of a name that the archive does not have.
Failure missingEntry(const std::string& path, const KQZipArchive& archive, const std::string& name);

}  // namespace Tool
