#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

// What the tool asks of the operating system, beyond the library and C++: its standard streams, its terminal,
// signals, and rights. All of it stands here, so that a port has one unit to write.

namespace Tool {

/// A standard stream to print to.
enum class Stream { Output, Errors };

namespace System {

/// Writes at most all of `bytes`. How many were written, or the negative of an error number.
std::ptrdiff_t write(Stream stream, std::string_view bytes);

/// Waits until the stream takes something: a terminal or a pipe may have been switched to non-blocking by a
/// program that shares it.
void waitUntilWritable(Stream stream);

/// Whether the stream is a terminal.
bool isTerminal(Stream stream);

/// How many columns the terminal has; 80 where it does not tell.
std::size_t columnsOf(Stream stream);

/// Keeps the numbers of closed standard streams from being given to the first file that is opened, with what
/// is printed to them. Printing to them still fails.
void holdStandardStreams();

/// Makes a closed pipe and a file that may not grow errors, and no ends of the process.
void ignoreFatalWrites();

/// Names the time zone in the environment as what it is without a name: unnamed, the system looks at its file
/// again whenever a date is converted. To be called before the first thread is started.
void nameTimeZone();

/// Keeps SIGINT and SIGTERM from ending the process, in this thread and all that it starts.
void blockInterruptions();

/// Waits for one of the two.
void waitForInterruption();

/// Ends the wait of that thread.
void wake(std::thread& thread);

/// Ends the process at once, with nothing flushed and nothing destroyed.
[[noreturn]] void endAtOnce(int status);

/// 0 when this process may read the file at `path`, else the error number.
int codeForReading(const std::string& path);

/// 0 when this process may make files in the folder at `path`, else the error number.
int codeForAddingTo(const std::string& path);

/// 0 when there is anything at `path`, a link that leads nowhere included, else the error number.
int codeForLookingAt(const std::string& path);

/// Finds a path by which standard input can be read at any place: its own where it is a file, else that of a
/// new file that nobody else may read, into which it is copied as long as `goesOn`. 0 or an error number.
int keepStandardInput(std::string* path, const std::function<bool()>& goesOn);

/// Removes that file, which stays readable for whoever has opened it.
void forgetStandardInput(const std::string& path);

}  // namespace System

}  // namespace Tool
