#include "Create.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <system_error>
#include <utility>

#include "Advice.h"
#include "ArchiveCheck.h"
#include "ArchivePath.h"
#include "Conform.h"
#include "Interruption.h"
#include "Message.h"
#include "ProgressLine.h"
#include "System.h"
#include "Verify.h"

namespace fs = std::filesystem;

namespace Tool {

namespace {

// Gives the writer what it is to pack.
using Filling = std::function<bool(KQZipFileWriter&, KQ::NSErrorSlot)>;

fs::file_status statusOf(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) failWithSystemError(error.value(), path);
  return status;
}

std::string canonicalPath(const std::string& path) {
  std::error_code error;
  const fs::path canonical = fs::canonical(path, error);
  if (error) failWithSystemError(error.value(), path);
  return canonical.string();
}

// The folder with a last component that can stand in front of names: "." and ".." have none.
std::string directoryToKeep(const std::string& directory) {
  const std::string name = KQ::lastPathComponent(directory);
  std::string named = name == "." || name == ".." ? canonicalPath(directory) : directory;
  if (KQ::lastPathComponent(named) == "/")
    throw Failure("--keep-parent: " + inQuotes(directory) + " has no name", WrongUsage);
  return named;
}

Filling fillingWithDirectory(const CreateOptions& options) {
  const std::string& source = options.sources.front();
  const std::string directory = options.keepParent ? directoryToKeep(source) : source;
  return [&options, directory](KQZipFileWriter& writer, KQ::NSErrorSlot error) {
    return writer.addContentsOfDirectory(directory, options.keepParent, error);
  };
}

void requireReadableFile(const std::string& path) {
  if (!fs::is_regular_file(statusOf(path)))
    throw Failure(withRemarks(inQuotes(path) + " is not a regular file", {"leave it out"}));
  if (const int code = System::codeForReading(path); code != 0) failWithSystemError(code, path);
}

void requireFaithfulText(const std::string& text, const std::string& path) {
  if (!KQ::isValidUTF8(text)) failWithSystemError(EILSEQ, path);
}

// From the name in the archive to the argument, in the order of the names.
std::map<std::string, std::string> namesOfFiles(const std::vector<std::string>& files) {
  std::map<std::string, std::string> argumentOfName;
  for (const std::string& file : files) {
    requireReadableFile(file);
    const std::string name = KQ::lastPathComponent(file);
    requireFaithfulText(name, file);
    const auto [known, isNew] = argumentOfName.emplace(name, file);
    if (!isNew) {
      const std::string text =
          inQuotes(known->second) + " and " + inQuotes(file) + " would have the same name, " + inQuotes(name);
      throw Failure(withRemarks(text, {"rename one, or pack their folder"}));
    }
  }
  return argumentOfName;
}

Filling fillingWithFiles(const CreateOptions& options) {
  auto files = namesOfFiles(options.sources);
  for (auto& [name, file] : files) {
    // The writer takes a file's size from the path as it stands, so a link gives way to what it points to.
    std::string source = canonicalPath(file);
    requireFaithfulText(source, file);
    file = std::move(source);
  }
  return [files = std::move(files)](KQZipFileWriter& writer, KQ::NSErrorSlot /*error*/) {
    for (const auto& [name, source] : files) writer.addFilePath(source, name);
    return true;
  };
}

Filling fillingFrom(const CreateOptions& options) {
  const auto isFolder = [](const std::string& path) { return fs::is_directory(statusOf(path)); };
  const auto folders = std::count_if(options.sources.begin(), options.sources.end(), isFolder);
  if (folders == 1 && options.sources.size() == 1) return fillingWithDirectory(options);
  if (folders != 0) throw Failure("give one folder alone, or files", WrongUsage);
  if (options.keepParent) throw Failure("--keep-parent is for a folder", WrongUsage);
  return fillingWithFiles(options);
}

bool existsAt(const std::string& path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

// A link that leads nowhere stands in the way too.
bool isInTheWayAt(const std::string& path) {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(path, ignored));
}

// What the library would report as an error of writing, without its reason.
void requirePlaceForArchive(const std::string& archive) {
  requireArchiveName(archive);
  if (!KQ::isValidUTF8(archive)) failWithSystemError(EILSEQ, archive, "choose a name that is UTF-8");
  if (const int code = System::codeForLookingAt(archive); code != 0 && code != ENOENT) {
    if (code != ENOTDIR) failWithSystemError(code, archive);
    failWithSystemError(code, archive, "a file stands where its folder should be, choose another path");
  }
  if (archive.back() == '/' && !existsAt(archive))
    failWithSystemError(EISDIR, archive, "leave out the slash at its end");
  const std::string parent = KQ::stringByDeletingLastPathComponent(archive);
  const std::string folder = parent.empty() ? "." : parent;
  if (const int code = System::codeForAddingTo(folder); code != 0 && code != ENOENT)
    failWithSystemError(code, folder);
}

// The library refuses a path that exists, and one without a folder to be in, with the same code.
bool isRefusal(const std::shared_ptr<const KQ::NSError>& error) {
  return error && error->code() == KQZipErrorRefusedPath;
}

std::string adviceOnArchive(const std::string& archive, const std::shared_ptr<const KQ::NSError>& error,
                            bool isPartial) {
  if (isPartial) return "remove it before another try";
  if (!isRefusal(error)) return {};
  return isInTheWayAt(archive) ? "it exists, remove it or choose another name" : "make that folder first";
}

ProgressLine::Amount sizeOfFile(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  return error ? ProgressLine::Amount{readableSize(0), 0} : ProgressLine::Amount{readableSize(size), size};
}

// In this order: what cannot be read back is told of before anything else is done with the archive.
void finish(const CreateOptions& options, const KQZipFileWriter& writer,
            const std::shared_ptr<KQ::NSProgress>& work) {
  bool isExact = true;
  try {
    requireReadableArchive(options.archive, *work);
    requireNotInterrupted(*work);
    if (!options.exact) makeInteroperable(options.archive, writer.permissionsOfSources());
    isExact = options.exact;
    if (options.verifies) verify({options.archive, options.quiet, false}, work);
  } catch (const Failure& failure) {
    if (failure.status() != Interrupted) throw;
    const std::string form = isExact && !options.exact ? " and as with --exact" : "";
    throw Failure("interrupted (archive left unchecked" + form + " at " + options.archive + ")", Interrupted);
  }
}

}  // namespace

void create(const CreateOptions& options, const std::shared_ptr<KQ::NSProgress>& work) {
  const Filling fill = fillingFrom(options);
  requirePlaceForArchive(options.archive);
  const bool existedBefore = isInTheWayAt(options.archive);
  KQZipFileWriter writer;
  std::shared_ptr<const KQ::NSError> error;
  bool done = false;
  {
    const ProgressLine line(!options.quiet, work, [&options] { return sizeOfFile(options.archive); });
    done = fill(writer, &error) && writer.writeToZipPath(options.archive, &error);
  }
  if (done) return finish(options, writer, work);
  // What came into being meanwhile and was refused is somebody else's.
  const bool isPartial = !existedBefore && !isRefusal(error) && isInTheWayAt(options.archive);
  const std::string trace = isPartial ? "partial archive left at " + options.archive : "";
  if (work->isCancelled()) throw Failure(withRemarks("interrupted", {trace}), Interrupted);
  failWithError(error, "a file could not be read while it was packed",
                {trace, adviceOnArchive(options.archive, error, isPartial)});
}

}  // namespace Tool
