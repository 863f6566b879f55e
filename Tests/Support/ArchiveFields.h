#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace KQTest {

/// The bits of an intact archive, counted from its first byte's lowest, that say nothing of names, data or
/// places, found without the library:
/// - what stands in front of the first record;
/// - versions, as long as programs have the one that is needed, which are those up to 4.6;
/// - attributes and comments;
/// - ids and data of extra fields that hold times, owners and the like;
/// - the lowest two bits of the size of such a field that is the last one, as far as they make it shorter: up
///   to three bytes after the last field have no meaning.
std::set<std::size_t> bitsWithoutConsequence(const std::string& archive);

}  // namespace KQTest
