#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

class KQZipExtraField;

/// The extra fields of a header, in their order. It reads like a vector. Nearly every header has one field,
/// which is kept without memory of the list's own. It has no locks.
class KQZipExtraFieldList {
 public:
  using Field = std::shared_ptr<KQZipExtraField>;                        ///< An element.
  using value_type = Field;                                              ///< An element.
  using const_iterator = const Field*;                                   ///< Goes from front to back.
  using const_reverse_iterator = std::reverse_iterator<const_iterator>;  ///< Goes from back to front.

  KQZipExtraFieldList() = default;                                      ///< Without fields.
  KQZipExtraFieldList(const KQZipExtraFieldList&) = delete;             ///< The fields belong to one header.
  KQZipExtraFieldList& operator=(const KQZipExtraFieldList&) = delete;  ///< The fields belong to one header.

  /// Appends a field.
  void push_back(Field field) {
    if (!many_ && !only_ && field) {
      only_ = std::move(field);
      return;
    }
    if (!many_) {
      many_ = std::make_unique<std::vector<Field>>();
      if (only_) many_->push_back(std::move(only_));
    }
    many_->push_back(std::move(field));
  }

  /// Replaces all fields.
  void assign(std::vector<Field> fields) {
    only_.reset();
    many_.reset();
    for (Field& field : fields) push_back(std::move(field));
  }

  /// Exchanges the fields of two lists.
  void swap(KQZipExtraFieldList& other) noexcept {
    only_.swap(other.only_);
    many_.swap(other.many_);
  }

  std::size_t size() const { return many_ ? many_->size() : only_ ? 1 : 0; }  ///< Number of fields.
  bool empty() const { return size() == 0; }                                  ///< Whether there is none.

  const_iterator begin() const { return many_ ? many_->data() : &only_; }          ///< The first.
  const_iterator end() const { return begin() + size(); }                          ///< Behind the last.
  const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }  ///< The last.
  const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }  ///< In front of the first.

  const Field& operator[](std::size_t index) const { return begin()[index]; }  ///< `index` is below size().
  const Field& front() const { return *begin(); }                              ///< There is a field.
  const Field& back() const { return *rbegin(); }                              ///< There is a field.

  /// The same fields in a vector, as KQZipFileEntry::setExtraFields() takes them.
  operator std::vector<Field>() const { return {begin(), end()}; }  // NOLINT(google-explicit-constructor)

  /// Whether the lists hold the same objects in the same order.
  friend bool operator==(const std::vector<Field>& left, const KQZipExtraFieldList& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
  }

 private:
  Field only_;
  std::unique_ptr<std::vector<Field>> many_;
};
