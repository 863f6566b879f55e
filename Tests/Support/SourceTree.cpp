#include "Support/SourceTree.h"

#include <gtest/gtest.h>

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

Error untouchedError() { return KQ::NSError::errorWithDomain("TestErrorDomain", 12345, "Left untouched."); }

std::string describe(const Error& error) { return error ? error->description() : "(null)"; }

void expectError(const Error& error, const std::string& domain, std::int64_t code,
                 const std::string& description) {
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(domain, error->domain());
  EXPECT_EQ(code, error->code());
  EXPECT_EQ(description, error->localizedDescription());
}

void expectError(const Error& error, std::int64_t code, const std::string& description) {
  expectError(error, "KQZipErrorDomain", code, description);
}

}  // namespace KQTest
