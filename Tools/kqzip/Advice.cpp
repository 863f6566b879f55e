#include "Advice.h"

#include <cerrno>

namespace Tool {

namespace {

constexpr char roomNeeded[] = "check that there is room for it";

}  // namespace

std::string withRemarks(const std::string& text, const std::vector<std::string>& remarks) {
  std::string all;
  for (const std::string& remark : remarks) {
    if (!remark.empty()) all.append(all.empty() ? " (" : "; ").append(remark);
  }
  return all.empty() ? text : text + all + ")";
}

std::string adviceFor(int code) {
  switch (code) {
    case ENOENT:
    case ENOTDIR:
      return "check the path";
    case EACCES:
    case EPERM:
      return "check the permissions";
    case EEXIST:
      return "choose another path";
    case EILSEQ:
      return "rename it, names must be UTF-8";
    case ENAMETOOLONG:
      return "a shorter name is needed";
    case EROFS:
      return "choose a place that can be written";
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return roomNeeded;
    default:
      return {};
  }
}

std::string adviceFor(const std::shared_ptr<const KQ::NSError>& error) {
  if (!error) return {};
  if (error->domain() == KQ::NSPOSIXErrorDomain) return adviceFor(static_cast<int>(error->code()));
  if (error->code() == KQZipErrorReading) return "check that the file can be read";
  return error->code() == KQZipErrorWriting ? roomNeeded : std::string();
}

}  // namespace Tool
