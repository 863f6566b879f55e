#include "KQZipInteroperability.h"

#include "../Internal/KQZipInteroperablePlan.h"
#include "../Platform/NSFileHandle.h"

bool KQZipMakeArchiveInteroperable(const std::string& zipPath, KQ::NSErrorSlot error) {
  return KQZipMakeArchiveInteroperable(zipPath, KQZipPermissions(), error);
}

bool KQZipMakeArchiveInteroperable(const std::string& zipPath, const KQZipPermissions& permissions,
                                   KQ::NSErrorSlot error) {
  const auto source = KQ::NSFileHandle::fileHandleForReadingAtPath(zipPath, error);
  if (!source) return false;
  KQZipInteroperablePlan plan(zipPath, *source, permissions);
  if (!plan.make(error)) return false;
  if (plan.isEmpty()) return true;
  const auto archive = KQ::NSFileHandle::fileHandleForUpdatingAtPath(zipPath, error);
  return archive && plan.carryOut(*archive, error) && archive->close(error);
}
