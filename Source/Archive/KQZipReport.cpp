#include "KQZipReport.h"

#include "../Internal/KQZipReportState.h"

// What a report shows that no job has filled, or that was moved away.
static const KQZipReportState& emptyState() {
  static const KQZipReportState state;
  return state;
}

KQZipReport::KQZipReport() = default;
KQZipReport::~KQZipReport() = default;
KQZipReport::KQZipReport(KQZipReport&& other) noexcept = default;
KQZipReport& KQZipReport::operator=(KQZipReport&& other) noexcept = default;

const std::vector<KQZipProblem>& KQZipReport::problems() const {
  return (state_ ? *state_ : emptyState()).problems;
}

const std::vector<KQZipProblem>& KQZipReport::remarks() const {
  return (state_ ? *state_ : emptyState()).remarks;
}

std::uint64_t KQZipReport::entries() const { return (state_ ? *state_ : emptyState()).entries; }

std::uint64_t KQZipReport::entriesWithProblems() const {
  return (state_ ? *state_ : emptyState()).entriesWithProblems;
}

std::uint64_t KQZipReport::bytes() const { return (state_ ? *state_ : emptyState()).bytes; }
