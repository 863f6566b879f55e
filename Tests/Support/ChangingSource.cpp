#include "Support/ChangingSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace KQTest {

namespace {

const std::size_t block = 1048576;

// What a reader gets that has read one block before the file changed in place.
std::string changedBehindOneBlock(const std::string& before, const std::string& after) {
  return before.substr(0, block) + (after.size() > block ? after.substr(block) : "");
}

std::string inverted(std::string bytes) {
  std::transform(bytes.begin(), bytes.end(), bytes.begin(),
                 [](char each) { return static_cast<char>(~each); });
  return bytes;
}

void rewrite(const std::string& path, const std::string& contents) {
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  for (std::string_view rest = contents; !rest.empty();) {
    const ssize_t count = write(file, rest.data(), rest.size());
    ASSERT_GT(count, 0);
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
  ASSERT_EQ(0, ftruncate(file, static_cast<off_t>(contents.size())));
  close(file);
}

}  // namespace

void SourceChange::apply(const SourceTree& tree, const std::string& relativePath) const {
  const std::string path = tree / relativePath;
  const std::string changed = contents(readFile(path));
  const std::string target = byRename ? tree / "replacement" : path;
  if (byRename)
    writeFile(target, changed);
  else
    rewrite(target, changed);
  setModificationDate(target, SourceTree::date + 60);
  if (byRename) fs::rename(target, path);
}

std::vector<SourceChange> sourceChanges() {
  const auto grown = [](const std::string& old) { return old + patternBytes(3000, 9); };
  const auto shrunk = [](const std::string& old) { return old.substr(0, old.size() - 700); };
  // The record of another entry that follows, with six bytes of data, then begins where this one was to end.
  const auto shrunkByARecord = [](const std::string& old) { return old.substr(0, old.size() - 65); };
  const auto shrunkToLittle = [](const std::string& old) { return old.substr(0, 10); };
  return {{"grown", grown},
          {"shrunk", shrunk},
          {"shrunk to less than a block", shrunkToLittle},
          {"rewritten", inverted},
          {"replaced by a longer file", [=](const std::string& old) { return inverted(grown(old)); }, true},
          {"replaced by a shorter file",
           [=](const std::string& old) { return inverted(shrunkByARecord(old)); }, true},
          {"replaced by one as long", inverted, true}};
}

std::vector<NamedMoment> sourceMoments() {
  return {{SourceMoment::DuringTheChecksum, "DuringTheChecksum"},
          {SourceMoment::BehindTheChecksum, "BehindTheChecksum"},
          {SourceMoment::BeforeTheCopy, "BeforeTheCopy"},
          {SourceMoment::DuringTheCopy, "DuringTheCopy"},
          {SourceMoment::BeforeTheCentralHeader, "BeforeTheCentralHeader"}};
}

GoldenEntry changedEntry(const std::string& name, const std::string& old, SourceMoment moment,
                         const SourceChange& change) {
  const std::string changed = change.contents(old);
  // Who has the file open goes on reading it under another file's name.
  const std::string readOn = change.byRename ? old : changedBehindOneBlock(old, changed);
  GoldenEntry entry = SourceTree::entry(name, old);
  if (moment == SourceMoment::DuringTheChecksum) entry.crc = crcOf(readOn);
  if (moment <= SourceMoment::BehindTheChecksum) {
    entry.localSize = changed.size();
    entry.localTime = dosTime(12, 27, 40);
  }
  if (moment <= SourceMoment::BeforeTheCopy) entry.data = changed;
  if (moment == SourceMoment::DuringTheCopy) entry.data = readOn;
  entry.centralSize = changed.size();
  entry.centralTime = dosTime(12, 27, 40);
  return entry;
}

}  // namespace KQTest
