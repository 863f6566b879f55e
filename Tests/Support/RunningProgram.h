#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "Support/Surroundings.h"

namespace KQTest {

/// A program that is watched and disturbed while it runs. Everything waits for something to happen and
/// nothing for time to pass; a wait for what never happens ends with an exception.
class RunningProgram {
 public:
  /// What the program's standard output and standard error are.
  enum class Streams {
    Pipes,             ///< Two pipes.
    ErrorsOnTerminal,  ///< A pipe and a terminal.
    BothOnTerminal     ///< The same terminal.
  };

  explicit RunningProgram(const std::vector<std::string>& arguments, Streams streams = Streams::Pipes,
                          unsigned short columns = 80);
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  /// Sends a signal to the program.
  void send(int signal) const;

  /// Waits until this many bytes can be read from standard output, and reads nothing.
  void waitForOutput(int bytes = 1) const;

  /// Waits until the program has stopped itself; sending SIGCONT makes it go on. Throws when it ends instead.
  void waitUntilItStops() const;

  /// Closes the reading end of standard output.
  void closeOutput();

  /// Reads standard error until `text` stands in it.
  void readErrorsUntil(const std::string& text);

  /// Sends the signal until the program ends, reading nothing.
  void sendUntilItEnds(int signal);

  /// Waits until the program ends, reading nothing.
  void waitUntilItEnds();

  /// Reads both streams to their ends and waits for the program's. With one terminal for both, everything is
  /// in `errors`.
  ProcessResult finish();

 private:
  bool hasEnded();

  pid_t process_ = -1;
  int output_ = -1;
  int errors_ = -1;
  ProcessResult result_;
};

/// Asks again and again until `condition` holds. Throws when it does not in a minute.
void waitUntil(const std::function<bool()>& condition);

}  // namespace KQTest
