#pragma once

#include <KQZip/KQZip.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

/// What the program's exit status says.
enum ExitStatus {
  Done = 0,          ///< Everything was done.
  Failed = 1,        ///< Something was not; a message says what.
  WrongUsage = 2,    ///< The arguments make no sense.
  Interrupted = 130  ///< A signal ended the work.
};

/// Ends a command: its text becomes the one line on standard error, its status the program's.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, ExitStatus status = Failed)
      : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

/// Throws the system's reason `code` for what could not be done with `path`, and what to do about it.
[[noreturn]] void failWithSystemError(int code, const std::string& path);
[[noreturn]] void failWithSystemError(int code, const std::string& path, const std::string& advice);

/// Throws an error of the library, or `otherwise` where it gives none, with `remarks` and what to do about
/// it.
[[noreturn]] void failWithError(const std::shared_ptr<const KQ::NSError>& error, const std::string& otherwise,
                                const std::vector<std::string>& remarks = {});

/// The text of an error of the library, or `otherwise` where it gives none.
std::string errorText(const std::shared_ptr<const KQ::NSError>& error, const std::string& otherwise);

/// A name for a line of its own: control characters and bytes that are not UTF-8 as \xNN, and the backslash
/// doubled, so that the name can be told from the line.
std::string escapedName(std::string_view name);

/// A name in quotation marks, for the middle of a sentence.
std::string inQuotes(std::string_view name);

/// "1 entry", "2 entries".
std::string counted(std::uint64_t count, const std::string& one, const std::string& many);

/// A number with `fill` in front of it up to a width.
std::string padded(std::uint64_t number, std::size_t width, char fill);

/// Eight hexadecimal digits.
std::string hexadecimal(std::uint32_t value);

/// A text with blanks in front of it up to a width.
std::string rightAligned(const std::string& text, std::size_t width);

/// An amount of bytes as a person reads it, "12 B", "1.5 MiB".
std::string readableSize(std::uint64_t bytes);

/// Writes the text to standard error as it stands, in one call, so that lines of several programs do not mix.
void printToStandardError(const std::string& text);

/// Writes "kqzip: ", the text made printable and a line end to standard error.
void printMessage(const std::string& text);

}  // namespace Tool
