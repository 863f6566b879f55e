#include "Support/SourceTree.h"

namespace fs = std::filesystem;

namespace KQTest {

SourceTree::SourceTree() : zone_("UTC0") {
  fs::permissions(folder_.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
}

std::string SourceTree::file(const std::string& relativePath, const std::string& contents) const {
  const std::string path = folder_ / relativePath;
  writeFile(path, contents);
  setModificationDate(path, date);
  return path;
}

GoldenEntry SourceTree::entry(const std::string& name, const std::string& contents) {
  return GoldenEntry(name, contents, time16, date16);
}

}  // namespace KQTest
