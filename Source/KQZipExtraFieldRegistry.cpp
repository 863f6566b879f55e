// The registry of KQZipExtraField, in a unit of its own that knows the library's subclass. A program that
// parses extra fields links this unit, and with it the subclass, from a static library too.

#include <algorithm>

#include "KQZipExtraField.h"
#include "KQZipExtraFieldZip64ExtendedInfo.h"

// Made at its first use, which may be a registration that runs before main().
static std::vector<KQZipExtraFieldClass>& registeredSubclasses() {
  static std::vector<KQZipExtraFieldClass> classes{
      KQZipExtraFieldClass::of<KQZipExtraFieldZip64ExtendedInfo>()};
  return classes;
}

void KQZipExtraField::registerSubclass(const KQZipExtraFieldClass& subclass) {
  auto& classes = registeredSubclasses();
  const bool known =
      std::any_of(classes.begin(), classes.end(),
                  [&subclass](const KQZipExtraFieldClass& each) { return *each.type == *subclass.type; });
  if (!known) classes.push_back(subclass);
}

const std::vector<KQZipExtraFieldClass>& KQZipExtraField::subclasses() { return registeredSubclasses(); }
